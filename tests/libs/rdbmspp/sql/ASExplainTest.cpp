// What an engine would do for a select is told in its words, with the values that it would be run with, and not done.
#include "rdbmspp/sql/ASExplain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libs/rdbmspp/EngineFixture.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class Explain : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        open(
            "CREATE TABLE t (id INT, n INT, s NVARCHAR(30));"
            "INSERT INTO t WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c WHERE x < 20000)"
            " SELECT x, x % 7, 'x' FROM c;"
            "CREATE INDEX t_id ON t(id" +
            std::string(isPostgres() ? " NULLS FIRST" : "") + "); ANALYZE; CREATE VIEW v AS SELECT * FROM t");
    }
    ASPlan plan(const ASComparison& condition, const std::vector<ASOrder>& order = {}) const {
        ASSelect select;
        select.Filter().Project() << s.attribute;
        if (!condition.empty()) select.Filter().Set(condition);
        if (!order.empty()) select.Order(order.front());
        select.Limit(5, 0);
        QORRdbmsTran transaction(ASAccess::Read);
        return explainSelect(*transaction, select);
    }

    ASDomainPtr v = domainOf("v");
    Column id = column(v, "id", ASType::Int);
    Column n = column(v, "n", ASType::Int);
    Column s = column(v, "s");
};

TEST_P(Explain, ValuesStandBesideTheStatement) {
    const ASPlan told = plan(id.attribute == ASInt(7) && s.attribute == ASVStr(30, "it's"));
    EXPECT_THAT(told.sql, HasSubstr("?"));
    EXPECT_THAT(told.sql, Not(HasSubstr("it''s")));
    EXPECT_THAT(told.parameters, ElementsAre("7", "'it''s'", "5", "0"));
    EXPECT_THAT(told.steps, Not(IsEmpty()));
    EXPECT_FALSE(told.isElsewhere);
}

TEST_P(Explain, WhatAnIndexServesIsTold) {
    const ASPlan found = plan(id.attribute == ASInt(7));
    EXPECT_TRUE(found.seeks) << ::testing::PrintToString(found.steps);
    EXPECT_FALSE(found.sorts);
    const ASPlan read = plan(n.attribute == ASInt(3), {ASOrder(s.attribute)});
    EXPECT_FALSE(read.seeks) << ::testing::PrintToString(read.steps);
    EXPECT_TRUE(read.sorts) << ::testing::PrintToString(read.steps);
    const ASPlan ordered = plan({}, {ASOrder(id.attribute)});
    EXPECT_FALSE(ordered.seeks) << "all rows, in the order of the index";
    EXPECT_FALSE(ordered.sorts) << ::testing::PrintToString(ordered.steps);
}

TEST_P(Explain, ASelectWithinSaysNothingOfTheOneAroundIt) {
    if (isPostgres()) GTEST_SKIP() << "this engine makes one plan of both";
    ASSelect nested;
    nested.Filter().Project() << n.attribute;
    nested.Limit(3, 0);
    nested.Order(ASOrder(s.attribute));
    const ASAttribute within(std::make_shared<const ASNestedSelect>(nested, dialect()));
    const ASPlan told = plan(id.attribute == ASInt(7) && ASAttribute::In(n.attribute, within));
    EXPECT_TRUE(told.seeks) << ::testing::PrintToString(told.steps);
}

TEST_P(Explain, TheEngineSaysHowManyRowsItExpectsOrNothing) {
    const ASPlan told = plan({});
    EXPECT_EQ(told.rows, isPostgres() ? std::optional<std::int64_t>(5) : std::nullopt);
}

TEST_P(Explain, TheSameSelectIsExplainedAgain) {
    ASSelect select;
    select.Filter().Project() << s.attribute;
    QORRdbmsTran transaction(ASAccess::Read);
    const ASPlan first = explainSelect(*transaction, select);
    EXPECT_EQ(explainSelect(*transaction, select).steps, first.steps);
    EXPECT_THAT(first.parameters, IsEmpty());
}

TEST_P(Explain, NothingIsRun) {
    plan({});
    const std::vector<std::string> rows = select(id.attribute, id.attribute == ASInt(7));
    EXPECT_THAT(rows, ElementsAre("7"));
}

TEST_P(Explain, AFailureOfTheEngineIsThrown) {
    const Column nothing = column(v, "nothing", ASType::Int);
    EXPECT_THAT(failure([&] { plan(nothing.attribute == ASInt(1)); }), HasSubstr("nothing"));
}

TEST(Plans, LinesOfBothEnginesAreUnderstood) {
    ASPlan sqlite;
    sqlite.add(ASEngine::SQLite, "SEARCH a USING INDEX i (x=?)", 0);
    sqlite.add(ASEngine::SQLite, "LIST SUBQUERY 1", 0);
    sqlite.add(ASEngine::SQLite, "SCAN b", 1);
    EXPECT_TRUE(sqlite.seeks);
    EXPECT_THAT(sqlite.steps, ElementsAre("SEARCH a USING INDEX i (x=?)", "LIST SUBQUERY 1", "  SCAN b"));
    sqlite.add(ASEngine::SQLite, "SCAN c", 0);
    EXPECT_FALSE(sqlite.seeks) << "one of two tables is read whole";
    sqlite.add(ASEngine::SQLite, "SEARCH d USING INDEX j (x=?)", 0);
    EXPECT_FALSE(sqlite.seeks);
    sqlite.add(ASEngine::SQLite, "USE TEMP B-TREE FOR RIGHT PART OF ORDER BY", 0);
    EXPECT_FALSE(sqlite.sorts) << "an index has the order but for rows that are the same in it";
    sqlite.add(ASEngine::SQLite, "USE TEMP B-TREE FOR ORDER BY", 0);
    EXPECT_TRUE(sqlite.sorts);

    ASPlan postgres;
    postgres.add(ASEngine::PostgreSQL, "Limit  (cost=0.00..1.00 rows=17 width=4)", 0);
    postgres.add(ASEngine::PostgreSQL, "  ->  Index Scan using i on a  (cost=0.00..9.00 rows=99 width=4)", 0);
    postgres.add(ASEngine::PostgreSQL, "        Index Cond: (x = 1)", 0);
    postgres.add(ASEngine::PostgreSQL, "  ->  Incremental Sort  (cost=0.00..9.00 rows=99 width=4)", 0);
    postgres.add(ASEngine::PostgreSQL, "        Sort Key: x, y", 0);
    postgres.add(ASEngine::PostgreSQL, "        Presorted Key: x", 0);
    postgres.add(ASEngine::PostgreSQL, "  SubPlan 1", 0);
    postgres.add(ASEngine::PostgreSQL, "    ->  Seq Scan on b  (cost=0.00..9.00 rows=99 width=4)", 0);
    postgres.add(ASEngine::PostgreSQL, "          Sort Key: y", 0);
    EXPECT_TRUE(postgres.seeks);
    EXPECT_FALSE(postgres.sorts);
    EXPECT_EQ(postgres.rows, 17);

    ASPlan sorted;
    sorted.add(ASEngine::PostgreSQL, "Sort  (cost=0.00..1.00)", 0);
    sorted.add(ASEngine::PostgreSQL, "  Sort Key: x", 0);
    sorted.add(ASEngine::PostgreSQL, "  ->  Incremental Sort  (cost=0.00..9.00 rows=99 width=4)", 0);
    sorted.add(ASEngine::PostgreSQL, "        Sort Key: x, y", 0);
    sorted.add(ASEngine::PostgreSQL, "        Presorted Key: x", 0);
    EXPECT_TRUE(sorted.sorts);
    EXPECT_EQ(sorted.rows, 99);
}

INSTANTIATE_TEST_SUITE_P(SQLite, Explain, ::testing::Values(ASEngine::SQLite));
INSTANTIATE_TEST_SUITE_P(PostgreSQL, Explain, ::testing::Values(ASEngine::PostgreSQL));

}  // namespace
}  // namespace QOR::test
