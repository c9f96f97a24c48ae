/// \file
/// What signals mean to the agent.
#pragma once

#include <functional>
#include <thread>

namespace QOR {

/// Turns signals into calls on a thread of its own.
///
/// | signal                 |                                                                                   |
/// |------------------------|-----------------------------------------------------------------------------------|
/// | TERM, INT, QUIT        | stop                                                                              |
/// | HUP                    | read anew what may have changed: the log is another file, certificates are new    |
/// | PIPE, XFSZ             | nothing: the call that met the closed pipe or the full file has the error         |
/// | TSTP, TTIN, TTOU       | nothing: a stopped agent would answer nobody                                      |
/// | ABRT and those of      | what the system does with them: the program is broken, or somebody wants to see   |
/// | faults (SEGV, BUS ...) | where it is                                                                       |
/// | all others that end a  | a line in the log                                                                 |
/// | program by default     |                                                                                   |
class SignalWatch {
public:
    /// Must run before the first thread starts: threads inherit it, and one without would be killed.
    static void block();

    struct Reactions {
        std::function<void()> stop;
        std::function<void()> readAnew;
    };

    /// Signals that came since block() are answered now. Reactions are called one at a time, on the watch's thread.
    explicit SignalWatch(Reactions reactions);
    /// Waits for a reaction that runs.
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

private:
    void watch();
    void react(int number) const;

    const Reactions m_reactions;
    int m_signals;
    int m_end;
    std::thread m_thread;
};

}  // namespace QOR
