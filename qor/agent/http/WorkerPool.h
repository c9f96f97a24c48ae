/// \file
/// Threads that run what is posted to them.
#pragma once

#include <semaphore.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace QOR {

/// Asks the system to let the calling thread run soon when it wakes up, at the price of being interrupted soon. For
/// threads whose work is short and waited for; where the system knows no such wish, nothing happens.
void preferShortWaits() noexcept;

/// Threads up to a number, each made when there is a task and none to take it. Tasks begin in the order in which they
/// were posted. Thread-safe, but for join().
///
/// A thread is roused for each task, and who has rested for the shortest time, and still has its memory in the caches,
/// is roused first. On a single processor they are roused one after the other: who was roused takes a task and rouses
/// the next while there are more, so that short tasks are run by few threads and those that take long by as many as
/// there are.
///
/// While a task is short its thread has preferShortWaits(); one that takes long gives way to others until its end, as
/// far as the system lets it come back from there, so that long tasks do not hold up short ones when there are more
/// threads than processors.
class WorkerPool {
public:
    using Task = std::function<void()>;

    /// \param threads at most; one of them is there from the beginning
    explicit WorkerPool(std::size_t threads);
    /// As join().
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// \param task must not throw
    void post(Task task);
    /// Looks for tasks that have taken long by now. To be called from time to time while tasks run.
    void attendToLongTasks() noexcept;
    /// \param threads that there may be from now on; those beyond a smaller number stay, and have less to do
    void allow(std::size_t threads);
    /// Runs what has been posted to its end, then ends the threads.
    void join();

private:
    using Clock = std::chrono::steady_clock;

    /// What a thread waits for that rests.
    class Call {
    public:
        Call();
        ~Call();
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;
        void give() noexcept;
        void await() noexcept;

    private:
        sem_t m_semaphore;
    };

    /// What a thread is doing. The mutex is held for moments only.
    struct Worker {
        Call call;
        std::mutex mutex;
        int thread = 0;  ///< the system's number
        bool isBusy = false;
        bool isLong = false;
        Clock::time_point since{};
    };

    void addThread();
    Worker* next();
    void work(Worker& worker);
    bool take(Worker& worker, Task& task);
    static void begin(Worker& worker) noexcept;
    static void end(Worker& worker) noexcept;

    const std::size_t m_atOnce;  ///< threads that may be on their way to tasks
    std::mutex m_mutex;
    std::size_t m_most;                 // guarded by m_mutex
    std::deque<Task> m_tasks;           // guarded by m_mutex
    bool m_ending = false;              // guarded by m_mutex
    std::size_t m_coming = 0;           // guarded by m_mutex; threads that were roused or made and have not come yet
    std::vector<Worker*> m_resting;     // guarded by m_mutex; who began last stands last
    std::deque<Worker> m_workers;       // guarded by m_mutex
    std::deque<std::thread> m_threads;  // guarded by m_mutex
};

}  // namespace QOR
