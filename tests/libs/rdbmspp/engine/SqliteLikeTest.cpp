// LIKE answers as the engine's own does, and ends with the request.
#include <chrono>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRequestControl.h"
#include "libs/rdbmspp/DatabaseFixture.h"

namespace QOR::test {
namespace {

class SqliteLikeTest : public ::testing::Test {
protected:
    void SetUp() override {
        QORRdbms::prepareProcess();
        ASSERT_EQ(sqlite3_open(":memory:", &m_db), SQLITE_OK);
    }
    void TearDown() override { sqlite3_close(m_db); }

    /// "0", "1", "null", or what went wrong. \param escape empty for none
    std::string like(const std::string& text, const std::string& pattern, const std::string& escape = {}) {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(m_db, escape.empty() ? "SELECT ?1 LIKE +?2" : "SELECT ?1 LIKE +?2 ESCAPE ?3", -1, &statement,
                           nullptr);
        const auto bind = [&](int index, const std::string& value) {
            sqlite3_bind_text(statement, index, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
        };
        bind(1, text);
        bind(2, pattern);
        if (!escape.empty()) bind(3, escape);
        std::string result = sqlite3_step(statement) == SQLITE_ROW
                                 ? sqlite3_column_type(statement, 0) == SQLITE_NULL
                                       ? "null"
                                       : reinterpret_cast<const char*>(sqlite3_column_text(statement, 0))
                                 : sqlite3_errmsg(m_db);
        sqlite3_finalize(statement);
        return result;
    }

    sqlite3* m_db = nullptr;
};

TEST_F(SqliteLikeTest, LargeComparisonsAnswerAsSmallOnes) {
    std::mt19937 random(7);
    const auto pick = [&](std::initializer_list<const char*> parts, std::size_t number) {
        std::string all;
        std::uniform_int_distribution<std::size_t> which(0, parts.size() - 1);
        for (std::size_t i = 0; i < number; ++i)
            all += parts.begin()[which(random)];
        return all;
    };
    int matches = 0;
    for (int round = 0; round < 400; ++round) {
        // A common beginning makes them large: nothing in it decides.
        const std::string large = pick({"a", "B", "\xc3\xa9", "c"}, 2500);
        const std::string pattern = large + pick({"a", "A", "b", "%", "%", "_", "\xc3\xa9", "\\%", "\\_", "\\a"}, 3);
        const std::string text = large + pick({"a", "A", "b", "B", "%", "_", "\xc3\xa9", "\xc3\x89", "\xff"}, 2);
        for (const bool escaped : {false, true}) {
            const bool expected = sqlite3_strlike(pattern.c_str(), text.c_str(), escaped ? '\\' : 0) == 0;
            EXPECT_EQ(like(text, pattern, escaped ? "\\" : ""), expected ? "1" : "0") << pattern.substr(large.size());
            matches += expected ? 1 : 0;
        }
    }
    EXPECT_GT(matches, 20);
}

TEST_F(SqliteLikeTest, AnEscapeTakesTheMeaningOfAWildcard) {
    const struct {
        const char* text;
        const char* pattern;
        const char* escape;
        const char* expected;
    } cases[] = {
        {"a%b", "a%%b", "%", "1"}, {"axb", "a%%b", "%", "0"},   {"axb", "a_b", "%", "1"},    {"a_b", "a__b", "_", "1"},
        {"axb", "a__b", "_", "0"}, {"axxb", "a%b", "_", "1"},   {"a", "a_", "_", "0"},       {"a", "a%", "%", "0"},
        {"abc", "ABC", "", "1"},   {"abc", "a%", "", "1"},      {"", "%", "", "1"},          {"", "_", "", "0"},
        {"", "", "", "1"},         {"a\\", "a\\\\", "\\", "1"}, {"abc", "abc\\", "\\", "0"}, {"\xc3\xa9", "_", "", "1"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(like(c.text, c.pattern, c.escape), c.expected) << c.text << " like " << c.pattern;
}

TEST_F(SqliteLikeTest, WhatCannotBeComparedIsSaid) {
    EXPECT_EQ(like("a", std::string(50001, 'a')), "LIKE or GLOB pattern too complex");
    EXPECT_EQ(like(std::string(50000, 'a'), std::string(50000, 'A')), "1");
    EXPECT_EQ(like("a", "a", "xy"), "ESCAPE expression must be a single character");
    EXPECT_EQ(like("a", "a", "\xc3\xa9"), "1");
    EXPECT_EQ(Engine(":memory:")
                  .rows("SELECT NULL LIKE 'a', 'a' LIKE NULL, 'a' LIKE 'a' ESCAPE NULL, 12 LIKE '1_', "
                        "x'61' LIKE 'a'"),
              (std::vector<std::vector<std::string>>{{"<null>", "<null>", "<null>", "1", "0"}}));
}

TEST_F(SqliteLikeTest, OneComparisonEndsWithItsRequest) {
    const QORRequestScope scope(std::make_shared<QORRequestControl>(std::chrono::milliseconds(100)));
    EXPECT_EQ(like(std::string(10'000'000, 'a'), "%" + std::string(40'000, 'a') + "b"), "interrupted");
}

}  // namespace
}  // namespace QOR::test
