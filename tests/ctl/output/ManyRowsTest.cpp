// Whoever looks at a terminal is asked before a million rows roll over it.
#include "output/ManyRows.h"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>

#include "output/PersonSize.h"
#include "output/PersonTimes.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

/// What the person types, for as long as it lives.
class Typed {
public:
    explicit Typed(const std::string& text) : m_text(text), m_before(std::cin.rdbuf(m_text.rdbuf())) {}
    ~Typed() {
        std::cin.rdbuf(m_before);
        std::cin.clear();
    }
    Typed(const Typed&) = delete;
    Typed& operator=(const Typed&) = delete;

private:
    std::istringstream m_text;
    std::streambuf* m_before;
};

TEST(ManyRows, WhoDoesNotWantTheRestHasSeenAMillion) {
    const Typed typed("n\n");
    ManyRows many(true);
    TextOutput out;
    for (std::int64_t at = 0; at < ManyRows::most; ++at)
        many.row(out);
    out << "last";
    EXPECT_THROW(many.row(out), BrokenPipe);
    EXPECT_EQ(out.text(), "last");
}

TEST(ManyRows, IsAskedOnce) {
    const Typed typed("y\nn\n");
    ManyRows many(true);
    TextOutput out;
    many.expect(ManyRows::most);
    EXPECT_TRUE(many.asks());
    many.expect(ManyRows::most + 1);
    for (std::int64_t at = 0; at < 2 * ManyRows::most; ++at)
        many.row(out);
    EXPECT_FALSE(many.asks());
}

TEST(ManyRows, NoAnswerIsNone) {
    const Typed typed("");
    EXPECT_THROW(ManyRows(true).expect(ManyRows::most + 1), BrokenPipe);
    EXPECT_NO_THROW(ManyRows(false).expect(ManyRows::most + 1));
}

TEST(PersonSize, IsToldInTheLargestUnit) {
    EXPECT_EQ(showSize(0), "0 bytes");
    EXPECT_EQ(showSize(1023), "1023 bytes");
    EXPECT_EQ(showSize(1024), "1.0 KiB");
    EXPECT_EQ(showSize((std::uint64_t{1} << 20) - 1), "1023.9 KiB");
    EXPECT_EQ(showSize(std::uint64_t{3} << 29), "1.5 GiB");
    EXPECT_EQ(showSize(~std::uint64_t{0}), "16777215.9 TiB");
}

TEST(PersonTimes, DurationsHaveTwoUnits) {
    EXPECT_EQ(showDuration(0), "0 s");
    EXPECT_EQ(showDuration(59), "59 s");
    EXPECT_EQ(showDuration(3600), "1 h");
    EXPECT_EQ(showDuration(86400 * 3 + 3600 * 4 + 59), "3 d 4 h");
    useZone("UTC");
    EXPECT_EQ(showTimeAndAge(0, 7200), "1970-01-01 00:00:00 (2 h ago)");
}

}  // namespace
}  // namespace QOR
