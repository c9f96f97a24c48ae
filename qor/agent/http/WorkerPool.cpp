#include "agent/http/WorkerPool.h"

#include <utility>

namespace QOR {

WorkerPool::WorkerPool(std::size_t threads) {
    m_threads.reserve(threads);
    for (std::size_t number = 0; number < threads; ++number)
        m_threads.emplace_back([this] { work(); });
}

WorkerPool::~WorkerPool() {
    join();
}

void WorkerPool::post(Task task) {
    {
        const std::lock_guard lock(m_mutex);
        m_tasks.push_back(std::move(task));
    }
    m_changed.notify_one();
}

void WorkerPool::join() {
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
    }
    m_changed.notify_all();
    for (std::thread& thread : m_threads)
        if (thread.joinable()) thread.join();
}

void WorkerPool::work() {
    for (;;) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return !m_tasks.empty() || m_ending; });
        if (m_tasks.empty()) return;
        const Task task = std::move(m_tasks.front());
        m_tasks.pop_front();
        lock.unlock();
        task();
    }
}

}  // namespace QOR
