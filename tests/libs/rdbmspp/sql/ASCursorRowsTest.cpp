// What is selected is the same on every engine: comparisons, patterns, orders, aggregates and pages.
#include "libs/rdbmspp/EngineFixture.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using Function = ASGroupAttribute::Function;

std::vector<std::string> aggregate(Function function, const Column& of, ASType type,
                                   const ASComparison& condition = {}) {
    ASGroupAttribute group(function, of.attribute);
    group.Register(makeData(type), of.attribute.domain());
    return select(group, condition);
}

class ASCursorRows : public EngineTest {
protected:
    void prepareDatabase() override {
        open(
            "CREATE TABLE t (id INT, n INT, s NVARCHAR(20), g UNIQUEIDENTIFIER, w DATETIME, d FLOAT);"
            "INSERT INTO t VALUES"
            " (1, 10, 'alpha', '6ba7b810-9dad-41d1-80b4-000000000001', '2024-01-01 00:00:00', 1.5),"
            " (2, 20, 'Beta', '6ba7b810-9dad-41d1-80b4-000000000002', '2024-01-02 00:00:00', 2.5),"
            " (3, NULL, NULL, NULL, NULL, NULL),"
            " (4, 10, 'b_ta%', '6ba7b810-9dad-41d1-80b4-000000000004', '2024-01-03 22:00:00', -1e10),"
            " (5, -5, '', '6ba7b810-9dad-41d1-80b4-000000000005', 'infinity', 0.1);"
            "CREATE VIEW v AS SELECT * FROM t; CREATE VIEW w AS SELECT * FROM t");
    }
    /// As rows come, with literals; and as a page, with parameters: both have to agree.
    std::vector<std::string> ids(const ASComparison& condition) {
        const auto all = select(id.attribute, condition, {ASOrder(id.attribute)});
        EXPECT_EQ(select(id.attribute, condition, {ASOrder(id.attribute)}, 20), all) << condition.Query();
        return all;
    }

    ASDomainPtr v = domainOf("v");
    Column id = column(v, "id", ASType::Int);
    Column n = column(v, "n", ASType::Int);
    Column s = column(v, "s");
    Column g = column(v, "g", ASType::Guid);
    Column w = column(v, "w", ASType::DateTime);
    Column d = column(v, "d", ASType::Double);
};

TEST_P(ASCursorRows, EveryComparison) {
    const auto& S = s.attribute;
    const auto raw = [](const char* sql) { return ASAttribute(ASAttribute::Raw::Expression, sql); };
    const struct {
        ASComparison condition;
        std::vector<std::string> ids;
    } cases[] = {
        {n.attribute == ASInt(10), {"1", "4"}},
        {n.attribute != ASInt(10), {"2", "5"}},
        {n.attribute > ASInt(10), {"2"}},
        {n.attribute >= ASInt(10), {"1", "2", "4"}},
        {n.attribute < ASInt(10), {"5"}},
        {n.attribute <= ASInt(10), {"1", "4", "5"}},
        {n.attribute == ASInt64(20), {"2"}},
        {n.attribute == ASInt(), {}},
        {d.attribute == ASDouble(0.1), {"5"}},
        {d.attribute < ASDouble(0), {"4"}},
        {S == ASVStr(10, "beta"), {}},
        {S == ASVStr(10, "Beta"), {"2"}},
        {S == ASVStr(10, ""), {"5"}},
        {S > ASVStr(10, "Z"), {"1", "4"}},
        {S == ASVStr(10, "M\xC3\xBCnchen"), {}},
        {g.attribute == ASGuid(*Guid::parse("6BA7B810-9DAD-41D1-80B4-000000000002")), {"2"}},
        {w.attribute == ASTime(1704067200), {"1"}},
        {w.attribute > ASTime(1704067200) && w.attribute < ASTime(1704240000), {"2"}},
        {id.attribute == n.attribute, {}},
        {id.attribute < n.attribute, {"1", "2", "4"}},
        {ASData::EQ(ASVStr(5, "a"), ASVStr(5, "a")), {"1", "2", "3", "4", "5"}},
        {ASData::NE(ASVStr(5, "a"), ASVStr(5, "a")), {}},
        {ASData::GT(ASVStr(5, "b"), ASVStr(5, "a")) && n.attribute == ASInt(20), {"2"}},
        {ASData::GE(ASVStr(5, "9"), ASVStr(5, "10")) && n.attribute == ASInt(20), {"2"}},
        {ASData::LT(ASVStr(5, "10"), ASVStr(5, "9")) && n.attribute == ASInt(20), {"2"}},
        {ASData::LE(ASVStr(5, "A"), ASVStr(5, "a")) && n.attribute == ASInt(20), {"2"}},
        {ASAttribute::IsNull(S), {"3"}},
        {!ASAttribute::IsNull(S), {"1", "2", "4", "5"}},
        {ASAttribute::Between(n.attribute, raw("'10'"), raw("'20'")), {"1", "2", "4"}},
        {ASAttribute::In(n.attribute, "'20', '-5'"), {"2", "5"}},
        {ASAttribute::In(n.attribute, R"(SELECT "w"."n" FROM "w" WHERE "w"."id" = 2)"), {"2"}},
        {ASAttribute::In(id.attribute, R"(SELECT "w"."id" FROM "w" WHERE "w"."id" = "v"."id" AND "v"."n" = 10)"),
         {"1", "4"}},
        {ASAttribute::IsNull(ASAttribute(ASAttribute::Raw::Select, "SELECT NULL")), {"1", "2", "3", "4", "5"}},
        {ASComparison("1 = 0"), {}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ids(c.condition), c.ids) << c.condition.Query();
}

TEST_P(ASCursorRows, LikeRules) {
    const auto like = [&](const char* pattern, char escape = 0) {
        return ids(ASAttribute::Like(s.attribute, pattern, escape));
    };
    EXPECT_THAT(like("B%"), ElementsAre("2", "4"));
    EXPECT_THAT(like("bEtA"), ElementsAre("2"));
    EXPECT_THAT(like("b_ta"), ElementsAre("2"));
    EXPECT_THAT(like("b!_ta!%", '!'), ElementsAre("4"));
    EXPECT_THAT(like("b\\_ta\\%", '\\'), ElementsAre("4"));
    EXPECT_THAT(like("b\\_ta%"), ElementsAre());
    EXPECT_THAT(like("b'_ta'%", '\''), ElementsAre("4"));
    EXPECT_THAT(like("%"), ElementsAre("1", "2", "4", "5"));
    EXPECT_THAT(like(""), ElementsAre("5"));
    EXPECT_THAT(ids(ASAttribute::Like(s.attribute, s.attribute, 0)), ElementsAre("1", "2", "4", "5"));
    EXPECT_THAT(ids(ASAttribute::Like(n.attribute, "1%", 0)), ElementsAre("1", "4"));
    EXPECT_THAT(ids(!ASAttribute::Like(s.attribute, "%a%", 0)), ElementsAre("5"));
}

TEST_P(ASCursorRows, NullsAreTheSmallestAndTextsSortByBytes) {
    EXPECT_THAT(select(s.attribute, {}, {ASOrder(s.attribute)}), ElementsAre("<null>", "", "Beta", "alpha", "b_ta%"));
    EXPECT_THAT(select(s.attribute, {}, {-ASOrder(s.attribute)}), ElementsAre("b_ta%", "alpha", "Beta", "", "<null>"));
    ASOrder order(n.attribute);
    order << -ASOrder(id.attribute);
    EXPECT_THAT(select(id.attribute, {}, {order}), ElementsAre("3", "5", "4", "1", "2"));
    EXPECT_THAT(select(id.attribute, {}, {-order}), ElementsAre("2", "1", "4", "5", "3"));
}

TEST_P(ASCursorRows, PagesAndAmount) {
    const ASOrder order(id.attribute);
    EXPECT_THAT(select(id.attribute, {}, {order}, 2, 0), ElementsAre("1", "2"));
    EXPECT_THAT(select(id.attribute, {}, {order}, 2, 3), ElementsAre("4", "5"));
    EXPECT_THAT(select(id.attribute, {}, {order}, 2, 9), ElementsAre());
    EXPECT_THAT(select(id.attribute, {}, {order}, 5000, 3), ElementsAre("4", "5"));
}

TEST_P(ASCursorRows, Aggregates) {
    EXPECT_THAT(aggregate(Function::Sum, n, ASType::Int), ElementsAre("35"));
    EXPECT_THAT(aggregate(Function::Average, n, ASType::Double), ElementsAre("8.75"));
    EXPECT_THAT(aggregate(Function::Min, n, ASType::Int), ElementsAre("-5"));
    EXPECT_THAT(aggregate(Function::Max, n, ASType::Int), ElementsAre("20"));
    EXPECT_THAT(aggregate(Function::Count, n, ASType::BigInt), ElementsAre("4"));
    EXPECT_THAT(aggregate(Function::Max, d, ASType::Double), ElementsAre("2.5"));
    EXPECT_THAT(aggregate(Function::Sum, d, ASType::Double, id.attribute != ASInt(4)), ElementsAre("4.1"));
    EXPECT_THAT(aggregate(Function::Min, s, ASType::Double), ElementsAre("<null>"));
    EXPECT_THAT(aggregate(Function::Max, g, ASType::Double), ElementsAre("<null>"));
    EXPECT_THAT(aggregate(Function::Sum, g, ASType::Double), ElementsAre("<null>"));
    EXPECT_THAT(aggregate(Function::Average, g, ASType::Double), ElementsAre("<null>"));
    EXPECT_THAT(aggregate(Function::Sum, s, ASType::Double), ElementsAre("0"));
    EXPECT_THAT(aggregate(Function::Sum, n, ASType::Int, ASComparison("1 = 0")), ElementsAre("<null>"));
    ASGroupAttribute all;
    all.Register(std::make_shared<ASInt64>(), v);
    EXPECT_THAT(select(all), ElementsAre("5"));
}

TEST_P(ASCursorRows, AggregatesOfTimesAreSeconds) {
    EXPECT_THAT(aggregate(Function::Min, w, ASType::Double), ElementsAre("1704067200"));
    EXPECT_THAT(aggregate(Function::Max, w, ASType::Double), ElementsAre("1704319200"));
    EXPECT_THAT(aggregate(Function::Average, w, ASType::Double, id.attribute < ASInt(3)), ElementsAre("1704110400"));
    EXPECT_THAT(aggregate(Function::Count, w, ASType::BigInt), ElementsAre("4"));
    EXPECT_THAT(aggregate(Function::Max, w, ASType::Double, id.attribute == ASInt(5)), ElementsAre("<null>"));
}

TEST_P(ASCursorRows, PlainColumnsBesideAggregatesAreGroupedBy) {
    ASGroupAttribute count;
    count.Register(std::make_shared<ASInt64>(), v);
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    cursor.Filter().Project() << n.attribute << count;
    ASOrder order = -ASOrder(count);
    order << ASOrder(n.attribute);
    cursor.Order(order);
    std::vector<std::string> rows;
    while (cursor.Fetch())
        rows.push_back(cell(*n.data) + ":" + cell(*count.data()));
    EXPECT_THAT(rows, ElementsAre("10:2", "<null>:1", "-5:1", "20:1"));
}

TEST_P(ASCursorRows, SumsOfGroupsComeOutAsRowsAndAsAPage) {
    ASGroupAttribute sum(Function::Sum, id.attribute);
    sum.Register(std::make_shared<ASInt64>(), v);
    for (const int limit : {0, 20}) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        ASCursor cursor(*transaction);
        cursor.Filter().Project() << n.attribute << sum;
        cursor.Order(ASOrder(n.attribute));
        if (limit > 0) cursor.Limit(limit, 0);
        std::vector<std::string> rows;
        while (cursor.Fetch())
            rows.push_back(cell(*n.data) + ":" + cell(*sum.data()));
        EXPECT_THAT(rows, ElementsAre("<null>:3", "-5:5", "10:5", "20:2")) << limit;
    }
}

TEST_P(ASCursorRows, ASumOfNoColumnFailsAsAnyOtherSelectOfIt) {
    const Column none = column(v, "none", ASType::BigInt);
    const std::string reason = failure([&] { select(none.attribute); });
    EXPECT_NE(reason.find("none"), std::string::npos) << reason;
    EXPECT_EQ(failure([&] { aggregate(Function::Sum, none, ASType::BigInt); }), reason);
}

TEST_P(ASCursorRows, DistinctDropsEqualRows) {
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    cursor.Filter().DistinctProject() << n.attribute;
    cursor.Order(ASOrder(n.attribute));
    std::vector<std::string> rows;
    while (cursor.Fetch())
        rows.push_back(cell(*n.data));
    EXPECT_THAT(rows, ElementsAre("<null>", "-5", "10", "20"));
}

TEST_P(ASCursorRows, DistinctRowsOfColumnsExpressionsAndAggregatesAreSortedByEach) {
    const ASAttribute folded = ASAttribute::Upper(s.attribute);
    const ASAttribute unqualified("d", ASType::Double);
    ASGroupAttribute count;
    count.Register(std::make_shared<ASInt64>(), v);
    ASGroupAttribute greatest(Function::Max, id.attribute);
    greatest.Register(std::make_shared<ASInt64>(), v);
    const auto rows = [&](auto project, const std::vector<ASOrder>& order) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        ASCursor cursor(*transaction);
        project(cursor.Filter().DistinctProject());
        if (!order.empty()) cursor.Order(order.front());
        std::string all;
        while (cursor.Fetch())
            all += cell(*n.data) + ":" + cell(*greatest.data()) + ":" + cell(*count.data()) + " ";
        return all;
    };
    const auto groups = [&](ASProject& project) { project << greatest << n.attribute << count; };
    EXPECT_EQ(rows(groups, {ASOrder(n.attribute)}), "<null>:3:1 -5:5:1 10:4:2 20:2:1 ");
    EXPECT_EQ(rows(groups, {-ASOrder(greatest)}), "-5:5:1 10:4:2 <null>:3:1 20:2:1 ");
    ASOrder byBoth(count);
    byBoth << -ASOrder(n.attribute);
    EXPECT_EQ(rows(groups, {byBoth}), "20:2:1 -5:5:1 <null>:3:1 10:4:2 ");
    EXPECT_EQ(rows(groups, {}).size(), std::string("<null>:3:1 -5:5:1 10:4:2 20:2:1 ").size());
    const auto plain = [&](ASProject& project) { project << n.attribute << folded << unqualified; };
    greatest.data()->setNull();
    count.data()->setNull();
    EXPECT_EQ(rows(plain, {-ASOrder(folded)}),
              "10:<null>:<null> 20:<null>:<null> 10:<null>:<null> -5:<null>:<null> "
              "<null>:<null>:<null> ");
    EXPECT_EQ(rows(plain, {ASOrder(unqualified)}),
              "<null>:<null>:<null> 10:<null>:<null> -5:<null>:<null> "
              "10:<null>:<null> 20:<null>:<null> ");
}

TEST_P(ASCursorRows, DistinctRowsAreSortedOnlyByWhatIsSelectedWhereTheEngineAsksForThat) {
    const auto sorted = [&](const ASOrder& order) {
        return failure([&] {
            QORRdbmsTran transaction(ASAccess::ReadOne);
            ASCursor cursor(*transaction);
            cursor.Filter().DistinctProject() << n.attribute;
            cursor.Order(order);
            cursor.Fetch();
        });
    };
    const std::string expected =
        isPostgres() ? "PostgreSQL sorts distinct rows only by what is selected of them" : "(no failure)";
    EXPECT_EQ(sorted(ASOrder(id.attribute)), expected);
    EXPECT_EQ(sorted(ASOrder(n.attribute)), "(no failure)");
}

TEST_P(ASCursorRows, TwoCursorsOnOneSessionRunSideBySide) {
    for (const auto& [access, limit] : {std::pair(ASAccess::Read, 0), std::pair(ASAccess::Read, 20),
                                        std::pair(ASAccess::ReadOne, 0), std::pair(ASAccess::ReadOne, 20)}) {
        QORRdbmsTran transaction(access);
        const auto make = [&, limit = limit](ASCursor& cursor, const Column& shown) {
            cursor.Filter().Project() << shown.attribute;
            cursor.Order(ASOrder(shown.attribute));
            if (limit > 0) cursor.Limit(limit, 0);
        };
        const Column other = column(v, "id", ASType::Int);
        ASCursor outer(*transaction);
        make(outer, id);
        int pairs = 0;
        for (int expected = 1; outer.Fetch(); ++expected) {
            ASCursor inner(*transaction);
            make(inner, other);
            while (inner.Fetch())
                ++pairs;
            EXPECT_EQ(id.data->Str(), std::to_string(expected));
        }
        EXPECT_EQ(pairs, 25);
    }
}

TEST_P(ASCursorRows, StatementIsReusedWithOtherValues) {
    for (int round = 0; round < 3; ++round) {
        EXPECT_THAT(select(id.attribute, s.attribute == ASVStr(10, "alpha"), {}, 20), ElementsAre("1"));
        EXPECT_THAT(select(id.attribute, s.attribute == ASVStr(10, std::string(5000, 'x')), {}, 20), ElementsAre());
        EXPECT_THAT(select(id.attribute, s.attribute == ASVStr(10), {}, 20), ElementsAre());
        EXPECT_THAT(select(id.attribute, s.attribute == ASVStr(10, "Beta"), {}, 20), ElementsAre("2"));
        EXPECT_THAT(select(id.attribute, n.attribute == ASInt(20), {}, 20), ElementsAre("2"));
        EXPECT_THAT(select(id.attribute, n.attribute == ASDouble(-5.0), {}, 20), ElementsAre("5"));
    }
}

TEST_P(ASCursorRows, ManyDifferentSelectsAreTaken) {
    for (int i = 0; i < 300; ++i) {
        const ASComparison condition = ASAttribute::In(id.attribute, std::to_string(i));
        EXPECT_EQ(select(id.attribute, condition, {}, 20).size(), i >= 1 && i <= 5 ? 1u : 0u);
    }
}

TEST_P(ASCursorRows, TextsBeyondAsciiAreFoundByParameterAndByLiteral) {
    for (const char* text : {"M\xC3\xBCnchen", "\xF0\x9F\x98\x80"}) {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->prepare("UPDATE t SET s = ? WHERE id = 3").bind(1, text).execute();
        transaction.commit();
        EXPECT_THAT(ids(s.attribute == ASVStr(10, text)), ElementsAre("3"));
        EXPECT_THAT(ids(ASAttribute::In(s.attribute, ASSession::quoteLiteral(text))), ElementsAre("3"));
        EXPECT_THAT(ids(ASAttribute::Like(s.attribute, text, 0)), ElementsAre("3"));
    }
}

TEST_P(ASCursorRows, HostileTextsAreOnlyTexts) {
    for (const char* text : {"'; DROP TABLE t; --", "\\'", "?", "{ts '2024-01-01'}", "%Q", "\"", "/* */ OR 1 = 1"}) {
        EXPECT_THAT(ids(s.attribute == ASVStr(10, text)), ElementsAre()) << text;
        EXPECT_THAT(select(id.attribute, s.attribute == ASVStr(10, text), {}, 20), ElementsAre()) << text;
        EXPECT_THAT(ids(ASAttribute::In(s.attribute, ASSession::quoteLiteral(text))), ElementsAre()) << text;
        EXPECT_THAT(ids(ASAttribute::Like(s.attribute, text, 0)), ElementsAre()) << text;
        const Column strange = column(v, text);
        EXPECT_NE(failure([&] { select(strange.attribute); }), "(no failure)") << text;
        const Column nowhere = column(domainOf(text), "id");
        EXPECT_NE(failure([&] { select(nowhere.attribute); }), "(no failure)") << text;
    }
    EXPECT_EQ(ids({}).size(), 5u);
}

TEST_P(ASCursorRows, ColumnsWithDotsAndQuotesAreRead) {
    run("CREATE VIEW \"odd.view\" AS SELECT id AS \"a.b\", s AS \"c\"\"d\" FROM t");
    const auto odd = domainOf("odd.view");
    EXPECT_THAT(select(column(odd, "c\"d").attribute, column(odd, "a.b", ASType::Int).attribute == ASInt(1)),
                ElementsAre("alpha"));
}

TEST_P(ASCursorRows, ASumThatIsBeyondItsTypeOnlyOnTheWayIsExact) {
    run("CREATE TABLE way (n BIGINT, m INT, d DECIMAL);"
        "INSERT INTO way VALUES (9223372036854775807, 1, 9223372036854775807), (9223372036854775807, 2, 3),"
        " (-9223372036854775807, -4, 3), (-9223372036854775805, 3, 9223372036854775807), (NULL, NULL, NULL);"
        "CREATE VIEW \"vWay\" AS SELECT * FROM way");
    const auto way = domainOf("vWay");
    const Column wide = column(way, "n", ASType::BigInt), decimal = column(way, "d", ASType::Double);
    EXPECT_THAT(aggregate(Function::Sum, wide, ASType::BigInt), ElementsAre("2"));
    EXPECT_EQ(failure([&] { aggregate(Function::Sum, wide, ASType::BigInt, wide.attribute < ASInt64(0)); }),
              std::string("a sum is beyond 64 bits of ") + dialect().name);
    EXPECT_THAT(aggregate(Function::Sum, decimal, ASType::Double), ElementsAre("1.8446744073709552e+19"));
}

TEST_P(ASCursorRows, SumBeyondItsTypeIsAFailureAndNeverAWrongNumber) {
    run("CREATE TABLE big (n INT, m BIGINT);"
        "INSERT INTO big VALUES (2000000000, 9223372036854775807), (2000000000, 1);"
        "CREATE VIEW \"vBig\" AS SELECT * FROM big");
    const auto big = domainOf("vBig");
    const Column narrow = column(big, "n", ASType::Int), wide = column(big, "m", ASType::BigInt);
    EXPECT_EQ(failure([&] { aggregate(Function::Sum, narrow, ASType::Int); }),
              "sum(\"vBig\".\"n\") is 4000000000, which is no integer of 32 bits");
    EXPECT_EQ(failure([&] { aggregate(Function::Sum, wide, ASType::BigInt); }),
              std::string("a sum is beyond 64 bits of ") + dialect().name);
    EXPECT_THAT(aggregate(Function::Max, wide, ASType::BigInt), ElementsAre("9223372036854775807"));
    EXPECT_THAT(aggregate(Function::Sum, narrow, ASType::Int, wide.attribute == ASInt(1)), ElementsAre("2000000000"));
}

TEST_P(ASCursorRows, WhatHasNoReceiverIsPassedOver) {
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    const ASAttribute expression = ASAttribute::Upper(s.attribute);
    cursor.Filter().Project() << s.attribute << expression;
    cursor.Order(-ASOrder(expression));
    EXPECT_TRUE(cursor.Fetch());
    EXPECT_EQ(s.data->Str(), "b_ta%");
    ASCursor sums(*transaction);
    const ASGroupAttribute sum(Function::Sum, n.attribute);
    ASGroupAttribute count;
    const auto counted = std::make_shared<ASInt>();
    count.Register(counted, v);
    sums.Filter().Project() << sum << count;
    EXPECT_TRUE(sums.Fetch());
    EXPECT_EQ(counted->value(), 5);
}

TEST_P(ASCursorRows, CursorGivesNothingAfterItsEnd) {
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    cursor.Filter().Project() << id.attribute;
    cursor.Filter().Set(n.attribute == ASInt(20));
    EXPECT_TRUE(cursor.Fetch());
    EXPECT_FALSE(cursor.Fetch());
    EXPECT_FALSE(cursor.Fetch());
    EXPECT_EQ(cursor.GetAmount(), 1);
}

INSTANTIATE_TEST_SUITE_P(SQLite, ASCursorRows, ::testing::Values(ASEngine::SQLite));
INSTANTIATE_TEST_SUITE_P(PostgreSQL, ASCursorRows, ::testing::Values(ASEngine::PostgreSQL));

}  // namespace
}  // namespace QOR::test
