#include "QORCommon/QORAscii.h"

#include <gtest/gtest.h>

#include <string>

namespace QOR {
namespace {

TEST(Ascii, BytesAbove127AreInNoClassAndHaveNoCase) {
    for (int byte = 128; byte < 256; ++byte) {
        const auto ch = static_cast<char>(byte);
        EXPECT_FALSE(isSpaceChar(ch) || isDigitChar(ch) || isAlphaChar(ch) || isWordChar(ch)) << byte;
        EXPECT_EQ(toLowerChar(ch), ch);
        EXPECT_EQ(toUpperChar(ch), ch);
    }
}

TEST(Ascii, SpacesAreTheSixOfThePosixLocale) {
    const std::string spaces = " \t\n\v\f\r";
    for (int byte = 0; byte < 256; ++byte) {
        const auto ch = static_cast<char>(byte);
        EXPECT_EQ(isSpaceChar(ch), spaces.find(ch) != std::string::npos) << byte;
    }
}

TEST(Ascii, WordsAreLettersDigitsAndUnderscores) {
    const std::string words = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
    for (int byte = 0; byte < 128; ++byte) {
        const auto ch = static_cast<char>(byte);
        EXPECT_EQ(isWordChar(ch), words.find(ch) != std::string::npos && ch != '\0') << byte;
    }
}

TEST(Ascii, LettersAloneChangeTheirCase) {
    EXPECT_EQ(toLowerText("vEnvironment [@`{] M\xC3\x9CLLER \xC3\x84"), "venvironment [@`{] m\xC3\x9Cller \xC3\x84");
    EXPECT_EQ(toLowerText(std::string_view("A\0B", 3)), std::string("a\0b", 3));
    EXPECT_EQ(toUpperChar('z'), 'Z');
    EXPECT_EQ(toUpperChar('{'), '{');
}

TEST(Ascii, WordsAreTheSameInAnyCase) {
    EXPECT_TRUE(isSameWord("", ""));
    EXPECT_TRUE(isSameWord("Content-Length", "content-LENGTH"));
    EXPECT_FALSE(isSameWord("a", "ab"));
    EXPECT_FALSE(isSameWord("[", "{"));  // 32 apart, as letters of two cases are
    EXPECT_FALSE(isSameWord("\xC3\x9C", "\xC3\xBC"));
}

}  // namespace
}  // namespace QOR
