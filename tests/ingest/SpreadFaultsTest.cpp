// Servers that end and come back, at random, while records are stored: in the end there is what was acknowledged, once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ingest/ServerFollower.h"
#include "ingest/SpreadTest.h"

namespace QOR::test {
namespace {

class SpreadFaultsTest : public SpreadTest {
protected:
    /// What one sender has sent.
    struct Sent {
        std::string name;
        std::map<std::string, bool> events;  ///< by category: whether its request was acknowledged
        int status = 0;                      ///< of its operation when it was acknowledged last
        int tried = 0;                       ///< of the last attempt
    };

    /// Sends requests of three events on three servers and the sender's operation, which changes its environment each
    /// time; each request again until it is acknowledged or the end has come. The first ones are acknowledged however
    /// few that are on a slow machine before the end.
    static void sendUntil(const std::atomic<bool>& ended, Sent& sent, bool keyed) {
        constexpr int first = 4;
        const auto goesOn = [&](int number) { return number <= first || !ended; };
        for (int number = 1; goesOn(number); ++number) {
            const std::string name = sent.name + "-" + std::to_string(number);
            std::string lines = environment(on(1), name);
            std::vector<std::string> categories;
            for (unsigned server = 1; server <= 3; ++server) {
                categories.push_back(name + "-" + std::to_string(server));
                lines += event(number, on(server), categories.back());
                sent.events[categories.back()] = false;
            }
            lines += operation(sent.name, on(static_cast<unsigned>(number % 3) + 1), number);
            sent.tried = number;
            bool stored = false;
            while (!stored && goesOn(number))
                stored = isStored(lines, keyed ? name : "");
            if (!stored) return;
            for (const std::string& category : categories)
                sent.events[category] = true;
            sent.status = number;
        }
    }
    /// Home may be away before anything is read.
    static bool isStored(const std::string& lines, const std::string& key) {
        try {
            return !send(lines, key).failure;
        } catch (const AException&) {
            return false;
        }
    }
    static void crashAtRandom(std::chrono::seconds duration) {
        std::mt19937 random(11);
        const auto until = std::chrono::steady_clock::now() + duration;
        while (std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
            const auto server = static_cast<unsigned>(random() % 3 + 1);
            ShardedPostgres::server(server).crash();
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
            ShardedPostgres::server(server).start();
        }
    }
    static std::map<std::string, int> storedEvents() {
        std::map<std::string, int> stored;
        for (unsigned number = 1; number <= 3; ++number) {
            for (const auto& row : at(number).rows("SELECT category FROM qor_event"))
                ++stored[row[0]];
        }
        return stored;
    }
    static std::vector<int> storedStatus(const std::string& id) {
        std::vector<int> stored;
        for (unsigned number = 1; number <= 3; ++number) {
            for (const auto& row : at(number).rows("SELECT status FROM qor_operation WHERE id = '" + id + "'"))
                stored.push_back(std::stoi(row[0]));
        }
        return stored;
    }
};

TEST_F(SpreadFaultsTest, WhatWasAcknowledgedIsThereOnceWhateverServerEndedWhenever) {
    std::atomic<bool> ended = false;
    std::vector<Sent> senders{{"keyed", {}, 0, 0}, {"again", {}, 0, 0}, {"other", {}, 0, 0}};
    {
        std::vector<std::jthread> threads;
        for (Sent& sender : senders)
            threads.emplace_back([&] { sendUntil(ended, sender, sender.name == "keyed"); });
        threads.emplace_back([&] {
            ServerUpkeep upkeep;
            while (!ended) {
                try {
                    upkeep.turn();
                } catch (const AException&) {
                    // Home is away.
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        });
        crashAtRandom(std::chrono::seconds(6));
        ended = true;
    }
    ServerUpkeep upkeep;
    while (each("SELECT count(*) FROM qor_removal") != std::vector<std::string>{"0", "0", "0"}) {
        upkeep.turn();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    const auto stored = storedEvents();
    std::size_t acknowledged = 0;
    for (const Sent& sender : senders) {
        for (const auto& [category, isAcknowledged] : sender.events) {
            const auto found = stored.find(category);
            const int times = found == stored.end() ? 0 : found->second;
            EXPECT_LE(times, 1) << category;
            if (isAcknowledged) {
                EXPECT_EQ(times, 1) << category;
                ++acknowledged;
            }
        }
        const std::vector<int> status = storedStatus(sender.name);
        ASSERT_EQ(status.size(), 1U) << sender.name;
        EXPECT_GE(status.front(), sender.status);
        EXPECT_LE(status.front(), sender.tried);
    }
    EXPECT_GT(acknowledged, 30U);
    for (const std::string& counted : each("SELECT (SELECT count(*) FROM qor_event) - "
                                           "(SELECT coalesce(sum(n), 0) FROM qor_event_count WHERE scope LIKE '/%' "
                                           "AND level = 24)"))
        EXPECT_EQ(counted, "0");
}

}  // namespace
}  // namespace QOR::test
