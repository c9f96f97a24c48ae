// Looking after records that several servers keep.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <stop_token>
#include <string>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORDBSchema/QORDBSchema.h"
#include "host/QORMaintenance.h"
#include "host/QORStatus.h"
#include "ingest/SpreadTest.h"

namespace QOR::test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::int64_t never = 4'000'000'000;

class SpreadMaintenanceTest : public SpreadTest {
protected:
    /// Events at times 1, 2, ... of the servers in turn.
    static void storeEvents(int count) {
        std::string lines;
        for (int i = 0; i < count; ++i)
            lines += event(i + 1, on(static_cast<unsigned>(i % 3) + 1));
        expectStored(send(lines), static_cast<std::uint64_t>(count));
    }
    static std::vector<std::string> found(const std::string& part, bool mend = false) {
        std::vector<std::string> texts;
        for (const QORCheckFinding& finding : checkDatabase(part, mend))
            texts.push_back(finding.text + (finding.mended ? " (mended)" : ""));
        return texts;
    }
    static std::vector<std::string> oldest() {
        return each("SELECT coalesce(extract(epoch FROM min(time))::int, 0) FROM qor_event");
    }
};

TEST_F(SpreadMaintenanceTest, OldRecordsAreRemovedAtAllServers) {
    storeEvents(30);
    expectStored(send(operation("o", on(2)) + backup("b", on(3))), 2);
    EXPECT_EQ(pruneDatabase("events", 16).done, 15U);
    EXPECT_THAT(oldest(), ElementsAre("16", "17", "18"));
    EXPECT_EQ(pruneDatabase("operations", never).done, 1U);
    EXPECT_EQ(pruneDatabase("backups", never).done, 1U);
    EXPECT_FALSE(pruneDatabase("space", 0).more);
}

TEST_F(SpreadMaintenanceTest, AServerThatIsAwayKeepsNoOtherFromBeingPruned) {
    storeEvents(30);
    ShardedPostgres::server(2).crash();
    const QORPruneStep first = pruneDatabase("events", never);
    EXPECT_EQ(first.done, 20U);
    EXPECT_TRUE(first.more);
    try {
        pruneDatabase("events", never);
        FAIL();
    } catch (const AException& failure) {
        EXPECT_THAT(failure.text(), HasSubstr("\"s2\""));
    }
    ShardedPostgres::server(2).start();
    EXPECT_EQ(pruneDatabase("events", never).done, 10U);
}

TEST_F(SpreadMaintenanceTest, AgesAndNumbersHoldForAllServersTogether) {
    storeEvents(30);
    pruneLogs({.seconds = {}, .records = 7, .bytes = {}}, std::stop_token());
    EXPECT_THAT(oldest(), ElementsAre("25", "26", "24"));
    EXPECT_THAT(events(), ElementsAre("2", "2", "3"));
    pruneLogs({.seconds = {}, .records = {}, .bytes = 1}, std::stop_token());
    EXPECT_THAT(events(), ElementsAre("0", "0", "0"));
    storeEvents(3);
    pruneLogs({.seconds = 60, .records = {}, .bytes = {}}, std::stop_token());
    EXPECT_THAT(events(), ElementsAre("0", "0", "0"));
}

TEST_F(SpreadMaintenanceTest, WhatIsWrongAtAServerIsSaidOfItAndMendedThere) {
    storeEvents(30);
    for (const std::string& part : checkParts())
        EXPECT_THAT(found(part), IsEmpty()) << part;
    at(2).run("UPDATE qor_event_count SET n = n + 1 WHERE scope = '/c'; DROP INDEX qor_event_time");
    EXPECT_THAT(found("counters"), ElementsAre("server \"s2\": 1 groups of records of qor_event are counted wrong"));
    EXPECT_THAT(found("schema", true),
                ElementsAre("server \"s2\": qor_event_time is missing or not what it was (mended)"));
    EXPECT_THAT(found("counters", true),
                ElementsAre("server \"s2\": 1 groups of records of qor_event are counted wrong (mended)"));
    for (const std::string& part : checkParts())
        EXPECT_THAT(found(part), IsEmpty()) << part;
}

TEST_F(SpreadMaintenanceTest, RecordsThatBelongToAnotherServerAreFound) {
    at(1).run("INSERT INTO qor_event (time, eid) VALUES ('2024-01-01', '" + on(2).toString() + "')");
    EXPECT_THAT(found("foreign-keys"), ElementsAre("server \"s1\": 1 records of qor_event belong to another server"));
    at(3).run("UPDATE qor_held SET modulus = 6");
    EXPECT_THAT(found("schema"), ElementsAre("server \"s3\": keeps the environments of remainder 2 of 6, and is taken "
                                             "for that of 2 of 3"));
    at(3).run("UPDATE qor_held SET modulus = 3");
}

TEST_F(SpreadMaintenanceTest, AServerThatIsAwayIsAFinding) {
    ShardedPostgres::server(3).crash();
    EXPECT_THAT(found("counters"), ElementsAre(HasSubstr("\"s3\"")));
    const QORDatabaseStatus away = readDatabaseStatus();
    ShardedPostgres::server(3).start();
    ASSERT_EQ(away.servers.size(), 3U);
    EXPECT_EQ(away.servers[0].schemaVersion, QORDBSchema::currentVersion());
    EXPECT_EQ(away.servers[0].failure, "");
    EXPECT_THAT(away.servers[2].failure, HasSubstr("\"s3\""));
    EXPECT_EQ(readDatabaseStatus().servers[2].failure, "");
}

TEST_F(SpreadMaintenanceTest, UnreadableDocumentsOfServersAreAddedUp) {
    for (const unsigned number : {1U, 3U})
        at(number).run("INSERT INTO qor_unreadable_document VALUES ('qor_event', 'info', '1')");
    const auto unreadable = readDatabaseStatus().unreadable;
    for (const unsigned number : {1U, 3U})
        at(number).run("DELETE FROM qor_unreadable_document");
    ASSERT_TRUE(unreadable);
    EXPECT_THAT(*unreadable, ElementsAre(QORUnreadableDocuments{"qor_event", "info", 2}));
}

/// Servers of a test's own, which it may spoil.
class ServerSchemaTest : public ::testing::Test {
protected:
    void TearDown() override {
        QORServers::instance().close();
        QORRdbms::instance().shutdown();
    }
    void open() const { QORDBSchema::open({.connectionString = servers.connectionString()}, QORSchemaMode::Own); }
    PostgresConnection at(unsigned number) const { return PostgresConnection(servers.conninfo(number)); }
    /// As a program made it that knew no servers yet.
    void makeOlder(unsigned number) const {
        at(number).run("DROP SCHEMA public CASCADE; CREATE SCHEMA public");
        QORRdbms database;
        database.configure({.connectionString = servers.connectionString(number)});
        database.write([](ASSession& session) { QORDBSchema::migrate(session, older); });
    }
    std::string version(unsigned number) const {
        return at(number).cell("SELECT max(version) FROM qor_schema_version");
    }

    static constexpr int older = 7;
    const std::string current = std::to_string(QORDBSchema::currentVersion());
    ShardedPostgres servers{2};
};

TEST_F(ServerSchemaTest, OlderServersAreBroughtUpToDateWithTheirHome) {
    makeOlder(2);
    open();
    EXPECT_EQ(version(2), current);
    EXPECT_EQ(version(1), current);
}

TEST_F(ServerSchemaTest, AServerThatIsAwayWhenItsHomeIsOpenedIsBroughtUpToDateLater) {
    makeOlder(2);
    ShardedPostgres::server(2).crash();
    open();
    const auto placement = QORServers::instance().placement();
    ShardedPostgres::server(2).start();
    EXPECT_EQ(version(2), std::to_string(older));
    QORDBSchema::migrateServer(placement->servers()[1]);
    EXPECT_EQ(version(2), current);
}

TEST_F(ServerSchemaTest, ANewerServerIsRefusedByName) {
    at(1).run("UPDATE qor_schema_version SET version = 1000 WHERE version = " + current);
    try {
        open();
        FAIL();
    } catch (const QORException& error) {
        EXPECT_THAT(error.message(), AllOf(HasSubstr("server \"s1\""), HasSubstr("version 1000")));
    }
}

}  // namespace
}  // namespace QOR::test
