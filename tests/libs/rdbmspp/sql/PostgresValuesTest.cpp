// Values that only PostgreSQL has come out as they are, or as something that nobody takes for a value; and what is
// asked for never becomes a part of a statement.
#include "libs/rdbmspp/Columns.h"
#include "libs/rdbmspp/PostgresFixture.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using Function = ASGroupAttribute::Function;

class PostgresValues : public PostgresTest {
protected:
    void read(const std::string& type, const std::string& values) {
        prepare("CREATE TABLE t (id serial, c " + type + "); INSERT INTO t (c) VALUES " + values +
                "; CREATE VIEW v AS SELECT * FROM t");
    }
    static std::vector<std::string> stored(ASType type, ASStorage storage = ASStorage::Usual) {
        const auto v = ASDomain::view("v", {}, {{"c", storage}});
        const Column c = column(v, "c", type);
        const ASOrder byId(column(v, "id", ASType::Int).attribute);
        const auto page = select(c.attribute, {}, {byId}, 20);
        EXPECT_EQ(select(c.attribute, {}, {byId}), page) << "a stream";
        return page;
    }
    static std::vector<std::string> aggregate(Function function, ASType type, ASType result,
                                              ASStorage storage = ASStorage::Usual) {
        const auto v = ASDomain::view("v", {}, {{"c", storage}});
        const Column c = column(v, "c", type);
        ASGroupAttribute group(function, c.attribute);
        group.Register(makeData(result), v);
        return select(group);
    }
};

TEST_F(PostgresValues, TimesThatHaveNoPlaceInTheUsualFormAreUnreadableAndNotOthers) {
    read("timestamp",
         "('infinity'), ('-infinity'), ('10000-01-01'), ('0044-03-15 01:02:03 BC'), ('2024-02-29 12:00:00.125'),"
         " ('1969-12-31 23:59:59')");
    EXPECT_THAT(stored(ASType::DateTime),
                ElementsAre("infinity", "-infinity", "10000-01-01 00:00:00", "0044-03-15 01:02:03 BC",
                            "2024-02-29T12:00:00+0000", "1969-12-31T23:59:59+0000"));
    EXPECT_THAT(aggregate(Function::Max, ASType::DateTime, ASType::Double), ElementsAre("1709208000"));
    EXPECT_THAT(aggregate(Function::Min, ASType::DateTime, ASType::Double), ElementsAre("-1"));
    EXPECT_THAT(aggregate(Function::Count, ASType::DateTime, ASType::BigInt), ElementsAre("6"));
}

TEST_F(PostgresValues, TimesWithAZoneAreUtc) {
    read("timestamptz", "('2024-02-29 12:00:00+03'), ('infinity'), ('10000-01-01 00:00:00+00')");
    EXPECT_THAT(stored(ASType::DateTime, ASStorage::ZonedTime),
                ElementsAre("2024-02-29T09:00:00+0000", "infinity", "10000-01-01 00:00:00"));
    const auto v = ASDomain::view("v", {}, {{"c", ASStorage::ZonedTime}});
    const Column c = column(v, "c", ASType::DateTime);
    const Column id = column(v, "id", ASType::Int);
    EXPECT_THAT(select(id.attribute, c.attribute == ASTime(1709197200)), ElementsAre("1"));
    EXPECT_THAT(select(id.attribute, ASAttribute::In(c.attribute, "'2024-02-29 09:00:00'")), ElementsAre("1"));
    EXPECT_THAT(select(id.attribute, ASAttribute::Like(c.attribute, "2024-02-29 09%", 0)), ElementsAre("1"));
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    cursor.Filter().DistinctProject() << c.attribute;
    cursor.Order(ASOrder(c.attribute));
    std::string distinct;
    while (cursor.Fetch())
        distinct += c.data->Str() + "|";
    EXPECT_EQ(distinct, "2024-02-29T09:00:00+0000|10000-01-01 00:00:00|infinity|");
}

TEST_F(PostgresValues, DatesAreTheBeginningsOfTheirDays) {
    read("date", "('2024-02-29'), ('infinity')");
    EXPECT_THAT(stored(ASType::DateTime), ElementsAre("2024-02-29T00:00:00+0000", "infinity"));
}

TEST_F(PostgresValues, DecimalsKeepEveryDigit) {
    read("numeric", "(12345678901234567890.12345), (0.10), (1.5e300), (-0.000000000000000000001), ('NaN'), (100)");
    EXPECT_THAT(stored(ASType::Double, ASStorage::Decimal),
                ElementsAre("12345678901234567890.12345", "0.1", "1.5e+300", "-1e-21", "NaN", "100"));
    const auto v = ASDomain::view("v", {}, {{"c", ASStorage::Decimal}});
    const Column c = column(v, "c", ASType::Double);
    const Column id = column(v, "id", ASType::Int);
    EXPECT_THAT(select(id.attribute, ASAttribute::In(c.attribute, "'12345678901234567890.12345', '0.1'")),
                ElementsAre("1", "2"));
    EXPECT_THAT(select(id.attribute, ASAttribute::In(c.attribute, "'12345678901234567890.12346'")), ElementsAre());
}

TEST_F(PostgresValues, SumsOfDecimalsAreExact) {
    read("numeric", "(12345678901234567890.1), (0.02)");
    EXPECT_THAT(aggregate(Function::Sum, ASType::Double, ASType::Double, ASStorage::Decimal),
                ElementsAre("12345678901234567890.12"));
    EXPECT_THAT(aggregate(Function::Max, ASType::Double, ASType::Double, ASStorage::Decimal),
                ElementsAre("12345678901234567890.1"));
}

TEST_F(PostgresValues, TypesThatAreNoTextsAreReadAndComparedAsTheirTexts) {
    read("inet", "('10.0.0.1'), ('10.0.0.2/24'), (NULL)");
    EXPECT_THAT(stored(ASType::VarChar, ASStorage::Other), ElementsAre("10.0.0.1/32", "10.0.0.2/24", "<null>"));
    const auto v = ASDomain::view("v", {}, {{"c", ASStorage::Other}});
    const Column c = column(v, "c");
    const Column id = column(v, "id", ASType::Int);
    EXPECT_THAT(select(id.attribute, c.attribute == ASVStr(20, "10.0.0.2/24")), ElementsAre("2"));
    EXPECT_THAT(select(id.attribute, c.attribute == ASVStr(20, "no address")), ElementsAre());
    EXPECT_THAT(select(id.attribute, ASAttribute::Like(c.attribute, "10.%", 0), {ASOrder(c.attribute)}),
                ElementsAre("1", "2"));
}

TEST_F(PostgresValues, GuidsAreInLowerCase) {
    read("uuid", "('6BA7B810-9DAD-41D1-80B4-00C04FD430C8')");
    EXPECT_THAT(stored(ASType::Guid), ElementsAre("6ba7b810-9dad-41d1-80b4-00c04fd430c8"));
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASStatement& statement = transaction->prepare("SELECT 'A', c, 'B', NULL FROM t");
    statement.execute();
    ASSERT_TRUE(statement.fetch());
    EXPECT_EQ(statement.text(1), "A");
    EXPECT_EQ(statement.text(2), "6ba7b810-9dad-41d1-80b4-00c04fd430c8");
    EXPECT_EQ(statement.text(3), "B");
    EXPECT_TRUE(statement.isNull(4));
}

TEST_F(PostgresValues, BytesAndLongTextsComeOutWhole) {
    read("bytea", "('\\x00ff270a'), (''), (convert_to(repeat('xy', 100000), 'UTF8'))");
    std::string longOne;
    for (int i = 0; i < 100'000; ++i)
        longOne += "xy";
    EXPECT_THAT(stored(ASType::Blob), ElementsAre(std::string("\0\xff'\n", 4), "", longOne));
}

TEST_F(PostgresValues, NothingThatIsAskedForIsAPartOfAStatement) {
    read("varchar", "('a'), ('b')");
    const Column c = column(domainOf("v"), "c");
    const Column id = column(domainOf("v"), "id", ASType::Int);
    const ASAttribute literal(ASAttribute::Raw::Expression, "'marked-word'");
    ASSelect inner;
    inner.Filter().Project() << c.attribute;
    inner.Filter().Set(c.attribute == ASVStr(20, "marked-word"));
    std::string many = "'marked-word'";
    for (int i = 0; i < 100; ++i)
        many += ", 'marked-word'";
    const ASComparison conditions[] = {
        c.attribute == ASVStr(20, "marked-word"),
        ASAttribute::In(c.attribute, "'marked-word', lower('marked-word')"),
        ASAttribute::In(c.attribute, many),
        ASAttribute::In(id.attribute, "'4711471147'"),
        ASAttribute::Between(c.attribute, literal, literal),
        ASAttribute::Like(c.attribute, "marked-word", 'm'),
        ASAttribute::Like(c.attribute, c.attribute, 'm'),
        ASAttribute::Lower(c.attribute) == ASAttribute::Upper(literal),
        ASData::EQ(ASVStr(20, "marked-word"), ASVStr(20, "marked-word")),
        ASAttribute::In(c.attribute,
                        ASAttribute(std::make_shared<const ASNestedSelect>(inner, QORRdbms::instance().dialect()))),
    };
    PostgresConnection other = engine();
    for (const ASComparison& condition : conditions) {
        for (const int limit : {0, 20}) {
            QORRdbmsTran transaction(ASAccess::ReadOne);
            ASCursor cursor(*transaction);
            cursor.Filter().Project() << c.attribute;
            cursor.Filter().Set(condition);
            if (limit > 0) cursor.Limit(limit, 0);
            while (cursor.Fetch()) {
            }
            for (const auto& row : other.rows("SELECT query FROM pg_stat_activity WHERE pid <> pg_backend_pid()")) {
                EXPECT_THAT(row[0], Not(HasSubstr("marked-word"))) << limit;
                EXPECT_THAT(row[0], Not(HasSubstr("4711471147"))) << limit;
                EXPECT_THAT(row[0], Not(HasSubstr("'m'"))) << limit;
            }
        }
    }
}

TEST_F(PostgresValues, MoreValuesThanAStatementTakesAreRefusedInOurWords) {
    read("int", "(1)");
    const Column c = column(domainOf("v"), "c", ASType::Int);
    ASComparison any;
    for (int i = 0; i < 40'000; ++i)
        any = std::move(any) || (c.attribute == ASInt(i));
    EXPECT_EQ(failureOf([&] { select(c.attribute, any, {}, 20); }).text(),
              "the select holds too many values for PostgreSQL");
}

TEST_F(PostgresValues, OrderedPagesOfOurIndexesDoNotSort) {
    prepare(
        "CREATE TABLE t (id bigint, s varchar(20) COLLATE \"C\"); CREATE INDEX ON t (s NULLS FIRST);"
        "INSERT INTO t SELECT i, i::text FROM generate_series(1, 20000) i; ANALYZE t;"
        "CREATE VIEW v AS SELECT * FROM t");
    const Column s = column(domainOf("v"), "s");
    for (const bool descending : {false, true}) {
        ASSelect page;
        page.Filter().Project() << s.attribute;
        page.Order(descending ? -ASOrder(s.attribute) : ASOrder(s.attribute));
        page.Limit(20, 0);
        PostgresConnection other = engine();
        std::string plan;
        for (const auto& row : other.rows("EXPLAIN " + page.Query(QORRdbms::instance().dialect())))
            plan += row[0] + "\n";
        EXPECT_THAT(plan, Not(HasSubstr("Sort")));
        EXPECT_THAT(plan, HasSubstr("Index"));
    }
}

}  // namespace
}  // namespace QOR::test
