#include "agent/MemoryKeeper.h"

#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <stop_token>

namespace QOR {
namespace {

constexpr auto lookInterval = std::chrono::seconds(2);
/// Growth since the start that is worth the giving back, which holds up allocations for some milliseconds.
constexpr std::size_t worthwhile = std::size_t{8} << 20;
/// Work that may have left something to give back: one large buffer is freed in next to no time.
constexpr auto someWork = std::chrono::microseconds(50);
/// Buffers from this size on are the system's again as soon as they are freed. Left to itself, the C library raises the
/// bound with what it sees freed, up to buffers of 32 MiB and 64 MiB kept at the end of the heap.
constexpr int largeBuffer = 1 << 20;
constexpr int keptAtEnd = 8 << 20;

std::chrono::nanoseconds read(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

/// Processor time of all other threads.
std::chrono::nanoseconds workOfOthers() {
    return read(CLOCK_PROCESS_CPUTIME_ID) - read(CLOCK_THREAD_CPUTIME_ID);
}

void watch(const std::stop_token& stop) {
    std::mutex mutex;
    std::condition_variable_any waiting;
    const std::size_t small = MemoryKeeper::residentBytes() + worthwhile;
    std::chrono::nanoseconds worked{};
    std::unique_lock lock(mutex);
    while (!waiting.wait_for(lock, stop, lookInterval, [&stop] { return stop.stop_requested(); })) {
        // What was freed stays resident, so that nothing shows when it was: whoever works may have freed something.
        const auto now = workOfOthers();
        if (now - worked < someWork || MemoryKeeper::residentBytes() < small) continue;
        worked = now;
        ::malloc_trim(0);
    }
}

}  // namespace

MemoryKeeper::MemoryKeeper() {
    ::mallopt(M_MMAP_THRESHOLD, largeBuffer);
    ::mallopt(M_TRIM_THRESHOLD, keptAtEnd);
    m_thread = std::jthread(watch);
}

MemoryKeeper::~MemoryKeeper() = default;

std::size_t MemoryKeeper::residentBytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t pages = 0;
    if (!(file >> pages >> pages)) return 0;
    return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace QOR
