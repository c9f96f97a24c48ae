#include "QORCommon/QORMemory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace QOR {
namespace {

std::string refusalOf(QORMemoryCharge& charge, std::size_t bytes) {
    try {
        charge.add(bytes, "the filter");
    } catch (const QORMemoryExceeded& exceeded) {
        return exceeded.message();
    }
    return "nothing";
}

TEST(Memory, ARequestMayHoldItsLimitAndNotAByteMore) {
    QORMemoryBudget all(1000);
    QORMemoryAccount account(all, 100);
    EXPECT_TRUE(account.tryTake(60));
    EXPECT_FALSE(account.tryTake(41));
    EXPECT_TRUE(account.tryTake(40));
    EXPECT_EQ(account.used(), 100U);
    EXPECT_EQ(all.used(), 100U);
}

TEST(Memory, WhatAllMayHoldBoundsEachOne) {
    QORMemoryBudget all(100);
    QORMemoryAccount first(all, 80);
    QORMemoryAccount second(all, 80);
    EXPECT_TRUE(first.tryTake(80));
    EXPECT_FALSE(second.tryTake(21));
    EXPECT_EQ(second.used(), 0U) << "a refusal takes nothing";
    first.give(80);
    EXPECT_TRUE(second.tryTake(80));
}

TEST(Memory, ASizeThatOverflowsIsRefused) {
    QORMemoryBudget all;
    QORMemoryAccount account(all, QORMemoryBudget::unlimited);
    EXPECT_TRUE(account.tryTake(1));
    EXPECT_FALSE(account.tryTake(QORMemoryBudget::unlimited));
    EXPECT_EQ(all.used(), 1U);
}

TEST(Memory, ARefusalNamesTheBudgetThatIsFull) {
    QORMemoryBudget all(std::size_t{1} << 20, "all requests together (--memory)");
    const auto own = std::make_shared<QORMemoryAccount>(all, std::size_t{512} << 10, "one request (--request-memory)");
    const QORMemoryScope scope(own);
    QORMemoryCharge charge;
    EXPECT_EQ(refusalOf(charge, std::size_t{600} << 10),
              "the filter does not fit into memory: one request (--request-memory) may hold 512 KiB");
    ASSERT_TRUE(all.tryTake(std::size_t{768} << 10));
    EXPECT_EQ(refusalOf(charge, std::size_t{300} << 10),
              "the filter does not fit into memory: all requests together (--memory) may hold 1 MiB, of which 768 KiB "
              "are in use; try again later");
    EXPECT_EQ(charge.bytes(), 0U);
    EXPECT_EQ(all.refusals(), 1U);
}

TEST(Memory, AChargeGivesBackAtItsEnd) {
    QORMemoryBudget all(100);
    {
        const QORMemoryScope scope(std::make_shared<QORMemoryAccount>(all, 100));
        QORMemoryCharge charge;
        charge.add(30, "x");
        charge.set(10, "x");
        EXPECT_EQ(all.used(), 10U);
        QORMemoryCharge moved = std::move(charge);
        EXPECT_EQ(all.used(), 10U);
        charge = std::move(moved);
        EXPECT_EQ(charge.bytes(), 10U);
    }
    EXPECT_EQ(all.used(), 0U);
    EXPECT_EQ(all.peak(), 30U);
}

TEST(Memory, AHolderThatOutlivesItsRequestCountsOn) {
    QORMemoryBudget all(100);
    QORMemoryCharge kept;
    {
        const QORMemoryScope scope(std::make_shared<QORMemoryAccount>(all, 50));
        kept.add(40, "x");
    }
    EXPECT_EQ(all.used(), 40U);
    {
        const QORMemoryScope scope(std::make_shared<QORMemoryAccount>(all, 50));
        QORMemoryCharge next;
        EXPECT_TRUE(next.tryAdd(50)) << "its own request's, not the former one's";
        EXPECT_EQ(all.used(), 90U);
    }
    kept.release();
    EXPECT_EQ(all.used(), 0U);
}

TEST(Memory, WithoutAnAccountNothingIsCounted) {
    QORMemoryCharge charge;
    charge.add(QORMemoryBudget::unlimited, "x");
    EXPECT_TRUE(charge.tryAdd(1));
    EXPECT_EQ(charge.bytes(), 0U);
}

TEST(Memory, ScopesNest) {
    QORMemoryBudget all;
    const auto outer = std::make_shared<QORMemoryAccount>(all, 1);
    const QORMemoryScope scope(outer);
    {
        const QORMemoryScope none(nullptr);
        EXPECT_EQ(QORMemoryAccount::current(), nullptr);
    }
    EXPECT_EQ(QORMemoryAccount::current(), outer);
}

TEST(Memory, ThreadsNeverHoldMoreThanTheBudget) {
    QORMemoryBudget all(1000);
    std::atomic<bool> tooMuch{false};
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&] {
            QORMemoryAccount account(all, 400);
            for (int turn = 0; turn < 20'000; ++turn) {
                if (!account.tryTake(300)) continue;
                if (all.used() > all.limit()) tooMuch = true;
                account.give(300);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(tooMuch);
    EXPECT_EQ(all.used(), 0U);
    EXPECT_LE(all.peak(), 1000U);
}

TEST(Memory, BytesAreToldAsLimitsAreSet) {
    EXPECT_EQ(describeBytes(0), "0 bytes");
    EXPECT_EQ(describeBytes(1000), "1000 bytes");
    EXPECT_EQ(describeBytes(1024), "1 KiB");
    EXPECT_EQ(describeBytes(std::size_t{64} << 20), "64 MiB");
    EXPECT_EQ(describeBytes((std::size_t{1} << 30) + 1), "1073741825 bytes");
}

}  // namespace
}  // namespace QOR
