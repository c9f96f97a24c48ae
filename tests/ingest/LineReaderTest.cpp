#include "ingest/LineReader.h"

#include <sstream>
#include <vector>

namespace QOR {
namespace {

std::vector<std::string> read(LineReader& lines) {
    std::vector<std::string> found;
    while (lines.next()) {
        found.push_back(std::to_string(lines.number()) + ":" +
                        (lines.tooLong() ? "TOO LONG" : std::string(lines.line())));
    }
    return found;
}

struct LinesCase {
    const char* rule;
    std::string text;
    std::vector<std::string> lines;
};

/// Of more than one block. Not inlined: g++ 12 would see the copy of a string's own small buffer run past its end.
__attribute__((noinline)) std::string endless() {
    return std::string(300000, 'x');
}

class LineReaderTest : public ::testing::TestWithParam<LinesCase> {};

TEST_P(LineReaderTest, ReadsATextAndAStreamAlike) {
    LineReader ofText(GetParam().text, 8);
    EXPECT_EQ(read(ofText), GetParam().lines);
    std::istringstream stream(GetParam().text);
    LineReader ofStream(stream, 8);
    EXPECT_EQ(read(ofStream), GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(All, LineReaderTest,
                         ::testing::Values(LinesCase{"NoBytes", "", {}}, LinesCase{"OneLineWithoutEnd", "a", {"1:a"}},
                                           LinesCase{"OneLineWithEnd", "a\n", {"1:a"}},
                                           LinesCase{"BlankLinesCount", "\n\na\n\n", {"1:", "2:", "3:a", "4:"}},
                                           LinesCase{"CarriageReturnsBeforeTheEnd", "a\r\nb\rc\r\n", {"1:a", "2:b\rc"}},
                                           LinesCase{"ByteOrderMarkAtTheBeginningOnly",
                                                     "\xEF\xBB\xBF"
                                                     "a\n\xEF\xBB\xBF"
                                                     "b",
                                                     {"1:a",
                                                      "2:\xEF\xBB\xBF"
                                                      "b"}},
                                           LinesCase{
                                               "LongestLine", "12345678\r\n12345678", {"1:12345678", "2:12345678"}},
                                           LinesCase{"TooLong", "a\n123456789\nb\n", {"1:a", "2:TOO LONG", "3:b"}},
                                           LinesCase{"MuchTooLong", endless() + "\nb", {"1:TOO LONG", "2:b"}},
                                           LinesCase{"TooLongWithoutEnd", endless(), {"1:TOO LONG"}}),
                         [](const auto& tested) { return tested.param.rule; });

TEST(LineReaderBlocks, LinesThatCrossBlocksAreWhole) {
    std::string text;
    std::vector<std::string> expected;
    for (std::size_t i = 1; i <= 3000; ++i) {
        const std::string line(i % 131, static_cast<char>('a' + i % 26));
        text += line + "\n";
        expected.push_back(std::to_string(i) + ":" + line);
    }
    std::istringstream stream(text);
    LineReader lines(stream, 200);
    EXPECT_EQ(read(lines), expected);
}

TEST(LineReaderNumbers, BeginWhereTheCallerSays) {
    LineReader lines("a\nb", 8, 1001);
    EXPECT_EQ(read(lines), (std::vector<std::string>{"1001:a", "1002:b"}));
}

}  // namespace
}  // namespace QOR
