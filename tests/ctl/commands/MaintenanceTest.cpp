// Looking after the database: check and prune, over a real agent and in qorctl's own process, and what an agent keeps.
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ctl/BothWays.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::Not;

class Maintenance : public BothWays {
protected:
    void SetUp() override {
        begin();
        std::string lines;
        for (int number = 0; number < 3000; ++number) {
            const std::string n = std::to_string(number);
            lines +=
                R"({"kind":"operation","id":"o)" + n + R"(","time":)" + std::to_string(1700000000 + number) +
                R"(,"eid":"11111111-1111-1111-1111-111111111111","eids":["22222222-2222-2222-2222-222222222222"]})" +
                "\n" + R"({"kind":"event","category":"env_status","time":)" + std::to_string(1700000000 + number) +
                "}\n";
        }
        lines += R"({"kind":"backup","id":"b","time":1600000000})";
        const CtlResult result = run({"import"}, lines);
        ASSERT_EQ(result.status, 0) << result.err;
    }
    /// Identifiers of the last two operations of the log, as pages have them.
    std::string lastTwo(int total) const {
        return run({"rows", "-f", "pager.op_log.id", "--limit", "2", "--offset", std::to_string(total - 2), "-o",
                    "csv"})
            .out;
    }
};

TEST_P(Maintenance, ASoundDatabaseHasNoFaults) {
    const CtlResult result = run({"check"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "integrity: sound\nschema: sound\nforeign-keys: sound\ndocuments: sound\ncounters: sound\n");
}

TEST_P(Maintenance, FaultsAreFoundAndMended) {
    direct().run(
        oneOf("DROP TRIGGER qor_operation_gone",
              "ALTER TABLE qor_operation DISABLE TRIGGER qor_operation_gone; "
              "ALTER TABLE qor_operation_environment DISABLE TRIGGER ALL; SET session_replication_role = replica") +
        "; DELETE FROM qor_operation WHERE seq % 2 = 0; DROP INDEX qor_event_time; "
        "UPDATE qor_backup SET info = '<info>'");
    const CtlResult found = run({"check"});
    EXPECT_EQ(found.status, 1);
    EXPECT_THAT(found.out, HasSubstr("schema: qor_operation_gone is missing or not what it was\n"));
    EXPECT_THAT(found.out, HasSubstr("schema: qor_event_time is missing or not what it was\n"));
    EXPECT_THAT(found.out, HasSubstr("foreign-keys: 1500 rows of qor_operation_environment belong to nothing\n"));
    EXPECT_THAT(found.out, HasSubstr("documents: 1 documents in qor_backup.info cannot be read\n"));
    EXPECT_THAT(found.out, HasSubstr("groups of records of qor_operation are counted wrong\n"));
    EXPECT_THAT(found.err, HasSubstr("--mend mends what can be mended"));
    const CtlResult mended = run({"check", "--mend"});
    EXPECT_EQ(mended.status, 1) << "a document that has no end is still there";
    EXPECT_THAT(mended.out, HasSubstr("counted wrong (mended)\n"));
    EXPECT_THAT(mended.err, HasSubstr("1 fault cannot be mended"));
    direct().run("UPDATE qor_backup SET info = NULL");
    const CtlResult after = run({"check"});
    EXPECT_EQ(after.status, 0) << after.out << after.err;
    EXPECT_EQ(lastTwo(1500), "pager.op_log.id\r\no2\r\no0\r\n");
}

TEST_P(Maintenance, PruningRemovesWhatIsOlderAndThePagesAfterItAreRight) {
    const CtlResult result =
        run({"prune", "--before", "2023-11-14T22:46:40Z", "--operations", "--events"});  // second 2000
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("operations: 2000 removed\nevents: 2000 removed\nspace: "));
    EXPECT_THAT(result.out, Not(HasSubstr("backups")));
    EXPECT_EQ(lastTwo(1000), "pager.op_log.id\r\no2001\r\no2000\r\n");
    EXPECT_EQ(direct().cell("SELECT count(*) FROM qor_operation_environment"), "1000");
    EXPECT_EQ(run({"check"}).status, 0);
    EXPECT_THAT(run({"prune", "--before", "1h"}).out,
                HasSubstr("operations: 1000 removed\nevents: 1000 removed\nbackups: 1 removed\n"));
    EXPECT_EQ(
        direct().cell("SELECT (SELECT count(*) FROM qor_operation_count) + (SELECT count(*) FROM qor_event_count)"),
        "0");
    EXPECT_EQ(run({"check"}).status, 0);
}

TEST_P(Maintenance, DocumentsOfPrunedRecordsAreNoLongerKnownAsUnreadable) {
    direct().run(
        "INSERT INTO qor_unreadable_document (source, part, record) SELECT 'qor_operation', 'message', seq FROM "
        "qor_operation WHERE id IN ('o0', 'o2999') UNION ALL SELECT 'qor_event', 'info', min(seq) FROM qor_event "
        "UNION ALL SELECT 'qor_backup', 'info', seq FROM qor_backup");
    ASSERT_EQ(run({"prune", "--before", "2023-11-14T22:46:40Z"}).status, 0);
    EXPECT_EQ(direct().cell("SELECT count(*) || ' ' || max(source) FROM qor_unreadable_document"), "1 qor_operation")
        << "that of o2999";
}

TEST_P(Maintenance, AnInterruptedPruneLeavesWholeTransactionsAndRightCounters) {
    constexpr int all = 20000;
    std::string more;
    for (int number = 0; number < all; ++number)
        more += R"({"kind":"operation","id":"o)" + std::to_string(number) + R"(","time":)" +
                std::to_string(1700000000 + number) + "}\n";
    const Words command = where({ctlProgram(), "prune", "--before", "2100-01-01", "--operations"});
    DirectDatabase database = direct();
    const auto left = [&] { return std::stoi(database.cell("SELECT count(*) FROM qor_operation")); };
    int total = 0;
    CtlResult result;
    while (total == 0) {  // a prune that was done before the signal came is no proof
        ASSERT_EQ(run({"import"}, more).status, 0);
        CtlProcess prune(command);
        while (left() == all) {
        }
        prune.signal(SIGINT);
        result = prune.finish();
        total = left();
    }
    EXPECT_EQ(result.status, 130) << result.err;
    EXPECT_THAT(result.err, HasSubstr("stopped; what was removed stays removed"));
    EXPECT_EQ(total % 500, 0) << "a transaction was left in the middle";
    EXPECT_THAT(result.out, HasSubstr("operations: " + std::to_string(all - total) + " removed\n"));
    EXPECT_EQ(lastTwo(total), "pager.op_log.id\r\no" + std::to_string(all - total + 1) + "\r\no" +
                                  std::to_string(all - total) + "\r\n");
    EXPECT_EQ(run({"check"}).status, 0);
    EXPECT_EQ(run({"prune", "--before", "2100-01-01", "--operations"}).status, 0) << "it can be gone on with";
    EXPECT_EQ(left(), 0);
}

TEST_P(Maintenance, PrunedSpaceIsGivenBack) {
    QOR_ONLY_ON(ASEngine::SQLite);
    const int before = std::stoi(direct().cell("PRAGMA page_count"));
    ASSERT_EQ(run({"prune", "--before", "1s"}).status, 0);
    EXPECT_EQ(direct().cell("PRAGMA freelist_count"), "0");
    EXPECT_LT(std::stoi(direct().cell("PRAGMA page_count")), before / 3);
}

TEST_P(Maintenance, WhatCannotBeMeantIsRefused) {
    EXPECT_EQ(run({"prune"}).status, 2);
    for (const char* before : {"yesterday", "3x", "-1d", "d", "01d", "999999999999w"}) {
        const CtlResult result = run({"prune", std::string("--before=") + before});
        EXPECT_EQ(result.status, 2) << before;
        EXPECT_THAT(result.err, HasSubstr("is neither a time"));
    }
    EXPECT_EQ(direct().cell("SELECT count(*) FROM qor_operation"), "3000");
}

INSTANTIATE_TEST_SUITE_P(Ways, Maintenance, bothWays, nameOfWay);

TEST(LongMaintenance, HasNoDeadlineWhileOtherRequestsHaveOne) {
    AgentSettings settings;
    settings.more = {"--deadline", "1"};
    const TestDatabase database(TestTables::Own);
    settings.database = database.connectionString();
    ASSERT_EQ(runCtl({"sample", "--operations", "10", "--standalone", "--database", settings.database}).status, 0);
    const AgentProcess agent(settings);
    const Words where{"--socket", agent.socketPath()};
    DirectDatabase other(database);
    other.run(oneOf("BEGIN IMMEDIATE", "BEGIN; LOCK TABLE qor_operation IN EXCLUSIVE MODE"));
    std::thread release([&other] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
        other.run("ROLLBACK");
    });
    const CtlResult pruned = runCtl({"prune", "--before", "2100-01-01", "--operations", where[0], where[1]});
    release.join();
    EXPECT_EQ(pruned.status, 0) << pruned.err;
    EXPECT_THAT(pruned.out, HasSubstr("operations: 10 removed"));
}

/// A database with operations and events, of which an agent is told what to keep.
class Retention : public testing::Test {
protected:
    static constexpr std::int64_t day = 86400;

    void SetUp() override {
        std::string lines = R"({"kind":"backup","id":"kept","time":1})"
                            "\n";
        const std::int64_t now =
            std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
                .count();
        for (int number = 0; number < 2000; ++number) {
            const std::string n = std::to_string(number);
            const std::string time = std::to_string(now - number * (day / 10) - day / 20);
            lines += R"({"kind":"operation","id":"o)" + n + R"(","time":)" + time + R"(,"message":{"a":")" +
                     std::string(500, 'x') + "\"}}\n" + R"({"kind":"event","source":"e)" + n +
                     R"(","category":"env_status","time":)" + time + "}\n";
        }
        const CtlResult result = runCtl({"import", "--standalone", "--database", m_settings.database}, lines);
        ASSERT_EQ(result.status, 0) << result.err;
    }
    std::string cell(const std::string& sql) const { return DirectDatabase(m_database).cell(sql); }
    std::string counts() const {
        return cell("SELECT (SELECT count(*) FROM qor_operation) || ' ' || (SELECT count(*) FROM qor_event)");
    }
    int usedBytes() const {
        DirectDatabase file(m_database);
        return (std::stoi(file.cell("PRAGMA page_count")) - std::stoi(file.cell("PRAGMA freelist_count"))) *
               std::stoi(file.cell("PRAGMA page_size"));
    }
    /// Runs an agent until the condition holds and nothing is left to give back.
    template <class Condition>
    void keep(Words options, Condition condition) {
        m_settings.more = std::move(options);
        const AgentProcess agent(m_settings);
        while (!condition() || (testEngine() == ASEngine::SQLite && cell("PRAGMA freelist_count") != "0"))
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const CtlResult check = runCtl({"check", "--socket", agent.socketPath()});
        EXPECT_EQ(check.status, 0) << check.out;
        EXPECT_EQ(cell("SELECT count(*) FROM qor_backup"), "1") << "backups exist elsewhere";
        const CtlResult page =
            runCtl({"rows", "-f", "pager.op_log.id", "--limit", "2", "-o", "csv", "--socket", agent.socketPath()});
        EXPECT_EQ(page.out, "pager.op_log.id\r\no0\r\no1\r\n") << "the newest stay";
    }

    TestDatabase m_database{TestTables::Own};
    AgentSettings m_settings{.database = m_database.connectionString()};
};

TEST_F(Retention, AnAgentKeepsAsManyRecordsAsItIsTold) {
    keep({"--keep-records", "200"}, [&] { return counts() == "200 200"; });
}

TEST_F(Retention, AnAgentKeepsRecordsAsLongAsItIsTold) {
    keep({"--keep-age", "30d"}, [&] { return counts() == "300 300"; });
}

TEST_F(Retention, AnAgentKeepsAsManyBytesAsItIsTold) {
    QOR_ONLY_ON(ASEngine::SQLite);
    const int most = usedBytes() / 2;
    keep({"--keep-size", std::to_string(most)}, [&] { return usedBytes() <= most; });
    EXPECT_GT(std::stoi(cell("SELECT count(*) FROM qor_operation")), 200) << "no more goes than has to";
    EXPECT_EQ(cell("SELECT max(source <> '') FROM qor_event"), "1");
}

TEST_F(Retention, TheStrictestOfSeveralCounts) {
    keep({"--keep-age", "30d", "--keep-records", "250", "--keep-size", "1000000000"},
         [&] { return counts() == "250 250"; });
}

TEST(RetentionOptions, AgesThatAreNoneAreRefused) {
    for (const char* age : {"soon", "5", "-3d"}) {
        CtlProcess agent({(programDirectory() / "qor-agent").string(), std::string("--keep-age=") + age});
        const CtlResult result = agent.finish();
        EXPECT_EQ(result.status, 2) << age;
        EXPECT_THAT(result.err, HasSubstr("is no age"));
    }
}

}  // namespace
}  // namespace QOR::test
