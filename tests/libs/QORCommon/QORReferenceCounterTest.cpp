#include "QORCommon/QORReferenceCounter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

struct Counted : QOR::QORReferenceCounter {
    explicit Counted(std::atomic<int>& deaths) : m_deaths(deaths) {}
    ~Counted() override { ++m_deaths; }
    std::atomic<int>& m_deaths;
};

TEST(ReferenceCounter, TheLastPointerDeletesTheObject) {
    std::atomic<int> deaths{0};
    auto first = QOR::makeQORPtr<Counted>(deaths);
    auto second = first;
    first.reset();
    EXPECT_EQ(deaths, 0);
    second.reset();
    EXPECT_EQ(deaths, 1);
}

TEST(ReferenceCounter, ThreadsMayShareAnObject) {
    std::atomic<int> deaths{0};
    {
        const auto shared = QOR::makeQORPtr<Counted>(deaths);
        std::vector<std::thread> threads;
        threads.reserve(4);
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([shared] {
                for (int n = 0; n < 10000; ++n) {
                    QOR::QORPtr<Counted> copy;
                    copy = shared;
                }
            });
        }
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(deaths, 0);
    }
    EXPECT_EQ(deaths, 1);
}

}  // namespace
