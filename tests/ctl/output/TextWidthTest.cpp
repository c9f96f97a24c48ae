// Widths of texts on a terminal.
#include "output/TextWidth.h"

#include <unistd.h>

#include <string>

namespace QOR {
namespace {

constexpr const char* wide = "\xE4\xB8\x89";  // two columns
constexpr const char* accent = "e\xCC\x81";   // one column of two code points
constexpr const char* ellipsis = "\xE2\x80\xA6";

TEST(TextWidth, CountsColumns) {
    EXPECT_EQ(textWidth(""), 0U);
    EXPECT_EQ(textWidth("abc"), 3U);
    EXPECT_EQ(textWidth(wide), 2U);
    EXPECT_EQ(textWidth(accent), 1U);
    EXPECT_EQ(textWidth("\xFF\xC3"), 2U);
    EXPECT_EQ(textWidth("\xE4\xB8"), 2U);
}

TEST(TextWidth, CutsWholeCharacters) {
    EXPECT_EQ(cutToWidth("abcdef", 6), "abcdef");
    EXPECT_EQ(cutToWidth("abcdef", 5), std::string("abcd") + ellipsis);
    EXPECT_EQ(cutToWidth("abcdef", 1), ellipsis);
    EXPECT_EQ(cutToWidth(std::string(wide) + wide + wide, 4), std::string(wide) + ellipsis);
    EXPECT_EQ(cutToWidth(std::string(accent) + accent + accent, 2), std::string(accent) + ellipsis);
}

TEST(TextWidth, SlicesByColumns) {
    EXPECT_EQ(sliceByWidth("abcdef", 2, 3), "cde");
    EXPECT_EQ(sliceByWidth("abcdef", 4, 9), "ef");
    EXPECT_EQ(sliceByWidth(std::string("a") + wide + "b", 1, 2), wide);
}

TEST(TextWidth, APipeIsNoTerminal) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    EXPECT_EQ(terminalWidth(ends[1]), 0U);
    ::close(ends[0]);
    ::close(ends[1]);
}

}  // namespace
}  // namespace QOR
