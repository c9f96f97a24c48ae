// Looking after the database: check and prune, over a real agent and in qorctl's own process, and what an agent keeps.
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"
#include "support/SqliteFile.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;

enum class Way { Agent, Standalone };

class Maintenance : public testing::TestWithParam<Way> {
protected:
    void SetUp() override {
        if (GetParam() == Way::Agent) m_agent.emplace();
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
    std::filesystem::path file() const { return m_agent ? m_agent->databasePath() : m_directory / "own.db"; }
    CtlResult run(Words arguments, std::string_view input = {}) const {
        const Words where = m_agent ? Words{"--socket", m_agent->socketPath()}
                                    : Words{"--standalone", "--database", "Driver=SQLite3;Database=" + file().string()};
        arguments.insert(arguments.end(), where.begin(), where.end());
        return runCtl(arguments, input);
    }
    /// Identifiers of the last two operations of the log, as pages have them.
    std::string lastTwo(int total) const {
        return run({"rows", "-f", "pager.op_log.id", "--limit", "2", "--offset", std::to_string(total - 2), "-o",
                    "csv"})
            .out;
    }

    std::optional<AgentProcess> m_agent;
    TemporaryDirectory m_directory;
};

TEST_P(Maintenance, ASoundDatabaseHasNoFaults) {
    const CtlResult result = run({"check"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "integrity: sound\nschema: sound\nforeign-keys: sound\ndocuments: sound\ncounters: sound\n");
}

TEST_P(Maintenance, FaultsAreFoundAndMended) {
    SqliteFile(file()).run(
        "DROP TRIGGER qor_operation_gone; DELETE FROM qor_operation WHERE seq % 2 = 0; DROP INDEX qor_event_time; "
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
    SqliteFile(file()).run("UPDATE qor_backup SET info = NULL");
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
    EXPECT_EQ(SqliteFile(file()).cell("SELECT count(*) FROM qor_operation_environment"), "1000");
    EXPECT_EQ(run({"check"}).status, 0);
    EXPECT_THAT(run({"prune", "--before", "1h"}).out,
                HasSubstr("operations: 1000 removed\nevents: 1000 removed\nbackups: 1 removed\n"));
    EXPECT_EQ(SqliteFile(file()).cell(
                  "SELECT (SELECT count(*) FROM qor_operation_count) + (SELECT count(*) FROM qor_event_count)"),
              "0");
    EXPECT_EQ(run({"check"}).status, 0);
}

TEST_P(Maintenance, PrunedSpaceIsGivenBack) {
    const int before = std::stoi(SqliteFile(file()).cell("PRAGMA page_count"));
    ASSERT_EQ(run({"prune", "--before", "1s"}).status, 0);
    EXPECT_EQ(SqliteFile(file()).cell("PRAGMA freelist_count"), "0");
    EXPECT_LT(std::stoi(SqliteFile(file()).cell("PRAGMA page_count")), before / 3);
}

TEST_P(Maintenance, WhatCannotBeMeantIsRefused) {
    EXPECT_EQ(run({"prune"}).status, 2);
    for (const char* before : {"yesterday", "3x", "-1d", "d", "01d", "999999999999w"}) {
        const CtlResult result = run({"prune", std::string("--before=") + before});
        EXPECT_EQ(result.status, 2) << before;
        EXPECT_THAT(result.err, HasSubstr("is neither a time"));
    }
    EXPECT_EQ(SqliteFile(file()).cell("SELECT count(*) FROM qor_operation"), "3000");
}

INSTANTIATE_TEST_SUITE_P(Ways, Maintenance, testing::Values(Way::Agent, Way::Standalone),
                         [](const auto& way) { return way.param == Way::Agent ? "Agent" : "Standalone"; });

TEST(LongMaintenance, HasNoDeadlineWhileOtherRequestsHaveOne) {
    AgentSettings settings;
    settings.more = {"--deadline", "1"};
    const AgentProcess agent(settings);
    const Words where{"--socket", agent.socketPath()};
    ASSERT_EQ(runCtl({"sample", "--operations", "10", where[0], where[1]}).status, 0);
    SqliteFile other(agent.databasePath());
    other.run("BEGIN IMMEDIATE");
    std::thread release([&other] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
        other.run("ROLLBACK");
    });
    const CtlResult pruned = runCtl({"prune", "--before", "2100-01-01", "--operations", where[0], where[1]});
    release.join();
    EXPECT_EQ(pruned.status, 0) << pruned.err;
    EXPECT_THAT(pruned.out, HasSubstr("operations: 10 removed"));
}

TEST(Retention, AnAgentKeepsAsMuchAsItIsTold) {
    const TemporaryDirectory directory;
    const std::filesystem::path file = directory / "agent.db";
    const std::string database = "Driver=SQLite3;Database=" + file.string();
    ASSERT_EQ(
        runCtl({"sample", "--operations", "800", "--events", "300", "--standalone", "--database", database}).status, 0);
    AgentSettings settings;
    settings.database = database;
    settings.more = {"--keep-records", "200"};
    const AgentProcess agent(settings);
    const auto counts = [&] {
        return SqliteFile(file).cell(
            "SELECT (SELECT count(*) FROM qor_operation) || ' ' || (SELECT count(*) FROM qor_event)");
    };
    while (counts() != "200 200")
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(runCtl({"check", "--socket", agent.socketPath()}).status, 0);
}

TEST(Retention, AgesThatAreNoneAreRefused) {
    for (const char* age : {"soon", "5", "-3d"}) {
        CtlProcess agent({(programDirectory() / "qor-agent").string(), std::string("--keep-age=") + age});
        const CtlResult result = agent.finish();
        EXPECT_EQ(result.status, 2) << age;
        EXPECT_THAT(result.err, HasSubstr("is no age"));
    }
}

}  // namespace
}  // namespace QOR::test
