#include "ingest/QORCollectors.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <filesystem>
#include <fstream>
#include <system_error>

#include "ingest/QORAptHistory.h"
#include "ingest/QORCollectorSchedule.h"
#include "ingest/QORMachine.h"
#include "ingest/QORPackageLog.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

using test::queryRows;
using test::queryText;
using test::Row;

class QORCollectorsTest : public ::testing::Test {
protected:
    QORCollectorsTest() {
        write("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
        write("etc/os-release",
              "# a comment\nNAME=\"Test \\\"OS\\\"\"\nVERSION_ID='12'\nPRETTY_NAME=\"Test OS 12\"\nID=test\n");
        write("proc/sys/kernel/hostname", "box.example.com\n");
        write("proc/sys/kernel/osrelease", "6.1.0-test\n");
        write("proc/meminfo", "MemFree: 10 kB\nMemTotal:        2097152 kB\n");
        write("proc/stat", "cpu 1 2 3\nbtime 1704067200\n");
        write("var/log/dpkg.log",
              "2024-03-01 10:00:00 install curl:amd64 <none> 7.88\n"
              "2024-03-01 10:00:00 status half-installed curl:amd64 7.88\n"
              "2024-03-01 10:00:00 status unpacked curl:amd64 7.88\n"
              "2024-03-01 10:00:01 configure curl:amd64 7.88 <none>\n"
              "2024-03-01 10:00:01 status half-configured curl:amd64 7.88\n"
              "nonsense\n");
    }

    void write(const std::string& name, const std::string& text, std::ios::openmode mode = std::ios::trunc) const {
        const auto path = m_root.path() / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::out | mode) << text;
    }
    QORCollectResult run() const {
        QORCollectorSchedule schedule(m_root.path());
        return schedule.collectNow({}, nullptr);
    }

    test::TemporaryDirectory m_root;
};

TEST_F(QORCollectorsTest, TheMachineIsDescribedFromItsFiles) {
    const auto record = describeMachine(m_root.path());
    EXPECT_TRUE(record.eid.isValid());
    EXPECT_EQ(record.title, "box.example.com");
    EXPECT_EQ(record.state, 6);
    ASSERT_TRUE(record.config);
    EXPECT_EQ(record.config->text(QOREnvMember::Hostname), "box.example.com");
    EXPECT_EQ(record.config->text(QOREnvMember::Domain), "example.com");
    EXPECT_EQ(record.config->text(QOREnvMember::Description), "Test OS 12");
    EXPECT_EQ(record.config->text(QOREnvMember::OsName), "Test \"OS\"");
    EXPECT_EQ(record.config->text(QOREnvMember::OsVersion), "12");
    EXPECT_EQ(record.config->text(QOREnvMember::OsPlatform), "linux");
    EXPECT_EQ(record.config->text(QOREnvMember::OsKernel), "6.1.0-test");
    EXPECT_EQ(record.config->memory, 2048);
    EXPECT_EQ(record.config->bootTime, 1704067200);
    EXPECT_EQ(record.config->document.getParameterByPath("os/kernel"), "6.1.0-test");
}

TEST_F(QORCollectorsTest, TheIdentifierComesFromTheMachineId) {
    const QOREID eid = describeMachine(m_root.path()).eid;
    write("proc/sys/kernel/hostname", "renamed\n");
    EXPECT_EQ(describeMachine(m_root.path()).eid, eid);
    write("etc/machine-id", "ffffffffffffffffffffffffffffffff\n");
    EXPECT_NE(describeMachine(m_root.path()).eid, eid);
}

TEST_F(QORCollectorsTest, WithoutAMachineIdTheIdentifierComesFromTheHostName) {
    for (const char* empty : {"", "\n", "uninitialized\n"}) {
        write("etc/machine-id", empty);
        write("proc/sys/kernel/hostname", "one\n");
        const QOREID eid = describeMachine(m_root.path()).eid;
        EXPECT_EQ(describeMachine(m_root.path()).eid, eid);
        write("proc/sys/kernel/hostname", "two\n");
        EXPECT_NE(describeMachine(m_root.path()).eid, eid);
    }
}

TEST_F(QORCollectorsTest, WhatCannotBeFoundIsLeftOut) {
    const test::TemporaryDirectory nothing;
    const auto record = describeMachine(nothing.path());
    EXPECT_TRUE(record.eid.isValid());
    ASSERT_TRUE(record.config);
    EXPECT_EQ(record.config->memory, std::nullopt);
    EXPECT_EQ(record.config->bootTime, std::nullopt);
    EXPECT_EQ(record.config->text(QOREnvMember::OsVersion), std::nullopt);
}

TEST_F(QORCollectorsTest, MachineAndOperationsAreStored) {
    const test::HostDatabase database(test::TestTables::Own);
    database.open();
    const auto result = run();
    ASSERT_FALSE(result.stored.failure) << result.stored.failure->reason;
    EXPECT_EQ(result.stored.of(QORRecordKind::Environment).added, 1U);
    EXPECT_EQ(result.stored.of(QORRecordKind::Operation).added, 2U);
    EXPECT_EQ(result.malformed, 1U);
    EXPECT_EQ(queryRows("SELECT hostname, memory, boot_time FROM \"vEnvironment\"", 3),
              (std::vector<Row>{{"box.example.com", "2048", "2024-01-01 00:00:00"}}));
    EXPECT_EQ(queryRows("SELECT op, package, version, status FROM \"vOpLog\" ORDER BY time", 4),
              (std::vector<Row>{{"install", "curl", "7.88", "0"}, {"configure", "curl", "7.88", "2"}}));
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vOpLog\" o JOIN \"vEnvironment\" e ON o.eid = e.eid"), "2");
    const std::string eid = queryText("SELECT eid FROM \"vEnvironment\"");
    EXPECT_EQ(queryText("SELECT message FROM \"vOpLog\" WHERE op = 'configure'"),
              "<info><package><name>curl</name><version>7.88</version><architecture>amd64</architecture>"
              "<state>half-configured</state></package><env><eid>" +
                  eid + "</eid></env><source_env><eid>" + eid +
                  "</eid><title>box.example.com</title><type>host</type></source_env></info>");
}

TEST_F(QORCollectorsTest, CollectingAgainAddsOnlyWhatIsNew) {
    const test::HostDatabase database(test::TestTables::Own);
    database.open();
    run();
    const auto rows = queryRows("SELECT seq, id, status, message FROM qor_operation ORDER BY seq", 4);
    const auto again = run();
    EXPECT_EQ(again.stored.of(QORRecordKind::Environment).replaced, 1U);
    EXPECT_EQ(again.stored.of(QORRecordKind::Operation).added, 0U);
    EXPECT_EQ(again.stored.of(QORRecordKind::Operation).replaced, 0U);
    EXPECT_EQ(again.stored.of(QORRecordKind::Operation).unchanged, 2U);
    EXPECT_EQ(queryRows("SELECT seq, id, status, message FROM qor_operation ORDER BY seq", 4), rows);

    write("var/log/dpkg.log",
          "2024-03-01 10:00:02 status installed curl:amd64 7.88\n"
          "2024-03-01 10:00:03 remove curl:amd64 7.88 <none>\n",
          std::ios::app);
    const auto more = run();
    EXPECT_EQ(more.stored.of(QORRecordKind::Operation).added, 1U);
    EXPECT_EQ(more.stored.of(QORRecordKind::Operation).replaced, 1U) << "the configuration has come to an end";
    EXPECT_EQ(more.stored.of(QORRecordKind::Operation).unchanged, 1U);
    EXPECT_EQ(queryRows("SELECT op, status FROM qor_operation ORDER BY seq", 2),
              (std::vector<Row>{{"install", "0"}, {"configure", "0"}, {"remove", "0"}}));
}

TEST_F(QORCollectorsTest, WhatHasBeenRemovedSinceIsNotBroughtAgain) {
    const test::HostDatabase database(test::TestTables::Own);
    database.open();
    write("var/log/dpkg.log", "2024-03-03 10:00:00 remove curl:amd64 7.88 <none>\n", std::ios::app);
    write("var/log/apt/history.log",
          "\nStart-Date: 2024-03-01  09:59:59\nCommandline: apt install curl\nEnd-Date: 2024-03-01  10:00:02\n"
          "\nStart-Date: 2024-03-03  09:59:59\nCommandline: apt remove curl\nEnd-Date: 2024-03-03  10:00:01\n");
    EXPECT_EQ(run().stored.of(QORRecordKind::Operation).added, 5U);
    {
        QORRdbmsTran tran(ASAccess::Write);
        tran->execute("DELETE FROM qor_operation WHERE time < '2024-03-02 00:00:00'");
        tran.commit();
    }
    const auto again = run();
    EXPECT_EQ(again.stored.of(QORRecordKind::Operation).added, 0U);
    EXPECT_EQ(again.stored.of(QORRecordKind::Operation).unchanged, 2U) << "those of the last day";
}

TEST_F(QORCollectorsTest, RotationAddsNothing) {
    const test::HostDatabase database(test::TestTables::Own);
    database.open();
    run();
    std::filesystem::rename(m_root / "var/log/dpkg.log", m_root / "var/log/dpkg.log.1");
    write("var/log/dpkg.log", "");
    const auto again = run();
    EXPECT_EQ(again.stored.of(QORRecordKind::Operation).added, 0U);
    EXPECT_EQ(again.stored.of(QORRecordKind::Operation).unchanged, 2U);
}

TEST_F(QORCollectorsTest, TheSameLinesOfTwoMachinesAreTwoOperations) {
    const test::HostDatabase database(test::TestTables::Own);
    database.open();
    run();
    write("etc/machine-id", "ffffffffffffffffffffffffffffffff\n");
    EXPECT_EQ(run().stored.of(QORRecordKind::Operation).added, 2U);
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vOpLog\""), "4");
}

TEST_F(QORCollectorsTest, ADatabaseThatTakesNothingIsReported) {
    const test::HostDatabase database(test::TestTables::Own);
    database.open();
    database.open(QORSchemaMode::Reading, true);
    EXPECT_TRUE(run().stored.failure);
}

TEST(QORCollectorsOfThisMachine, RowsAreReal) {
    const test::HostDatabase database(test::TestTables::Own);
    database.open();
    QORCollectorSchedule schedule("/");
    const auto collect = [&] { return schedule.collectNow({}, nullptr); };
    const auto first = collect();
    ASSERT_FALSE(first.stored.failure) << first.stored.failure->reason;
    EXPECT_EQ(first.stored.of(QORRecordKind::Environment).added, 1U);
    utsname system{};
    ASSERT_EQ(uname(&system), 0);
    EXPECT_EQ(queryRows("SELECT hostname, architecture, os_kernel FROM \"vEnvironment\"", 3),
              (std::vector<Row>{{system.nodename, system.machine, system.release}}));
    EXPECT_GT(std::stoll(queryText("SELECT memory FROM \"vEnvironment\"")), 0);
    // Whoever installs a package meanwhile adds to its log.
    const auto lengthOfLog = [] {
        std::error_code missing;
        return std::filesystem::file_size("/var/log/dpkg.log", missing);
    };
    for (bool quiet = false; !quiet;) {
        const auto length = lengthOfLog();
        collect();
        const std::string stored = queryText("SELECT count(*) FROM \"vOpLog\"");
        const std::string logged =
            std::to_string(readPackageLog().actions.size() + readAptHistory("/", 0).transactions.size());
        const auto again = collect();
        quiet = length == lengthOfLog();
        if (!quiet) continue;
        EXPECT_EQ(stored, logged);
        // A machine that gets short of something meanwhile tells so by an event.
        EXPECT_EQ(again.stored.of(QORRecordKind::Operation).added, 0U);
        EXPECT_EQ(again.stored.of(QORRecordKind::Operation).replaced, 0U);
    }
}

}  // namespace
}  // namespace QOR
