#include "process/Interrupt.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace QOR {
namespace {

// What a signal handler may touch.
std::atomic<bool> requested{false};
std::atomic<int> event{-1};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

extern "C" void requestStop(int) {
    requested = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(event, &one, sizeof one);
}

void handle(int number, void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(number, &action, nullptr);
}

}  // namespace

Interrupt::Interrupt() {
    requested = false;
    event = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    // Reads and writes on the agent's socket go on; waiting for input ends through the descriptor.
    for (const int number : {SIGINT, SIGTERM})
        handle(number, requestStop, static_cast<int>(SA_RESTART | SA_RESETHAND));
}

Interrupt::~Interrupt() {
    for (const int number : {SIGINT, SIGTERM})
        handle(number, SIG_DFL, 0);
    ::close(event.exchange(-1));
}

bool Interrupt::isRequested() const noexcept {
    return requested;
}

int Interrupt::descriptor() const noexcept {
    return event;
}

}  // namespace QOR
