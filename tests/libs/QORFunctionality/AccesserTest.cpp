#include "QORFunctionality/QORAccesser.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "QORFunctionality/QOROpFactory.h"
#include "QORMessage/QORBinaryIterator.h"

namespace QOR {
namespace {

/// Holds every request at a gate and notes what happens.
class GatedOperator final : public QOROperatorPrototype {
public:
    int call(const std::string& requestName, QORMessageIterator*, QORMessageIterator*) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_inside;
        m_mostInside = std::max(m_mostInside, m_inside);
        order.push_back(requestName);
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_open; });
        --m_inside;
        return 0;
    }
    void stopCallback() override { ++stops; }
    void open() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void waitUntilInside() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_inside > 0; });
    }
    int mostInside() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_mostInside;
    }
    std::vector<std::string> order;
    std::atomic<int> stops{0};

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
    int m_inside = 0;
    int m_mostInside = 0;
};

int run(QORAccesserPrototype& accesser, const std::string& name) {
    QORMessage request;
    QORMessage response;
    QORBinaryIterator in = request.root();
    QORBinaryIterator out = response.root();
    return accesser.request(name, &in, &out);
}

void waitFor(const QORAccesserPoolPrototype& pool, int inUse, int waiting) {
    for (;;) {
        const auto counts = pool.counts();
        if (counts.inUse == inUse && counts.waiting == waiting) return;
        std::this_thread::yield();
    }
}

TEST(AccesserPool, MakesAccessorsInStepsAndKeepsTheIdleOnes) {
    const auto op = makeQORPtr<GatedOperator>();
    op->open();
    QORPtr<QORAccesserPoolPrototype> pool = makeQORPtr<QORAccesserPoolPrototype>(op, nullptr, 3, 8, 5);
    EXPECT_EQ(pool->counts().idle, 0);
    EXPECT_EQ(run(*pool, "a"), 0);
    EXPECT_EQ(pool->counts().idle, 3);  // of the five that were made, three are kept
    EXPECT_EQ(pool->counts().inUse, 0);
    EXPECT_EQ(op->stops, 1);
}

TEST(AccesserPool, ARequestThatFindsNoneFreeWaitsItsTurn) {
    const auto op = makeQORPtr<GatedOperator>();
    QORPtr<QORAccesserPoolPrototype> pool = makeQORPtr<QORAccesserPoolPrototype>(op, nullptr, 1, 1, 1);
    std::vector<std::thread> threads;
    threads.emplace_back([&] { run(*pool, "0"); });
    op->waitUntilInside();
    for (int index = 1; index <= 5; ++index) {
        threads.emplace_back([&, index] { run(*pool, std::to_string(index)); });
        waitFor(*pool, 1, index);
    }
    op->open();
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(op->order, (std::vector<std::string>{"0", "1", "2", "3", "4", "5"}));
    EXPECT_EQ(pool->counts().waiting, 0);
}

TEST(AccesserPool, CallsOfOneOperatorNeverOverlap) {
    const auto op = makeQORPtr<GatedOperator>();
    op->open();
    QORPtr<QORAccesserPoolPrototype> pool = makeQORPtr<QORAccesserPoolPrototype>(op, nullptr, 10, 20, 4);
    std::vector<std::thread> threads;
    for (int index = 0; index < 8; ++index) {
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round)
                run(*pool, "x");
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(op->mostInside(), 1);
    EXPECT_EQ(op->order.size(), 800U);
    EXPECT_EQ(op->stops, 800);
    EXPECT_LE(pool->counts().idle, 20);
}

}  // namespace
}  // namespace QOR
