/// \file
/// Internal: writers of one database take turns, in the order in which they came.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace QOR {

/// The engine lets one transaction write at a time, and those that wait for it by trying again and again are served by
/// luck. Here they wait in a queue, without a connection, until it is their turn. Thread-safe.
class ASWriterQueue {
public:
    /// A turn, from take() to the end of the object, which may be on another thread.
    class Turn {
    public:
        Turn() = default;
        explicit Turn(ASWriterQueue* queue) noexcept : m_queue(queue) {}
        ~Turn() { end(); }
        Turn(Turn&& other) noexcept;
        Turn& operator=(Turn&& other) noexcept;

    private:
        void end() noexcept;
        ASWriterQueue* m_queue = nullptr;
    };

    /// Waits until everybody who came before is done. A thread that serves a request waits as long as the request may
    /// go on; another one gives up when nobody's turn has ended for as long as `patience`.
    /// \throws QORException errDeadline when the request ends \throws AException 5 (locked) \param database its name
    Turn take(std::chrono::milliseconds patience, const std::string& database);

    /// How many wait now.
    std::size_t waiting() const;

private:
    struct Waiter {
        std::condition_variable ready;
        bool granted = false;
    };

    bool await(std::unique_lock<std::mutex>& lock, Waiter& waiter, std::chrono::milliseconds patience);
    void pass() noexcept;

    mutable std::mutex m_mutex;
    std::deque<Waiter*> m_waiters;  // guarded by m_mutex
    bool m_taken = false;           // guarded by m_mutex
    std::thread::id m_holder;       // guarded by m_mutex; who took the turn that lasts
    std::uint64_t m_turns = 0;      // guarded by m_mutex; how many have ended
};

}  // namespace QOR
