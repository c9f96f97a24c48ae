/// \file
/// Internal: ends statements of engines that ask nobody whether to go on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "rdbmspp/engine/BlockedThread.h"

namespace QOR {

class QORRequestControl;

/// Looks at the requests whose statements run, and has a statement cancelled, again and again, from when its request
/// has ended until it has returned. Where the server does not even answer to that for a while, the connection that the
/// statement waits at is ended. One a process, whose threads begin with the first statement; thread-safe.
class StatementWatch {
public:
    using Clock = std::chrono::steady_clock;

    static StatementWatch& instance();
    ~StatementWatch();

    /// A statement that runs for a request, from the beginning to the end of the object, on the thread that makes it.
    class Running {
    public:
        /// \param cancel called by a thread of the watch's, any number of times, never after the object has ended
        Running(std::shared_ptr<QORRequestControl> control, std::function<void()> cancel);
        ~Running();
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

        /// Whether the statement's connection was ended.
        bool isDisconnected() const;

    private:
        friend class StatementWatch;
        struct Entry;
        std::list<std::shared_ptr<Entry>>::iterator m_place;
    };

private:
    StatementWatch() = default;
    void start();
    void cancelEnded(const std::stop_token& stop);
    void cancel(Running::Entry& entry);
    void disconnectHanging(const std::stop_token& stop);

    std::mutex m_mutex;
    std::condition_variable_any m_work;
    std::condition_variable_any m_pause;                   // nobody ends it but a stop
    std::list<std::shared_ptr<Running::Entry>> m_running;  // guarded by m_mutex
    std::optional<BlockedThread> m_cancelling;             // guarded by m_mutex; who waits for a cancel to be done
    Clock::time_point m_cancelBegan;                       // guarded by m_mutex
    std::jthread m_canceller;                              // guarded by m_mutex; begun once
    std::jthread m_disconnecter;                           // guarded by m_mutex; begun once
};

}  // namespace QOR
