// Conditions as they are written for an engine that compares like with like only; what they mean is asked of both
// engines elsewhere.
#include <gtest/gtest.h>

#include "libs/rdbmspp/Columns.h"
#include "rdbmspp/engine/ASDialect.h"

namespace QOR::test {
namespace {

class ASTypedText : public ::testing::Test {
protected:
    static ASAttribute raw(const char* sql) { return {ASAttribute::Raw::Expression, sql}; }
    std::string in(const char* list) const { return ASAttribute::In(s.attribute, list).Query(postgres); }

    const ASDialect& postgres = ASDialect::of(ASEngine::PostgreSQL);
    ASDomainPtr v = ASDomain::view("v", {}, {{"x", ASStorage::Decimal}});
    Column n = column(v, "n", ASType::Int);
    Column s = column(v, "s");
    Column x = column(v, "x", ASType::Double);
    Column b = column(v, "b", ASType::Blob);
};

TEST_F(ASTypedText, AColumnOfNoViewIsTakenForItsType) {
    EXPECT_EQ((ASAttribute("a", ASType::Int) == ASInt(1)).Query(postgres), R"("a" = 1)");
}

TEST_F(ASTypedText, BytesAreComparedAsBytes) {
    EXPECT_EQ((b.attribute < ASRealBlob(RealBlob("A", 1))).Query(postgres), R"("v"."b" < '\x41')");
}

TEST_F(ASTypedText, TextsAreComparedByTheirBytes) {
    EXPECT_EQ(ASData::LT(ASVStr(5, "a"), ASVStr(5, "b")).Query(postgres), R"('a' COLLATE "C" < 'b')");
    EXPECT_EQ(ASData::LT(ASInt(1), ASVStr(5, "b")).Query(postgres), R"(1 COLLATE "C" < 'b')");
    EXPECT_EQ(ASData::LT(ASVStr(5, "b"), ASInt(1)).Query(postgres), R"('b' COLLATE "C" < 1)");
    EXPECT_EQ(ASData::LT(ASInt(1), ASInt(2)).Query(postgres), "1 < 2");
}

TEST_F(ASTypedText, CallsThatFoldLettersAreFoldedByBytes) {
    const ASVStr value(5, "a");
    EXPECT_EQ((raw("lower('A')") == value).Query(postgres), R"(lower('A' COLLATE "C") = 'a')");
    EXPECT_EQ((raw(R"(upper("v"."s"))") == value).Query(postgres), R"(upper(CAST("v"."s" AS text) COLLATE "C") = 'a')");
    EXPECT_EQ((raw("lower('A') || 'b'") == value).Query(postgres), "lower('A') || 'b' = 'a'") << "no call as a whole";
    EXPECT_EQ((raw("now()") == value).Query(postgres), "now() = 'a'") << "no call that is known";
}

// Brackets and quotes that do not match are not mended: the engine refuses the whole.
TEST_F(ASTypedText, ListsAreTakenApartAtTheirCommas) {
    EXPECT_EQ(in("'a', 'b, c'"), R"(("v"."s" = 'a' OR "v"."s" = 'b, c'))");
    EXPECT_EQ(in("'a',  f('b', 'c')"), R"(("v"."s" = 'a' OR "v"."s" COLLATE "C" = f('b', 'c')))");
    EXPECT_EQ(in(R"("v"."a,b", 1)"), R"(("v"."s" COLLATE "C" = CAST("v"."a,b" AS text) OR "v"."s" = 1))");
    EXPECT_EQ(in("a), 'b'"), R"(("v"."s" COLLATE "C" = a) OR "v"."s" = 'b'))");
    EXPECT_EQ(in("'a',"), R"(("v"."s" = 'a' OR "v"."s" COLLATE "C" = ))");
    EXPECT_EQ(in("'a', "), R"(("v"."s" = 'a' OR "v"."s" COLLATE "C" = ))");
    EXPECT_EQ(in("'a"), R"(("v"."s" COLLATE "C" = 'a))");
    EXPECT_EQ(in("'a' || 'b'"), R"(("v"."s" COLLATE "C" = 'a' || 'b'))");
}

TEST_F(ASTypedText, WhatASelectComputesIsComparedAsAText) {
    ASAttribute computed = raw("'B'");
    computed.Register(v);
    ASSelect select;
    select.Filter().Project() << computed;
    const ASAttribute nested(std::make_shared<const ASNestedSelect>(select, postgres));
    EXPECT_EQ((s.attribute == nested).Query(postgres), R"("v"."s" COLLATE "C" = (SELECT 'B' FROM "v"))");
}

TEST_F(ASTypedText, AnEscapeOfMoreThanAsciiIsRefused) {
    EXPECT_EQ(failure([&] { ASAttribute::Like(s.attribute, "a", '\xc3').Query(postgres); }),
              "the escape character of LIKE has to be ASCII");
    EXPECT_EQ(failure([&] { ASAttribute::Like(s.attribute, s.attribute, '\xc3').Query(postgres); }),
              "the escape character of LIKE has to be ASCII");
}

}  // namespace
}  // namespace QOR::test
