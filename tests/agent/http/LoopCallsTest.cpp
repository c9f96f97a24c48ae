#include "agent/http/LoopCalls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace QOR {
namespace {

/// A loop on a thread of its own.
class LoopCallsTest : public testing::Test {
protected:
    ~LoopCallsTest() override { end(); }

    void end() {
        if (!m_thread.joinable()) return;
        calls.post([this] { calls.close(); });
        m_thread.join();
    }

    static void awaitTrue(const std::atomic<bool>& flag) {
        while (!flag)
            std::this_thread::yield();
    }

    boost::asio::io_context loop{1};
    LoopCalls calls{loop};
    std::vector<std::string> failures;

private:
    void run() {
        for (bool ended = false; !ended;) {
            try {
                loop.run();
                ended = true;
            } catch (const std::exception& failure) {
                failures.emplace_back(failure.what());
            }
        }
    }
    std::thread m_thread{[this] { run(); }};
};

TEST_F(LoopCallsTest, CallsRunOnTheLoopsThreadInTheOrderInWhichAThreadPostedThem) {
    std::vector<int> run;
    std::thread::id thread;
    for (int number = 0; number < 1000; ++number)
        calls.post([&run, &thread, number] {
            run.push_back(number);
            thread = std::this_thread::get_id();
        });
    end();
    std::vector<int> posted(1000);
    std::iota(posted.begin(), posted.end(), 0);
    EXPECT_EQ(run, posted);
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(LoopCallsTest, OfCallsThatManyThreadsPostWhileOthersRunNoneIsLost) {
    constexpr std::size_t threads = 4;
    constexpr std::size_t each = 20'000;
    std::size_t run = 0;
    std::vector<std::thread> posting;
    for (std::size_t thread = 0; thread < threads; ++thread)
        posting.emplace_back([&] {
            for (std::size_t number = 0; number < each; ++number)
                calls.post([&run] { ++run; });
        });
    for (std::thread& thread : posting)
        thread.join();
    end();
    EXPECT_EQ(run, threads * each);
}

TEST_F(LoopCallsTest, ACallThatIsPostedByACallRunsBehindIt) {
    std::vector<std::string> run;
    std::atomic<bool> done{false};
    calls.post([&] {
        calls.post([&] {
            run.emplace_back("second");
            calls.post([&] {
                run.emplace_back("third");
                done = true;
            });
        });
        run.emplace_back("first");
    });
    awaitTrue(done);
    end();
    EXPECT_EQ(run, (std::vector<std::string>{"first", "second", "third"}));
}

TEST_F(LoopCallsTest, ACallThatThrowsHoldsUpNoneOfThoseBehindIt) {
    std::size_t run = 0;
    calls.post([&] {
        // All of them are there when the loop takes them.
        for (int number = 0; number < 10; ++number)
            calls.post([&run, number] {
                ++run;
                if (number % 2 == 0) throw std::runtime_error(std::to_string(number));
            });
    });
    std::atomic<bool> done{false};
    calls.post([&] { calls.post([&] { done = true; }); });
    awaitTrue(done);
    end();
    EXPECT_EQ(run, 10U);
    EXPECT_EQ(failures, (std::vector<std::string>{"0", "2", "4", "6", "8"}));
}

TEST_F(LoopCallsTest, WhatIsPostedBehindTheEndIsDroppedWithWhatItHolds) {
    end();
    const auto held = std::make_shared<int>(1);
    {
        LoopCalls others(loop);
        others.post([held] { FAIL() << "the loop has ended"; });
        EXPECT_EQ(held.use_count(), 2);
    }
    EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace QOR
