// The host's schema in a database of PostgreSQL's, and the counters that it keeps whoever changes the logs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORDBSchema/SchemaTable.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/PostgresServer.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Rows = std::vector<std::vector<std::string>>;

/// Scope and second of every record that counts, found from the records alone.
constexpr const char* operationRecords = R"sql(
    SELECT '' AS scope, extract(epoch FROM time)::bigint AS s FROM qor_operation
    UNION ALL SELECT eid::text, extract(epoch FROM time)::bigint FROM qor_operation WHERE eid IS NOT NULL
    UNION ALL SELECT '>' || e.eid::text, extract(epoch FROM o.time)::bigint
        FROM qor_operation_environment e JOIN qor_operation o ON o.seq = e.operation WHERE e.eid IS DISTINCT FROM o.eid
    UNION ALL SELECT o.eid::text || '>' || e.eid::text, extract(epoch FROM o.time)::bigint
        FROM qor_operation_environment e JOIN qor_operation o ON o.seq = e.operation WHERE e.eid <> o.eid
)sql";
constexpr const char* eventRecords = R"sql(
    SELECT '/' || category AS scope, extract(epoch FROM time)::bigint AS s FROM qor_event WHERE category <> ''
    UNION ALL SELECT eid::text || '/' || category, extract(epoch FROM time)::bigint FROM qor_event
        WHERE category <> '' AND eid IS NOT NULL
)sql";

/// Selects the counters of a table that disagree with such records, or with each other.
std::string wrongCounters(const std::string& counters, const std::string& records) {
    return "WITH records AS (" + records + R"sql(), counted AS (
    SELECT scope, level, s >> level AS bucket, count(*) AS n FROM records, generate_series(0, 24, 4) AS level
    GROUP BY 1, 2, 3
), counters AS (SELECT * FROM )sql" +
           counters + R"sql()
SELECT 'differs', c.scope, c.level, c.bucket, c.n, r.n FROM counters c
    LEFT JOIN counted r USING (scope, level, bucket) WHERE c.n IS DISTINCT FROM r.n
UNION ALL SELECT 'missing', r.scope, r.level, r.bucket, 0, r.n FROM counted r
    LEFT JOIN counters c USING (scope, level, bucket)
    LEFT JOIN counters p ON p.scope = r.scope AND p.level = r.level + 4 AND p.bucket = r.bucket >> 4
    WHERE c.n IS NULL AND (r.level = 24 OR p.split = 1)
UNION ALL SELECT 'stray', c.scope, c.level, c.bucket, c.n, 0 FROM counters c WHERE c.level < 24 AND NOT EXISTS (
    SELECT FROM counters p
    WHERE p.scope = c.scope AND p.level = c.level + 4 AND p.bucket = c.bucket >> 4 AND p.split = 1)
UNION ALL SELECT 'full', c.scope, c.level, c.bucket, c.n, 0 FROM counters c
    WHERE c.level > 0 AND c.split = 0 AND c.n > 256
)sql";
}

const std::string wrongOperationCounters = wrongCounters("qor_operation_count", operationRecords);
const std::string wrongEventCounters = wrongCounters("qor_event_count", eventRecords);

int exitStatusOf(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string eid(unsigned number) {
    return "'0000000" + std::to_string(number) + "-0000-0000-0000-000000000000'";
}

class PostgresSchema : public testing::Test {
protected:
    ~PostgresSchema() override { QORRdbms::instance().shutdown(); }

    QORSchemaReport open(QORSchemaMode mode = QORSchemaMode::Own, bool readOnly = false) const {
        // All others may come first.
        constexpr unsigned patience = 60'000;
        return QORDBSchema::open(
            {.connectionString = m_database.connectionString(), .readOnly = readOnly, .busyTimeoutMs = patience}, mode);
    }
    std::string messageOfOpen(QORSchemaMode mode = QORSchemaMode::Own) const {
        try {
            open(mode);
        } catch (const std::exception& error) {
            return error.what();
        }
        return "opened";
    }
    PostgresConnection connect() const { return m_database.connect(); }

    PostgresDatabase m_database;
};

TEST_F(PostgresSchema, AnEmptyDatabaseIsFittedOut) {
    const QORSchemaReport report = open();
    EXPECT_EQ(report.found.kind, QORSchemaState::Kind::Empty);
    EXPECT_EQ(report.version, QORDBSchema::currentVersion());
    PostgresConnection own = connect();
    for (const char* const view : {"vEnvironment", "vOpLog", "vEventLog", "vBackupInfo"})
        EXPECT_EQ(own.cell("SELECT count(*) FROM \"" + std::string(view) + "\""), "0") << view;
}

TEST_F(PostgresSchema, OpeningAgainChangesNothing) {
    open();
    PostgresConnection own = connect();
    const std::string before = own.cell("SELECT string_agg(oid::text, ' ' ORDER BY oid) FROM pg_class");
    const QORSchemaReport again = open();
    EXPECT_EQ(again.found.kind, QORSchemaState::Kind::Ours);
    EXPECT_EQ(again.found.version, QORDBSchema::currentVersion());
    EXPECT_EQ(own.cell("SELECT string_agg(oid::text, ' ' ORDER BY oid) FROM pg_class"), before);
}

TEST_F(PostgresSchema, EachOlderVersionIsBroughtUpToDateAndKeepsItsRecords) {
    for (const int version : {5, 6, 7, 11, 13}) {
        PostgresDatabase database;
        QORRdbms::instance().configure({.connectionString = database.connectionString()});
        QORRdbms::instance().write([&](ASSession& session) { QORDBSchema::migrate(session, version); });
        PostgresConnection own = database.connect();
        own.run("INSERT INTO qor_event (time, eid, info) VALUES ('2024-05-01', " + eid(1) + ", 'kept')");
        const QORSchemaReport report =
            QORDBSchema::open({.connectionString = database.connectionString()}, QORSchemaMode::Own);
        EXPECT_EQ(report.found.version, version);
        EXPECT_EQ(own.rows("SELECT id, info FROM \"vEventLog\""), (Rows{{"1", "kept"}}));
        EXPECT_EQ(own.rows("SELECT epoch FROM qor_placement"), (Rows{{"0"}})) << version;
        EXPECT_EQ(own.rows("SELECT purpose FROM qor_secret WHERE secret ~ '^[0-9a-f]{64}$'"), (Rows{{"pages"}}));
        QORRdbmsTran tran(ASAccess::Read);
        EXPECT_THAT(QORDBSchema::missingParts(*tran), IsEmpty()) << version;
    }
}

TEST_F(PostgresSchema, AnotherProgramsDatabaseIsRefusedForKeepingRecords) {
    PostgresConnection own = connect();
    own.run("CREATE TABLE theirs (n int)");
    EXPECT_THAT(messageOfOpen(), HasSubstr("belongs to another program"));
    EXPECT_EQ(own.cell("SELECT count(*) FROM pg_class WHERE relname LIKE 'qor%'"), "0");
    EXPECT_EQ(open(QORSchemaMode::Reading).found.kind, QORSchemaState::Kind::Foreign);
}

TEST_F(PostgresSchema, TablesOfAnExtensionAreNobodys) {
    connect().run("CREATE EXTENSION pg_stat_statements");
    EXPECT_EQ(open().found.kind, QORSchemaState::Kind::Empty);
}

TEST_F(PostgresSchema, ANewerVersionIsRefused) {
    open();
    connect().run("INSERT INTO qor_schema_version VALUES (1000, 'QORPager host database', now())");
    EXPECT_THAT(messageOfOpen(), HasSubstr("has version 1000 of the schema"));
}

TEST_F(PostgresSchema, ProcessesThatBeginAtOnceWaitForEachOther) {
    std::vector<pid_t> children;
    for (int i = 0; i < 6; ++i) {
        const pid_t child = ::fork();
        if (child == 0) ::_exit(messageOfOpen() == "opened" ? 0 : 1);
        children.push_back(child);
    }
    for (const pid_t child : children)
        EXPECT_EQ(exitStatusOf(child), 0);
    EXPECT_EQ(connect().cell("SELECT count(*) FROM qor_schema_version WHERE version = " +
                             std::to_string(QORDBSchema::currentVersion())),
              "1");
}

TEST_F(PostgresSchema, PartsThatWereLostOrSwitchedOffAreFoundAndMadeAnew) {
    open();
    PostgresConnection own = connect();
    own.run("DROP INDEX qor_operation_time");
    own.run("ALTER TABLE qor_event DISABLE TRIGGER qor_event_came");
    own.run("DROP TRIGGER qor_operation_gone ON qor_operation");
    own.run("DROP TRIGGER qor_environment_change_numbered ON qor_environment_change");
    own.run(
        "CREATE OR REPLACE FUNCTION qor_operation_recount(counted text) RETURNS void LANGUAGE plpgsql AS $$ BEGIN END "
        "$$");
    QORRdbmsTran tran(ASAccess::Write);
    EXPECT_THAT(QORDBSchema::missingParts(*tran),
                testing::UnorderedElementsAre("qor_operation_time", "qor_event_came", "qor_operation_gone",
                                              "qor_operation_recount", "qor_environment_change_numbered"));
    QORDBSchema::restoreParts(*tran);
    EXPECT_THAT(QORDBSchema::missingParts(*tran), IsEmpty());
    tran.commit();
}

TEST_F(PostgresSchema, ViewsAreThoseThatABareNameFindsWithTypesThatClientsKnow) {
    PostgresConnection own = connect();
    own.run("CREATE SCHEMA later");
    own.run("ALTER DATABASE " + m_database.name() + " SET search_path = public, later");
    own.run("CREATE DOMAIN host AS varchar(80)");
    own.run(
        "CREATE VIEW public.v AS SELECT NULL::uuid AS a, NULL::text AS b, NULL::varchar(20) AS c, NULL::char(3) AS d, "
        "NULL::int2 AS e, NULL::int4 AS f, NULL::int8 AS g, NULL::bool AS h, NULL::float4 AS i, NULL::float8 AS j, "
        "NULL::numeric(10,2) AS k, NULL::timestamp AS l, NULL::timestamptz AS m, NULL::date AS n, NULL::bytea AS o, "
        "NULL::host AS p, NULL::inet AS q");
    own.run("CREATE VIEW later.v AS SELECT 1 AS hidden");
    own.run("CREATE MATERIALIZED VIEW later.w AS SELECT 1 AS n");
    own.run("CREATE SCHEMA elsewhere");
    own.run("CREATE VIEW elsewhere.x AS SELECT 1 AS n");
    open(QORSchemaMode::Reading, true);
    QORRdbmsTran tran(ASAccess::Read);
    std::vector<std::string> columns;
    for (const QORViewColumn& column : readViews(*tran)) {
        columns.push_back(column.view + '.' + column.column + ' ' + column.type +
                          (column.length == 0 ? "" : ' ' + std::to_string(column.length)));
    }
    EXPECT_THAT(columns, ElementsAre("v.a uniqueidentifier", "v.b nvarchar", "v.c nvarchar 20", "v.d char 3",
                                     "v.e smallint", "v.f int", "v.g bigint", "v.h bit", "v.i float", "v.j double",
                                     "v.k decimal 10", "v.l datetime", "v.m datetime", "v.n datetime", "v.o image",
                                     "v.p nvarchar", "v.q inet", "w.n int"));
}

TEST_F(PostgresSchema, ItsViewsAreToldOfLikeThoseOfSqlite) {
    const auto told = [] {
        std::vector<std::string> columns;
        QORRdbmsTran tran(ASAccess::Read);
        for (const QORViewColumn& column : readViews(*tran))
            columns.push_back(column.view + "." + column.column + " " + column.type + " " +
                              std::to_string(column.length));
        return columns;
    };
    open();
    const auto here = told();
    QORRdbms::instance().shutdown();
    const TemporaryDirectory folder;
    QORDBSchema::open({.connectionString = "Driver=SQLite3;Database=" + (folder / "agent.db").string()},
                      QORSchemaMode::Own);
    EXPECT_EQ(here, told());
}

TEST_F(PostgresSchema, OrdersOfNullsAndTextsAreServedByIndexes) {
    open();
    PostgresConnection own = connect();
    own.run("SET enable_seqscan = off");
    own.run("SET enable_sort = off");
    for (const char* const select :
         {"\"vOpLog\" ORDER BY time DESC NULLS LAST", "\"vOpLog\" ORDER BY time NULLS FIRST",
          "\"vOpLog\" ORDER BY id COLLATE \"C\" NULLS FIRST", "\"vOpLog\" WHERE eid IS NULL ORDER BY time NULLS FIRST",
          "\"vEventLog\" ORDER BY id DESC NULLS LAST", "\"vEnvironment\" ORDER BY eid NULLS FIRST",
          "\"vEnvironment\" ORDER BY hostname COLLATE \"C\" DESC NULLS LAST",
          "\"vBackupInfo\" WHERE eid = '00000001-0000-0000-0000-000000000000' ORDER BY time DESC NULLS LAST"}) {
        std::string plan;
        for (const auto& line : own.rows("EXPLAIN SELECT * FROM " + std::string(select)))
            plan += line.front() + '\n';
        EXPECT_THAT(plan, testing::Not(HasSubstr("Sort"))) << select;
        EXPECT_THAT(plan, HasSubstr("Index")) << select;
    }
}

/// Changes of the logs as any program may make them, most of them to many records at once.
class Changes {
public:
    explicit Changes(unsigned seed) : m_random(seed) {}

    std::string next() {
        switch (below(20)) {
            case 0:
            case 1:
                return "DELETE FROM qor_operation WHERE seq % " + part();
            case 2:
                return "UPDATE qor_operation SET time = " + time() + ", eid = " + owner() + " WHERE seq % " + part();
            case 3:
                return "UPDATE qor_operation SET seq = seq + 1000000 WHERE seq % " + part();
            case 4:
                return "DELETE FROM qor_operation_environment WHERE operation % " + part();
            case 5:
                return "UPDATE qor_operation_environment SET own = " + owner() + ", time = " + time() +
                       " WHERE operation % " + part();
            case 6:
                return "UPDATE qor_operation_environment SET eid = " + eid(below(4)) + " WHERE operation % " + part() +
                       " AND NOT EXISTS (SELECT FROM qor_operation_environment o WHERE o.operation = "
                       "qor_operation_environment.operation AND o.eid <> qor_operation_environment.eid)";
            case 7:
                return "INSERT INTO qor_operation (id, status, time, eid) VALUES ('" +
                       (m_count == 0 ? "none" : std::to_string(below(m_count))) + "', 1, " + time() + ", " + owner() +
                       ") ON CONFLICT (id) DO UPDATE SET time = excluded.time, eid = excluded.eid";
            case 8:
                return below(4) == 0 ? "TRUNCATE qor_operation_environment" : "TRUNCATE qor_event";
            case 9:
                return "DELETE FROM qor_event WHERE seq % " + part();
            case 10:
                return "UPDATE qor_event SET category = " + category() + ", time = " + time() + " WHERE seq % " +
                       part();
            case 11:
            case 12:
                return "INSERT INTO qor_event (time, eid, category) SELECT " + time() + ", " + owner() + ", " +
                       category() + " FROM generate_series(1, " + std::to_string(amount()) + ")";
            case 13:
            case 14:
                return "INSERT INTO qor_operation_environment (operation, eid) SELECT seq, " + eid(below(4)) +
                       " FROM qor_operation WHERE seq % " + part() + " ON CONFLICT DO NOTHING";
            default:
                return operations();
        }
    }

private:
    unsigned below(unsigned end) { return static_cast<unsigned>(m_random() % end); }
    unsigned amount() {
        constexpr unsigned amounts[] = {1, 1, 7, 300, 900};
        return amounts[below(5)];
    }
    std::string part() {
        const unsigned parts = 2 + below(8);
        return std::to_string(parts) + " = " + std::to_string(below(parts));
    }
    std::string owner() { return below(5) == 0 ? "NULL" : eid(below(4)); }
    std::string category() {
        return below(5) == 0 ? "NULL" : below(5) == 0 ? "''" : "'c" + std::to_string(below(3)) + "'";
    }
    std::string time() {
        const unsigned kind = below(10);
        const std::string second =
            kind < 2   ? "1700000000"
            : kind < 9 ? std::to_string(1700000000 + below(kind < 5 ? 300 : 100000))
                       : std::to_string(static_cast<std::int64_t>(m_random() % 250000000000) - 60000000000);
        return "qor_time(" + second + ")";
    }
    std::string operations() {
        std::string sql = "INSERT INTO qor_operation (id, status, time, eid) VALUES ";
        for (unsigned left = amount(); left > 0; --left)
            sql += "('" + std::to_string(m_count++) + "', 0, " + time() + ", " + owner() + (left > 1 ? ")," : ")");
        return sql;
    }

    std::mt19937_64 m_random;
    unsigned m_count = 0;
};

TEST_F(PostgresSchema, CountersEqualTheirRecordsAfterAnyChangeByAnyProgram) {
    open();
    PostgresConnection own = connect();
    for (unsigned seed = 1; seed <= 2; ++seed) {
        Changes changes(seed);
        own.run("TRUNCATE qor_operation, qor_operation_environment, qor_event");
        for (int i = 0; i < 60; ++i) {
            const std::string change = changes.next();
            own.run(change);
            ASSERT_EQ(own.rows(wrongOperationCounters), Rows()) << seed << ": " << change.substr(0, 200);
            ASSERT_EQ(own.rows(wrongEventCounters), Rows()) << seed << ": " << change.substr(0, 200);
        }
        EXPECT_NE(own.cell("SELECT count(*) FROM qor_operation_count WHERE split = 1"), "0") << "nothing was split";
    }
}

TEST_F(PostgresSchema, WhatWasRolledBackIsNotCounted) {
    open();
    PostgresConnection own = connect();
    own.run("INSERT INTO qor_operation (id, status, time) VALUES ('a', 0, '2024-05-01')");
    own.run("BEGIN");
    own.run("INSERT INTO qor_operation (id, status, time) VALUES ('b', 0, '2024-05-01')");
    own.run("ROLLBACK");
    EXPECT_EQ(own.cell("SELECT n FROM qor_operation_count WHERE scope = '' AND level = 24"), "1");
}

TEST_F(PostgresSchema, WhoHasStoredRecordsKeepsNobodyWaitingUntilItsCommit) {
    open();
    PostgresConnection one = connect();
    PostgresConnection other = connect();
    one.run("BEGIN");
    one.run("INSERT INTO qor_operation (id, status, time, eid) VALUES ('a', 0, '2024-05-01', " + eid(1) + ")");
    one.run("INSERT INTO qor_event (time, eid, category) VALUES ('2024-05-01', " + eid(1) + ", 'c')");
    other.run("SET lock_timeout = 1");
    other.run("INSERT INTO qor_operation (id, status, time, eid) VALUES ('b', 0, '2024-05-01', " + eid(1) + ")");
    other.run("INSERT INTO qor_event (time, eid, category) VALUES ('2024-05-01', " + eid(1) + ", 'c')");
    one.run("COMMIT");
    EXPECT_EQ(one.rows(wrongOperationCounters), Rows());
    EXPECT_EQ(one.rows(wrongEventCounters), Rows());
    EXPECT_EQ(one.cell("SELECT n FROM qor_operation_count WHERE scope = '' AND level = 24"), "2");
    EXPECT_EQ(one.cell("SELECT count(*) FROM qor_count_due"), "0");
}

TEST_F(PostgresSchema, WhatATransactionDoesIsCountedOnceWhateverElseItDoes) {
    open();
    PostgresConnection own = connect();
    const std::string record = "INSERT INTO qor_operation (id, status, time) VALUES ('";
    for (const std::string between :
         {"SELECT 1",
          "SAVEPOINT s; INSERT INTO qor_operation (id, status, time) VALUES ('c', 0, '2024-05-01'); ROLLBACK TO s",
          "TRUNCATE qor_operation, qor_operation_environment", "SELECT qor_operation_recount('')",
          "SET CONSTRAINTS ALL IMMEDIATE", "DELETE FROM qor_operation",
          "UPDATE qor_operation SET time = '2024-06-01'"}) {
        own.run("TRUNCATE qor_operation, qor_operation_environment");
        own.run("BEGIN");
        own.run(record + "a', 0, '2024-05-01')");
        own.run(between);
        own.run(record + "b', 0, '2024-05-01')");
        own.run("COMMIT");
        EXPECT_EQ(own.rows(wrongOperationCounters), Rows()) << between;
        EXPECT_EQ(own.cell("SELECT count(*) FROM qor_count_due"), "0") << between;
    }
}

TEST_F(PostgresSchema, CountersOfAnOlderVersionAreGoneOnWith) {
    constexpr int before = 8;  // counters were changed by each statement
    QORRdbms::instance().configure({.connectionString = m_database.connectionString()});
    QORRdbms::instance().write([](ASSession& session) { QORDBSchema::migrate(session, before); });
    PostgresConnection own = connect();
    Changes changes(5);
    for (int i = 0; i < 20; ++i)
        own.run(changes.next());
    EXPECT_EQ(open().found.version, before);
    for (int i = 0; i < 20; ++i)
        own.run(changes.next());
    EXPECT_EQ(own.rows(wrongOperationCounters), Rows());
    EXPECT_EQ(own.rows(wrongEventCounters), Rows());
}

TEST_F(PostgresSchema, WritersMeetWithoutWaitingInACircle) {
    open();
    std::vector<pid_t> children;
    for (unsigned writer = 0; writer < 6; ++writer) {
        const pid_t child = ::fork();
        if (child == 0) {
            try {
                PostgresConnection own(PostgresServer::shared().conninfo(m_database.name()));
                std::mt19937 random(writer);
                for (unsigned batch = 0; batch < 25; ++batch) {
                    const unsigned records = std::array<unsigned, 3>{1, 40, 300}[random() % 3];
                    std::string sql;
                    for (unsigned i = 0; i < records; ++i) {
                        const std::string second = std::to_string(1700000000 + random() % 2000);
                        const auto owner = static_cast<unsigned>(random() % 3);
                        const std::string id =
                            std::to_string(writer) + '-' + std::to_string(batch) + '-' + std::to_string(i);
                        sql +=
                            (sql.empty() ? "('" : ",('") + id + "', 0, qor_time(" + second + "), " + eid(owner) + ')';
                    }
                    own.run("BEGIN");
                    own.run("INSERT INTO qor_operation (id, status, time, eid) VALUES " + sql);
                    own.run(random() % 8 == 0 ? "ROLLBACK" : "COMMIT");
                }
            } catch (const std::exception& error) {
                std::fprintf(stderr, "%s\n", error.what());
                ::_exit(1);
            }
            ::_exit(0);
        }
        children.push_back(child);
    }
    for (const pid_t child : children)
        EXPECT_EQ(exitStatusOf(child), 0);
    PostgresConnection own = connect();
    EXPECT_EQ(own.rows(wrongOperationCounters), Rows());
    EXPECT_NE(own.cell("SELECT count(*) FROM qor_operation"), "0");
}

TEST_F(PostgresSchema, ACounterOfAnyScopeCanBeCountedAnew) {
    open();
    PostgresConnection own = connect();
    Changes changes(9);
    for (int i = 0; i < 60; ++i)
        own.run(changes.next());
    own.run("UPDATE qor_operation_count SET n = n + 1");
    own.run("DELETE FROM qor_operation_count WHERE level < 16");
    ASSERT_NE(own.rows(wrongOperationCounters), Rows());
    own.rows("SELECT qor_operation_recount(scope) FROM (SELECT DISTINCT scope FROM qor_operation_count) s");
    EXPECT_EQ(own.rows(wrongOperationCounters), Rows());
}

TEST_F(PostgresSchema, AProgramWithAnotherSearchPathIsCountedToo) {
    open();
    PostgresConnection own = connect();
    own.run("SET search_path = pg_catalog");
    own.run("INSERT INTO public.qor_operation (id, status, time) VALUES ('a', 0, '2024-05-01')");
    EXPECT_EQ(own.cell("SELECT n FROM public.qor_operation_count WHERE scope = '' AND level = 24"), "1");
}

TEST_F(PostgresSchema, TimesThatNoClientCouldReadAreRefused) {
    open();
    PostgresConnection own = connect();
    for (const char* const time : {"infinity", "-infinity", "10000-01-01", "0001-01-01 BC"})
        EXPECT_THROW(own.run("INSERT INTO qor_event (time) VALUES ('" + std::string(time) + "')"), std::runtime_error)
            << time;
}

TEST_F(PostgresSchema, ADocumentThatIsReplacedOrRemovedIsNoUnreadableOneAnyMore) {
    open();
    PostgresConnection own = connect();
    own.run("INSERT INTO qor_event (seq, time, info) SELECT n, '2024-05-01', 'x' FROM generate_series(1, 3) AS n");
    own.run("INSERT INTO qor_unreadable_document SELECT 'qor_event', 'info', seq FROM qor_event");
    own.run("UPDATE qor_event SET source = 's'");
    EXPECT_EQ(own.cell("SELECT count(*) FROM qor_unreadable_document"), "3");
    own.run("UPDATE qor_event SET info = 'y' WHERE seq = 1");
    own.run("DELETE FROM qor_event WHERE seq = 2");
    EXPECT_EQ(own.rows("SELECT record FROM qor_unreadable_document"), (Rows{{"3"}}));
}

}  // namespace
}  // namespace QOR::test
