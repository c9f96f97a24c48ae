// Counters, and what operations touch, follow the logs whoever changes them.

#include <fstream>
#include <limits>
#include <random>

#include "LogDatabase.h"
#include "QORFunctionality/QORAccess.h"
#include "QORLibAgent/QORLogCheck.h"
#include "ingest/RecordWriter.h"
#include "support/HostDatabase.h"
#include "support/SqliteFile.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr int forever = std::numeric_limits<int>::max();

std::string guid(unsigned number) {
    return eidOf(number).toString();
}

std::vector<std::string> miscounted(QORLogKind kind) {
    QORRdbmsTran tran(ASAccess::Read);
    return findMiscountedScopes(*tran, kind);
}

std::uint64_t stray() {
    QORRdbmsTran tran(ASAccess::Read);
    return countStrayTouched(*tran);
}

/// The identifiers of the operations as the agent tells them, read from the middle on and then from the beginning.
std::vector<std::string> operations(const QORClientContextPtr& client, const QOREnvSelection& envs, int from = 0,
                                    int to = forever) {
    const QORClientContextScope scope(client);
    QOROpLogResult result;
    EXPECT_EQ(QOROpLogAgent().getOps(result, envs, nullptr, "", "", 0, 0, forever, from, to), 0) << getErrorMessage();
    if (!result.empty()) {
        EXPECT_TRUE(result.reaches(result.size() / 2));
    }
    std::vector<std::string> ids;
    for (std::size_t i = 0; result.reaches(i); ++i)
        ids.push_back(result.at(i).id);
    EXPECT_EQ(result.size(), ids.size());
    return ids;
}

std::vector<std::string> column(const std::string& sql) {
    std::vector<std::string> values;
    for (const Row& row : queryRows(sql, 1))
        values.push_back(row.front());
    return values;
}

/// What plain SQL finds of the operations. \param owners whose operations, none for all \param envs as the agents take
/// it
std::vector<std::string> expected(const std::vector<unsigned>& owners, unsigned touched) {
    std::string sql = "SELECT id FROM qor_operation o WHERE time BETWEEN '1970-01-01' AND '2038-01-19 03:14:07'";
    for (std::size_t i = 0; i < owners.size(); ++i)
        sql += (i == 0 ? " AND eid IN ('" : ", '") + guid(owners[i]) + "'";
    if (!owners.empty()) sql += ")";
    if (touched != 0) {
        sql += " AND ('" + guid(touched) +
               "' = eid OR EXISTS (SELECT 1 FROM qor_operation_environment e WHERE e.eid = '" + guid(touched) +
               "' AND e.operation = o.seq))";
    }
    return column(sql + " ORDER BY time DESC, seq DESC");
}

void expectPagesAsPlainSql() {
    for (const std::vector<unsigned>& owners :
         std::vector<std::vector<unsigned>>{{}, {1}, {2, 5}, {1, 2, 3, 4, 5, 6}}) {
        for (const unsigned touched : {0U, 1U, 4U}) {
            EXPECT_EQ(operations(owners.empty() ? fullAccess() : accessTo(owners),
                                 touched == 0 ? QOREnvSelection::all() : eidOf(touched)),
                      expected(owners, touched))
                << owners.size() << " owners, touched " << touched;
        }
    }
}

void expectCountersAgree() {
    EXPECT_THAT(miscounted(QORLogKind::Operations), IsEmpty());
    EXPECT_THAT(miscounted(QORLogKind::Events), IsEmpty());
    EXPECT_EQ(stray(), 0U);
}

class LogUpkeepTest : public LogDatabaseTest {
protected:
    // Its programs and databases are SQLite's; tests/libs/QORDBSchema has those of PostgreSQL's schema.
    void SetUp() override {
        QOR_ONLY_ON(ASEngine::SQLite);
        LogDatabaseTest::SetUp();
    }

    /// A database as version 3 of the schema left it, from its dump.
    void loadVersion3() {
        QORRdbms::instance().shutdown();
        for (const char* suffix : {"", "-wal", "-shm"})
            std::filesystem::remove(path() + suffix);
        std::ifstream dump(std::string(QOR_TEST_DATA_DIR) + "/data/version3.sql");
        const std::string sql{std::istreambuf_iterator<char>(dump), {}};
        ASSERT_FALSE(sql.empty());
        SqliteFile(path()).run(sql);
    }
    void fill() { loadVersion3(), open(); }
};

TEST_F(LogUpkeepTest, AnOlderDatabaseIsCountedAnewAndLosesNothing) {
    loadVersion3();
    QORRdbms::instance().configure(options());
    const auto count = [](const std::string& table) { return queryText("SELECT count(*) FROM " + table); };
    const std::string touchedRows =
        "SELECT operation, eid FROM qor_operation_environment WHERE position >= 0 ORDER BY operation, eid";
    const std::string operationRows =
        "SELECT seq, id, op, status, time, eid, package, version, message FROM qor_operation ORDER BY seq";
    const auto touchedBefore = queryRows(touchedRows, 2);
    const auto operationsBefore = queryRows(operationRows, 9);
    const auto eventsBefore = queryRows("SELECT seq, time, eid, source, category, info FROM qor_event", 6);
    ASSERT_EQ(operationsBefore.size(), 420U);
    open();
    EXPECT_EQ(queryText("SELECT max(version) FROM qor_schema_version"), std::to_string(QORDBSchema::currentVersion()));
    EXPECT_EQ(queryRows(operationRows, 9), operationsBefore);
    EXPECT_EQ(queryRows(touchedRows, 2), touchedBefore);
    EXPECT_EQ(queryRows("SELECT seq, time, eid, source, category, info FROM qor_event", 6), eventsBefore);
    EXPECT_EQ(count("vEnvironment"), "6");
    EXPECT_EQ(count("vBackupInfo"), "6");
    expectCountersAgree();
    expectPagesAsPlainSql();
}

TEST_F(LogUpkeepTest, DatabasesFromBeforeTheCountersAreCounted) {
    for (const int version : {1, 2}) {
        QORRdbms::instance().shutdown();
        for (const char* suffix : {"", "-wal", "-shm"})
            std::filesystem::remove(path() + suffix);
        QORRdbms::instance().configure(options());
        {
            QORRdbmsTran tran(ASAccess::Write);
            QORDBSchema::migrate(*tran, version);
            if (version == 2) {
                tran->execute(
                    "INSERT INTO qor_operation (id, status, time, eid) VALUES ('a', 0, '2024-01-01 00:00:00', '" +
                    guid(1) + "'), ('b', 0, '2024-01-02T00:00:00Z', NULL)");
                tran->execute(
                    "INSERT INTO qor_operation_environment (operation, position, eid, time) VALUES (1, -1, '" +
                    guid(1) + "', '2024-01-01 00:00:00'), (2, 0, '" + guid(2) + "', '2024-01-02T00:00:00Z')");
            }
            tran.commit();
        }
        open();
        expectCountersAgree();
        if (version == 1) continue;
        EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all()), ElementsAre("b", "a"));
        EXPECT_THAT(operations(fullAccess(), eidOf(2)), ElementsAre("b"))
            << "a time of another form has become one of ours";
        EXPECT_THAT(operations(accessTo({1}), QOREnvSelection::all()), ElementsAre("a"));
    }
}

TEST_F(LogUpkeepTest, TotalsAndPagesAreRightAfterOperationsWereDeletedByAnotherProgram) {
    fill();
    SqliteFile program(path());
    program.run("DELETE FROM qor_operation WHERE time < '2023-11-15'");
    expectCountersAgree();
    expectPagesAsPlainSql();
    program.run("DELETE FROM qor_operation; DELETE FROM qor_event");
    expectCountersAgree();
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all()), IsEmpty());
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_operation_count"), "0") << "counters that count nothing are removed";
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_operation_environment"), "0");
}

TEST_F(LogUpkeepTest, TheHostsOwnConnectionsCountStatementsThatDoNotSayThatTheyCount) {
    fill();
    runSql("DELETE FROM qor_operation WHERE seq % 3 = 0");
    runSql("UPDATE qor_operation SET eid = '" + guid(9) + "' WHERE seq % 7 = 0");
    store({QOREventRecord{{}, {}, 5, eidOf(1), "x", "env_status", {}}});
    runSql("UPDATE qor_event SET category = 'resource_alert' WHERE seq % 7 = 0");
    expectCountersAgree();
    expectPagesAsPlainSql();
}

QOROperationRecord operationOf(const std::string& id, std::int64_t time, unsigned own, unsigned touched) {
    QOROperationRecord record;
    record.id = id;
    record.time = time;
    record.eid = eidOf(own);
    record.eids.push_back(eidOf(touched));
    return record;
}

TEST_F(LogUpkeepTest, OthersMayChangeTheLogsInTheTransactionOfAWriterBeforeAndBehindIt) {
    fill();
    {
        QORRdbmsTran tran(ASAccess::Write);
        tran->execute("DELETE FROM qor_operation WHERE seq % 5 = 0");
        RecordWriter writer(*tran, false);
        for (int i = 0; i < 300; ++i)
            writer.store(operationOf("new-" + std::to_string(i), 1700000000 + i / 50, 2, 3));
        EXPECT_THROW(tran->execute("DELETE FROM qor_operation WHERE seq % 7 = 0"), AException)
            << "the counters of what was stored are still to be written";
        EXPECT_THROW(tran.commit(), AException);
        writer.finish();
        tran->execute("DELETE FROM qor_operation WHERE seq % 7 = 0");
        tran.commit();
    }
    expectCountersAgree();
    expectPagesAsPlainSql();
}

TEST_F(LogUpkeepTest, TheDatabaseCountsAgainBehindAWriterThatDidNotComeToItsEnd) {
    ASDatabaseOptions one = options();
    one.maxConnections = 1;
    QORDBSchema::open(one, QORSchemaMode::Own);
    store({operationOf("kept", 1700000000, 1, 2)});
    {
        QORRdbmsTran tran(ASAccess::Write);
        RecordWriter writer(*tran, false);
        writer.store(operationOf("lost", 1700000000, 1, 2));
        writer.store(operationOf("kept", 1800000000, 3, 4));
    }
    runSql("UPDATE qor_operation SET eid = '" + guid(5) + "' WHERE id = 'kept'");
    runSql("INSERT INTO qor_event (time, category) VALUES ('2024-01-01 00:00:00', 'new')");
    expectCountersAgree();
    expectPagesAsPlainSql();
    EXPECT_THAT(operations(accessTo({5}), QOREnvSelection::all()), ElementsAre("kept"));
}

TEST_F(LogUpkeepTest, OperationsThatMoveInTimeLeaveNoCounterBehind) {
    std::vector<QORRecord> records;
    for (int i = 0; i < 900; ++i)
        records.emplace_back(operationOf("op-" + std::to_string(i), 1700000000 + i / 100, 1, 2));
    store(records);
    EXPECT_NE(queryText("SELECT sum(split) FROM qor_operation_count"), "0");
    for (const int step : {1, 2, 5000, 40000000}) {
        for (QORRecord& record : records)
            std::get<QOROperationRecord>(record).time += step;
        store(records);
        SCOPED_TRACE("moved by " + std::to_string(step));
        expectCountersAgree();
        expectPagesAsPlainSql();
    }
    runSql("DELETE FROM qor_operation");
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_operation_count"), "0");
}

TEST_F(LogUpkeepTest, OperationsThatAnotherProgramStoresAreFoundLikeAllOthers) {
    SqliteFile program(path());
    for (unsigned i = 0; i < 700; ++i) {
        const std::string seq = std::to_string(i + 1);
        program.run("INSERT INTO qor_operation (id, status, time, eid) VALUES ('op" + seq +
                    "', 0, datetime(1700000000 + " + std::to_string(i / 20) + ", 'unixepoch'), '" + guid(1 + i % 2) +
                    "')");
        program.run("INSERT INTO qor_operation_environment (operation, eid) VALUES (" + seq + ", '" + guid(1 + i % 3) +
                    "')");
    }
    expectCountersAgree();
    EXPECT_NE(queryText("SELECT sum(split) FROM qor_operation_count"), "0") << "full buckets are split";
    expectPagesAsPlainSql();
}

TEST_F(LogUpkeepTest, WhatANewTimeOrAnOperationThatIsNotThereWouldBreakIsRefused) {
    fill();
    SqliteFile program(path());
    for (const char* sql : {"INSERT INTO qor_operation (id, status, time) VALUES ('x', 0, '2024-01-01T00:00:00')",
                            "UPDATE qor_operation SET time = 'yesterday' WHERE seq = 3",
                            "INSERT INTO qor_event (time) VALUES ('2024-13-01 00:00:00')",
                            "UPDATE qor_event SET time = 1700000000 WHERE seq = 3"}) {
        EXPECT_FALSE(program.tries(sql)) << sql;
        EXPECT_THAT(program.complaint(), HasSubstr("has a time that is not of the form YYYY-MM-DD HH:MM:SS"));
    }
    EXPECT_FALSE(
        program.tries("INSERT INTO qor_operation_environment (operation, eid) VALUES (99999, '" + guid(1) + "')"));
    EXPECT_EQ(program.complaint(), "there is no such operation");
    EXPECT_FALSE(program.tries("UPDATE qor_operation_environment SET time = '2024-01-01 00:00:00'"));
    EXPECT_THAT(program.complaint(), HasSubstr("are those of the operation"));
    expectCountersAgree();
}

/// Statements of every kind that may change the logs, with every conflict handling.
class Changes {
public:
    explicit Changes(unsigned seed) : m_random(seed) {}

    std::string next() {
        const std::string some = condition();
        switch (pick(16)) {
            case 0:
            case 1:
                return "INSERT " + conflict() + "INTO qor_operation (seq, id, status, time, eid) VALUES (" + seq() +
                       ", " + id() + ", 0, " + time() + ", " + eid() + ")";
            case 2:
                return "INSERT INTO qor_operation (seq, id, status, time, eid) VALUES (" + seq() + ", " + id() +
                       ", 0, " + time() + ", " + eid() +
                       ") ON CONFLICT (id) DO UPDATE SET time = excluded.time, eid = excluded.eid";
            case 3:
                return "INSERT INTO qor_operation (id, status, time, eid) VALUES (" + id() + ", 0, " + time() + ", " +
                       eid() + ") ON CONFLICT DO NOTHING";
            case 4:
                return "DELETE FROM qor_operation WHERE " + some;
            case 5:
                return "UPDATE " + conflict() + "qor_operation SET time = " + time() + " WHERE " + some;
            case 6:
                return "UPDATE " + conflict() + "qor_operation SET eid = " + eid() + " WHERE " + some;
            case 7:
                return "UPDATE " + conflict() + "qor_operation SET seq = " + seq() + ", eid = " + eid() +
                       " WHERE seq = " + seq();
            case 8:
                return "UPDATE " + conflict() + "qor_operation SET id = " + id() + " WHERE seq = " + seq();
            case 9:
                return "INSERT " + conflict() + "INTO qor_operation_environment (operation, eid) VALUES (" + seq() +
                       ", " + guidText() + ")";
            case 10:
                return "INSERT " + conflict() +
                       "INTO qor_operation_environment (operation, position, eid, time) SELECT seq, 0, " + guidText() +
                       ", time FROM qor_operation WHERE " + some;
            case 11:
                return "DELETE FROM qor_operation_environment WHERE operation = " + seq();
            case 12:
                return "UPDATE " + conflict() + "qor_operation_environment SET eid = " + guidText() +
                       " WHERE operation = " + seq();
            case 13:
                return "INSERT " + conflict() + "INTO qor_event (seq, time, eid, category) VALUES (" + seq() + ", " +
                       time() + ", " + eid() + ", " + category() + ")";
            case 14:
                return "UPDATE " + conflict() + "qor_event SET time = " + time() + ", category = " + category() +
                       " WHERE " + some;
            default:
                return pick(2) == 0
                           ? "DELETE FROM qor_event WHERE " + some
                           : "INSERT OR REPLACE INTO qor_operation (seq, id, status, time, eid) SELECT seq, id, "
                             "status, " +
                                 time() + ", eid FROM qor_operation WHERE " + some;
        }
    }

private:
    unsigned pick(unsigned below) { return static_cast<unsigned>(m_random() % below); }
    std::string seq() { return std::to_string(1 + pick(600)); }
    std::string id() { return "'op-" + std::to_string(pick(700)) + "'"; }
    std::string guidText() { return "'" + guid(1 + pick(6)) + "'"; }
    std::string eid() { return pick(4) == 0 ? (pick(2) == 0 ? "NULL" : "'no guid'") : guidText(); }
    std::string category() {
        constexpr std::array<const char*, 4> all{"NULL", "''", "'env_status'", "'resource_alert'"};
        return all[pick(4)];
    }
    std::string time() {
        const unsigned second = pick(3) == 0 ? pick(2000000000) : 1700000000 + (pick(2) == 0 ? pick(10000) : 7);
        return "datetime(" + std::to_string(second) + ", 'unixepoch')";
    }
    std::string conflict() {
        constexpr std::array<const char*, 6> all{"",          "OR IGNORE ", "OR REPLACE ",
                                                 "OR ABORT ", "OR FAIL ",   "OR ROLLBACK "};
        return all[pick(6)];
    }
    std::string condition() {
        switch (pick(4)) {
            case 0:
                return "seq = " + seq();
            case 1:
                return "seq % 37 = " + std::to_string(pick(37));
            case 2:
                return "eid = " + guidText() + " AND seq % 5 = 0";
            default:
                return "time > " + time() + " AND seq % 9 = 0";
        }
    }

    std::mt19937 m_random;
};

TEST_F(LogUpkeepTest, CountersFollowEveryChangeByAnyProgram) {
    unsigned seed = 1;
    for (const char* foreignKeys : {"ON", "OFF"}) {
        for (const char* recursive : {"ON", "OFF"}) {
            fill();
            SqliteFile program(path());
            program.run(std::string("PRAGMA foreign_keys = ") + foreignKeys);
            program.run(std::string("PRAGMA recursive_triggers = ") + recursive);
            Changes changes(seed++);
            unsigned taken = 0;
            for (unsigned i = 0; i < 120 && !HasFailure(); ++i) {
                const std::string sql = changes.next();
                SCOPED_TRACE(sql + " with foreign keys " + foreignKeys + ", recursive triggers " + recursive);
                taken += program.tries(sql) ? 1 : 0;
                expectCountersAgree();
            }
            EXPECT_GT(taken, 60U);
            expectPagesAsPlainSql();
        }
    }
}

TEST_F(LogUpkeepTest, RecordsGoOnBeingStoredAmongChangesByOthers) {
    SqliteFile program(path());
    Changes changes(77);
    for (unsigned round = 0; round < 30 && !HasFailure(); ++round) {
        std::vector<QORRecord> records;
        for (unsigned i = 0; i < 40; ++i) {
            QOROperationRecord record;
            record.id = "op-" + std::to_string((round * 31 + i * 7) % 700);
            record.time = 1700000000 + (i % 2 == 0 ? 7 : round * 1000 + i);
            if (i % 5 != 0) record.eid = eidOf(1 + i % 6);
            for (unsigned touched = 0; touched < i % 4; ++touched)
                record.eids.push_back(eidOf(1 + (i + touched) % 6));
            records.emplace_back(record);
        }
        store(records);
        for (unsigned i = 0; i < 3; ++i)
            program.tries(changes.next());
        SCOPED_TRACE("round " + std::to_string(round));
        expectCountersAgree();
    }
    expectPagesAsPlainSql();
}

TEST_F(LogUpkeepTest, CountersThatDoNotAgreeAreFoundAndMended) {
    fill();
    SqliteFile program(path());
    program.run("DROP TRIGGER qor_operation_gone; DROP TRIGGER qor_operation_changed; DROP TRIGGER qor_event_came");
    program.run(
        "DELETE FROM qor_operation WHERE seq % 4 = 0; UPDATE qor_operation SET time = '2024-02-29 12:00:00', eid = '" +
        guid(3) + "' WHERE seq % 11 = 0; INSERT INTO qor_event (time, category) VALUES ('2024-01-01 00:00:00', 'new')");
    EXPECT_THAT(miscounted(QORLogKind::Events), ElementsAre("/new"));
    EXPECT_THAT(miscounted(QORLogKind::Operations), ::testing::Contains(""));
    EXPECT_GT(stray(), 0U);
    QORRdbmsTran tran(ASAccess::Write);
    mendStrayTouched(*tran);
    for (const QORLogKind kind : {QORLogKind::Operations, QORLogKind::Events}) {
        for (const std::string& scope : findMiscountedScopes(*tran, kind))
            QORLogCounters::recount(*tran, kind, scope);
    }
    tran.commit();
    expectCountersAgree();
    expectPagesAsPlainSql();
}

TEST_F(LogUpkeepTest, ScopesWithoutRecordsAndCountersThatWereTamperedWithAreFound) {
    fill();
    expectCountersAgree();
    for (const char* sql : {"UPDATE qor_operation_count SET n = n + 1 WHERE level = 24 AND scope = '' AND split = 1",
                            "UPDATE qor_operation_count SET n = n + 1 WHERE level = 24 AND scope <> '' AND split = 0",
                            "DELETE FROM qor_operation_count WHERE level = 20",
                            "DELETE FROM qor_operation_count WHERE level = 24 AND scope <> ''",
                            "UPDATE qor_operation_count SET split = 0 WHERE level = 24",
                            "INSERT INTO qor_operation_count (scope, level, bucket, n) VALUES ('nobody', 24, 3, 7)",
                            "INSERT INTO qor_event_count (scope, level, bucket, n) VALUES ('/none', 24, 3, 7)"}) {
        SqliteFile program(path());
        program.run(sql);
        EXPECT_EQ(miscounted(QORLogKind::Operations).empty() && miscounted(QORLogKind::Events).empty(), false) << sql;
        QORRdbmsTran tran(ASAccess::Write);
        for (const QORLogKind kind : {QORLogKind::Operations, QORLogKind::Events}) {
            for (const std::string& scope : findMiscountedScopes(*tran, kind))
                QORLogCounters::recount(*tran, kind, scope);
        }
        tran.commit();
        expectCountersAgree();
    }
}

TEST_F(LogUpkeepTest, APageIsWhatThereIsEvenWhenCountersPromiseMore) {
    fill();
    const auto before = operations(fullAccess(), QOREnvSelection::all());
    SqliteFile program(path());
    program.run("DROP TRIGGER qor_operation_gone; DELETE FROM qor_operation WHERE seq % 2 = 0");
    const std::vector<std::string> left = expected({}, 0);
    ASSERT_LT(left.size(), before.size());
    EXPECT_EQ(operations(fullAccess(), QOREnvSelection::all()), left);
    const QORClientContextScope scope(fullAccess());
    for (const std::size_t position : {before.size() / 2, before.size() - 30, before.size() - 1}) {
        QOROpLogResult result;
        ASSERT_EQ(QOROpLogAgent().getOps(result, QOREnvSelection::all(), nullptr, "", "", 0, 0, forever, 0, forever),
                  0);
        EXPECT_NO_THROW(result.reaches(position));
    }
}

}  // namespace
}  // namespace QOR::test
