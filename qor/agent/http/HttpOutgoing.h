/// \file
/// What lies between the worker that makes a reply and the thread that sends it.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <utility>

namespace QOR {

/// A bounded queue of pieces. The worker waits while it is full; who sends never waits. Thread-safe.
class HttpOutgoing {
public:
    /// For a new reply. A queue that was closed stays so.
    void open() {
        const std::lock_guard lock(m_mutex);
        m_pieces.clear();
    }
    /// Nobody takes pieces any more; wakes who waits.
    void close() {
        const std::lock_guard lock(m_mutex);
        m_closed = true;
        m_pieces.clear();
        m_room.notify_all();
    }
    bool isClosed() const {
        const std::lock_guard lock(m_mutex);
        return m_closed;
    }
    /// Waits for room. \returns false when the queue is closed
    bool push(std::string piece) {
        std::unique_lock lock(m_mutex);
        m_room.wait(lock, [this] { return m_closed || m_pieces.size() < mostPieces; });
        if (m_closed) return false;
        m_pieces.push_back(std::move(piece));
        return true;
    }
    /// \returns false when there is none
    bool pop(std::string& piece) {
        const std::lock_guard lock(m_mutex);
        if (m_pieces.empty()) return false;
        piece = std::move(m_pieces.front());
        m_pieces.pop_front();
        m_room.notify_one();
        return true;
    }

private:
    /// One is sent while the next is made, and one more evens out their paces.
    static constexpr std::size_t mostPieces = 2;

    mutable std::mutex m_mutex;
    std::condition_variable m_room;
    std::deque<std::string> m_pieces;  // guarded by m_mutex
    bool m_closed = false;             // guarded by m_mutex
};

}  // namespace QOR
