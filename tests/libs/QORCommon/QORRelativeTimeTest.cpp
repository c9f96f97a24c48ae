// Durations and times told from another one.
#include "QORCommon/QORRelativeTime.h"

#include <string>
#include <utility>

#include "QORCommon/QORTime.h"

namespace QOR {
namespace {

TEST(Duration, IsNumbersWithUnits) {
    const std::pair<const char*, std::int64_t> durations[] = {{"0s", 0},
                                                              {"90s", 90},
                                                              {"45m", 2700},
                                                              {"12h", 43200},
                                                              {"30d", 2592000},
                                                              {"8w", 4838400},
                                                              {"1d12h", 129600},
                                                              {"1w2d3h4m5s", 788645},
                                                              {"3660000d", 316224000000}};
    for (const auto& [text, seconds] : durations)
        EXPECT_EQ(parseDuration(text), seconds) << text;
}

TEST(Duration, OtherTextsAreNone) {
    for (const char* text : {"", "s", "5", "5y", "-5s", "+5s", "1.5h", " 5s", "5s ", "05s", "1d 2h", "2h1d", "1d1d",
                             "1d2", "5S", "3660001d", "99999999999d", "99999999999999999999999s", "316224000000s1s"})
        EXPECT_EQ(parseDuration(text), std::nullopt) << text;
}

constexpr const char* now = "2024-05-02 10:30:00";

std::string from(std::string_view text, std::string_view when = now) {
    const auto time = parseRelativeTime(text, str2time(when));
    return time ? time2dbstr(*time) : "none";
}

TEST(RelativeTime, WordsAndDurations) {
    const std::pair<const char*, const char*> times[] = {
        {"now", "2024-05-02 10:30:00"},
        {"today", "2024-05-02 00:00:00"},
        {"Yesterday", "2024-05-01 00:00:00"},
        {"TOMORROW", "2024-05-03 00:00:00"},
        {"-7d", "2024-04-25 10:30:00"},
        {"+90m", "2024-05-02 12:00:00"},
        {" - 1w ", "2024-04-25 10:30:00"},
        {"now-1h", "2024-05-02 09:30:00"},
        {"today - 1w + 12h", "2024-04-25 12:00:00"},
    };
    for (const auto& [text, time] : times)
        EXPECT_EQ(from(text), time) << text;
}

TEST(RelativeTime, OtherTextsAreNone) {
    for (const char* text : {"", " ", "7d", "2024-05-01", "nowhere", "now 7d", "now-", "-", "now--1d", "now-7",
                             "yesterday's", "now-3660000d", "\tnow"})
        EXPECT_EQ(from(text), "none") << text;
}

TEST(RelativeTime, DaysBeginAtMidnightBeforeTheEpochToo) {
    EXPECT_EQ(from("today", "1969-12-31 23:59:59"), "1969-12-31 00:00:00");
    EXPECT_EQ(from("today", "1970-01-01 00:00:00"), "1970-01-01 00:00:00");
}

TEST(RelativeTime, EndsWhereTheDatabasesTimesEnd) {
    EXPECT_EQ(from("tomorrow", "9999-12-31 10:00:00"), "none");
    EXPECT_EQ(from("+13h", "9999-12-31 10:59:59"), "9999-12-31 23:59:59");
    EXPECT_EQ(from("+13h", "9999-12-31 11:00:00"), "none");
    EXPECT_EQ(from("-1s", "0000-01-01 00:00:00"), "none");
}

}  // namespace
}  // namespace QOR
