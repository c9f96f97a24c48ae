// That hidden rows tell nothing, proved over a database in which they provoke whatever an engine fails on; and that the
// proof would notice.
#include "selfcheck/QORSecurityCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <thread>

#include "QORCommon/QORException.h"
#include "QORCommon/QORPrivateFolder.h"
#include "ctl/CtlProcess.h"
#include "selfcheck/QORSecurityCopies.h"
#include "selfcheck/SqliteSecurityCopies.h"
#include "support/DirectDatabase.h"
#include "support/TestDatabase.h"

namespace QOR {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Each environment has rows of its own kinds. Those of the last two hold what provokes: texts that are too long for a
// pattern, numbers that add up beyond 64 bits, dates that are none, documents that cannot be read. All views but vOpen
// are restricted; their columns are stored, computed by the view and computed by the table. No index finds the rows of
// an environment in record, so that the engine comes by the hidden ones; one finds those in twin.
constexpr const char* hostileSqlite = R"sql(
CREATE TABLE record (id int PRIMARY KEY, eid uniqueidentifier, other uniqueidentifier, title nvarchar(40), body nvarchar,
    n bigint, m int, part float, born datetime, doc nvarchar, picture image, op int GENERATED ALWAYS AS (1) VIRTUAL);
CREATE INDEX record_title ON record (title);
CREATE INDEX record_n ON record (n, eid);
WITH RECURSIVE i(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM i WHERE i < 240)
INSERT INTO record (id, eid, other, title, body, n, m, part, born, doc, picture)
SELECT i, printf('%08d-0000-4000-8000-000000000000', i % 6), CASE WHEN i % 5 = 0 THEN NULL ELSE
    printf('%08d-0000-4000-8000-000000000000', (i + 1) % 6) END,
    CASE WHEN i % 11 = 0 THEN NULL ELSE 'title ' || (i % 13) END,
    CASE WHEN i % 6 >= 4 AND i <= 24 THEN replace(hex(zeroblob(25500)), '0', CASE i % 2 WHEN 0 THEN '%' ELSE 'x' END) || i
         ELSE 't%' || (i % 7) END,
    CASE WHEN i % 6 >= 4 THEN 9223372036854775807 - i WHEN i % 10 = 3 THEN 'word' ELSE i * 3 END,
    CASE WHEN i % 6 >= 4 THEN 2147483000 ELSE i % 17 END, i / 4.0,
    CASE WHEN i % 6 >= 4 THEN 'some day' ELSE printf('2024-%02d-%02d 12:00:00', 1 + i % 12, 1 + i % 28) END,
    CASE WHEN i % 6 >= 4 THEN '{broken' ELSE printf('{"a":"x%d","n":%d}', i % 5, i % 9) END,
    CASE WHEN i % 2 = 0 THEN NULL ELSE zeroblob(i % 6) END
FROM i;
ALTER TABLE record ADD COLUMN counted int GENERATED ALWAYS AS (json_extract(doc, '$.n')) VIRTUAL;
CREATE VIEW vRecord AS SELECT id, eid, title, body, n, m, part, born, counted, json_extract(doc, '$.a') AS word, picture,
    op AS securityOperation_1, eid AS securableObjId FROM record;
CREATE TABLE twin (number int, name nvarchar(40), amount bigint, time datetime, eid uniqueidentifier,
    other uniqueidentifier, op int);
CREATE INDEX twin_eid ON twin (eid, time);
CREATE INDEX twin_name ON twin (name);
INSERT INTO twin SELECT id, title, n, born, eid, other, op FROM record;
CREATE VIEW vTwin AS SELECT number, name, amount, time, op AS securityOperation_4, eid AS securableObjId FROM twin;
CREATE VIEW vPair AS SELECT number, name, amount, time, op AS securityOperation_2, eid AS securableObjId0,
    other AS securableObjId1 FROM twin;
CREATE VIEW vEither AS SELECT id, title, n, op AS securityOperation_3, eid AS securableObjId FROM record WHERE id < 120
    UNION ALL SELECT id, title, m, op, other FROM record WHERE id >= 120;
CREATE TABLE open (a int, b nvarchar(20), c datetime, eid uniqueidentifier);
WITH RECURSIVE i(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM i WHERE i < 30)
INSERT INTO open SELECT i, 'title ' || i, printf('2024-%02d-01 12:00:00', 1 + i % 12),
    printf('%08d-0000-4000-8000-000000000000', i % 6) FROM i;
CREATE VIEW vOpen AS SELECT * FROM open;
)sql";

// What provokes this engine: conversions, divisions and documents that fail, numbers and times that are none or beyond
// what an agent reads. It asks what costs little before what costs more, so that the views compute by functions that
// are said to cost next to nothing, and looks values up in its statistics. One view is materialised.
constexpr const char* hostilePostgres = R"sql(
CREATE FUNCTION env(i int) RETURNS uuid LANGUAGE sql IMMUTABLE AS
    $$ SELECT (lpad(i::text, 8, '0') || '-0000-4000-8000-000000000000')::uuid $$;
CREATE FUNCTION number(doc text) RETURNS int LANGUAGE plpgsql IMMUTABLE COST 0.0001 AS
    $$ BEGIN RETURN (doc::json ->> 'n')::int; END $$;
CREATE FUNCTION share(m int) RETURNS int LANGUAGE plpgsql IMMUTABLE COST 0.0001 AS
    $$ BEGIN RETURN 1000 / (m - 2147483000); END $$;
CREATE TABLE record (id int PRIMARY KEY, eid uuid, other uuid, title varchar(40), body text, n bigint, m int,
    part float8, price numeric, born timestamp, day date, at timestamptz, doc text, picture bytea, code char(6), fine bool);
CREATE INDEX record_title ON record (title NULLS FIRST);
CREATE INDEX record_n ON record (n NULLS FIRST, eid);
INSERT INTO record SELECT i, env(i % 6), CASE WHEN i % 5 > 0 THEN env((i + 1) % 6) END,
    CASE WHEN i % 11 > 0 THEN 'title ' || i % 13 END,
    CASE WHEN hidden AND i <= 24 THEN repeat(CASE i % 2 WHEN 0 THEN '%' ELSE 'x' END, 51000) || i ELSE 't%' || i % 7 END,
    CASE WHEN hidden THEN 9223372036854775807 - i ELSE i * 3 END, CASE WHEN hidden THEN 2147483000 ELSE i % 17 END,
    CASE WHEN hidden THEN (ARRAY['NaN', 'Infinity', '-Infinity', '1e308'])[1 + i % 4]::float8 ELSE i / 4.0 END,
    CASE WHEN hidden THEN (ARRAY['NaN', '1e400', '-1e400'])[1 + i % 3]::numeric ELSE i / 8.0 END,
    CASE WHEN hidden THEN (ARRAY['infinity', '-infinity', '20000-01-01', '0044-03-15 BC'])[1 + i % 4]::timestamp
         ELSE timestamp '2024-01-01 12:00' + i % 28 * interval '13 days' END,
    CASE WHEN hidden THEN 'infinity'::date ELSE date '2024-01-01' + i % 40 END,
    CASE WHEN hidden THEN '-infinity'::timestamptz ELSE timestamptz '2024-01-01 12:00+02' + i % 9 * interval '1 hour' END,
    CASE WHEN hidden THEN '{broken' ELSE format('{"a":"x%s","n":%s}', i % 5, i % 9) END,
    CASE WHEN i % 2 > 0 THEN decode(repeat('00', i % 6), 'hex') END, 'c' || i % 4, i % 3 = 0
FROM generate_series(1, 240) i, LATERAL (SELECT i % 6 >= 4) h (hidden);
CREATE VIEW "vRecord" AS SELECT id, eid, title, body, n, m, part, price, born, day, at, number(doc) AS counted,
    doc::json ->> 'a' AS word, share(m) AS share, extract(year FROM born)::int AS year, picture, code, fine,
    1::int AS "securityOperation_1", eid AS "securableObjId" FROM record;
CREATE TABLE twin (number int, name varchar(40), amount bigint, time timestamp, eid uuid, other uuid, small int2);
CREATE INDEX twin_eid ON twin (eid, time);
CREATE INDEX twin_name ON twin (name NULLS FIRST);
INSERT INTO twin SELECT id, title, n, born, eid, other, m % 100 FROM record;
CREATE VIEW "vTwin" AS SELECT number, name, amount, time, small, 4::int AS "securityOperation_4", eid AS "securableObjId"
    FROM twin;
CREATE VIEW "vPair" AS SELECT number, name, amount, time, 2::int AS "securityOperation_2", eid AS "securableObjId0",
    other AS "securableObjId1" FROM twin;
CREATE MATERIALIZED VIEW "vKept" AS SELECT number, name, amount, 5::int AS "securityOperation_5", eid AS "securableObjId"
    FROM twin;
CREATE VIEW "vEither" AS SELECT id, title, n, 3::int AS "securityOperation_3", eid AS "securableObjId" FROM record
    WHERE id < 120 UNION ALL SELECT id, title, m, 3::int, other FROM record WHERE id >= 120;
CREATE VIEW "vJoined" AS SELECT r.id, t.name, number(r.doc) / nullif(t.small, 0) AS part,
    6::int AS "securityOperation_6", t.eid AS "securableObjId" FROM record r JOIN twin t ON t.number = r.id;
CREATE TABLE open (a int, b varchar(20), c timestamp, eid uuid);
INSERT INTO open SELECT i, 'title ' || i, make_timestamp(2024, 1 + i % 12, 1, 12, 0, 0), env(i % 6)
    FROM generate_series(1, 30) i;
CREATE VIEW "vOpen" AS SELECT * FROM open;
ANALYZE;
)sql";

/// Sanitizers are slow, and a server is asked over a socket; `qorctl self-check security --requests` asks for more.
std::size_t requests() {
#ifdef QOR_SANITIZED
    return 2'000;
#else
    return test::testEngine() == ASEngine::SQLite ? 6'000 : 2'000;
#endif
}

class SecurityCheck : public ::testing::Test {
protected:
    SecurityCheck() { test::DirectDatabase(m_database).run(test::oneOf(hostileSqlite, hostilePostgres)); }

    static std::vector<std::string> restrictedViews() {
        if (test::testEngine() == ASEngine::SQLite) return {"vEither", "vPair", "vRecord", "vTwin"};
        return {"vEither", "vJoined", "vKept", "vPair", "vRecord", "vTwin"};
    }
    std::string connection() const { return m_database.connectionString(); }

    test::TestDatabase m_database;
};

std::string told(const QORSecurityReport& report) {
    std::string text;
    for (const QORSecurityDifference& difference : report.differences)
        text += difference.request.substr(0, 3000) + "\n  " + difference.restricted.substr(0, 600) + "\n  " +
                difference.expected.substr(0, 600) + "\n";
    return text;
}

TEST_F(SecurityCheck, HiddenRowsThatProvokeErrorsTellNothing) {
    QORSecurityCheckOptions options;
    options.requests = requests();
    const QORSecurityReport report = checkSecurity(connection(), options);
    EXPECT_EQ(report.different, 0U) << told(report);
    EXPECT_EQ(report.requests, requests());
    EXPECT_EQ(report.restrictedViews, restrictedViews());
    EXPECT_EQ(report.openViews, std::vector<std::string>{"vOpen"});
    EXPECT_GT(report.rows, requests());
    for (const char* const shape :
         {"aggregate", "between", "comparison", "correlated", "distinct", "function", "in", "is null", "like", "nested",
          "nested aggregate", "page", "pattern of a column", "pattern of a function", "sort"}) {
        EXPECT_GT(report.shapes.count(shape) > 0 ? report.shapes.at(shape) : 0, requests() / 200) << shape;
    }
    EXPECT_FALSE(report.errors.empty());
}

/// The host's own database, which both operators select from. Records of environments 0 to 2 are harmless; those of the
/// others hold what a filter cannot be evaluated with, patterns for whatever is compared with them, documents of any
/// size, and touch each other's environments. There are so many records in so little time that counters are split.
class OwnDatabaseCheck : public ::testing::Test {
protected:
    OwnDatabaseCheck() {
        const test::CtlResult result =
            test::runCtl({"import", "--standalone", "--database", m_own.connectionString()}, records());
        EXPECT_EQ(result.status, 0) << result.err;
    }

    static std::string guid(unsigned number) {
        return "0000000" + std::to_string(number) + "-0000-4000-8000-000000000000";
    }
    /// Of a record; of none for every seventh.
    static std::string owner(unsigned record) {
        return record % 7 == 6 ? std::string() : R"(,"eid":")" + guid(record % 7) + "\"";
    }
    static bool isHostile(unsigned record) { return record % 7 >= 3; }

    static std::string records() {
        std::string lines;
        for (unsigned i = 0; i < 6; ++i) {
            const std::string number = std::to_string(i);
            lines += R"({"kind":"environment","eid":")" + guid(i) + R"(","parent_eid":")" + guid((i + 4) % 6) +
                     R"(","title":")" + (i < 3 ? "title " + number : std::string(60, '%')) + R"(","state":)" + number +
                     R"(,"config":{"name":"n)" + number + R"(","hostname":"h)" + number + R"(","memory":")" +
                     std::string(i < 3    ? "1024"
                                 : i == 3 ? "0"
                                 : i == 4 ? "much"
                                          : "") +
                     R"(","ip":["10.0.0.)" + number + "\"]}}\n";
        }
        for (unsigned i = 0; i < 420; ++i) {
            const std::string number = std::to_string(i);
            const std::string time = std::to_string(1700000000 + i % 5 * 100000 + i % 11);
            const std::string text = isHostile(i) ? "100%_" + number : "text " + std::to_string(i % 9);
            lines += R"({"kind":"operation","id":"o)" + number + R"(","time":)" + time + owner(i) + R"(,"eids":[")" +
                     guid(i % 6) + R"(",")" + guid((i / 3) % 6) + R"("],"op":"op)" + std::to_string(i % 4) +
                     R"(","status":)" + number + R"(,"message":{"a":")" + text + R"(","env":{"eid":")" +
                     guid((i + 1) % 6) + R"("},"source_env":{"title":"of )" + number + R"("}}})" + "\n" +
                     R"({"kind":"event","source":"e)" + number + R"(","time":)" + time + owner(i / 2) +
                     R"(,"category":")" + std::array{"env_status", "resource_alert", "other"}[i % 3] +
                     R"(","info":{"secret":")" + text + "\"}}\n";
        }
        for (unsigned i = 0; i < 140; ++i) {
            const std::string number = std::to_string(i % 9);
            lines += R"({"kind":"backup","id":"b)" + std::to_string(i) + R"(","time":)" +
                     std::to_string(1700000000 + i % 50) + owner(i) + R"(,"storage_eid":")" + guid(i % 6) +
                     R"(","name":"n)" + (isHostile(i) ? std::string(200, '%') : number) + R"(","hostname":"h)" +
                     number + R"(","description":")" + std::string(i % 35 == 3 ? 60000 : 3, '%') +
                     R"(","info":{"title":"t)" + number + R"(","veid":")" + number + R"(","ip":"10.0.0.)" + number +
                     "\"}}\n";
        }
        return lines;
    }

    test::TestDatabase m_own{test::TestTables::Own};
};

TEST_F(OwnDatabaseCheck, BothOperatorsTellNothingOfHiddenRows) {
    QORSecurityCheckOptions options;
    options.requests = requests() / 2;
    options.seed = 3;
    const QORSecurityReport report = checkSecurity(m_own.connectionString(), options);
    EXPECT_EQ(report.different, 0U) << told(report);
    EXPECT_EQ(report.restrictedViews, (std::vector<std::string>{"vBackupInfo", "vEnvironment", "vEventLog", "vOpLog"}));
    EXPECT_EQ(report.operators.at("pager"), options.requests / 2);
    EXPECT_EQ(report.operators.at("pager2"), options.requests / 2);
    for (const char* const shape :
         {"pager: operation log", "pager: event log", "pager: backups", "pager: filter", "pager: page",
          "pager: statistics", "pager: sort", "pager: category", "pager: environment", "pager: time",
          "pager: environments in the filter", "pager: like", "pager: division", "pager: comparison", "pager: trouble",
          "pager: exact", "pager: count"}) {
        EXPECT_GT(report.shapes.count(shape) > 0 ? report.shapes.at(shape) : 0, options.requests / 200) << shape;
    }
    // Both what every client is told and what depends on the rows that one may see.
    EXPECT_THAT(report.errors, ::testing::Contains(::testing::Key("Pager evaluating error: Division by zero")));
    EXPECT_THAT(report.errors, ::testing::Contains(::testing::Key("Pager evaluating error: Invalid type")));
}

/// Rows of a part, whichever engine it is of.
std::vector<std::vector<std::string>> rowsOf(const QORVisiblePart& part, const std::string& sql) {
    QORRdbms database;
    database.configure(part.database);
    QORRdbmsTran tran(database, ASAccess::Read);
    ASStatement& select = tran->prepare(sql);
    select.execute();
    std::vector<std::vector<std::string>> rows;
    while (select.fetch())
        rows.push_back({std::string(select.text(1))});
    select.close();
    return rows;
}

TEST_F(OwnDatabaseCheck, APartIsADatabaseOfTheClientsRecordsAlone) {
    const auto copies = QORSecurityCopies::of(m_own.connectionString());
    EXPECT_TRUE(copies->whole().isHostDatabase());
    const QORVisiblePart part = copies->makePart(checkedViews(copies->whole()), {guid(1), guid(4)});
    for (const char* const table : {"qor_operation", "qor_event", "qor_environment"}) {
        EXPECT_EQ(rowsOf(part, std::string("SELECT DISTINCT eid FROM ") + table + " ORDER BY 1"),
                  (std::vector<std::vector<std::string>>{{guid(1)}, {guid(4)}}))
            << table;
    }
    EXPECT_EQ(rowsOf(part, "SELECT n FROM qor_operation_count WHERE scope = '' AND level = 24"),
              (std::vector<std::vector<std::string>>{{"120"}}));
    EXPECT_EQ(rowsOf(part, "SELECT DISTINCT own FROM qor_operation_environment ORDER BY 1"),
              (std::vector<std::vector<std::string>>{{guid(1)}, {guid(4)}}));
}

// What is written meanwhile is in the answers that the client gets of the whole, and not in a part that was made
// before.
TEST_F(OwnDatabaseCheck, WhatOthersWriteMeanwhileIsNoDifference) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    QORSecurityCheckOptions options;
    options.requests = 400;
    std::atomic<bool> ended = false;
    std::thread writer([&] {
        test::DirectDatabase other(m_own);
        for (unsigned i = 0; !ended; ++i) {
            other.run("INSERT INTO qor_event (time, eid, category) VALUES ('2024-01-01', '" + guid(i % 6) + "', 'x')");
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
        }
    });
    const QORSecurityReport report = checkSecurity(m_own.connectionString(), options);
    ended = true;
    writer.join();
    EXPECT_EQ(report.different, 0U) << told(report);
    EXPECT_LT(report.unsettled, options.requests / 2) << "most ask about what nobody writes";
}

TEST_F(SecurityCheck, TheCommandSaysWhatItTriedAndLeavesTheDatabaseAlone) {
    const bool sqlite = test::testEngine() == ASEngine::SQLite;
    const auto changed = [&] {
        return sqlite ? std::filesystem::last_write_time(m_database.file()) : std::filesystem::file_time_type();
    };
    const auto before = changed();
    const test::CtlResult result = test::runCtl(
        {"self-check", "security", "--standalone", "--database", connection(), "--requests", "500", "--seed", "7"});
    EXPECT_EQ(result.status, 0) << result.err << result.out;
    EXPECT_THAT(result.out, HasSubstr(sqlite ? "Restricted views: vEither, vPair, vRecord, vTwin\n"
                                             : "Restricted views: vEither, vJoined, vKept, vPair, vRecord, vTwin\n"));
    EXPECT_THAT(result.out, HasSubstr("500 requests of 4 clients"));
    EXPECT_THAT(result.out, HasSubstr("0 answers differ"));
    EXPECT_EQ(changed(), before);
    if (sqlite) {
        for (const auto& entry : std::filesystem::directory_iterator(m_database.folder().path()))
            EXPECT_EQ(entry.path(), m_database.file()) << "left behind";
    } else {
        EXPECT_EQ(test::DirectDatabase(m_database).cell("SELECT count(*) FROM pg_namespace WHERE nspname LIKE 'qor%'"),
                  "0")
            << "left behind";
    }
}

TEST_F(SecurityCheck, TheCommandNeedsADatabaseThatIsThere) {
    EXPECT_EQ(test::runCtl({"self-check", "security"}).status, 2);
    EXPECT_EQ(test::runCtl({"self-check", "security", "--requests", "0"}).status, 2);
    const auto file = m_database.folder() / "no.db";
    const auto missing = test::runCtl({"self-check", "security", "--standalone", "--database", file});
    EXPECT_EQ(missing.status, 3);
    EXPECT_THAT(missing.err, HasSubstr("no.db"));
    EXPECT_THAT(missing.err, HasSubstr("there is no such file"));
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(SecurityCheck, ARoleThatMayNotMakeASchemaIsToldSo) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    test::DirectDatabase direct(m_database);
    const std::string role = "reads_" + direct.cell("SELECT current_database()");
    direct.run("CREATE ROLE " + role + " LOGIN; GRANT SELECT ON ALL TABLES IN SCHEMA public TO " + role);
    std::string string = connection();
    string.replace(string.find("UID=qor"), 7, "UID=" + role);
    const auto result = test::runCtl({"self-check", "security", "--standalone", "--database", string});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("CREATE SCHEMA qor_check_"));
    EXPECT_THAT(result.err, HasSubstr("permission denied for database"));
    direct.run("DROP OWNED BY " + role + "; DROP ROLE " + role);
}

TEST_F(SecurityCheck, APartHoldsTheRowsOfItsClientAndNoOther) {
    const auto copies = QORSecurityCopies::of(connection());
    const auto views = checkedViews(copies->whole());
    const std::set<std::string> eids{"00000001-0000-4000-8000-000000000000", "00000003-0000-4000-8000-000000000000"};
    const QORVisiblePart part = copies->makePart(views, eids);
    EXPECT_EQ(part.sizes.at("vRecord"), 80U);
    EXPECT_EQ(part.sizes.at("vOpen"), 30U);
    EXPECT_EQ(rowsOf(part, "SELECT DISTINCT \"securableObjId\" FROM \"vRecord\" ORDER BY 1"),
              (std::vector<std::vector<std::string>>{{*eids.begin()}, {*eids.rbegin()}}));
    EXPECT_EQ(rowsOf(part, test::oneOf("SELECT count(*) FROM sqlite_master WHERE name = 'record'",
                                       "SELECT count(*) FROM pg_class WHERE relname = 'record' AND "
                                       "pg_table_is_visible(oid)")),
              (std::vector<std::vector<std::string>>{{"0"}}));
    EXPECT_THAT(copies->makePart(views, {"00000004-0000-4000-8000-000000000000"}).sizes,
                ::testing::Not(::testing::Contains(::testing::Key("vRecord"))))
        << "a client whose own rows cannot be read has no such part";
    EXPECT_THAT(copies->makePart(views, {}).sizes, ::testing::Contains(::testing::Pair("vRecord", 0U)))
        << "and one that stands for nothing an empty one";
}

TEST(SecurityFolder, IsForItsOwnerAlone) {
    const QORPrivateFolder folder;
    EXPECT_EQ(std::filesystem::status(folder.path()).permissions(), std::filesystem::perms::owner_all);
}

TEST(SecurityAnswers, ThatDifferAreSeenToDiffer) {
    const std::string one = R"({"response":[[1744,[[1026,"a"],[1739,[[1018,"1"]]],[1739,[[1018,"2"]]],[1040,"2"]]]]})";
    const std::string turned =
        R"({"response":[[1744,[[1026,"a"],[1739,[[1018,"2"]]],[1739,[[1018,"1"]]],[1040,"2"]]]]})";
    EXPECT_TRUE(isSameAnswer(one, one, true));
    EXPECT_TRUE(isSameAnswer(one, turned, false));
    EXPECT_FALSE(isSameAnswer(one, turned, true));
    for (const char* const other : {
             R"({"response":[[1744,[[1026,"a"],[1739,[[1018,"1"]]],[1739,[[1018,"3"]]],[1040,"2"]]]]})",
             R"({"response":[[1744,[[1026,"a"],[1739,[[1018,"1"]]],[1739,[[1018]]],[1040,"2"]]]]})",
             R"({"response":[[1744,[[1026,"a"],[1739,[[1018,"1"]]],[1739,[[1018,"2"]]],[1040,"3"]]]]})",
             R"({"response":[[1744,[[1026,"b"],[1739,[[1018,"1"]]],[1739,[[1018,"2"]]],[1040,"2"]]]]})",
             R"({"response":[[1744,[[1026,"a"],[1739,[[1018,"1"]]],[1040,"2"]]]]})",
             R"({"response":[],"error":{"code":1,"message":"x"}})",
         })
        EXPECT_FALSE(isSameAnswer(one, other, false)) << other;
    const std::string error = R"({"response":[],"error":{"code":1,"message":"x"}})";
    EXPECT_TRUE(isSameAnswer(error, R"({"response":[], "error":{"code":1,"message":"x"}})", true));
    EXPECT_FALSE(isSameAnswer(error, R"({"response":[],"error":{"code":1,"message":"y"}})", true));
    EXPECT_FALSE(isSameAnswer(error, R"({"response":[],"error":{"code":400,"message":"x"}})", true));
}

}  // namespace
}  // namespace QOR
