// What one program does to a database, agents that were told nothing of it know soon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "support/AgentProcess.h"
#include "support/EarlierVersion.h"
#include "support/HostDatabase.h"
#include "support/HttpClient.h"

namespace QOR::test {
namespace {

constexpr const char* eid = "11111111-1111-1111-1111-111111111111";

std::string environment() {
    return R"({"kind":"environment","eid":")" + std::string(eid) + "\"}\n";
}

AgentSettings on(const TestDatabase& database) {
    AgentSettings settings;
    settings.database = database.connectionString();
    return settings;
}

/// Of a file one agent alone is the keeper; a server has any number of them.
AgentSettings beside(const TestDatabase& database) {
    AgentSettings settings = on(database);
    if (testEngine() == ASEngine::SQLite) settings.more = {"--read-only"};
    return settings;
}

/// Whether operator "pager" has any environment in memory: what cannot be evaluated is refused when the first one
/// comes.
bool knowsAny(const AgentProcess& agent) {
    const std::string answer =
        HttpClient(agent.socketPath())
            .message(R"({"operator":"pager","request":"select","body":[1740,[[1741,"pager.event_log.category"],)"
                     R"([1742,"pager.event_log.category='env_status' and 1 / pager.env.title > 0"]]]})");
    const bool refused = answer.find("Invalid type") != std::string::npos;
    EXPECT_TRUE(refused || answer.find("error") == std::string::npos) << answer;
    return refused;
}

/// A test that waits in vain ends with the program's time.
void awaitThat(bool known, const AgentProcess& agent) {
    while (knowsAny(agent) != known)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

TEST(SeveralAgents, WhatOneStoresTheOthersKnowSoonAndItselfAtOnce) {
    const TestDatabase database(TestTables::Own);
    const AgentProcess first(on(database));
    const AgentProcess second(beside(database));
    EXPECT_FALSE(knowsAny(first));
    EXPECT_FALSE(knowsAny(second));
    HttpClient(first.socketPath()).post("/v1/records", environment());
    EXPECT_TRUE(knowsAny(first));
    awaitThat(true, second);
}

TEST(SeveralAgents, WhatProgramsDoThatAreNoAgentsIsKnownSoon) {
    const TestDatabase database(TestTables::Own);
    const AgentProcess agent(on(database));
    const std::string file = (agent.directory() / "records.ndjson").string();
    std::ofstream(file) << environment();
    const auto [status, output] = runProgram({(programDirectory() / "qorctl").string(), "import", "--standalone",
                                              "--database", database.connectionString(), file});
    EXPECT_EQ(status, 0) << output;
    awaitThat(true, agent);
    QORRdbms::instance().configure({.connectionString = database.connectionString()});
    runSql("DELETE FROM qor_environment");
    QORRdbms::instance().shutdown();
    awaitThat(false, agent);
}

TEST(SeveralAgents, AnyNumberMayWriteToAServer) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    const TestDatabase database(TestTables::Own);
    const AgentProcess first(on(database));
    const AgentProcess second(on(database));
    HttpClient(second.socketPath()).post("/v1/records", environment());
    EXPECT_TRUE(knowsAny(second));
    HttpClient(first.socketPath()).post("/v1/records", environment());
    EXPECT_TRUE(knowsAny(first));
}

TEST(SeveralAgents, AttemptsAtOneRequestAtTheSameTimeStoreItOnceAndAnswerAlike) {
    const TestDatabase database(TestTables::Own);
    const AgentProcess first(on(database));
    std::optional<AgentProcess> another;
    if (testEngine() == ASEngine::PostgreSQL) another.emplace(on(database));
    const AgentProcess& second = another ? *another : first;
    std::string lines;
    for (int number = 0; number < 3500; ++number)
        lines += number % 500 == 3 ? "bad line\n" : R"({"kind":"event","time":)" + std::to_string(number) + "}\n";
    for (int round = 1; round <= 8; ++round) {
        const auto send = [&](const AgentProcess& agent) {
            return HttpClient(agent.socketPath())
                .request("POST", "/v1/records", lines, "Idempotency-Key: key-" + std::to_string(round) + "\r\n");
        };
        auto one = std::async(std::launch::async, [&] { return send(first); });
        const auto other = send(second);
        const auto answer = one.get();
        EXPECT_EQ(answer.status, 200) << answer.body;
        EXPECT_EQ(answer.body, other.body);
        EXPECT_THAT(answer.body, ::testing::HasSubstr(R"("accepted":3493,)"));
        EXPECT_EQ(send(second).body, answer.body);
        const std::string count = R"([1040,")" + std::to_string(3493 * round) + R"("])";
        EXPECT_THAT(HttpClient(first.socketPath())
                        .message(R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],)"
                                 R"([1741,"id"],[1377,[[1024,"1"]]],[1259]]]})"),
                    ::testing::HasSubstr(count));
    }
}

// Of a file one agent alone is the keeper; the other program is then one that stores without an agent.
TEST(SeveralAgents, ThatStartAtOnceOnADatabaseOfAnEarlierVersionServeItBoth) {
    const TestDatabase database;
    fillWithVersion(database, 15, QOR_PROJECT_DIR);
    const auto start = [&] { return std::make_unique<AgentProcess>(on(database)); };
    const TemporaryDirectory folder;
    const std::string file = (folder / "records.ndjson").string();
    std::ofstream(file) << environment();
    auto other = std::async(std::launch::async, [&] {
        if (testEngine() == ASEngine::PostgreSQL) {
            const auto second = start();
            return HttpClient(second->socketPath()).post("/v1/records", environment()).body;
        }
        const auto [status, output] = runProgram({(programDirectory() / "qorctl").string(), "import", "--standalone",
                                                  "--database", database.connectionString(), file});
        return output;
    });
    const auto first = start();
    EXPECT_THAT(other.get(), ::testing::AnyOf(::testing::HasSubstr("environment: 1 added"),
                                              ::testing::HasSubstr("\"environment\":{\"added\":1,")));
    // What was there, and that there is one more.
    const HttpAnswer rows =
        HttpClient(first->socketPath()).get("/v1/views/vEnvironment/rows?limit=10&fields=title&sort=title");
    EXPECT_THAT(rows.body, ::testing::HasSubstr("environment 3 of 9"));
    awaitThat(true, *first);
    const auto [status, output] =
        runProgram({(programDirectory() / "qorctl").string(), "check", "--socket", first->socketPath()});
    EXPECT_EQ(status, 0) << output;
}

}  // namespace
}  // namespace QOR::test
