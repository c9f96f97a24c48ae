#include "QORPager/QORDateTimeRewrite.h"

#include <gtest/gtest.h>

#include <string>

namespace QOR {
namespace {

struct RewriteCase {
    std::string text;
    std::string rewritten;
};

const RewriteCase rewriteCases[] = {
    {"", ""},
    {"a = 'x'", "a = 'x'"},
    {"pager.op_log.time >= '1970-01-02'", "pager.op_log.time >= 86400"},
    {"pager.event_log.time<='1970-01-01T00:01:00Z'", "pager.event_log.time<=60"},
    {"pager.op_log.time = '1970-01-02' and pager.op_log.time < '1970-01-03'",
     "pager.op_log.time = 86400 and pager.op_log.time < 172800"},
    {"pager.op_log.time != '1970-01-02' or pager.event_log.time <> '1970-01-01 00:00'",
     "pager.op_log.time != 86400 or pager.event_log.time <> 0"},
    {"not ('1970-01-02' < pager.op_log.time)", "not (86400 < pager.op_log.time)"},
    {"not '1970-01-02'!=pager.op_log.time and x", "not 86400!=pager.op_log.time and x"},
    {"not '1970-01-02' ! = pager.op_log.time", "not 86400 ! = pager.op_log.time"},
    {"flag and '1970-01-02' = pager.op_log.time and pager.op_log.time > '1970-01-03'",
     "flag and 86400 = pager.op_log.time and pager.op_log.time > 172800"},
    // Blanks are tabs, line ends and spaces; without a comparison between them name and literal belong together too.
    {"pager.op_log.time\t\r\n '1970-01-02'", "pager.op_log.time\t\r\n 86400"},
    {"pager.op_log.time'1970-01-02'", "pager.op_log.time86400"},
    // A literal on the left is preferred, and then the right one stays.
    {"x = '1970-01-02' = pager.op_log.time = '1970-01-03'", "x = 86400 = pager.op_log.time = '1970-01-03'"},
    // Nothing beside it.
    {"pager.op_log.time", "pager.op_log.time"},
    {"pager.op_log.time in x", "pager.op_log.time in x"},
    {"pager.op_log.time = \"1970-01-02\"", "pager.op_log.time = \"1970-01-02\""},
    {"pager.op_log.time = ('1970-01-02')", "pager.op_log.time = ('1970-01-02')"},
    {"pager.op_log.time\v= 5", "pager.op_log.time\v= 5"},
    {"pager.op_log.time = 'x", "pager.op_log.time = 'x"},
    {"pager.op_log.time <", "pager.op_log.time <"},
    {"x and 5 =! pager.op_log.time", "x and 5 =! pager.op_log.time"},
    {"x and '1970-01-02' =! pager.op_log.time", "x and '1970-01-02' =! pager.op_log.time"},
    // The first four characters are never part of a literal on the left.
    {"'' = ! pager.op_log.time = '1970-01-02'", "'' = ! pager.op_log.time = 86400"},
    {"'1970-01-02' = pager.op_log.time", "'1970-01-02' = pager.op_log.time"},
    {"   '1970-01-02' = pager.op_log.time", "   '1970-01-02' = pager.op_log.time"},
    {"    '1970-01-02' = pager.op_log.time", "    86400 = pager.op_log.time"},
    {"flag ' = pager.op_log.time = '1970-01-02'", "flag ' = pager.op_log.time = 86400"},
    {"5 = pager.op_log.time", "5 = pager.op_log.time"},
    {"  5 = pager.op_log.time", "  5 = pager.op_log.time"},
    {"'' = pager.op_log.time", "'' = pager.op_log.time"},
    {"= pager.op_log.time = '1970-01-02'", "= pager.op_log.time = 86400"},
    // Names are found anywhere, also inside others and inside texts.
    {"xpager.op_log.timex = '1970-01-02'", "xpager.op_log.timex = '1970-01-02'"},
    {"xpager.op_log.time = '1970-01-02'", "xpager.op_log.time = 86400"},
    {"s = ' pager.op_log.time ' ", "s = ' pager.op_log.time ' "},
    {std::string("pager.op_log.time = '1970-01-02' \0 x", 36), std::string("pager.op_log.time = 86400 \0 x", 29)},
};

TEST(DateTimeRewrite, LiteralsBesideTheTimesOfTheLogsBecomeSeconds) {
    for (const RewriteCase& test : rewriteCases) {
        std::string text = test.text;
        EXPECT_TRUE(transformDateTime(text)) << test.text;
        EXPECT_EQ(text, test.rewritten);
    }
}

const char* const refusedTexts[] = {
    "pager.op_log.time = 5",
    "pager.op_log.time=5",
    "pager.op_log.time5",
    "pager.op_log.time >= !5",
    "x and 5 = pager.op_log.time",
    "x and 5 != pager.op_log.time",
    "     5 = pager.event_log.time",
    "pager.op_log.time = 'yesterday'",
    "pager.op_log.time = ''",
    "pager.op_log.time = '1969-12-31'",
    "pager.op_log.time = '2024-02-30'",
    "pager.op_log.time = 'it''s'",
    "x and 'it''s' = pager.op_log.time",
    "pager.event_log.time = 1",
    "pager.op_log.time = '1970-01-02' and pager.event_log.time = 'x'",
    // The literal between two names becomes a number for the second one.
    "pager.op_log.time = '1970-01-02' = pager.op_log.time",
    "pager.op_log.time '1970-01-02'pager.op_log.time",
};

TEST(DateTimeRewrite, NumbersAndTextsThatAreNoTimeAreRefused) {
    for (const char* refused : refusedTexts) {
        std::string text = refused;
        EXPECT_FALSE(transformDateTime(text)) << refused;
    }
}

TEST(DateTimeRewrite, LongFiltersTakeLinearTime) {
    std::string text;
    std::string expected;
    for (int i = 0; i < 30000; ++i) {
        text += "flag and pager.op_log.time > '1970-01-02' or '1970-01-03' < pager.event_log.time and ";
        expected += "flag and pager.op_log.time > 86400 or 172800 < pager.event_log.time and ";
    }
    EXPECT_TRUE(transformDateTime(text));
    EXPECT_EQ(text, expected);
    std::string quotes(1 << 20, '\'');
    quotes += "pager.op_log.time";
    EXPECT_FALSE(transformDateTime(quotes));
}

TEST(DateTimeRewrite, PlacesAreThoseOfTheFilterThatWasGiven) {
    const std::string given =
        "pager.op_log.time > '2024-01-01' and 'x' == 'y' and '2024-01-02' > pager.op_log.time and !";
    std::string made = given;
    ASSERT_TRUE(transformDateTime(made));
    ASSERT_NE(made, given);
    for (const std::string word : {"pager", "> '", "and 'x'", "'y'", "> pager.op_log.time and !", "!"}) {
        const std::size_t place = made.find(word == "> '" ? "> 1" : word);
        ASSERT_NE(place, std::string::npos) << word;
        EXPECT_EQ(placeBeforeTransform(given, made, place), given.find(word)) << word;
    }
    EXPECT_EQ(placeBeforeTransform(given, made, made.find("1704067200")), given.find("'2024-01-01'"));
    EXPECT_EQ(placeBeforeTransform(given, made, made.size()), given.size());
    EXPECT_EQ(placeBeforeTransform(given, given, 7), 7U);
    EXPECT_EQ(placeBeforeTransform("", made, 7), 0U);
    EXPECT_EQ(placeBeforeTransform("a'", "11", 2), 2U);
    EXPECT_EQ(placeBeforeTransform("'open", "1", 1), 5U) << "a literal without an end";
    EXPECT_EQ(placeBeforeTransform("ab", "ab", 9), 2U) << "a place behind the text";
}

}  // namespace
}  // namespace QOR
