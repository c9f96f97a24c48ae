#include "ingest/collectors/MappedReading.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace QOR {
namespace {

constinit thread_local MappedReading* innermost = nullptr;

// Set before the handler is in place.
struct sigaction handlerBefore {};
std::uintptr_t pageBytes = 0;

bool putZeros(void* address) noexcept {
    void* const page = static_cast<char*>(address) - (reinterpret_cast<std::uintptr_t>(address) & (pageBytes - 1));
    return ::mmap(page, pageBytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED;
}

void passOn(int number, siginfo_t* info, void* context) {
    if ((handlerBefore.sa_flags & SA_SIGINFO) != 0) return handlerBefore.sa_sigaction(number, info, context);
    if (handlerBefore.sa_handler != SIG_DFL && handlerBefore.sa_handler != SIG_IGN)
        return handlerBefore.sa_handler(number);
    const bool isSent = info->si_code <= 0;
    if (isSent && handlerBefore.sa_handler == SIG_IGN) return;
    // What faulted is run again on return, and ends as if nobody had looked; what was sent is sent again.
    ::sigaction(number, &handlerBefore, nullptr);
    if (isSent) ::raise(number);
}

}  // namespace

MappedReading::MappedReading() : m_outer(innermost) {
    static const bool isHandled = handleSignal();
    static_cast<void>(isHandled);
    innermost = this;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

MappedReading::~MappedReading() {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    innermost = m_outer;
}

bool MappedReading::handleSignal() {
    pageBytes = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    struct sigaction action {};
    action.sa_sigaction = takeSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ::sigemptyset(&action.sa_mask);
    if (::sigaction(SIGBUS, nullptr, &handlerBefore) != 0 || ::sigaction(SIGBUS, &action, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "no handler for reading mapped files");
    return true;
}

void MappedReading::takeSignal(int number, siginfo_t* info, void* context) {
    const int errorBefore = errno;
    if (innermost != nullptr && info->si_code == BUS_ADRERR && putZeros(info->si_addr)) {
        innermost->m_failed = 1;
    } else {
        passOn(number, info, context);
    }
    errno = errorBefore;
}

}  // namespace QOR
