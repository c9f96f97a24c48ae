/// \file
/// Internal: wakes a thread that waits at a socket for somebody who does not answer any more.
#pragma once

#include <sys/types.h>

namespace QOR {

/// A thread of this process. What libraries wait for inside of a call, nobody outside knows, and a server whose process
/// hangs keeps them waiting: its machine goes on confirming what it receives. The system knows where a thread waits.
class BlockedThread {
public:
    /// The calling thread.
    static BlockedThread current() noexcept;

    /// Ends the connection at whose socket the thread waits now, for both sides, so that its call fails. Where it waits
    /// elsewhere, or not at all, nothing is done; nor where the system does not tell. Called by another thread, while
    /// this one lives. \returns whether a connection was ended
    bool disconnect() const noexcept;

private:
    explicit BlockedThread(pid_t id) noexcept : m_id(id) {}
    pid_t m_id;
};

}  // namespace QOR
