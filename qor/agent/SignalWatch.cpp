#include "agent/SignalWatch.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"

namespace QOR {
namespace {

/// Come from what a thread has just done, so that only it can answer them; by default they end the program, and do.
constexpr int faults[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP};
constexpr int ignored[] = {SIGPIPE, SIGXFSZ, SIGTSTP, SIGTTIN, SIGTTOU};
/// Do nothing by default.
constexpr int harmless[] = {SIGCHLD, SIGCONT, SIGURG, SIGWINCH};

sigset_t watched() {
    sigset_t signals;
    ::sigfillset(&signals);
    for (const int number : faults)
        ::sigdelset(&signals, number);
    for (const int number : ignored)
        ::sigdelset(&signals, number);
    for (const int number : harmless)
        ::sigdelset(&signals, number);
    return signals;
}

int need(int descriptor) {
    if (descriptor < 0) throw QORException(errFailure, std::string("cannot watch signals: ") + std::strerror(errno));
    return descriptor;
}

int signalDescriptor() {
    const sigset_t signals = watched();
    return need(::signalfd(-1, &signals, SFD_CLOEXEC));
}

}  // namespace

void SignalWatch::block() {
    for (const int number : ignored)
        ::signal(number, SIG_IGN);
    const sigset_t signals = watched();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

SignalWatch::SignalWatch(Reactions reactions)
    : m_reactions(std::move(reactions)),
      m_signals(signalDescriptor()),
      m_end(need(::eventfd(0, EFD_CLOEXEC))),
      m_thread([this] { watch(); }) {}

SignalWatch::~SignalWatch() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_end, &one, sizeof one);
    m_thread.join();
    ::close(m_signals);
    ::close(m_end);
}

void SignalWatch::watch() {
    for (;;) {
        pollfd waiting[] = {{m_signals, POLLIN, 0}, {m_end, POLLIN, 0}};
        if (::poll(waiting, 2, -1) < 0 && errno != EINTR) return;
        if (waiting[1].revents != 0) return;
        signalfd_siginfo info{};
        if (waiting[0].revents != 0 && ::read(m_signals, &info, sizeof info) == sizeof info)
            react(static_cast<int>(info.ssi_signo));
    }
}

void SignalWatch::react(int number) const {
    switch (number) {
        case SIGTERM:
        case SIGINT:
        case SIGQUIT:
            m_reactions.stop();
            break;
        case SIGHUP:
            m_reactions.readAnew();
            break;
        default:
            logMessage(1, "QORAgent", QOR_SOURCE_PATH, __func__, "signal %d (%s) means nothing to the agent", number,
                       ::strsignal(number));
    }
}

}  // namespace QOR
