#include "agent/http/WorkerPool.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <latch>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace QOR {
namespace {

int priority(int thread) {
    return ::getpriority(PRIO_PROCESS, static_cast<id_t>(thread));
}

TEST(WorkerPool, TasksBeginInTheirOrderAndAllAreRun) {
    std::vector<int> ran;
    {
        WorkerPool pool(1);
        for (int number = 0; number < 100; ++number)
            pool.post([&ran, number] { ran.push_back(number); });
    }
    ASSERT_EQ(ran.size(), 100U);
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

TEST(WorkerPool, ThereAreAsManyThreadsAsTasksThatRunAndNoMoreThanMayBe) {
    constexpr int most = 4;
    WorkerPool pool(most);
    std::promise<void> gate;
    const std::shared_future<void> open = gate.get_future().share();
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
    std::set<int> threads;
    for (int number = 0; number < 2 * most; ++number) {
        pool.post([&] {
            {
                const std::lock_guard lock(mutex);
                ++running;
                threads.insert(static_cast<int>(::gettid()));
            }
            changed.notify_all();
            open.wait();
        });
    }
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return running == most; });
    }
    gate.set_value();
    pool.join();
    EXPECT_EQ(running, 2 * most);
    EXPECT_EQ(threads.size(), static_cast<std::size_t>(most));
}

TEST(WorkerPool, WhatSeveralThreadsPostIsRunAlsoWhereATaskPosts) {
    constexpr int posters = 4;
    constexpr int tasks = 200;
    std::atomic<int> ran{0};
    {
        std::promise<void> all;
        WorkerPool pool(3);
        std::vector<std::thread> threads;
        threads.reserve(posters);
        for (int poster = 0; poster < posters; ++poster) {
            threads.emplace_back([&] {
                for (int number = 0; number < tasks; ++number) {
                    pool.post([&] {
                        pool.post([&] {
                            if (++ran == posters * tasks) all.set_value();
                        });
                    });
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        all.get_future().wait();
    }
    EXPECT_EQ(ran, posters * tasks);
}

TEST(WorkerPool, ATaskBehindOneThatWaitsForItIsRun) {
    std::promise<void> second;
    std::promise<void> first;
    WorkerPool pool(2);
    pool.post([&] {
        second.get_future().wait();
        first.set_value();
    });
    pool.post([&] { second.set_value(); });
    first.get_future().wait();
    pool.join();
}

/// This thread, and those that it makes meanwhile, run on one of their processors.
class OnOneProcessor {
public:
    OnOneProcessor() {
        CPU_ZERO(&m_before);
        EXPECT_EQ(::sched_getaffinity(0, sizeof m_before, &m_before), 0);
        std::size_t first = 0;
        while (first + 1 < CPU_SETSIZE && !CPU_ISSET(first, &m_before))
            ++first;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(first, &one);
        EXPECT_EQ(::sched_setaffinity(0, sizeof one, &one), 0);
    }
    ~OnOneProcessor() { ::sched_setaffinity(0, sizeof m_before, &m_before); }
    OnOneProcessor(const OnOneProcessor&) = delete;
    OnOneProcessor& operator=(const OnOneProcessor&) = delete;

private:
    cpu_set_t m_before{};
};

TEST(WorkerPool, OnASingleProcessorTasksThatWaitForEachOtherAreRunTogether) {
    const OnOneProcessor scope;
    constexpr int most = 4;
    std::latch together(most);
    std::atomic<int> ran{0};
    WorkerPool pool(most);
    for (int number = 0; number < most; ++number) {
        pool.post([&] {
            together.arrive_and_wait();
            ++ran;
        });
    }
    pool.join();
    EXPECT_EQ(ran, most);
}

/// Tried by a thread of its own. Root may, unless it is that of a container.
bool mayRaisePriorities() {
    bool may = false;
    std::thread([&may] {
        const auto thread = static_cast<id_t>(::gettid());
        const int before = priority(::gettid());
        may = ::setpriority(PRIO_PROCESS, thread, before + 1) == 0 && ::setpriority(PRIO_PROCESS, thread, before) == 0;
    }).join();
    return may;
}

TEST(WorkerPool, ALongTaskGivesWayAndItsThreadComesBack) {
    if (!mayRaisePriorities()) GTEST_SKIP() << "this user may not raise priorities";
    const int before = priority(0);
    if (before > 9) GTEST_SKIP() << "it has given way already";
    WorkerPool pool(1);
    std::promise<int> started;
    std::atomic<bool> end{false};
    pool.post([&] {
        started.set_value(static_cast<int>(::gettid()));
        while (!end)
            ::usleep(1000);
    });
    const int thread = started.get_future().get();
    EXPECT_EQ(priority(thread), before);
    while (priority(thread) == before) {
        pool.attendToLongTasks();
        ::usleep(1000);
    }
    EXPECT_GT(priority(thread), before);
    end = true;
    std::promise<int> later;
    pool.post([&] { later.set_value(priority(0)); });
    EXPECT_EQ(later.get_future().get(), before);
}

}  // namespace
}  // namespace QOR
