// That hidden rows tell nothing, proved over a database in which they provoke whatever an engine fails on; and that the
// proof would notice.
#include "selfcheck/QORSecurityCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "QORCommon/QORException.h"
#include "ctl/CtlProcess.h"
#include "selfcheck/QORSecurityCopies.h"
#include "selfcheck/QORSecurityRequests.h"
#include "support/TemporaryDirectory.h"

namespace QOR {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Each environment has rows of its own kinds. Those of the last two hold what provokes: texts that are too long for a
// pattern, numbers that add up beyond 64 bits, dates that are none, documents that cannot be read. All views but vOpen
// are restricted; their columns are stored, computed by the view and computed by the table. No index finds the rows of
// an environment in record, so that the engine comes by the hidden ones; one finds those in twin.
constexpr const char* hostile = R"sql(
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

#ifdef QOR_SANITIZED
constexpr std::size_t requests = 2'000;  // sanitizers are slow
#else
constexpr std::size_t requests = 20'000;
#endif

class SecurityCheck : public ::testing::Test {
protected:
    SecurityCheck() {
        QORCheckedDatabase database(file(), false);
        database.run(hostile);
    }
    std::filesystem::path file() const { return m_folder / "hostile.db"; }

    test::TemporaryDirectory m_folder;
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
    options.requests = requests;
    const QORSecurityReport report = checkSecurity(file(), options);
    EXPECT_EQ(report.different, 0U) << told(report);
    EXPECT_EQ(report.requests, requests);
    EXPECT_EQ(report.restrictedViews, (std::vector<std::string>{"vEither", "vPair", "vRecord", "vTwin"}));
    EXPECT_EQ(report.openViews, std::vector<std::string>{"vOpen"});
    EXPECT_GT(report.rows, requests);
    for (const char* const shape :
         {"aggregate", "between", "comparison", "correlated", "distinct", "function", "in", "is null", "like", "nested",
          "nested aggregate", "page", "pattern of a column", "pattern of a function", "sort"}) {
        EXPECT_GT(report.shapes.count(shape) > 0 ? report.shapes.at(shape) : 0, requests / 200) << shape;
    }
    EXPECT_FALSE(report.errors.empty());
}

/// The host's own database, which both operators select from. Records of environments 0 to 2 are harmless; those of the
/// others hold what a filter cannot be evaluated with, patterns for whatever is compared with them, documents of any
/// size, and touch each other's environments. There are so many records in so little time that counters are split.
class OwnDatabaseCheck : public SecurityCheck {
protected:
    OwnDatabaseCheck() : m_own("Driver=SQLite3;Database=" + own().string()) {
        const test::CtlResult result = test::runCtl({"import", "--standalone", "--database", m_own}, records());
        EXPECT_EQ(result.status, 0) << result.err;
    }
    std::filesystem::path own() const { return m_folder / "own.db"; }

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

    std::string m_own;
};

TEST_F(OwnDatabaseCheck, BothOperatorsTellNothingOfHiddenRows) {
    QORSecurityCheckOptions options;
    options.requests = requests / 2;
    options.seed = 3;
    const QORSecurityReport report = checkSecurity(own(), options);
    EXPECT_EQ(report.different, 0U) << told(report);
    EXPECT_EQ(report.restrictedViews, (std::vector<std::string>{"vBackupInfo", "vEnvironment", "vEventLog", "vOpLog"}));
    EXPECT_EQ(report.operators.at("pager"), options.requests / 2);
    EXPECT_EQ(report.operators.at("pager2"), options.requests / 2);
    for (const char* const shape : {"pager: operation log", "pager: event log", "pager: backups", "pager: filter",
                                    "pager: page", "pager: statistics", "pager: sort", "pager: category",
                                    "pager: environment", "pager: time", "pager: environments in the filter",
                                    "pager: like", "pager: division", "pager: comparison", "pager: trouble"}) {
        EXPECT_GT(report.shapes.count(shape) > 0 ? report.shapes.at(shape) : 0, options.requests / 200) << shape;
    }
    // Both what every client is told and what depends on the rows that one may see.
    EXPECT_THAT(report.errors, ::testing::Contains(::testing::Key("Pager evaluating error: Division by zero")));
    EXPECT_THAT(report.errors, ::testing::Contains(::testing::Key("Pager evaluating error: Invalid type")));
}

TEST_F(OwnDatabaseCheck, APartIsADatabaseOfTheClientsRecordsAlone) {
    const QORPrivateFolder folder;
    QORCheckedDatabase whole(own(), true);
    const auto views = checkedViews(whole);
    EXPECT_TRUE(isHostDatabase(whole));
    makeVisiblePart(own(), folder.path() / "part.db", views, {guid(1), guid(4)});
    QORCheckedDatabase part(folder.path() / "part.db", true);
    for (const char* const table : {"qor_operation", "qor_event", "qor_environment"}) {
        EXPECT_EQ(part.rows(std::string("SELECT DISTINCT eid FROM ") + table + " ORDER BY 1"),
                  (std::vector<std::vector<std::string>>{{guid(1)}, {guid(4)}}))
            << table;
    }
    EXPECT_EQ(part.rows("SELECT n FROM qor_operation_count WHERE scope = '' AND level = 24"),
              (std::vector<std::vector<std::string>>{{"120"}}));
    EXPECT_EQ(part.rows("SELECT DISTINCT own FROM qor_operation_environment ORDER BY 1"),
              (std::vector<std::vector<std::string>>{{guid(1)}, {guid(4)}}));
}

TEST_F(SecurityCheck, TheCommandSaysWhatItTriedAndLeavesTheDatabaseAlone) {
    const auto before = std::filesystem::last_write_time(file());
    const test::CtlResult result =
        test::runCtl({"self-check", "security", "--standalone", "--database",
                      "Driver=SQLite3;Database=" + file().string(), "--requests", "500", "--seed", "7"});
    EXPECT_EQ(result.status, 0) << result.err << result.out;
    EXPECT_THAT(result.out, HasSubstr("Restricted views: vEither, vPair, vRecord, vTwin\n"));
    EXPECT_THAT(result.out, HasSubstr("500 requests of 4 clients"));
    EXPECT_THAT(result.out, HasSubstr("0 answers differ"));
    EXPECT_EQ(std::filesystem::last_write_time(file()), before);
    for (const auto& entry : std::filesystem::directory_iterator(m_folder.path()))
        EXPECT_EQ(entry.path(), file()) << "left behind";
}

TEST_F(SecurityCheck, TheCommandNeedsADatabaseThatIsThere) {
    EXPECT_EQ(test::runCtl({"self-check", "security"}).status, 2);
    EXPECT_EQ(test::runCtl({"self-check", "security", "--requests", "0"}).status, 2);
    const auto missing =
        test::runCtl({"self-check", "security", "--standalone", "--database", (m_folder / "no.db").string()});
    EXPECT_EQ(missing.status, 3);
    EXPECT_THAT(missing.err, HasSubstr("no.db"));
    EXPECT_THAT(missing.err, HasSubstr("there is no such file"));
    EXPECT_FALSE(std::filesystem::exists(m_folder / "no.db"));
}

TEST_F(SecurityCheck, APartHoldsTheRowsOfItsClientAndNoOther) {
    const QORPrivateFolder folder;
    EXPECT_EQ(std::filesystem::status(folder.path()).permissions(), std::filesystem::perms::owner_all);
    QORCheckedDatabase whole(file(), true);
    const auto views = checkedViews(whole);
    const std::set<std::string> eids{"00000001-0000-4000-8000-000000000000", "00000003-0000-4000-8000-000000000000"};
    const auto sizes = makeVisiblePart(file(), folder.path() / "part.db", views, eids);
    EXPECT_EQ(sizes.at("vRecord"), 80U);
    EXPECT_EQ(sizes.at("vOpen"), 30U);
    QORCheckedDatabase part(folder.path() / "part.db", true);
    EXPECT_EQ(part.rows("SELECT DISTINCT securableObjId FROM vRecord ORDER BY 1"),
              (std::vector<std::vector<std::string>>{{*eids.begin()}, {*eids.rbegin()}}));
    EXPECT_EQ(part.rows("SELECT count(*) FROM sqlite_master WHERE name = 'record'").front().front(), "0");
    EXPECT_THAT(makeVisiblePart(file(), folder.path() / "all.db", views, {"00000004-0000-4000-8000-000000000000"}),
                ::testing::Not(::testing::Contains(::testing::Key("vRecord"))))
        << "a client whose own rows cannot be read has no such part";
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
