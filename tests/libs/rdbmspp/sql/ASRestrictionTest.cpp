// A restricted filter: how it is written, and that the condition is asked of no row outside.
#include "libs/rdbmspp/DatabaseFixture.h"
#include "rdbmspp/engine/ASDialect.h"

namespace QOR::test {
namespace {

class ASRestricted : public DatabaseTest {
protected:
    void SetUp() override {
        open(
            "CREATE TABLE t (o INT, a INT, b NVARCHAR(20), j NVARCHAR);"
            "INSERT INTO t VALUES (1, 1, 'one', '{\"x\":1}'), (1, 2, 'two', '{\"x\":2}'), (2, 3, 'three', '{broken');"
            "CREATE VIEW v AS SELECT o, a, b, json_extract(j, '$.x') AS x FROM t");
    }
    std::string query(const ASComparison& condition) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        ASCursor cursor(*transaction);
        cursor.Filter().Project() << b.attribute;
        cursor.Filter().Set(condition);
        cursor.Filter().Restrict(own);
        const std::string all = cursor.Query();
        const std::string where = " WHERE ";
        return all.substr(all.find(where) + where.size());
    }
    std::vector<std::string> seen(const ASComparison& condition) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        ASCursor cursor(*transaction);
        cursor.Filter().Project() << b.attribute;
        cursor.Filter().Set(condition);
        cursor.Filter().Restrict(own);
        cursor.Order(ASOrder(a.attribute));
        std::vector<std::string> rows;
        while (cursor.Fetch())
            rows.push_back(b.data->Str());
        return rows;
    }

    ASDomainPtr v = ASDomain::view("v", {"o", "a", "b"});
    Column o = column(v, "o", ASType::Int);
    Column a = column(v, "a", ASType::Int);
    Column b = column(v, "b");
    Column x = column(v, "x", ASType::Int);
    ASComparison own = ASAttribute::In(o.attribute, "'1'");
};

TEST_F(ASRestricted, PlainComparisonsOfStoredColumnsStandOutsideTheGuard) {
    const std::string O = R"("v"."o" IN ('1'))";
    const std::string end = " THEN 1 = 1 END END";
    const std::string guard = " AND CASE WHEN " + O + " THEN CASE WHEN ";
    const ASAttribute literal(ASAttribute::Raw::Expression, "'it''s'");
    const ASComparison one = a.attribute == ASInt(1);
    const ASComparison computed = x.attribute == ASInt(1);
    const struct {
        ASComparison condition;
        std::string sql;
    } cases[] = {
        {ASComparison(), O},
        {one, O + R"( AND "v"."a" = 1)"},
        {one && !(a.attribute != ASInt(2)), O + R"( AND "v"."a" = 1 AND NOT ("v"."a" <> 2))"},
        {one || ASAttribute::IsNull(b.attribute), O + R"( AND ("v"."a" = 1 OR "v"."b" IS NULL))"},
        {a.attribute < b.attribute, O + R"( AND "v"."a" < "v"."b")"},
        {ASAttribute::Between(b.attribute, literal, literal), O + R"( AND "v"."b" BETWEEN 'it''s' AND 'it''s')"},
        {ASAttribute::In(b.attribute, "'a', 'it''s'"), O + R"( AND "v"."b" IN ('a', 'it''s'))"},
        {ASData::EQ(ASInt(1), ASInt(2)), O + " AND 1 = 2"},
        {computed, O + guard + R"("v"."x" = 1)" + end},
        {computed && one, O + R"( AND "v"."a" = 1)" + guard + R"("v"."x" = 1)" + end},
        {one || computed, O + guard + R"("v"."a" = 1 OR "v"."x" = 1)" + end},
        {ASAttribute::In(a.attribute, "SELECT 1"), O + guard + R"("v"."a" IN (SELECT 1))" + end},
        {ASAttribute::In(a.attribute, "'1', lower('x')"), O + guard + R"("v"."a" IN ('1', lower('x')))" + end},
        {ASAttribute::In(a.attribute, "'1', \"v\".\"x\""), O + guard + R"("v"."a" IN ('1', "v"."x"))" + end},
        {ASAttribute::In(a.attribute, ""), O + guard + R"("v"."a" IN ())" + end},
        {ASAttribute::In(a.attribute, "'1' || '2'"), O + guard + R"("v"."a" IN ('1' || '2'))" + end},
        {ASAttribute::In(a.attribute, "'1',"), O + guard + R"("v"."a" IN ('1',))" + end},
        {ASAttribute::Between(a.attribute, literal, x.attribute),
         O + guard + R"("v"."a" BETWEEN 'it''s' AND "v"."x")" + end},
        {ASAttribute::Between(a.attribute, x.attribute, literal),
         O + guard + R"("v"."a" BETWEEN "v"."x" AND 'it''s')" + end},
        {ASAttribute::Like(b.attribute, "o%", 0), O + guard + R"("v"."b" LIKE 'o%')" + end},
        {ASAttribute::Lower(b.attribute) == ASVStr(4, "one"), O + guard + R"(lower("v"."b") = 'one')" + end},
        {one && ASAttribute::Like(b.attribute, "o%", 0) && computed,
         O + R"( AND "v"."a" = 1)" + guard + R"("v"."b" LIKE 'o%' AND "v"."x" = 1)" + end},
    };
    for (const auto& c : cases)
        EXPECT_EQ(query(c.condition), c.sql);
}

TEST_F(ASRestricted, TheEngineCannotConcludeFromAnEqualityThatTheGuardIsTrue) {
    Engine(path()).run(
        "CREATE TABLE s (g UNIQUEIDENTIFIER, j NVARCHAR); INSERT INTO s VALUES ('A', '1'), ('B', '{broken');"
        "CREATE VIEW w AS SELECT g, g AS other, json_extract(j, '$') AS x FROM s");
    const auto w = ASDomain::view("w", {"g", "other"});
    const Column g = column(w, "g", ASType::Guid), other = column(w, "other", ASType::Guid), y = column(w, "x");
    const ASComparison computed = y.attribute != ASVStr(2, "7");
    const ASComparison isA = other.attribute == ASVStr(2, "A");
    const ASComparison both = ASAttribute::In(g.attribute, "'A','B'");
    const ASComparison onlyA = ASAttribute::In(g.attribute, "'A'");
    // However the terms are ordered: a deep one comes first.
    ASComparison deep = computed;
    for (int i = 0; i < 30; ++i)
        deep = i % 2 ? deep && computed : deep || computed;
    const auto count = [&](const ASComparison& access, const ASComparison& condition) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        ASCursor cursor(*transaction);
        cursor.Filter().Project() << other.attribute;
        cursor.Filter().Restrict(access);
        cursor.Filter().Set(condition);
        std::string rows;
        while (cursor.Fetch())
            rows += other.data->Str();
        return rows;
    };
    for (const ASComparison& rest : {computed, deep}) {
        EXPECT_EQ(count(onlyA, rest), "A");
        EXPECT_EQ(count(onlyA, isA && rest), "A");
        EXPECT_EQ(count(onlyA, rest && !(other.attribute != ASVStr(2, "A"))), "A");
        EXPECT_EQ(count(onlyA, rest && ASAttribute::In(other.attribute, "'A'")), "A");
        EXPECT_EQ(count(onlyA, rest && (other.attribute == ASVStr(2, "B"))), "");
        EXPECT_EQ(count(onlyA, rest && (other.attribute == g.attribute)), "A");
    }
    Engine(path()).run("INSERT INTO s VALUES ('C', '{worse'), ('B', '2'); DELETE FROM s WHERE j = '{broken'");
    for (const ASComparison& rest : {computed, deep}) {
        EXPECT_EQ(count(both, rest), "AB");
        EXPECT_EQ(count(both, isA && rest), "A");
    }
    // A GUID beside others is a parameter of the statement that is prepared, and has to be there when it is bound.
    for (int i = 0; i < 50; ++i) {
        const std::string guid = "eeeeeeee-0000-4000-8000-0000000000" + std::to_string(10 + i);
        EXPECT_EQ(count(both, other.attribute == ASVStr(40, guid)), "") << i;
        EXPECT_EQ(count(both, isA), "A") << i;
    }
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    cursor.Filter().Project() << other.attribute;
    cursor.Filter().Restrict(onlyA);
    cursor.Filter().Set(isA && computed);
    EXPECT_EQ(
        cursor.Query(),
        "SELECT \"w\".\"other\" FROM \"w\" WHERE \"w\".\"g\" = CAST('A' AS TEXT) AND \"w\".\"other\" = CAST('A' AS "
        "TEXT) AND CASE WHEN +\"w\".\"g\" IN ('A') THEN CASE WHEN \"w\".\"x\" <> '7' THEN 1 = 1 END END");
}

TEST_F(ASRestricted, ManyGuidsAreOneTextThatAFunctionLooksInto) {
    const auto guid = [](int number) { return "aaaaaaaa-0000-4000-8000-00000000000" + std::to_string(number); };
    Engine(path()).run("CREATE TABLE s (g UNIQUEIDENTIFIER, j NVARCHAR); INSERT INTO s VALUES ('" + guid(1) +
                       "', '\"1\"'), ('" + guid(2) + "', '\"2\"'), ('" + guid(3) + "', '\"7\"'), ('" + guid(4) +
                       "', '{broken'), (NULL, '{broken');" +
                       "CREATE VIEW w AS SELECT g, json_extract(j, '$') AS x FROM s");
    const auto w = ASDomain::view("w", {"g"});
    const Column g = column(w, "g", ASType::Guid), y = column(w, "x");
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    cursor.Filter().Project() << y.attribute;
    cursor.Filter().Restrict(ASAttribute::In(g.attribute, "'" + guid(3) + "', '" + guid(1) + "','" + guid(2) + "'"));
    cursor.Filter().Set(y.attribute != ASVStr(2, "7"));
    EXPECT_EQ(cursor.Query(), "SELECT \"w\".\"x\" FROM \"w\" WHERE \"w\".\"g\" IN ('" + guid(3) + "', '" + guid(1) +
                                  "','" + guid(2) + "') AND CASE WHEN qor_among(\"w\".\"g\", '" + guid(3) + guid(1) +
                                  guid(2) + "') THEN CASE WHEN \"w\".\"x\" <> '7' THEN 1 = 1 END END");
    std::string rows;
    while (cursor.Fetch())
        rows += y.data->Str();
    EXPECT_EQ(rows, "12");
}

// From either the engine could conclude what the GUID is, or that the access holds.
TEST_F(ASRestricted, AGuidBelowANotOrBesideAColumnStandsInside) {
    const Column g = column(v, "o", ASType::Guid);
    const ASComparison isOne = a.attribute == ASInt(1);
    const ASComparison inList = ASAttribute::In(g.attribute, "'A', 'B'");
    const std::string O = R"("v"."o" IN ('1'))";
    const std::string end = " THEN 1 = 1 END END";
    const std::string guard = O + " AND CASE WHEN " + O + " THEN CASE WHEN ";
    const struct {
        ASComparison condition;
        std::string sql;
    } cases[] = {
        {a.attribute == g.attribute, guard + R"("v"."a" = "v"."o")" + end},
        {g.attribute == a.attribute, guard + R"("v"."o" = "v"."a")" + end},
        {a.attribute == x.attribute, guard + R"("v"."a" = "v"."x")" + end},
        {!(g.attribute != ASVStr(2, "A")), guard + R"(NOT ("v"."o" <> 'A'))" + end},
        {!inList, guard + R"(NOT ("v"."o" IN ('A', 'B')))" + end},
        {!(isOne || inList), guard + R"(NOT ("v"."a" = 1 OR "v"."o" IN ('A', 'B')))" + end},
        {inList, O + R"( AND "v"."o" IN ('A', 'B'))"},
        {!ASAttribute::IsNull(g.attribute), O + R"( AND NOT ("v"."o" IS NULL))"},
        {!ASAttribute::In(b.attribute, "'A'"), O + R"( AND NOT ("v"."b" IN ('A')))"},
        {!(isOne || ASAttribute::IsNull(g.attribute)), O + R"( AND NOT ("v"."a" = 1 OR "v"."o" IS NULL))"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(query(c.condition), c.sql);
}

TEST_F(ASRestricted, AnAccessThatIsNoListIsAskedAsItIs) {
    own = o.attribute == ASInt(1);
    EXPECT_EQ(query(x.attribute == ASInt(1)),
              R"("v"."o" = 1 AND CASE WHEN "v"."o" = 1 THEN CASE WHEN "v"."x" = 1 THEN 1 = 1 END END)");
}

TEST_F(ASRestricted, TextsWithQuotesStayAList) {
    const Column g = column(v, "o", ASType::Guid);
    const std::string guid = "'aaaaaaaa-0000-4000-8000-000000000001'";
    const std::string quoted = "'aaaaaaaa-0000-4000-8000-000000000''1'";
    const std::string list = guid + ", " + guid + ", " + quoted;
    own = ASAttribute::In(g.attribute, list);
    EXPECT_EQ(query(x.attribute == ASInt(1)), R"("v"."o" IN ()" + list + R"() AND CASE WHEN +"v"."o" IN ()" + list +
                                                  R"() THEN CASE WHEN "v"."x" = 1 THEN 1 = 1 END END)");
}

TEST_F(ASRestricted, AnAccessThatIsNoListOfTextsIsAskedAsItIs) {
    const Column g = column(v, "o", ASType::Guid);
    own = ASAttribute::In(g.attribute, "SELECT 'A'");
    EXPECT_EQ(
        query(x.attribute == ASInt(1)),
        R"("v"."o" IN (SELECT 'A') AND CASE WHEN "v"."o" IN (SELECT 'A') THEN CASE WHEN "v"."x" = 1 THEN 1 = 1 END END)");
}

TEST_F(ASRestricted, AColumnOfWhichNothingIsKnownStandsInside) {
    EXPECT_EQ(query(ASAttribute("a", ASType::Int) == ASInt(1)),
              R"("v"."o" IN ('1') AND CASE WHEN "v"."o" IN ('1') THEN CASE WHEN "a" = 1 THEN 1 = 1 END END)")
        << "nor its view";
    const Column unknown = column(domainOf("v"), "a", ASType::Int);
    EXPECT_EQ(query(unknown.attribute == ASInt(1)),
              R"("v"."o" IN ('1') AND CASE WHEN "v"."o" IN ('1') THEN CASE WHEN "v"."a" = 1 THEN 1 = 1 END END)");
}

// Where it compares values of different kinds a typed engine casts, which may fail on a row.
TEST_F(ASRestricted, ATypedEngineIsAskedOutsideForValuesOfTheColumnsKindOnly) {
    const ASDialect& postgres = ASDialect::of(ASEngine::PostgreSQL);
    const Column m = column(ASDomain::view("v", {"m"}), "m", ASType::BigInt);
    const auto raw = [](const char* sql) { return ASAttribute(ASAttribute::Raw::Expression, sql); };
    const auto isOutside = [&](const ASComparison& condition) {
        ASSelect select;
        select.Filter().Project() << b.attribute;
        select.Filter().Set(condition);
        select.Filter().Restrict(own);
        return select.Query(postgres).find("CASE") == std::string::npos;
    };
    const ASComparison outside[] = {
        a.attribute == ASInt(1),
        a.attribute<ASVStr(4, "7"), m.attribute == ASInt64(1), m.attribute == ASVStr(4, "7"),
                    b.attribute == ASVStr(4, "x"), b.attribute>
            ASInt(5),
        ASAttribute::IsNull(a.attribute),
        ASData::EQ(ASInt(1), ASVStr(4, "x")),
        ASAttribute::In(a.attribute, "'1', '2'"),
        ASAttribute::In(b.attribute, "'1', 'x'"),
        ASAttribute::Between(m.attribute, raw("'1'"), raw("'2'")),
        ASAttribute::Between(b.attribute, raw("'1'"), raw("'x'")),
    };
    const ASComparison inside[] = {
        a.attribute == ASDouble(1.5),
        a.attribute == ASVStr(4, "1.5"),
        a.attribute == ASInt(),
        a.attribute == ASRealBlob(RealBlob("7", 1)),
        b.attribute == ASRealBlob(RealBlob("7", 1)),
        m.attribute < ASDouble(1.5),
        m.attribute == ASVStr(4, "x"),
        a.attribute == m.attribute,
        b.attribute == b.attribute,
        ASAttribute::In(a.attribute, "'1', '1.5'"),
        ASAttribute::In(m.attribute, "'x'"),
        ASAttribute::Between(m.attribute, raw("'1'"), raw("'x'")),
        ASAttribute::Between(m.attribute, raw("'1'"), raw("'1', '2'")),
        ASAttribute::Between(a.attribute, a.attribute, raw("'1'")),
        ASAttribute::Between(b.attribute, raw("'1'"), b.attribute),
    };
    for (const ASComparison& condition : outside)
        EXPECT_TRUE(isOutside(condition)) << condition.Query();
    for (const ASComparison& condition : inside)
        EXPECT_FALSE(isOutside(condition)) << condition.Query();
}

TEST_F(ASRestricted, TheConditionIsAskedOfNoRowOutside) {
    using Strings = std::vector<std::string>;
    EXPECT_EQ(seen(x.attribute >= ASInt(1)), (Strings{"one", "two"}));
    EXPECT_EQ(seen(!(x.attribute == ASInt(1))), Strings{"two"});
    EXPECT_EQ(seen(a.attribute == ASInt(3) && x.attribute == ASInt(1)), Strings{});
    EXPECT_EQ(seen(x.attribute == ASInt(1) && a.attribute == ASInt(3)), Strings{});
    EXPECT_EQ(seen(a.attribute == ASInt(2) || x.attribute == ASInt(1)), (Strings{"one", "two"}));
    EXPECT_EQ(seen(x.attribute == ASInt(1)), Strings{"one"});
}

TEST_F(ASRestricted, AConditionOfThousandsOfTermsIsTaken) {
    ASComparison all;
    for (int i = 0; i < 5000; ++i) {
        all = std::move(all) && (a.attribute != ASInt(100 + i)) && (x.attribute != ASInt(100 + i));
    }
    EXPECT_EQ(seen(all), (std::vector<std::string>{"one", "two"}));
}

TEST_F(ASRestricted, WhatIsTooDeepIsRefusedWithAndWithoutARestriction) {
    for (int levels = 60; levels < 100; ++levels) {
        ASComparison condition = x.attribute == ASInt(1);
        for (int level = 0; level < levels; ++level) {
            condition = level % 2 ? ASComparison("1 = 1") && condition : ASComparison("1 = 0") || condition;
        }
        QORRdbmsTran transaction(ASAccess::ReadOne);
        const auto run = [&](bool restrict) {
            ASCursor cursor(*transaction);
            cursor.Filter().Project() << b.attribute;
            cursor.Filter().Set(a.attribute < ASInt(3) && condition);
            if (restrict) cursor.Filter().Restrict(own);
            if (!restrict) cursor.Filter().Set((o.attribute == ASInt(1)) && condition);
            return failure([&] { cursor.Fetch(); });
        };
        const std::string restricted = run(true);
        if (restricted != "(no failure)") {
            EXPECT_EQ(restricted, "the condition is nested too deeply for SQLite") << levels;
        }
    }
}

}  // namespace
}  // namespace QOR::test
