// Batches that meet other writers, and servers that go away: each is stored once, and told so once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORLibAgent/QOREnvCache.h"
#include "ingest/QORIngest.h"
#include "support/ClientContexts.h"
#include "support/HostDatabase.h"
#include "support/PostgresGate.h"

namespace QOR::test {
namespace {

std::string operation(const std::string& id, int status) {
    return R"({"kind":"operation","id":")" + id + R"(","time":1700000000,"status":)" + std::to_string(status) + "}\n";
}

std::string event(int time) {
    return R"({"kind":"event","time":)" + std::to_string(time) + R"(,"category":"c"})" + "\n";
}

std::string events(int count) {
    std::string lines;
    for (int number = 0; number < count; ++number)
        lines += event(number);
    return lines;
}

std::string environment(unsigned number, const std::string& title) {
    return R"({"kind":"environment","eid":")" + eidOf(number).toString() + R"(","title":")" + title + "\"}\n";
}

class ConcurrentIngestTest : public ::testing::Test {
protected:
    void SetUp() override { open(m_database.connectionString()); }
    void TearDown() override {
        setEnvCache(nullptr);
        QORRdbms::instance().shutdown();
    }
    static void open(const std::string& connectionString) {
        QORDBSchema::open({.connectionString = connectionString, .busyTimeoutMs = 60'000}, QORSchemaMode::Own);
    }
    PostgresConnection connect() const { return PostgresConnection(m_database.conninfo()); }
    /// Stores on a thread of its own. \returns when that waits for a lock
    std::future<QORIngestResult> storing(const std::string& lines) {
        auto result = std::async(std::launch::async, [lines] { return QORIngest().importBatch(lines); });
        PostgresConnection look = connect();
        while (look.cell(waiting) == "0")
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return result;
    }
    void endWaiting() const {
        connect().rows("SELECT pg_terminate_backend(pid, 10000) FROM pg_locks WHERE NOT granted");
    }
    static void expectStored(const QORIngestResult& result, std::uint64_t records) {
        EXPECT_FALSE(result.failure) << result.failure->reason;
        EXPECT_EQ(result.accepted(), records);
    }
    /// What the counters say of the events.
    static std::string counted() {
        return queryText("SELECT sum(n) FROM qor_event_count WHERE scope = '/c' AND level = 24");
    }

    static constexpr const char* waiting =
        "SELECT count(*) FROM pg_locks WHERE NOT granted AND pid IN "
        "(SELECT pid FROM pg_stat_activity WHERE datname = current_database())";
    const TestDatabase m_database{TestTables::Own};
};

// The engine gives up the one that finds the circle: not the other connection, which looks for none that soon.
TEST_F(ConcurrentIngestTest, ABatchThatIsGivenUpForAnotherOnesSakeIsStoredAllTheSame) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    QORIngest().importBatch(operation("a", 0) + operation("b", 0));
    PostgresConnection other = connect();
    other.run("SET deadlock_timeout = '60s'; BEGIN; UPDATE qor_operation SET status = 7 WHERE id = 'b'");
    auto result = storing(operation("a", 1) + operation("b", 1) + event(1));
    other.run("UPDATE qor_operation SET status = 7 WHERE id = 'a'; COMMIT");
    expectStored(result.get(), 3);
    EXPECT_EQ(queryText("SELECT string_agg(id || status, ' ' ORDER BY id) FROM qor_operation"), "a1 b1");
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "1");
    EXPECT_EQ(counted(), "1");
}

TEST_F(ConcurrentIngestTest, EnvironmentsOfABatchThatWasGivenUpAreKnownAsTheyWereStoredAtLast) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    QOREnvCache cache;
    cache.load();
    setEnvCache(&cache);
    QORIngest().importBatch(environment(1, "old") + environment(2, "old"));
    PostgresConnection other = connect();
    other.run("SET deadlock_timeout = '60s'; BEGIN; UPDATE qor_environment SET title = 'theirs' WHERE eid = '" +
              eidOf(2).toString() + "'");
    auto result = storing(environment(1, "new") + environment(2, "new"));
    other.run("UPDATE qor_environment SET title = 'theirs' WHERE eid = '" + eidOf(1).toString() + "'; COMMIT");
    expectStored(result.get(), 2);
    const QORClientContextScope scope(fullAccess());
    for (const unsigned number : {1U, 2U})
        EXPECT_EQ(cache.getEnvCopy(eidOf(number))->getTitle(), "new");
}

TEST_F(ConcurrentIngestTest, ABatchWhoseConnectionEndsInTheMiddleIsStoredOnce) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    QORIngest().importBatch(operation("b", 0));
    PostgresConnection other = connect();
    other.run("BEGIN; UPDATE qor_operation SET status = 7 WHERE id = 'b'");
    auto result = storing(event(1) + event(2) + operation("b", 1));
    endWaiting();
    other.run("COMMIT");
    expectStored(result.get(), 3);
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "2");
    EXPECT_EQ(queryText("SELECT status FROM qor_operation"), "1");
    EXPECT_EQ(counted(), "2");
}

// Its last statement has been run: only the number of the change is still waited for, within the commit itself.
TEST_F(ConcurrentIngestTest, ABatchWhoseConnectionEndsAtItsCommitIsStoredOnce) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    PostgresConnection other = connect();
    other.run("BEGIN; UPDATE qor_change SET n = n + 1");
    auto result = storing(event(1) + environment(1, "new"));
    EXPECT_EQ(connect().cell("SELECT count(*) FROM pg_stat_activity WHERE pid IN (SELECT pid FROM pg_locks WHERE NOT "
                             "granted) AND query LIKE '%COMMIT%' AND datname = current_database()"),
              "1");
    endWaiting();
    other.run("COMMIT");
    expectStored(result.get(), 2);
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "1");
    EXPECT_EQ(queryText("SELECT title FROM \"vEnvironment\""), "new");
}

TEST_F(ConcurrentIngestTest, ABatchWhoseCommitIsLostOnItsWayIsStoredOnce) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    PostgresGate gate(PostgresServer::shared().folder());
    const std::string name = connect().cell("SELECT current_database()");
    open(PostgresServer::shared().connectionString(name, gate.folder()));
    gate.loseAnswerTo("COMMIT");
    expectStored(QORIngest().importBatch(events(10)), 10);
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "10");
    gate.loseRequest("COMMIT");
    expectStored(QORIngest().importBatch(events(10)), 10);
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "20");
    EXPECT_EQ(counted(), "20");
    QORRdbms::instance().shutdown();
}

TEST_F(ConcurrentIngestTest, ARestartOfTheServerLosesNothingAndDoublesNothing) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    connect().run("ALTER DATABASE " + connect().cell("SELECT current_database()") + " SET synchronous_commit = on");
    open(m_database.connectionString());
    QORIngestOptions options;
    options.batchRecords = 20;
    const std::string lines = events(4000);
    const QORIngestRequest request("key", lines, 1);
    auto result = std::async(std::launch::async, [&] { return QORIngest(options).importBatch(lines, 1, &request); });
    for (const int stored : {200, 1500}) {
        {
            PostgresConnection look = connect();
            while (std::stoi(look.cell("SELECT count(*) FROM qor_event")) < stored &&
                   result.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
            }
        }
        PostgresServer::shared().crash();
        PostgresServer::shared().start();
    }
    expectStored(result.get(), 4000);
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "4000");
    EXPECT_EQ(counted(), "4000");
}

TEST_F(ConcurrentIngestTest, ADatabaseThatIsGoneIsNotWaitedFor) {
    QOR_ONLY_ON(ASEngine::SQLite);
    std::filesystem::remove(m_database.file());
    const auto result = QORIngest().importBatch(event(1));
    ASSERT_TRUE(result.failure);
    EXPECT_THAT(result.failure->reason, ::testing::HasSubstr("its file is gone"));
}

TEST_F(ConcurrentIngestTest, AttemptsAtOneRequestAtTheSameTimeStoreItOnceAndAnswerAlike) {
    QORIngestOptions options;
    options.batchRecords = 7;
    for (int round = 0; round < 10; ++round) {
        std::string lines;
        for (int number = 0; number < 60; ++number)
            lines += number % 9 == 4 ? "bad line\n" : event(number);
        const QORIngestRequest request("key-" + std::to_string(round), lines, 1);
        std::vector<std::future<QORIngestResult>> attempts(4);
        for (auto& attempt : attempts) {
            attempt =
                std::async(std::launch::async, [&] { return QORIngest(options).importBatch(lines, 1, &request); });
        }
        for (auto& attempt : attempts) {
            const QORIngestResult result = attempt.get();
            expectStored(result, 53);
            EXPECT_EQ(result.refused, 7U);
            EXPECT_EQ(result.refusedLines.size(), 7U);
            EXPECT_EQ(result.lastLine, 60U);
        }
        EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), std::to_string(53 * (round + 1)));
    }
}

}  // namespace
}  // namespace QOR::test
