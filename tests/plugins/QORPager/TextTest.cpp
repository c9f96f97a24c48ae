#include "QORPager/QORExpressionText.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

namespace QOR {
namespace {

constexpr std::int32_t lowest = std::numeric_limits<std::int32_t>::min();

struct NumberCase {
    std::string text;
    std::int32_t prefix;                ///< what the text begins with
    std::optional<std::int32_t> whole;  ///< what the text is
};

const NumberCase numberCases[] = {
    {"", 0, 0},
    {"0", 0, 0},
    {"12", 12, 12},
    {"-5", -5, -5},
    {"+3", 3, 3},
    {" \t\n\v\f\r7", 7, 7},
    {"7 ", 7, std::nullopt},
    {"12abc", 12, std::nullopt},
    {"abc", 0, std::nullopt},
    {"   ", 0, std::nullopt},
    {"-", 0, std::nullopt},
    {"+", 0, std::nullopt},
    {"--1", 0, std::nullopt},
    {"- 1", 0, std::nullopt},
    {"1.5", 1, std::nullopt},
    {"0x10", 0, std::nullopt},
    {"2147483647", 2147483647, 2147483647},
    {"2147483648", lowest, lowest},
    {"-2147483648", lowest, lowest},
    {"4294967297", 1, 1},
    {"9223372036854775807", -1, -1},
    {"9223372036854775808", -1, -1},
    {"-9223372036854775808", 0, 0},
    {"-9223372036854775809", 0, 0},
    {"99999999999999999999999999", -1, -1},
    {std::string("5\0", 2), 5, std::nullopt},
    {std::string("\0", 1), 0, std::nullopt},
    {"5\xff", 5, std::nullopt},
};

TEST(ExpressionText, NumbersAreReadAsStrtolReadsThem) {
    for (const NumberCase& test : numberCases) {
        EXPECT_EQ(readInteger(test.text), test.prefix) << test.text;
        EXPECT_EQ(readWholeInteger(test.text), test.whole) << test.text;
    }
}

struct LikeCase {
    const char* subject;
    const char* pattern;
    bool matches;
};

const LikeCase likeCases[] = {
    {"abc", "a%", true},  {"abc", "%c", true},   {"abc", "%b%", true},   {"abc", "a%c", false},
    {"a%c", "a%c", true}, {"ABC", "a%", false},  {"", "%", true},        {"", "%%", true},
    {"x", "", false},     {"", "", false},       {"abc", "abc", true},   {"abc", "ab", false},
    {"abc", "%", true},   {"abc", "%abc", true}, {"abc", "%abd", false}, {"abc", "%xyz%", false},
    {"", "%a%", false},   {"", "a%", false},     {"abc", "_bc", false},  {"abc", "a*", false},
    {"a?", "a?", true},   {"50%", "%%%", true},  {"50", "%%%", false},   {"abc", "%abcd%", false},
};

TEST(ExpressionText, LikeHasOneWildcardAtTheEnds) {
    for (const LikeCase& test : likeCases) {
        EXPECT_EQ(matchLike(test.subject, test.pattern), test.matches) << test.subject << " like " << test.pattern;
    }
}

TEST(ExpressionText, LikeBehindALeadingWildcardIsOutOfRangeForAShorterSubject) {
    EXPECT_THROW(matchLike("ab", "%abc"), std::out_of_range);
    EXPECT_THROW(matchLike("", "%a"), std::out_of_range);
    EXPECT_NO_THROW(matchLike("ab", "%abc%"));
}

TEST(ExpressionText, ArithmeticWraps) {
    EXPECT_EQ(addIntegers(2147483647, 1), lowest);
    EXPECT_EQ(subtractIntegers(lowest, 1), 2147483647);
    EXPECT_EQ(multiplyIntegers(65536, 65536), 0);
    EXPECT_EQ(multiplyIntegers(2147483647, 2), -2);
    EXPECT_EQ(negateInteger(lowest), lowest);
    EXPECT_EQ(divideIntegers(lowest, -1), lowest);
    EXPECT_EQ(divideIntegers(-7, 2), -3);
    EXPECT_EQ(divideIntegers(7, -2), -3);
}

TEST(ExpressionText, PowersAreOfSinglePrecision) {
    EXPECT_EQ(powerIntegers(2, 10), 1024);
    EXPECT_EQ(powerIntegers(5, 11), 48828124);
    EXPECT_EQ(powerIntegers(7, 0), 1);
    EXPECT_EQ(powerIntegers(2, -1), 0);
    EXPECT_EQ(powerIntegers(1, -5), 1);
    EXPECT_EQ(powerIntegers(-1, -5), -1);
    EXPECT_EQ(powerIntegers(-1, -4), 1);
    EXPECT_EQ(powerIntegers(2, 31), lowest);
    EXPECT_EQ(powerIntegers(-2, 31), lowest);
    EXPECT_EQ(powerIntegers(10, 100), lowest);
    EXPECT_EQ(powerIntegers(0, -1), lowest);
    EXPECT_EQ(powerIntegers(2, lowest), 0);
}

}  // namespace
}  // namespace QOR
