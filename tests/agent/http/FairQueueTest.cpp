#include "agent/http/FairQueue.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

namespace QOR {
namespace {

using Queue = FairQueue<std::string>;
using Time = Queue::Time;

constexpr Time never = Time::max();

/// Items that come in turn while there is room.
std::vector<std::string> takeAll(Queue& queue) {
    std::vector<std::string> items;
    while (const auto item = queue.next())
        items.push_back(*item);
    return items;
}

using Items = std::vector<std::string>;

TEST(FairQueue, KeysTakeTurnsAndKeepTheirOrder) {
    Queue queue({100, 100, 100, 100});
    for (const char* item : {"a1", "a2", "a3", "b1", "c1", "c2"})
        EXPECT_TRUE(queue.enter(std::string(item, 1), item, 1, never));
    EXPECT_EQ(takeAll(queue), (Items{"a1", "b1", "c1", "a2", "c2", "a3"}));
    EXPECT_EQ(queue.used(), 6U);
    EXPECT_EQ(queue.waiting(), 0U);
}

TEST(FairQueue, AKeyWithAllThatItMayHaveIsPassedOver) {
    Queue queue({4, 2, 100, 100});
    for (const char* item : {"a1", "a2", "a3", "a4", "b1"})
        queue.enter(std::string(item, 1), item, 1, never);
    EXPECT_EQ(takeAll(queue), (Items{"a1", "b1", "a2"}));
    queue.giveBack("b", 1);
    EXPECT_EQ(takeAll(queue), Items{}) << "there is room, but not for this key";
    queue.giveBack("a", 1);
    EXPECT_EQ(takeAll(queue), Items{"a3"});
}

TEST(FairQueue, WhoeverAsksForMuchIsNotOvertakenForEver) {
    Queue queue({10, 8, 100, 100});
    queue.enter("a", "a1", 8, never);
    EXPECT_EQ(takeAll(queue), Items{"a1"});
    queue.enter("b", "b1", 8, never);
    queue.enter("c", "c1", 1, never);
    EXPECT_EQ(takeAll(queue), Items{}) << "c1 would fit, but it is b1's turn";
    queue.giveBack("a", 8);
    EXPECT_EQ(takeAll(queue), (Items{"b1", "c1"}));
}

TEST(FairQueue, NoMoreWaitThanMay) {
    Queue queue({1, 1, 3, 2});
    EXPECT_TRUE(queue.enter("a", "a1", 1, never));
    EXPECT_TRUE(queue.enter("a", "a2", 1, never));
    EXPECT_FALSE(queue.enter("a", "a3", 1, never)) << "of this key";
    EXPECT_TRUE(queue.enter("b", "b1", 1, never));
    EXPECT_FALSE(queue.enter("c", "c1", 1, never)) << "in all";
    EXPECT_EQ(takeAll(queue), Items{"a1"});
    EXPECT_TRUE(queue.enter("c", "c1", 1, never)) << "what has its turn waits no more";
}

TEST(FairQueue, WhatHasWaitedTooLongComesOut) {
    Queue queue({1, 1, 100, 100});
    const Time now{};
    queue.enter("a", "a1", 1, now + std::chrono::seconds(1));
    queue.enter("a", "a2", 1, now + std::chrono::seconds(3));
    queue.enter("b", "b1", 1, now + std::chrono::seconds(2));
    EXPECT_EQ(queue.expire(now), Items{});
    EXPECT_EQ(queue.expire(now + std::chrono::seconds(2)), (Items{"a1", "b1"}));
    EXPECT_EQ(queue.waiting(), 1U);
    EXPECT_EQ(takeAll(queue), Items{"a2"});
}

TEST(FairQueue, WhatIsRemovedHasNoTurn) {
    Queue queue({100, 100, 100, 100});
    for (const char* item : {"a1", "a2", "b1"})
        queue.enter(std::string(item, 1), item, 1, never);
    EXPECT_TRUE(queue.remove("a", "a1"));
    EXPECT_TRUE(queue.remove("b", "b1"));
    EXPECT_FALSE(queue.remove("b", "b1"));
    EXPECT_FALSE(queue.remove("d", "d1"));
    EXPECT_EQ(takeAll(queue), Items{"a2"});
}

TEST(FairQueue, UnitsTakenAtOnceCountAsWell) {
    Queue queue({10, 6, 100, 100});
    EXPECT_TRUE(queue.takeNow("a", 6));
    EXPECT_FALSE(queue.takeNow("a", 1));
    EXPECT_FALSE(queue.takeNow("b", 5));
    EXPECT_TRUE(queue.takeNow("b", 4));
    queue.giveBack("a", 6);
    EXPECT_TRUE(queue.takeNow("b", 2));
    EXPECT_EQ(queue.used(), 6U);
}

/// However they come and go, no limit is crossed, nothing is lost, and nobody waits while there is room for him.
TEST(FairQueue, HoldsItsLimitsInAnyOrderOfEvents) {
    std::mt19937 random(11);
    constexpr FairQueueLimits limits{12, 5, 20, 8};
    Queue queue(limits);
    std::map<std::string, std::size_t> used;
    std::vector<std::string> running;
    std::size_t entered = 0;
    std::size_t ran = 0;
    for (int round = 0; round < 20'000; ++round) {
        if (random() % 2 == 0) {
            const std::string key(1, static_cast<char>('a' + random() % 6));
            entered += queue.enter(key, key + std::to_string(round), 1, never) ? 1U : 0U;
        } else if (!running.empty()) {
            const std::size_t at = random() % running.size();
            queue.giveBack(running[at], 1);
            --used[running[at]];
            running.erase(running.begin() + static_cast<std::ptrdiff_t>(at));
        }
        for (const std::string& item : takeAll(queue)) {
            running.push_back(item.substr(0, 1));
            ASSERT_LE(++used[running.back()], limits.perKey);
            ++ran;
        }
        ASSERT_LE(running.size(), limits.inAll);
        ASSERT_EQ(entered, ran + queue.waiting());
    }
    EXPECT_GT(ran, 1000U);
}

}  // namespace
}  // namespace QOR
