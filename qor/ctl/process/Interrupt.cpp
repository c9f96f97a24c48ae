#include "process/Interrupt.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "process/CtlError.h"

namespace QOR {
namespace {

// What a signal handler may touch.
std::atomic<bool> requested{false};
std::atomic<int> event{-1};
std::array<char, 4096> note{};
std::atomic<std::size_t> noteSize{0};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free &&
              std::atomic<std::size_t>::is_always_lock_free);

extern "C" void end(int) {
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, note.data(), noteSize);
    ::_exit(static_cast<int>(CtlExit::Interrupted));
}

extern "C" void requestStop(int number) {
    if (requested && number == SIGINT) end(number);
    requested = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(event, &one, sizeof one);
}

void handle(int number, void (*handler)(int), int flags, struct sigaction* before) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(number, &action, before);
}

}  // namespace

Interrupt::Interrupt() {
    requested = false;
    event = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    // Reads and writes on the agent's socket go on; waiting for input ends through the descriptor.
    handle(SIGINT, requestStop, SA_RESTART, &m_before[0]);
    handle(SIGTERM, requestStop, static_cast<int>(SA_RESTART | SA_RESETHAND), &m_before[1]);
}

Interrupt::~Interrupt() {
    ::sigaction(SIGINT, &m_before[0], nullptr);
    ::sigaction(SIGTERM, &m_before[1], nullptr);
    ::close(event.exchange(-1));
}

void endOnInterrupt(const std::string& text) {
    noteSize = 0;
    const std::string line = text.empty() ? text : "\nqorctl: " + text + "\n";  // behind what progress is shown
    if (line.size() <= note.size()) noteSize = line.copy(note.data(), note.size());
    handle(SIGINT, end, 0, nullptr);
}

bool Interrupt::isRequested() const noexcept {
    return requested;
}

int Interrupt::descriptor() const noexcept {
    return event;
}

}  // namespace QOR
