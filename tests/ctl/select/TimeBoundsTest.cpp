#include "select/TimeBounds.h"

#include <gtest/gtest.h>

#include <string>

#include "QORCommon/QORTime.h"
#include "output/PersonTimes.h"

namespace QOR {
namespace {

/// 2026-03-31 12:00:00 UTC, two days after clocks were put forward in Europe.
const std::int64_t now = *parseTime("2026-03-31 12:00:00");

std::string readIn(const std::string& zone, std::string_view text) {
    useZone(zone);
    const auto time = readTime(text, now);
    useZone("UTC");
    return time ? time2dbstr(*time) : "none";
}

TEST(TimeBounds, WhatIsTypedIsMeantInTheZoneInWhichTimesAreRead) {
    EXPECT_EQ(readIn("Europe/Berlin", "2026-03-31"), "2026-03-30 22:00:00");
    EXPECT_EQ(readIn("Europe/Berlin", "2026-03-28 10:15"), "2026-03-28 09:15:00") << "the clock was another one then";
    EXPECT_EQ(readIn("Europe/Berlin", "today"), "2026-03-30 22:00:00");
    EXPECT_EQ(readIn("Europe/Berlin", "yesterday + 12h"), "2026-03-30 10:00:00");
    EXPECT_EQ(readIn("Asia/Tokyo", "10:15"), "2026-03-31 01:15:00");
    EXPECT_EQ(readIn("Asia/Tokyo", "yesterday 10:15:30"), "2026-03-30 01:15:30");
    EXPECT_EQ(readIn("UTC", "2026-03-31"), "2026-03-31 00:00:00");
}

TEST(TimeBounds, WhatHasAnOffsetOrIsToldFromNowIsTheSameEverywhere) {
    for (const char* const zone : {"UTC", "Europe/Berlin", "America/Los_Angeles"}) {
        EXPECT_EQ(readIn(zone, "2026-03-31T10:15:00Z"), "2026-03-31 10:15:00");
        EXPECT_EQ(readIn(zone, "2026-03-31 10:15+02:00"), "2026-03-31 08:15:00");
        EXPECT_EQ(readIn(zone, "now"), "2026-03-31 12:00:00");
        for (const char* const week : {"-7d", "7d", "7d ago", "now - 1w"})
            EXPECT_EQ(readIn(zone, week), "2026-03-24 12:00:00") << week;
    }
}

TEST(TimeBounds, WhatIsNoTimeIsNone) {
    for (const char* const text : {"", " ", "ago", "7", "7x ago", "10:15Z", "25:00", "10:15 yesterday", "now 10:15",
                                   "2026-02-30", "yesterday 2026-03-31", "todayish", "-", "99999999999d"})
        EXPECT_EQ(readIn("Europe/Berlin", text), "none") << text;
}

}  // namespace
}  // namespace QOR
