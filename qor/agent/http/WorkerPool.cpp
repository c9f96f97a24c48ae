#include "agent/http/WorkerPool.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <limits>
#include <utility>

namespace QOR {
namespace {

/// What the system takes and gives, in its first form. Its own header cannot stand beside the C library's.
struct SchedulingAttributes {
    std::uint32_t size;
    std::uint32_t policy;
    std::uint64_t flags;
    std::int32_t nice;
    std::uint32_t priority;
    std::uint64_t runtime;
    std::uint64_t deadline;
    std::uint64_t period;
};

/// Nanoseconds that a thread asks to run for at a time. The system lets one that asks for less go before one that runs
/// and has asked for more.
constexpr std::uint64_t shortSlice = 100'000;
constexpr std::uint64_t longSlice = 10'000'000;
/// Steps of the system's priority, each about a tenth of the processor.
constexpr int wayGiven = 10;
/// From when on a task is a long one.
constexpr auto longTask = std::chrono::milliseconds(20);

/// A wish alone: systems that know nothing of it, or forbid it, are as good as before.
void askForSlice(int thread, std::uint64_t nanoseconds) noexcept {
    SchedulingAttributes attributes{};
    if (::syscall(SYS_sched_getattr, thread, &attributes, sizeof attributes, 0) != 0) return;
    attributes.runtime = nanoseconds;
    ::syscall(SYS_sched_setattr, thread, &attributes, 0);
}

/// Whether a thread of this process that has given way can be taken back. Tried once, on a thread that ends then: one
/// that could not come back would give way for ever.
bool mayGiveWay() {
    static const bool may = [] {
        bool came = false;
        std::thread([&came] {
            const int self = static_cast<int>(::gettid());
            const int before = ::getpriority(PRIO_PROCESS, static_cast<id_t>(self));
            came = ::setpriority(PRIO_PROCESS, static_cast<id_t>(self), before + 1) == 0 &&
                   ::setpriority(PRIO_PROCESS, static_cast<id_t>(self), before) == 0;
        }).join();
        return came;
    }();
    return may;
}

/// Whether this process may run on no more than one.
bool hasOneProcessor() noexcept {
    cpu_set_t set{};
    return ::sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) == 1;
}

/// Lets other threads have most of the processor while they want it.
void giveWay(int thread, bool gives) noexcept {
    static const int before = ::getpriority(PRIO_PROCESS, 0);
    askForSlice(thread, gives ? longSlice : shortSlice);
    if (mayGiveWay())
        static_cast<void>(::setpriority(PRIO_PROCESS, static_cast<id_t>(thread), before + (gives ? wayGiven : 0)));
}

}  // namespace

void preferShortWaits() noexcept {
    askForSlice(0, shortSlice);
}

WorkerPool::WorkerPool(std::size_t threads)
    : m_atOnce(hasOneProcessor() ? 1 : std::numeric_limits<std::size_t>::max()), m_most(threads) {
    mayGiveWay();
    const std::lock_guard lock(m_mutex);
    addThread();
}

WorkerPool::Call::Call() {
    ::sem_init(&m_semaphore, 0, 0);
}

WorkerPool::Call::~Call() {
    ::sem_destroy(&m_semaphore);
}

void WorkerPool::Call::give() noexcept {
    ::sem_post(&m_semaphore);
}

void WorkerPool::Call::await() noexcept {
    while (::sem_wait(&m_semaphore) != 0 && errno == EINTR) {
    }
}

/// With m_mutex held. Who is made comes as who is roused does.
void WorkerPool::addThread() {
    Worker& worker = m_workers.emplace_back();
    m_resting.reserve(m_workers.size());
    m_threads.emplace_back([this, &worker] { work(worker); });
    ++m_coming;
}

/// Whom to rouse for the tasks that there are; null: nobody, or who has just been made. With m_mutex held.
WorkerPool::Worker* WorkerPool::next() {
    if (m_coming >= std::min(m_atOnce, m_tasks.size())) return nullptr;
    if (!m_resting.empty()) {
        Worker* const worker = m_resting.back();
        m_resting.pop_back();
        ++m_coming;
        return worker;
    }
    if (m_threads.size() >= m_most) return nullptr;
    try {
        addThread();
    } catch (const std::exception&) {
        // The system gives no more threads; those that there are take the task.
        if (m_workers.size() > m_threads.size()) m_workers.pop_back();
    }
    return nullptr;
}

WorkerPool::~WorkerPool() {
    join();
}

void WorkerPool::post(Task task) {
    Worker* roused = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        m_tasks.push_back(std::move(task));
        roused = next();
    }
    if (roused != nullptr) roused->call.give();
}

void WorkerPool::allow(std::size_t threads) {
    Worker* roused = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        m_most = threads;
        roused = next();
    }
    if (roused != nullptr) roused->call.give();
}

void WorkerPool::join() {
    std::vector<Worker*> resting;
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
        resting.swap(m_resting);
        m_coming += resting.size();
    }
    for (Worker* worker : resting)
        worker->call.give();
    // Those that run may make others for what is left.
    for (std::size_t number = 0;; ++number) {
        std::unique_lock lock(m_mutex);
        if (number == m_threads.size()) return;
        std::thread& thread = m_threads[number];
        lock.unlock();
        if (thread.joinable()) thread.join();
    }
}

void WorkerPool::attendToLongTasks() noexcept {
    const Clock::time_point now = Clock::now();
    const std::lock_guard all(m_mutex);
    for (Worker& worker : m_workers) {
        const std::lock_guard lock(worker.mutex);
        if (!worker.isBusy || worker.isLong || now - worker.since < longTask) continue;
        worker.isLong = true;
        giveWay(worker.thread, true);
    }
}

void WorkerPool::begin(Worker& worker) noexcept {
    const std::lock_guard lock(worker.mutex);
    worker.isBusy = true;
    worker.since = Clock::now();
}

void WorkerPool::end(Worker& worker) noexcept {
    const std::lock_guard lock(worker.mutex);
    worker.isBusy = false;
    if (std::exchange(worker.isLong, false)) giveWay(worker.thread, false);
}

/// The next task, when there is one. \returns false at the end
bool WorkerPool::take(Worker& worker, Task& task) {
    std::unique_lock lock(m_mutex);
    while (m_tasks.empty()) {
        if (m_ending) return false;
        m_resting.push_back(&worker);
        lock.unlock();
        worker.call.await();
        lock.lock();
        --m_coming;
    }
    task = std::move(m_tasks.front());
    m_tasks.pop_front();
    Worker* const roused = next();
    lock.unlock();
    if (roused != nullptr) roused->call.give();
    return true;
}

void WorkerPool::work(Worker& worker) {
    worker.thread = static_cast<int>(::gettid());
    preferShortWaits();
    {
        const std::lock_guard lock(m_mutex);
        --m_coming;
    }
    for (Task task; take(worker, task); task = nullptr) {
        begin(worker);
        task();
        end(worker);
    }
}

}  // namespace QOR
