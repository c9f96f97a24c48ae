#include "rdbmspp/engine/BlockedThread.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace QOR {
namespace {

/// Closes a descriptor at the end of a scope.
class Descriptor {
public:
    explicit Descriptor(int number) noexcept : m_number(number) {}
    ~Descriptor() {
        if (m_number >= 0) ::close(m_number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const noexcept { return m_number; }

private:
    int m_number;
};

/// The call of the system's in which a thread waits: its number, its arguments and where it came from, in the system's
/// words. Of a thread that waits nowhere it is one word.
std::string waitOf(pid_t thread) {
    std::array<char, 64> path{};
    std::snprintf(path.data(), path.size(), "/proc/self/task/%d/syscall", static_cast<int>(thread));
    const Descriptor file(::open(path.data(), O_RDONLY | O_CLOEXEC));
    std::array<char, 256> text{};
    const ssize_t size = file.get() < 0 ? -1 : ::read(file.get(), text.data(), text.size());
    return size <= 0 ? std::string() : std::string(text.data(), static_cast<std::size_t>(size));
}

struct Wait {
    long call = -1;
    std::array<std::uint64_t, 2> arguments{};
};

Wait parse(const std::string& text) {
    Wait wait;
    char* rest = nullptr;
    wait.call = std::strtol(text.c_str(), &rest, 10);
    if (rest == text.c_str()) return {};
    for (std::uint64_t& argument : wait.arguments)
        argument = std::strtoull(rest, &rest, 16);
    return wait;
}

bool isPoll(long call) {
#ifdef SYS_poll  // newer machines have the other one alone
    if (call == SYS_poll) return true;
#endif
    return call == SYS_ppoll;
}

bool isTransfer(long call) {
    return call == SYS_read || call == SYS_write || call == SYS_recvfrom || call == SYS_sendto || call == SYS_recvmsg ||
           call == SYS_sendmsg;
}

/// The descriptor that a thread polls, of which there has to be one. Memory that another thread uses is read as the
/// system reads it.
int polled(std::uint64_t address) {
    const Descriptor memory(::open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
    pollfd entry{};
    if (memory.get() < 0) return -1;
    const ssize_t size = ::pread(memory.get(), &entry, sizeof entry, static_cast<off_t>(address));
    return size == sizeof entry ? entry.fd : -1;
}

int descriptorOf(const Wait& wait) {
    if (isTransfer(wait.call)) return static_cast<int>(wait.arguments[0]);
    return isPoll(wait.call) && wait.arguments[1] == 1 ? polled(wait.arguments[0]) : -1;
}

bool isConnectedSocket(int descriptor) {
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    return ::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
}

}  // namespace

BlockedThread BlockedThread::current() noexcept {
    static thread_local const pid_t id = ::gettid();
    return BlockedThread(id);
}

// By the time that a descriptor is used the thread may have gone on, and its number may be another one's. So the
// connection is held by a descriptor of our own first, and then it is made sure that the thread still waits for it.
bool BlockedThread::disconnect() const noexcept {
    try {
        const std::string before = waitOf(m_id);
        const int waitedFor = descriptorOf(parse(before));
        if (waitedFor < 0) return false;
        const Descriptor held(::fcntl(waitedFor, F_DUPFD_CLOEXEC, 0));
        if (held.get() < 0 || !isConnectedSocket(held.get()) || waitOf(m_id) != before) return false;
        return ::shutdown(held.get(), SHUT_RDWR) == 0;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace QOR
