/// \file
/// Threads that run what is posted to them.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace QOR {

/// A fixed number of threads. Tasks begin in the order in which they were posted. Thread-safe, but for join().
class WorkerPool {
public:
    using Task = std::function<void()>;

    explicit WorkerPool(std::size_t threads);
    /// As join().
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// \param task must not throw
    void post(Task task);
    /// Runs what has been posted to its end, then ends the threads.
    void join();

private:
    void work();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Task> m_tasks;  // guarded by m_mutex
    bool m_ending = false;     // guarded by m_mutex
    std::vector<std::thread> m_threads;
};

}  // namespace QOR
