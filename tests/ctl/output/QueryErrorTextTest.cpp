// What a mistake in a text looks like to the person who typed it.
#include "output/QueryErrorText.h"

#include <string>
#include <string_view>

#include "QORMessage/QORMessage.h"
#include "QORQuery/QORCondition.h"
#include "support/LongTexts.h"

namespace QOR {
namespace {

using test::repeated;

/// A mistake as the person sees it.
std::string shown(std::string_view text, std::size_t width = 78) {
    QORMessage message;
    QORBinaryIterator at = message.root();
    at.addChild(tag::where);
    try {
        parseCondition(text, {.view = "v", .levels = 62}, at);
    } catch (const QORQueryError& error) {
        return describeQueryError(text, error, width);
    }
    return "no mistake";
}

TEST(QueryErrorText, CaretStandsBeneathThePlace) {
    EXPECT_EQ(shown("a = ) and b = 2"),
              "expected a column or a value, found \")\" at character 5\n"
              "  a = ) and b = 2\n"
              "      ^\n");
}

TEST(QueryErrorText, CaretStandsBehindTheEnd) {
    EXPECT_EQ(shown("a ="),
              "expected a column or a value, found the end of the text at character 4\n"
              "  a =\n"
              "     ^\n");
}

TEST(QueryErrorText, TabsAreOneBlankWide) {
    EXPECT_EQ(shown("\ta\t= )"),
              "expected a column or a value, found \")\" at character 6\n"
              "   a = )\n"
              "       ^\n");
}

TEST(QueryErrorText, WideCharactersMoveTheCaret) {
    EXPECT_EQ(shown("a = '\xE4\xB8\x89\xE4\xB8\x89' or )"),
              "expected a column or a value, found \")\" at character 13\n"
              "  a = '\xE4\xB8\x89\xE4\xB8\x89' or )\n"
              "                ^\n");
}

TEST(QueryErrorText, OfSeveralLinesOnlyThatOfThePlaceIsShown) {
    EXPECT_EQ(shown("a = 1\n  and b = )\nor c = 2"),
              "expected a column or a value, found \")\" at character 11 of line 2\n"
              "    and b = )\n"
              "            ^\n");
}

TEST(QueryErrorText, LongLinesAreCutAroundThePlace) {
    const std::string text = repeated("a = 1 and ", 20) + "b = )" + repeated(" and c = 1", 20);
    EXPECT_EQ(shown(text, 40),
              "expected a column or a value, found \")\" at character 205\n"
              "  ...d a = 1 and b = ) and c = 1 and ...\n"
              "                     ^\n");
}

TEST(QueryErrorText, ControlCharactersAreMadeVisible) {
    EXPECT_EQ(shown("a = '\x1b[31m' or )"),
              "expected a column or a value, found \")\" at character 16\n"
              "  a = '\\x1b[31m' or )\n"
              "                    ^\n");
}

}  // namespace
}  // namespace QOR
