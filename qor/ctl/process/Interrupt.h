/// \file
/// Ctrl-C for commands that work in batches: the first asks them to stop, the second ends the process as usual.
#pragma once

#include <csignal>
#include <string>

namespace QOR {

/// While one exists, SIGINT and SIGTERM are taken as the wish to stop. At most one in a process.
class Interrupt {
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    bool isRequested() const noexcept;
    /// Becomes, and stays, readable with the request.
    int descriptor() const noexcept;

private:
    struct sigaction m_before[2];
};

/// From here on Ctrl-C ends the process at once with CtlExit::Interrupted. What it asked ends too: an agent sees that
/// nobody waits any more.
/// \param note a line that is told then; empty: none
void endOnInterrupt(const std::string& note = {});

}  // namespace QOR
