// Following records: what came since a position, then what comes, whichever agent is asked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "agent/Follower.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"

namespace QOR::test {
namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* mine = "11111111-1111-1111-1111-111111111111";
constexpr const char* other = "33333333-3333-3333-3333-333333333333";

std::string environment(const std::string& eid) {
    return R"({"kind":"environment","eid":")" + eid + "\"}\n";
}
std::string event(const std::string& source, const std::string& eid = mine) {
    return R"({"kind":"event","time":1,"source":")" + source + R"(","eid":")" + eid + "\"}\n";
}
std::string operation(const std::string& id, int status = 0, const std::string& eid = mine) {
    return R"({"kind":"operation","id":")" + id + R"(","op":"install","time":1,"status":)" + std::to_string(status) +
           R"(,"eid":")" + eid + "\"}\n";
}

class AgentFollow : public testing::Test {
protected:
    AgentSettings settings(std::vector<std::string> more = {}) const {
        return {.database = database.connectionString(), .more = std::move(more)};
    }
    static void store(const AgentProcess& agent, const std::string& lines) {
        const HttpAnswer answer = HttpClient(agent.socketPath()).post("/v1/records", lines);
        ASSERT_EQ(answer.status, 200) << answer.body;
    }
    void store(const std::string& lines) const { store(agent, lines); }
    HttpAnswer refused(const std::string& query, const std::string& fields = {}) const {
        return HttpClient(agent.socketPath()).request("GET", "/v1/follow" + query, {}, fields);
    }

    TestDatabase database{TestTables::Own};
    AgentProcess agent{settings()};
};

TEST_F(AgentFollow, BeginsWithWhatComesFromNowOn) {
    store(event("before"));
    Follower follower(agent, "");
    EXPECT_EQ(follower.next().name, "live");
    store(event("after") + operation("one"));
    const Event first = follower.next();
    EXPECT_EQ(first.name, "operations");
    EXPECT_EQ(first.at("id"), "\"one\"");
    EXPECT_EQ(first.at("op"), "\"install\"");
    EXPECT_EQ(first.at("status"), "0");
    EXPECT_EQ(first.at("time"), "\"1970-01-01T00:00:01Z\"");
    EXPECT_EQ(first.at("eid"), '"' + std::string(mine) + '"');
    const Event second = follower.next();
    EXPECT_EQ(second.name, "events");
    EXPECT_EQ(second.at("source"), "\"after\"");
}

TEST_F(AgentFollow, GoesThroughAllThatThereIsFirst) {
    for (int i = 0; i < 1000; ++i)
        store(i % 100 == 0 ? operation(std::to_string(i)) : i == 1 ? event("first") : "");
    std::string many;
    for (int i = 0; i < 1000; ++i)
        many += event(std::to_string(i));
    store(many);
    Follower follower(agent, "?after=beginning");
    const auto past = follower.take("id");
    EXPECT_EQ(past.size(), 1011U);
    EXPECT_EQ(past.back(), "1001");
    store(event("new"));
    EXPECT_THAT(follower.take("source", 1), ElementsAre("\"new\""));
}

TEST_F(AgentFollow, GoesOnBehindTheLastEventThatWasTaken) {
    std::string lines;
    for (int i = 0; i < 300; ++i)
        lines += event(std::to_string(i));
    store(lines);
    std::vector<std::string> all;
    std::string token = "beginning";
    for (std::size_t step : {1U, 7U, 150U, 1000U}) {
        Follower follower(agent, "?source=events&after=" + token);
        for (std::size_t i = 0; i < step; ++i) {
            const Event event = follower.next();
            if (event.name == "live") break;
            all.push_back(event.at("source"));
        }
        token = follower.last();
    }
    ASSERT_EQ(all.size(), 300U);
    for (std::size_t i = 0; i < all.size(); ++i)
        EXPECT_EQ(all[i], '"' + std::to_string(i) + '"');
    store(event("new"));
    Follower follower(agent, "?source=events&after=beginning", "Last-Event-ID: " + token + "\r\n");
    EXPECT_THAT(follower.take("source"), ElementsAre("\"new\"")) << "what a client took last goes before";
}

TEST_F(AgentFollow, ARecordThatChangesComesAgain) {
    Follower follower(agent, "?source=operations&fields=id,status");
    EXPECT_EQ(follower.next().name, "live");
    store(operation("one"));
    EXPECT_EQ(follower.next().data, R"({"id":"one","status":0})");
    store(operation("one", 7));
    EXPECT_EQ(follower.next().data, R"({"id":"one","status":7})");
    Follower again(agent, "?source=operations&fields=id,status&after=beginning");
    EXPECT_EQ(again.next().data, R"({"id":"one","status":7})") << "as it is now, once";
    EXPECT_EQ(again.next().name, "live");
}

TEST_F(AgentFollow, TellsRecordsForWhichTheConditionHolds) {
    Follower follower(agent, "?source=operations&where=status%20%3C%3E%200%20or%20id%20like%20%27it%27%27s%25%27");
    EXPECT_EQ(follower.next().name, "live");
    store(operation("good") + operation("bad", 3) + operation("it's me") + operation("worse", 4));
    EXPECT_THAT(follower.take("id", 3), ElementsAre("\"bad\"", "\"it's me\"", "\"worse\""));
    Follower of(agent, "?source=operations,events,backups,environments&after=beginning&where=eid%20%3D%20%27" +
                           std::string(other) + "%27");
    EXPECT_EQ(of.next().name, "live");
    store(environment(other) + environment(mine) + event("x", other) + event("y") +
          R"({"kind":"backup","id":"k","time":1,"size":5,"eid":")" + other + "\"}\n");
    EXPECT_THAT(of.take("eid", 3), testing::Each('"' + std::string(other) + '"'));
}

TEST_F(AgentFollow, WhatCannotBeFollowedIsToldByItsParameter) {
    EXPECT_THAT(refused("?source=operations,nothing").body, HasSubstr("there is no source \\\"nothing\\\""));
    EXPECT_THAT(refused("?sources=events").body, HasSubstr("\"parameter\":\"sources\""));
    const HttpAnswer condition = refused("?source=events&where=status%20%3D%201");
    EXPECT_EQ(condition.status, 400);
    EXPECT_EQ(jsonAt(condition.body, "parameter"), "\"where\"");
    EXPECT_EQ(jsonAt(condition.body, "position"), "0");
    for (const char* escape : {"id%20%3D%20%271%27)%20or%20(1%20%3D%201", "id%20%3D%20%27", ")"})
        EXPECT_EQ(refused("?where=" + std::string(escape)).status, 400) << escape;
    EXPECT_EQ(jsonAt(refused("?fields=nothing").body, "parameter"), "\"fields\"");
    EXPECT_EQ(jsonAt(refused("?after=nonsense").body, "parameter"), "\"after\"");
    EXPECT_EQ(jsonAt(refused("", "Last-Event-ID: nonsense\r\n").body, "parameter"), "\"Last-Event-ID\"");
    EXPECT_EQ(refused("", "Accept: application/json\r\n").status, 406);
}

TEST_F(AgentFollow, RestrictedClientsAreToldOfTheirOwn) {
    HttpClient root(agent.socketPath());
    store(environment(mine) + environment(other) + event("a") + event("b", other) + event("c"));
    const std::string as = "X-Qor-As: reader\r\n";
    EXPECT_EQ(root.post("/v1/identities/add",
                        R"({"name":"reader","kind":"token","access":"environments","environments":[{"eid":")" +
                            std::string(mine) + R"(","below":false}]})")
                  .status,
              200);
    Follower follower(agent, "?source=environments,events&after=beginning", as);
    EXPECT_THAT(follower.take("eid"), ElementsAre('"' + std::string(mine) + '"', '"' + std::string(mine) + '"',
                                                  '"' + std::string(mine) + '"'));
    store(event("d", other) + event("e"));
    EXPECT_THAT(follower.take("source", 1), ElementsAre("\"e\""));
    EXPECT_EQ(root.post("/v1/identities/remove", R"({"name":"reader"})").status, 200);
    const Event end = follower.next();
    EXPECT_EQ(end.name, "end");
    EXPECT_EQ(end.at("code"), "\"revoked\"");
    EXPECT_EQ(follower.next().name, "") << "and nothing behind it";
}

TEST_F(AgentFollow, WhatWasRemovedIsAGap) {
    std::string lines;
    for (int i = 0; i < 10; ++i)
        lines += R"({"kind":"event","time":)" + std::to_string(i < 6 ? 1 : 1000) +
                 R"(,"source":"s"})"
                 "\n";
    store(lines);
    HttpClient(agent.socketPath()).post("/v1/prune?what=events&before=500", "");
    Follower follower(agent, "?source=events&after=beginning");
    const Event gap = follower.next();
    EXPECT_EQ(gap.name, "gap");
    EXPECT_EQ(gap.data, R"({"reason":"removed","changes":6})");
    EXPECT_EQ(follower.take("id").size(), 4U);
}

TEST_F(AgentFollow, OneWhoWaitsIsToldWhereHeStands) {
    agent.stop();
    AgentProcess quick(settings({"--follow-heartbeat", "1"}));
    store(quick, event("a"));
    Follower follower(quick, "?source=operations");
    EXPECT_EQ(follower.next().name, "live");
    const std::string before = follower.last();
    store(quick, event("b"));
    Event beat = follower.next();
    for (int late = 0; beat.name == "heartbeat" && beat.id == before && late < 60; ++late)
        beat = follower.next();  // what was stored had not been seen yet
    EXPECT_EQ(beat.name, "heartbeat");
    EXPECT_NE(beat.id, before);
    store(quick, operation("o"));
    Follower from(quick, "?source=operations,events&after=" + beat.id);
    EXPECT_THAT(from.take("id"), AnyOf(ElementsAre("\"o\""), ElementsAre("2", "\"o\"")));
}

TEST_F(AgentFollow, AClientThatTakesTooLongIsToldSoAndLeft) {
    agent.stop();
    AgentProcess strict(settings({"--follow-patience", "1"}));
    std::string lines;
    for (int i = 0; i < 4000; ++i)
        lines += event(std::string(250, 'x'));
    store(strict, lines);
    std::size_t events = 0;
    Event last;
    std::string token;
    // On a busy machine the agent may not have come as far, by the client's pause, as to have to wait for him.
    for (int pause = 2500; last.name != "end" && pause < 100'000; pause *= 2) {
        Follower follower(strict, "?source=events&after=beginning");
        std::this_thread::sleep_for(std::chrono::milliseconds(pause));
        events = 0;
        do {
            last = follower.next();
            events += last.name == "events" ? 1U : 0U;
        } while (last.name == "events");
        token = follower.last();
        if (last.name == "end") {
            EXPECT_EQ(follower.next().name, "");
        }
    }
    EXPECT_LT(events, 4000U);
    ASSERT_EQ(last.name, "end");
    EXPECT_EQ(last.at("code"), "\"too_slow\"");
    // It is counted when the last has been sent.
    while (HttpClient(strict.socketPath()).get("/metrics").body.find("qor_problems_total{code=\"too_slow\"}") ==
           std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(strict.stop(), 0);
    agent.start();
    Follower again(agent, "?source=events&after=" + token);
    EXPECT_EQ(again.take("id").size(), 4000U - events) << "it goes on where it was left";
}

TEST_F(AgentFollow, AnAgentThatStopsEndsThem) {
    Follower follower(agent, "");
    EXPECT_EQ(follower.next().name, "live");
    auto stopped = std::async(std::launch::async, [&] { return agent.stop(); });
    const Event end = follower.next();
    EXPECT_EQ(end.name, "end");
    EXPECT_EQ(end.at("code"), "\"stopping\"");
    EXPECT_EQ(follower.next().name, "");
    EXPECT_EQ(stopped.get(), 0);
}

TEST_F(AgentFollow, ThoseWhoAreTooManyAreTurnedDownAndOthersAnswered) {
    agent.stop();
    AgentProcess small(settings({"--followers", "3", "--user-followers", "3", "--threads", "1"}));
    std::vector<std::unique_ptr<Follower>> followers;
    for (int i = 0; i < 3; ++i)
        followers.push_back(std::make_unique<Follower>(small, ""));
    const HttpAnswer more = HttpClient(small.socketPath()).get("/v1/follow");
    EXPECT_THAT(more.status, AnyOf(429, 503));
    EXPECT_THAT(more.body, HasSubstr("follow"));
    EXPECT_EQ(HttpClient(small.socketPath()).get("/v1/views").status, 200);
    store(small, event("all"));
    for (const auto& follower : followers) {
        EXPECT_EQ(follower->next().name, "live");
        EXPECT_THAT(follower->take("source", 1), ElementsAre("\"all\""));
    }
}

TEST_F(AgentFollow, HeadIsAnsweredByItself) {
    EXPECT_EQ(HttpClient(agent.socketPath()).request("HEAD", "/v1/follow").status, 200);
}

/// What one agent takes in the follower of another one is told; both may be ended at any time.
TEST_F(AgentFollow, NothingIsMissedOrToldTwiceWhicheverAgentIsAskedAndHoweverItEnds) {
    const bool both = testEngine() == ASEngine::PostgreSQL;
    const AgentSettings beside = settings(both ? std::vector<std::string>{} : std::vector<std::string>{"--read-only"});
    auto second = std::make_unique<AgentProcess>(beside);
    constexpr int commits = 120;
    std::jthread writer([&] {
        std::mt19937 random(3);
        int event = 0;
        for (int commit = 0; commit < commits; ++commit) {
            std::string lines;
            for (unsigned i = 0; i < 1 + random() % 30; ++i)
                lines += test::event(std::to_string(event++)) +
                         (random() % 5 == 0 ? operation("o" + std::to_string(random() % 9), commit) : "");
            store(agent, lines);
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 20));
        }
        store(agent, operation("end", 1000));
    });
    std::vector<std::string> events;
    std::map<std::string, std::string> operations;
    std::string token = "beginning";
    std::mt19937 random(4);
    bool kills = true;
    for (bool ended = false; !ended;) {
        Follower follower(*second, "?fields=id,eid&after=beginning",
                          token == "beginning" ? "" : "Last-Event-ID: " + token + "\r\n");
        const std::size_t most = 1 + random() % 400;
        for (std::size_t taken = 0; taken < most && !ended; ++taken) {
            const Event event = follower.next();
            if (event.name.empty()) break;
            ASSERT_NE(event.name, "gap");
            if (event.name == "events") events.push_back(event.at("id"));
            if (event.name == "operations") operations[event.at("id")] = event.at("eid");
            ended = event.at("id") == "\"end\"";
        }
        if (!follower.last().empty()) token = follower.last();
        if (ended || !kills) continue;
        second->kill();
        second = std::make_unique<AgentProcess>(beside);
        kills = random() % 8 != 0;
    }
    writer.join();
    std::vector<std::string> expected;
    for (std::size_t i = 1; i <= events.size(); ++i)
        expected.push_back(std::to_string(i));
    std::vector<std::string> sorted = events;
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return std::stol(a) < std::stol(b); });
    EXPECT_EQ(sorted, expected) << "each once";
    const std::string count = HttpClient(agent.socketPath()).get("/v1/views/vEventLog/rows?fields=count(id)").body;
    EXPECT_EQ(jsonAt(count, "rows/0/0"), std::to_string(events.size()));
    EXPECT_FALSE(operations.empty());
}

}  // namespace
}  // namespace QOR::test
