// The SQL that is written, word for word.
#include "libs/rdbmspp/DatabaseFixture.h"
#include "rdbmspp/engine/ASDialect.h"

namespace QOR::test {
namespace {

class ASSqlText : public DatabaseTest {
protected:
    void SetUp() override {
        open(
            "CREATE TABLE t (a INT, b NVARCHAR(20), d FLOAT, g UNIQUEIDENTIFIER, w DATETIME, x TEXT);"
            "CREATE VIEW v AS SELECT * FROM t");
    }
    ASDomainPtr v = domainOf("v");
    Column a = column(v, "a", ASType::Int);
    Column b = column(v, "b");
    Column d = column(v, "d", ASType::Double);
    Column g = column(v, "g", ASType::Guid);
    Column w = column(v, "w", ASType::DateTime);
    Column x = column(v, "x", ASType::Blob);
};

TEST_F(ASSqlText, Comparisons) {
    const ASAttribute& A = a.attribute;
    const ASAttribute& B = b.attribute;
    const ASInt five(5);
    const ASVStr text(10, "it's");
    const struct {
        ASComparison condition;
        const char* sql;
    } cases[] = {
        {A == five, R"("v"."a" = 5)"},
        {A != five, R"("v"."a" <> 5)"},
        {A > five, R"("v"."a" > 5)"},
        {A >= five, R"("v"."a" >= 5)"},
        {A < five, R"("v"."a" < 5)"},
        {A <= five, R"("v"."a" <= 5)"},
        {B == text, R"("v"."b" = 'it''s')"},
        {A < B, R"("v"."a" < "v"."b")"},
        {ASData::LE(text, ASVStr(10, "z")), "'it''s' <= 'z'"},
        {ASAttribute::Like(B, "a%", 0), R"("v"."b" LIKE 'a%')"},
        {ASAttribute::Like(B, "a!%", '!'), R"("v"."b" LIKE 'a!%' ESCAPE '!')"},
        {ASAttribute::Like(B, "'", '\''), R"("v"."b" LIKE '''' ESCAPE '''')"},
        {ASAttribute::Like(B, A, 0), R"("v"."b" LIKE "v"."a")"},
        {ASAttribute::Between(A, ASAttribute(ASAttribute::Raw::Expression, "'1'"), B),
         R"("v"."a" BETWEEN '1' AND "v"."b")"},
        {ASAttribute::In(A, "'1', '2'"), R"("v"."a" IN ('1', '2'))"},
        {ASAttribute::IsNull(B), R"("v"."b" IS NULL)"},
        {ASComparison("1 = 0"), "1 = 0"},
        {ASComparison(""), ""},
        {ASAttribute::IsNull(ASAttribute::Lower(ASAttribute::Upper(B))), R"(lower(upper("v"."b")) IS NULL)"},
        {ASAttribute(ASAttribute::Raw::Select, "SELECT 1") == five, "(SELECT 1) = 5"},
        {ASAttribute(ASAttribute::Raw::Expression, "1 + 1") == five, "(1 + 1) = 5"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.condition.Query(), c.sql);
}

TEST_F(ASSqlText, WhatIsNoSingleTermStandsInBrackets) {
    const ASInt five(5);
    const std::pair<const char*, const char*> cases[] = {
        {"1 + 1", "(1 + 1) = 5"},
        {"'a b (c'", "'a b (c' = 5"},
        {"f(a, g(b) + 1)", "f(a, g(b) + 1) = 5"},
        {"v.c", "v.c = 5"},
        // Brackets and quotes that do not match are not mended: the engine refuses the whole.
        {"'a b", "'a b = 5"},
        {"a) + (b", "(a) + (b) = 5"},
    };
    for (const auto& [expression, sql] : cases)
        EXPECT_EQ((ASAttribute(ASAttribute::Raw::Expression, expression) == five).Query(), sql);
}

TEST_F(ASSqlText, TextsOfPatternsAreFoundInCalls) {
    const ASDialect& dialect = ASDialect::of(ASEngine::SQLite);
    const auto pattern = [&](const std::string& sql) {
        ASSelect select;
        select.Filter().Project() << b.attribute;
        select.Filter().Set(ASAttribute::Like(b.attribute, ASAttribute(ASAttribute::Raw::Expression, sql), 0));
        return ASNestedSelect(select, dialect).Query();
    };
    const std::string begin = R"(SELECT "v"."b" FROM "v" WHERE "v"."b" LIKE )";
    // One whose length is known needs no bound.
    for (const char* literal : {"'a%'", "''", "upper('it''s')", "lower(upper('a'))"})
        EXPECT_EQ(pattern(literal), begin + literal);
    for (const char* other : {"a", "'a' || b", "upper(a) || 'b'", "upper(b)"})
        EXPECT_EQ(pattern(other), begin + dialect.boundedPattern(other));
}

TEST_F(ASSqlText, Combinations) {
    const ASComparison p = a.attribute == ASInt(1);
    const ASComparison q = a.attribute == ASInt(2);
    const ASComparison r = a.attribute == ASInt(3);
    const std::string P = R"("v"."a" = 1)", Q = R"("v"."a" = 2)", R = R"("v"."a" = 3)";
    const ASComparison none;
    const struct {
        ASComparison condition;
        std::string sql;
    } cases[] = {
        {none, ""},
        {!none, ""},
        {p && none, P},
        {none || p, P},
        {(p && q) && r, P + " AND " + Q + " AND " + R},
        {p && (q && r), P + " AND " + Q + " AND " + R},
        {p && (q || r), P + " AND (" + Q + " OR " + R + ")"},
        {(p && q) || r, "(" + P + " AND " + Q + ") OR " + R},
        {!p, "NOT (" + P + ")"},
        {!!p, P},
        {!!!(p || q), "NOT (" + P + " OR " + Q + ")"},
        {!p && !(q || r), "NOT (" + P + ") AND NOT (" + Q + " OR " + R + ")"},
        {p && ASComparison("1 = 0"), P + " AND (1 = 0)"},
        {!ASComparison("1 = 0 OR 1"), "NOT (1 = 0 OR 1)"},
        {p && ASComparison("(1 = 0)"), P + " AND ((1 = 0))"},
        {p && ASComparison("EXISTS (SELECT 1 WHERE (NOT (1)))"), P + " AND (EXISTS (SELECT 1 WHERE (NOT (1))))"},
        {p && ASComparison("1 = 0) END"), P + " AND (1 = 0) END)"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.condition.Query(), c.sql);
}

TEST_F(ASSqlText, AttributesAndAggregates) {
    const ASAttribute free("a\"b", ASType::Int);
    EXPECT_EQ(free.Query(), R"("a""b")");
    EXPECT_EQ(a.attribute.Query(), R"("v"."a")");
    EXPECT_EQ(ASAttribute(ASAttribute::Raw::Expression, "'g1','g2'").Query(), "'g1','g2'");
    EXPECT_EQ(ASAttribute(ASAttribute::Raw::Select, "SELECT 1").Query(), "SELECT 1");
    using F = ASGroupAttribute::Function;
    EXPECT_EQ(ASGroupAttribute().Query(), "count(*)");
    EXPECT_EQ(ASGroupAttribute().aggregated(), nullptr);
    EXPECT_EQ(ASGroupAttribute(F::Count, g.attribute).Query(), R"(count("v"."g"))");
    EXPECT_EQ(ASGroupAttribute(F::Sum, a.attribute).Query(), R"(sum("v"."a"))");
    EXPECT_EQ(ASGroupAttribute(F::Average, d.attribute).Query(), R"(avg("v"."d"))");
    EXPECT_EQ(ASGroupAttribute(F::Sum, b.attribute).Query(), R"(sum("v"."b"))");
    EXPECT_EQ(ASGroupAttribute(F::Sum, ASAttribute(ASAttribute::Raw::Expression, "1 + 1")).Query(), "sum((1 + 1))");
    EXPECT_EQ(ASGroupAttribute(F::Min, b.attribute).Query(), "min(NULL)");
    EXPECT_EQ(ASGroupAttribute(F::Max, x.attribute).Query(), "max(NULL)");
    EXPECT_EQ(ASGroupAttribute(F::Sum, g.attribute).Query(), "sum(NULL)");
    EXPECT_EQ(ASGroupAttribute(F::Count, w.attribute).Query(), R"(count("v"."w"))");
    ASGroupAttribute untied(F::Sum, ASAttribute("a", ASType::Int));
    untied.Register(std::make_shared<ASInt>(), nullptr);
    EXPECT_EQ(untied.Query(), R"(sum("a"))");
}

TEST_F(ASSqlText, RegistrationReachesCopiesMadeBefore) {
    ASAttribute first("a", ASType::Int);
    const ASAttribute copy = first;
    const ASComparison condition = copy == ASInt(1);
    EXPECT_EQ(condition.Query(), R"("a" = 1)");
    first.Register(std::make_shared<ASDomain>("v", "w\"x"));
    EXPECT_EQ(condition.Query(), R"("w""x"."a" = 1)");
}

TEST_F(ASSqlText, Selects) {
    QORRdbmsTran transaction(ASAccess::ReadOne);
    const auto query = [&](auto fill) {
        ASCursor cursor(*transaction);
        fill(cursor);
        return cursor.Query();
    };
    EXPECT_EQ(query([&](ASCursor& c) { c.Filter().Project() << a.attribute << d.attribute; }),
              R"(SELECT "v"."a", "v"."d" FROM "v")");
    EXPECT_EQ(
        query([&](ASCursor& c) {
            c.Filter().DistinctProject() << b.attribute;
            c.Filter().Set(a.attribute == ASInt(1));
            ASOrder order(b.attribute);
            order << -ASOrder(a.attribute);
            c.Order(order);
            c.Limit(20, 40);
        }),
        R"(SELECT DISTINCT "v"."b" FROM "v" WHERE "v"."a" = 1 ORDER BY "v"."b", "v"."a" DESC LIMIT 20 OFFSET 40)");
    EXPECT_EQ(query([&](ASCursor& c) {
                  ASGroupAttribute count;
                  count.Register(std::make_shared<ASInt64>(), v);
                  c.Filter().Project() << a.attribute << count << b.attribute;
                  c.Order(-ASOrder(count));
                  c.Limit(5, 0);
              }),
              R"(SELECT "v"."a", count(*), "v"."b" FROM "v" GROUP BY "v"."a", "v"."b" ORDER BY count(*) DESC LIMIT 5)");
    EXPECT_EQ(query([&](ASCursor& c) {
                  ASAttribute other("a", ASType::Int);
                  other.Register(std::make_shared<ASDomain>("v", "w"));
                  c.Filter().Project() << other;
              }),
              R"(SELECT "w"."a" FROM "v" AS "w")");
}

TEST_F(ASSqlText, IsWrittenInTheDialectThatIsPassedWhateverDatabaseIsOpen) {
    const ASDialect& sqlite = ASDialect::of(ASEngine::SQLite);
    const ASDialect& postgres = ASDialect::of(ASEngine::PostgreSQL);
    const ASComparison like = ASAttribute::Like(b.attribute, "a%", 0);
    EXPECT_EQ(like.Query(sqlite), R"("v"."b" LIKE 'a%')");
    EXPECT_EQ(like.Query(postgres), R"("v"."b" COLLATE "C" ILIKE 'a%')");
    const ASGroupAttribute oldest(ASGroupAttribute::Function::Min, w.attribute);
    EXPECT_EQ(oldest.Query(postgres), "min(" + postgres.epochSeconds(R"("v"."w")") + ")");
    const ASRealBlob bytes(RealBlob("A", 1));
    EXPECT_EQ(bytes.asSQLLiteral(sqlite), "x'41'");
    EXPECT_EQ(bytes.asSQLLiteral(postgres), R"('\x41')");
    EXPECT_EQ((x.attribute == bytes).Query(sqlite), R"("v"."x" = x'41')");
    EXPECT_EQ((x.attribute == bytes).Query(postgres), R"("v"."x" = '\x41')");
    ASSelect select;
    select.Filter().Project() << b.attribute;
    select.Filter().Set(like);
    select.Order(ASOrder(b.attribute));
    EXPECT_EQ(select.Query(sqlite), R"(SELECT "v"."b" FROM "v" WHERE "v"."b" LIKE 'a%' ORDER BY "v"."b")");
    EXPECT_EQ(select.Query(postgres), R"(SELECT "v"."b" FROM "v" WHERE "v"."b" COLLATE "C" ILIKE 'a%')"
                                      R"( ORDER BY "v"."b" COLLATE "C" NULLS FIRST)");
}

TEST_F(ASSqlText, NestedSelectsAreWrittenWhereTheyStandInTheDialectOfTheWhole) {
    for (const ASEngine engine : {ASEngine::SQLite, ASEngine::PostgreSQL}) {
        const ASDialect& dialect = ASDialect::of(engine);
        ASSelect inner;
        ASGroupAttribute sum(ASGroupAttribute::Function::Sum, a.attribute);
        sum.Register(std::make_shared<ASInt64>(), v);
        inner.Filter().Project() << sum;
        inner.Filter().Set(ASAttribute::Like(b.attribute, "a%", 0));
        inner.Limit(3, 1);
        const auto nested = std::make_shared<const ASNestedSelect>(inner, dialect);
        const std::string text = nested->Query();
        EXPECT_NE(text.find(dialect.like), std::string::npos) << text;
        EXPECT_NE(text.find(dialect.wholeSum(a.attribute.Query())), std::string::npos) << text;
        EXPECT_TRUE(text.ends_with(" LIMIT 3 OFFSET 1")) << text;
        const ASAttribute operand(nested);
        EXPECT_EQ(operand.Query(), text);
        EXPECT_EQ((operand == ASInt(5)).Query(dialect), "(" + text + ") = 5");
        const ASComparison in = ASAttribute::In(a.attribute, operand);
        EXPECT_EQ(in.Query(dialect), R"("v"."a" IN ()" + text + ")");
        EXPECT_EQ(ASAttribute::In(a.attribute, ASAttribute(ASAttribute::Raw::Select, "SELECT 1")).Query(dialect),
                  R"("v"."a" IN (SELECT 1))");
        ASSelect outer;
        outer.Filter().Project() << a.attribute;
        outer.Filter().Set(in);
        outer.Limit(20, 40);
        EXPECT_EQ(outer.Query(dialect),
                  R"(SELECT "v"."a" FROM "v" WHERE "v"."a" IN ()" + text + ") LIMIT 20 OFFSET 40");
    }
}

TEST_F(ASSqlText, ANestedSelectMayCountRows) {
    ASSelect inner;
    ASGroupAttribute count;
    count.Register(std::make_shared<ASInt64>(), v);
    inner.Filter().Project() << count;
    EXPECT_EQ(ASNestedSelect(inner, ASDialect::of(ASEngine::SQLite)).Query(), R"(SELECT count(*) FROM "v")");
}

TEST_F(ASSqlText, ANestedSelectThatTheEngineCannotTakeIsRefusedAsItIsMade) {
    ASSelect select;
    select.Filter().Project() << b.attribute;
    select.Filter().Set(ASAttribute::Like(b.attribute, std::string(50001, '%'), 0));
    EXPECT_EQ(failure([&] { ASNestedSelect(select, ASDialect::of(ASEngine::SQLite)); }),
              "a pattern of LIKE has 50001 bytes; SQLite takes 50000");
    EXPECT_EQ(failure([&] { ASNestedSelect(select, ASDialect::of(ASEngine::PostgreSQL)); }),
              "a pattern of LIKE has 50001 bytes; PostgreSQL takes 50000");
}

TEST_F(ASSqlText, SelectWithoutViewOrColumnsIsRefused) {
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    EXPECT_THROW(cursor.Fetch(), AException);
    ASCursor other(*transaction);
    other.Filter().Project() << ASAttribute("a", ASType::Int);
    EXPECT_THROW(other.Fetch(), AException);
}

TEST_F(ASSqlText, EscapeOfMoreThanAsciiIsRefused) {
    EXPECT_THROW(ASAttribute::Like(b.attribute, "a", '\xc3').Query(), AException);
}

}  // namespace
}  // namespace QOR::test
