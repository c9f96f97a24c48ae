/// \file
/// Internal: ends statements of engines that ask nobody whether to go on.
#pragma once

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

namespace QOR {

class QORRequestControl;

/// Looks at the requests whose statements run, and has a statement cancelled, again and again, from when its request
/// has ended until it has returned. One a process, whose thread begins with the first statement; thread-safe.
class StatementWatch {
public:
    static StatementWatch& instance();
    ~StatementWatch();

    /// A statement that runs for a request, from the beginning to the end of the object.
    class Running {
    public:
        /// \param cancel called by the watch's thread, any number of times, never after the object has ended
        Running(std::shared_ptr<QORRequestControl> control, std::function<void()> cancel);
        ~Running();
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

    private:
        friend class StatementWatch;
        struct Entry;
        std::list<std::shared_ptr<Entry>>::iterator m_place;
    };

private:
    StatementWatch() = default;
    void run(const std::stop_token& stop);

    std::mutex m_mutex;
    std::condition_variable_any m_work;
    std::list<std::shared_ptr<Running::Entry>> m_running;  // guarded by m_mutex
    std::jthread m_thread;                                 // guarded by m_mutex; begun once
};

}  // namespace QOR
