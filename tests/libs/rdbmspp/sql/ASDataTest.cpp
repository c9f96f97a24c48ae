#include "rdbmspp/sql/ASData.h"

#include <limits>

#include "libs/rdbmspp/DatabaseFixture.h"
#include "rdbmspp/engine/ASDialect.h"

namespace QOR::test {
namespace {

struct TakeCase {
    const char* name;
    ASType type;
    std::string stored;
    std::string text;
    bool raw;
};

class ASDataTake : public ::testing::TestWithParam<TakeCase> {};

TEST_P(ASDataTake, GivesTheText) {
    const auto& c = GetParam();
    const auto data = makeData(c.type);
    EXPECT_TRUE(data->isNull());
    data->take(c.stored);
    EXPECT_FALSE(data->isNull());
    EXPECT_EQ(data->isRaw(), c.raw);
    EXPECT_EQ(data->Str(), c.text);
    data->setNull();
    EXPECT_TRUE(data->isNull());
    EXPECT_EQ(data->Str(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Stored, ASDataTake,
    ::testing::Values(
        TakeCase{"Int", ASType::Int, "-42", "-42", false},
        TakeCase{"IntLargest", ASType::Int, "2147483647", "2147483647", false},
        TakeCase{"IntBeyond", ASType::Int, "2147483648", "2147483648", true},
        TakeCase{"IntWord", ASType::Int, "abc", "abc", true}, TakeCase{"IntEmpty", ASType::Int, "", "", true},
        TakeCase{"IntFraction", ASType::Int, "10.5", "10.5", true}, TakeCase{"IntSpace", ASType::Int, "1 ", "1 ", true},
        TakeCase{"BigInt", ASType::BigInt, "-9223372036854775808", "-9223372036854775808", false},
        TakeCase{"BigIntBeyond", ASType::BigInt, "9223372036854775808", "9223372036854775808", true},
        TakeCase{"Double", ASType::Double, "0.30000000000000004", "0.30000000000000004", false},
        TakeCase{"DoubleShortest", ASType::Double, "1.50", "1.5", false},
        TakeCase{"DoubleWhole", ASType::Double, "100000", "100000", false},
        TakeCase{"DoubleExponent", ASType::Double, "1.0e+300", "1e+300", false},
        TakeCase{"DoubleWord", ASType::Double, "nan", "nan", true},
        TakeCase{"DoubleInfinite", ASType::Double, "Inf", "Inf", true},
        TakeCase{"Guid", ASType::Guid, "6ba7b810-9dad-41d1-80b4-00c04fd430c8", "6ba7b810-9dad-41d1-80b4-00c04fd430c8",
                 false},
        TakeCase{"GuidUpper", ASType::Guid, "{6BA7B810-9DAD-41D1-80B4-00C04FD430C8}",
                 "6ba7b810-9dad-41d1-80b4-00c04fd430c8", false},
        TakeCase{"GuidOther", ASType::Guid, "6ba7b810", "6ba7b810", true},
        TakeCase{"GuidWithoutItsHyphen1", ASType::Guid, "6ba7b81009dad-41d1-80b4-00c04fd430c8",
                 "6ba7b81009dad-41d1-80b4-00c04fd430c8", true},
        TakeCase{"GuidWithoutItsHyphen2", ASType::Guid, "6ba7b810-9dad041d1-80b4-00c04fd430c8",
                 "6ba7b810-9dad041d1-80b4-00c04fd430c8", true},
        TakeCase{"GuidWithoutItsHyphen3", ASType::Guid, "6ba7b810-9dad-41d1080b4-00c04fd430c8",
                 "6ba7b810-9dad-41d1080b4-00c04fd430c8", true},
        TakeCase{"GuidWithoutItsHyphen4", ASType::Guid, "6ba7b810-9dad-41d1-80b4000c04fd430c8",
                 "6ba7b810-9dad-41d1-80b4000c04fd430c8", true},
        TakeCase{"GuidOfOtherLetters", ASType::Guid, "6ba7b810-9dad-41d1-80b4-00c04fd430cg",
                 "6ba7b810-9dad-41d1-80b4-00c04fd430cg", true},
        TakeCase{"Time", ASType::DateTime, "2024-02-29 23:59:59", "2024-02-29T23:59:59+0000", false},
        TakeCase{"TimeOfTheSameLength", ASType::DateTime, "2024-02-29T23:59:59", "2024-02-29T23:59:59+0000", false},
        TakeCase{"TimeOtherForm", ASType::DateTime, "2024-01-01T02:00:00+02:00", "2024-01-01T00:00:00+0000", false},
        TakeCase{"TimeDateOnly", ASType::DateTime, "2024-01-01", "2024-01-01T00:00:00+0000", false},
        TakeCase{"TimeBeforeEpoch", ASType::DateTime, "1969-12-31 23:59:59", "1969-12-31T23:59:59+0000", false},
        TakeCase{"TimeBeforeEpochOtherForm", ASType::DateTime, "1969-12-31T23:59:59Z", "1969-12-31T23:59:59+0000",
                 false},
        TakeCase{"TimeNoDay", ASType::DateTime, "2023-02-29 00:00:00", "2023-02-29 00:00:00", true},
        TakeCase{"TimeNumber", ASType::DateTime, "1700000000", "1700000000", true},
        TakeCase{"TimeHour24", ASType::DateTime, "2024-01-01 24:00:00", "2024-01-01 24:00:00", true},
        TakeCase{"Text", ASType::VarChar, "", "", false}, TakeCase{"Char", ASType::Char, "it's", "it's", false},
        TakeCase{"Blob", ASType::Blob, std::string("\0\xff", 2), std::string("\0\xff", 2), false}),
    [](const auto& tested) { return tested.param.name; });

TEST(ASData, TimeHasItsSeconds) {
    ASTime time;
    time.take("2024-02-29 12:34:56");
    EXPECT_EQ(time.value(), 1709210096);
    time.take("1900-03-01 00:00:00");
    EXPECT_EQ(time.value(), -2203891200);
    time.take("0000-01-01 00:00:00");
    EXPECT_EQ(time.value(), -62167219200);
}

TEST(ASData, GuidIsReadWhenItIsAskedFor) {
    ASGuid guid;
    guid.take("6ba7b810-9dad-41d1-80b4-00c04fd430c8");
    const Guid expected = *Guid::parse("6ba7b810-9dad-41d1-80b4-00c04fd430c8");
    EXPECT_EQ(guid.value(), expected);
    EXPECT_EQ(guid.value(), expected);
    EXPECT_EQ(ASGuid(expected).value(), expected);
}

struct LiteralCase {
    ASDataPtr data;
    std::string literal;
};

TEST(ASData, Literals) {
    const std::string nulBlob("\0'A", 3);
    const LiteralCase cases[] = {
        {std::make_shared<ASVStr>(10, "O'Hara"), "'O''Hara'"},
        {std::make_shared<ASStr>(10, ""), "''"},
        {std::make_shared<ASInt>(-5), "-5"},
        {std::make_shared<ASInt64>(std::numeric_limits<std::int64_t>::min()), "(-9223372036854775807 - 1)"},
        {std::make_shared<ASDouble>(0.1), "0.1"},
        {std::make_shared<ASGuid>(*Guid::parse("6BA7B810-9DAD-41D1-80B4-00C04FD430C8")),
         "'6ba7b810-9dad-41d1-80b4-00c04fd430c8'"},
        {std::make_shared<ASTime>(0), "'1970-01-01 00:00:00'"},
        {std::make_shared<ASRealBlob>(RealBlob(nulBlob.data(), nulBlob.size())), "x'002741'"},
        {std::make_shared<ASInt>(), "NULL"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.data->asSQLLiteral(ASDialect::of(ASEngine::SQLite)), c.literal);
}

TEST(ASData, WhatIsOfAnotherFormIsComparedAsItStands) {
    ASInt number;
    number.take("it's");
    EXPECT_EQ((ASAttribute("a", ASType::Int) == number).Query(), R"("a" = 'it''s')");
}

TEST(ASData, NulByteIsRefusedInLiterals) {
    const ASVStr text(10, std::string_view("a\0b", 3));
    EXPECT_THROW(text.asSQLLiteral(ASDialect::of(ASEngine::SQLite)), AException);
    EXPECT_THROW(ASSession::quoteIdentifier(std::string_view("a\0b", 3)), AException);
}

TEST(ASData, QuotesInsideAreDoubled) {
    EXPECT_EQ(ASSession::quoteIdentifier("a\"b\"\""), "\"a\"\"b\"\"\"\"\"");
    EXPECT_EQ(ASSession::quoteLiteral("''a"), "'''''a'");
}

}  // namespace
}  // namespace QOR::test
