#include "QORCommon/QORText.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace {

using QOR::isUtf8;
using QOR::parseBase64;
using QOR::quoteText;
using QOR::utf8Prefix;

TEST(Utf8, WellFormedTextsAreKnown) {
    for (const char* text : {"", "plain", "M\xC3\xBCnchen", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xC2\x80", "\xDF\xBF",
                             "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80",
                             "\xF4\x8F\xBF\xBF", "a long text of plain letters and then \xC3\xBC"}) {
        EXPECT_TRUE(isUtf8(text)) << text;
    }
    EXPECT_TRUE(isUtf8(std::string_view("a\0b", 3)));
}

TEST(Utf8, EverythingElseIsNot) {
    struct {
        const char* what;
        const char* text;
    } const cases[] = {
        {"a byte that only continues", "\x80"},
        {"overlong of two", "\xC0\xAF"},
        {"overlong of two, last", "\xC1\xBF"},
        {"overlong of three", "\xE0\x9F\xBF"},
        {"overlong of four", "\xF0\x8F\xBF\xBF"},
        {"high surrogate", "\xED\xA0\x80"},
        {"low surrogate", "\xED\xBF\xBF"},
        {"beyond the last", "\xF4\x90\x80\x80"},
        {"five bytes", "\xF8\x88\x80\x80\x80"},
        {"0xFF", "\xFF"},
        {"cut after one", "\xC3"},
        {"cut after two", "\xE2\x82"},
        {"cut after three", "\xF0\x9F\x98"},
        {"no continuation", "\xC3("},
        {"third is none", "\xE2\x82("},
        {"fourth is none", "\xF0\x9F\x98("},
    };
    for (const auto& c : cases) {
        EXPECT_FALSE(isUtf8(c.text)) << c.what;
        for (std::size_t before : {1U, 7U, 8U, 9U, 23U}) {
            const std::string padded = std::string(before, 'x') + c.text + "yyyyyyyyyyyy";
            EXPECT_FALSE(isUtf8(padded)) << c.what;
            EXPECT_EQ(utf8Prefix(padded), before) << c.what;
        }
    }
}

TEST(JsonString, EscapesWhatJsonWantsEscapedAndNothingElse) {
    const auto written = [](std::string_view text) {
        std::string out = "x";
        QOR::appendJsonString(text, out);
        return out;
    };
    EXPECT_EQ(written(""), "x\"\"");
    EXPECT_EQ(written("plain / M\xC3\xBCnchen \x7F"), "x\"plain / M\xC3\xBCnchen \x7F\"");
    EXPECT_EQ(written("a\"b\\c"), "x\"a\\\"b\\\\c\"");
    EXPECT_EQ(written("\n\r\t"), "x\"\\n\\r\\t\"");
    EXPECT_EQ(written(std::string_view("\0\x1F", 2)), "x\"\\u0000\\u001f\"");
}

TEST(Quote, ShowsTheTextInQuotes) {
    EXPECT_EQ(quoteText(""), "\"\"");
    EXPECT_EQ(quoteText("web1"), "\"web1\"");
    EXPECT_EQ(quoteText("a\"b\\c"), "\"a\\\"b\\\\c\"");
    EXPECT_EQ(quoteText("M\xC3\xBCnchen"), "\"M\xC3\xBCnchen\"");
}

TEST(Quote, EscapesWhatWouldSpoilALine) {
    EXPECT_EQ(quoteText("a\nb\tc\rd\x1B[31m\x7F"), "\"a\\nb\\tc\\rd\\x1b[31m\\x7f\"");
    EXPECT_EQ(quoteText("\xFF\xC3"), "\"\\xff\\xc3\"");
    EXPECT_EQ(quoteText(std::string_view("\0", 1)), "\"\\x00\"");
}

TEST(Quote, CutsBetweenCharacters) {
    EXPECT_EQ(quoteText("abcdef", 6), "\"abcdef\"");
    EXPECT_EQ(quoteText("abcdefg", 6), "\"abcdef...\"");
    EXPECT_EQ(quoteText("abcde\xC3\xBC", 6), "\"abcde...\"");
    EXPECT_LT(quoteText(std::string(1000000, 'x')).size(), 100U);
}

TEST(Base64, WritesAndReads) {
    struct {
        const char* bytes;
        const char* text;
    } const cases[] = {{"", ""},
                       {"f", "Zg=="},
                       {"fo", "Zm8="},
                       {"foo", "Zm9v"},
                       {"foob", "Zm9vYg=="},
                       {"fooba", "Zm9vYmE="},
                       {"foobar", "Zm9vYmFy"},
                       {"\xFF\xFE\xFD", "//79"}};
    for (const auto& c : cases) {
        std::string out = "+";
        QOR::appendBase64(c.bytes, out);
        EXPECT_EQ(out, std::string("+") + c.text);
        EXPECT_EQ(parseBase64(c.text), c.bytes);
    }
}

TEST(Base64, RefusesWhatIsNone) {
    for (const char* text : {"Z", "Zg", "Zg=", "Zg===", "=", "====", "Zm9v=", "Z=g=", "Zh==", "Zm9=", "Zm 9", "Zm9v\n",
                             "Zm-_", "=Zg=", "\xFF\xFF\xFF\xFF"}) {
        EXPECT_EQ(parseBase64(text), std::nullopt) << text;
    }
}

TEST(Base64, RoundTripsAnyBytes) {
    std::mt19937 random(3);
    for (std::size_t size = 0; size < 300; ++size) {
        std::string bytes(size, '\0');
        for (char& c : bytes)
            c = static_cast<char>(random());
        std::string text;
        QOR::appendBase64(bytes, text);
        ASSERT_EQ(parseBase64(text), bytes);
    }
}

TEST(JoinTexts, PutsWhatIsBetweenOnlyBetween) {
    EXPECT_EQ(QOR::joinTexts(std::vector<std::string>{}), "");
    EXPECT_EQ(QOR::joinTexts(std::vector<std::string>{"a"}), "a");
    EXPECT_EQ(QOR::joinTexts(std::vector<std::string_view>{"a", "", "c"}), "a, , c");
    EXPECT_EQ(QOR::joinTexts(std::set<std::string>{"b", "a"}, " or "), "a or b");
    EXPECT_EQ(QOR::joinTexts(std::vector<std::string>{"", "b"}), ", b");
}

}  // namespace
