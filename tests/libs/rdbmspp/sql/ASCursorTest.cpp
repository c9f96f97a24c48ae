// What is stored comes out, whatever it is, through the real driver.
#include <bit>
#include <cmath>
#include <random>

#include "libs/rdbmspp/DatabaseFixture.h"
#include "support/LongTexts.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;

struct ValueCase {
    const char* name;
    const char* declared;
    ASType type;
    const char* stored;  ///< SQL
    std::string text;
};

class ASCursorValue : public DatabaseTest, public ::testing::WithParamInterface<ValueCase> {};

TEST_P(ASCursorValue, ComesOutAsItIs) {
    const auto& c = GetParam();
    open(std::string("CREATE TABLE t (c ") + c.declared +
         ", k INT); CREATE VIEW v AS SELECT c, k FROM t;"
         "INSERT INTO t VALUES (" +
         c.stored + ", 1), (NULL, 2), (" + c.stored + ", 3)");
    const auto v = domainOf("v");
    const Column value = column(v, "c", c.type);
    const ASOrder byKey(column(v, "k", ASType::Int).attribute);
    const auto expected = ElementsAre(c.text, "<null>", c.text);
    EXPECT_THAT(select(value.attribute, {}, {byKey}), expected) << "all rows";
    EXPECT_THAT(select(value.attribute, {}, {byKey}, 20), expected) << "a page";
}

INSTANTIATE_TEST_SUITE_P(
    Stored, ASCursorValue,
    ::testing::Values(ValueCase{"Int", "INT", ASType::Int, "-7", "-7"},
                      ValueCase{"IntWord", "INT", ASType::Int, "'abc'", "abc"},
                      ValueCase{"IntEmpty", "INT", ASType::Int, "''", ""},
                      ValueCase{"IntFraction", "INT", ASType::Int, "10.5", "10.5"},
                      ValueCase{"IntLarge", "INT", ASType::Int, "5000000000", "5000000000"},
                      ValueCase{"BigInt", "BIGINT", ASType::BigInt, "-9223372036854775808", "-9223372036854775808"},
                      ValueCase{"Bit", "BIT", ASType::Int, "1", "1"},
                      ValueCase{"Double", "FLOAT", ASType::Double, "0.1 + 0.2", "0.30000000000000004"},
                      ValueCase{"DoubleSmall", "DOUBLE", ASType::Double, "5e-324", "5e-324"},
                      ValueCase{"DoubleLarge", "DOUBLE", ASType::Double, "1e308 * 1.5", "1.5e+308"},
                      ValueCase{"DoubleInfinite", "FLOAT", ASType::Double, "-9e999", "-Inf"},
                      ValueCase{"DoubleZero", "FLOAT", ASType::Double, "0.0", "0"},
                      ValueCase{"DoubleWhole", "FLOAT", ASType::Double, "3", "3"},
                      ValueCase{"DoubleWord", "FLOAT", ASType::Double, "'abc'", "abc"},
                      ValueCase{"Decimal", "DECIMAL", ASType::Double, "12.25", "12.25"},
                      ValueCase{"Guid", "UNIQUEIDENTIFIER", ASType::Guid, "'6BA7B810-9DAD-41D1-80B4-00C04FD430C8'",
                                "6ba7b810-9dad-41d1-80b4-00c04fd430c8"},
                      ValueCase{"GuidOther", "UNIQUEIDENTIFIER", ASType::Guid, "'no guid'", "no guid"},
                      ValueCase{"Time", "DATETIME", ASType::DateTime, "'2024-02-29 12:00:00'",
                                "2024-02-29T12:00:00+0000"},
                      ValueCase{"TimeOther", "DATETIME", ASType::DateTime, "'yesterday'", "yesterday"},
                      ValueCase{"TimeNumber", "DATETIME", ASType::DateTime, "1700000000", "1700000000"},
                      ValueCase{"Text", "NVARCHAR(20)", ASType::VarChar, "'it''s'", "it's"},
                      ValueCase{"TextEmpty", "NVARCHAR(20)", ASType::VarChar, "''", ""},
                      ValueCase{"TextUtf8", "NVARCHAR(20)", ASType::VarChar, "'M\xC3\xBCnchen \xF0\x9F\x98\x80'",
                                "M\xC3\xBCnchen \xF0\x9F\x98\x80"},
                      ValueCase{"TextNotUtf8", "NVARCHAR(20)", ASType::VarChar, "CAST(x'41ff28' AS TEXT)", "A\xff("},
                      ValueCase{"TextPercent", "NVARCHAR(20)", ASType::VarChar, "'100%Q ?{ts}'", "100%Q ?{ts}"},
                      ValueCase{"TextLong", "NVARCHAR(20)", ASType::VarChar,
                                "replace(printf('%200000d', 0), ' ', 'ab')", repeated("ab", 199999) + "0"},
                      ValueCase{"TextWide", "NVARCHAR(20)", ASType::VarChar,
                                "replace(printf('%100d', 0), ' ', '\xE2\x82\xAC')", repeated("\xE2\x82\xAC", 99) + "0"},
                      ValueCase{"CharLong", "CHAR(20)", ASType::Char, "replace(printf('%129d', 0), ' ', 'x')",
                                repeated("x", 128) + "0"},
                      ValueCase{"Blob", "IMAGE", ASType::Blob, "x'00ff270a'", std::string("\0\xff'\n", 4)},
                      ValueCase{"BlobEmpty", "IMAGE", ASType::Blob, "x''", ""},
                      ValueCase{"BlobAsText", "TEXT", ASType::Blob, "'plain text'", "plain text"},
                      ValueCase{"BlobTextLikeLiteral", "TEXT", ASType::Blob, "'X''4142'''", "X'4142'"},
                      ValueCase{"BlobNumber", "LONGBLOB", ASType::Blob, "12", "12"},
                      ValueCase{"BlobLong", "IMAGE", ASType::Blob, "zeroblob(300000)", std::string(300000, '\0')}),
    [](const auto& tested) { return tested.param.name; });

/// A value of every length around the sizes of buffers and pieces.
TEST_F(DatabaseTest, TextsAndBlobsOfEveryLengthComeOutWhole) {
    open(
        "CREATE TABLE t (n INT, s NVARCHAR(4), b IMAGE); CREATE VIEW v AS SELECT * FROM t;"
        "WITH RECURSIVE i(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM i WHERE n < 1100)"
        " INSERT INTO t SELECT n, substr(replace(printf('%1100d', 0), ' ', 'x'), 1, n), zeroblob(n) FROM i;"
        "INSERT INTO t SELECT n, replace(printf('%' || n || 'd', 0), ' ', 'y'), zeroblob(n) FROM"
        " (SELECT 65534 + value AS n FROM json_each('[0,1,2,3]'))");
    const auto v = domainOf("v");
    const Column n = column(v, "n", ASType::Int), s = column(v, "s"), b = column(v, "b", ASType::Blob);
    for (const int limit : {0, 2000}) {
        for (const bool descending : {false, true}) {
            QORRdbmsTran transaction(ASAccess::ReadOne);
            ASCursor cursor(*transaction);
            cursor.Filter().Project() << n.attribute << s.attribute << b.attribute;
            const ASOrder order(n.attribute);
            cursor.Order(descending ? -order : order);
            if (limit > 0) cursor.Limit(limit, 0);
            while (cursor.Fetch()) {
                const auto length = std::stoul(n.data->Str());
                ASSERT_EQ(s.data->Str().size(), length);
                ASSERT_EQ(b.data->Str(), std::string(length, '\0'));
                ASSERT_EQ(s.data->Str().find_first_not_of(length > 2000 ? "y0" : "x0"), std::string::npos);
            }
            EXPECT_EQ(cursor.GetAmount(), 1104);
        }
    }
}

TEST_F(DatabaseTest, DoublesComeOutExactly) {
    Engine engine(path());
    engine.run("CREATE TABLE t (d DOUBLE, i INT); CREATE VIEW v AS SELECT * FROM t");
    open();
    std::mt19937_64 random(7);
    std::vector<double> stored;
    {
        QORRdbmsTran transaction(ASAccess::Write);
        auto& insert = transaction->prepare("INSERT INTO t VALUES (?, ?)");
        while (stored.size() < 5000) {
            const double value = std::bit_cast<double>(random());
            if (!std::isfinite(value)) continue;
            insert.bind(1, value).bind(2, static_cast<std::int64_t>(stored.size())).execute();
            stored.push_back(value);
        }
        transaction.commit();
    }
    const auto v = domainOf("v");
    const Column d = column(v, "d", ASType::Double);
    std::size_t at = 0;
    for (const std::string& text : select(d.attribute, {}, {ASOrder(column(v, "i", ASType::Int).attribute)})) {
        ASSERT_EQ(std::strtod(text.c_str(), nullptr), stored.at(at)) << text;
        ++at;
    }
    EXPECT_EQ(at, stored.size());
}

TEST_F(DatabaseTest, ASumOfFractionsInAColumnOfIntegersIsAFailure) {
    open("CREATE TABLE t (m BIGINT); INSERT INTO t VALUES (1), (2.5); CREATE VIEW v AS SELECT m FROM t");
    const Column wide = column(domainOf("v"), "m", ASType::BigInt);
    ASGroupAttribute sum(ASGroupAttribute::Function::Sum, wide.attribute);
    sum.Register(makeData(ASType::BigInt), wide.attribute.domain());
    EXPECT_EQ(failure([&] { select(sum); }), "sum(\"v\".\"m\") is 3.5, which is no integer of 64 bits");
}

TEST_F(DatabaseTest, FailureNamesItsCauseAndTheNextSelectWorks) {
    open("CREATE TABLE t (id INT); INSERT INTO t VALUES (1); CREATE VIEW v AS SELECT id FROM t");
    const auto v = domainOf("v");
    const Column missing = column(v, "missing");
    try {
        select(missing.attribute);
        FAIL();
    } catch (const AException& error) {
        EXPECT_EQ(error.text(), "no such column: v.missing");
        EXPECT_EQ(error.nativeCode(), 1);
        EXPECT_EQ(error.sqlState(), "HY000");
        EXPECT_EQ(error.statement(), R"(SELECT "v"."missing" FROM "v")");
    }
    EXPECT_EQ(select(column(v, "id").attribute).size(), 1u);
}

}  // namespace
}  // namespace QOR::test
