#include "QORCommon/QORTime.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>

namespace {

using QOR::parseTime;
using QOR::str2time;
using QOR::time2dbstr;
using QOR::time2str;

struct Case {
    const char* name;
    const char* text;
    std::int64_t seconds;
};

void PrintTo(const Case& c, std::ostream* out) {
    *out << c.text;
}

class TimeIsRead : public testing::TestWithParam<Case> {};

TEST_P(TimeIsRead, As) {
    EXPECT_EQ(str2time(GetParam().text), GetParam().seconds);
}

constexpr std::int64_t noon = 1714557600;  // 2024-05-01T10:00:00Z

INSTANTIATE_TEST_SUITE_P(
    Forms, TimeIsRead,
    testing::Values(
        Case{"DateAlone", "2024-05-01", 1714521600}, Case{"SeparatedByT", "2024-05-01T10:00:00", noon},
        Case{"SeparatedByBlank", "2024-05-01 10:00:00", noon}, Case{"WithoutSeconds", "2024-05-01 10:00", noon},
        Case{"Utc", "2024-05-01T10:00:00Z", noon}, Case{"UtcWithoutSeconds", "2024-05-01T10:00Z", noon},
        Case{"OffsetWithColon", "2024-05-01T12:00:00+02:00", noon},
        Case{"OffsetWithoutColon", "2024-05-01T12:00:00+0200", noon},
        Case{"OffsetOfHours", "2024-05-01T12:00:00+02", noon}, Case{"OffsetWest", "2024-05-01T04:30:00-05:30", noon},
        Case{"OffsetWestWithoutColon", "2024-05-01T04:30:00-0530", noon},
        Case{"OffsetOfNothing", "2024-05-01T10:00:00-00:00", noon},
        Case{"OffsetBehindMinutes", "2024-05-01 12:00+02:00", noon},
        Case{"LargestOffset", "2024-05-02T09:59:00+23:59", noon},
        Case{"FractionIsIgnored", "2024-05-01T10:00:00.999999999Z", noon},
        Case{"FractionOfOneDigit", "2024-05-01T10:00:00.5", noon},
        Case{"FractionAndOffset", "2024-05-01 12:00:00.25+02:00", noon}, Case{"Epoch", "1970-01-01", 0},
        Case{"LeapDay", "2024-02-29", 1709164800}, Case{"LeapDayOfACentury", "2000-02-29", 951782400},
        Case{"BeforeTheEpoch", "1969-12-31T00:00:00", -86400}, Case{"YearNought", "0000-01-01", -62167219200},
        Case{"LastSecond", "9999-12-31T23:59:59", 253402300799}),
    [](const auto& test) { return std::string(test.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Refused, TimeIsRead,
    testing::Values(
        Case{"Empty", "", -1}, Case{"Word", "yesterday", -1}, Case{"YearAlone", "2024", -1},
        Case{"MonthAlone", "2024-05", -1}, Case{"ShortYear", "24-05-01", -1}, Case{"LongYear", "12024-05-01", -1},
        Case{"SignedYear", "-2024-05-01", -1}, Case{"ShortMonth", "2024-5-01", -1}, Case{"ShortDay", "2024-05-1", -1},
        Case{"Slashes", "2024/05/01", -1}, Case{"MonthNought", "2024-00-10", -1},
        Case{"MonthThirteen", "2024-13-01", -1}, Case{"DayNought", "2024-05-00", -1},
        Case{"ThirtiethOfFebruary", "2024-02-30", -1}, Case{"NoLeapDay", "2023-02-29", -1},
        Case{"NoLeapDayOfACentury", "1900-02-29", -1}, Case{"ThirtyFirstOfApril", "2024-04-31", -1},
        Case{"HourAlone", "2024-05-01T10", -1}, Case{"HourTwentyFour", "2024-05-01T24:00:00", -1},
        Case{"MinuteSixty", "2024-05-01T10:60:00", -1}, Case{"SecondSixty", "2016-12-31T23:59:60", -1},
        Case{"ShortHour", "2024-05-01 1:00", -1}, Case{"EndsInColon", "2024-05-01T10:00:", -1},
        Case{"EndsInSeparator", "2024-05-01T", -1}, Case{"EndsInBlank", "2024-05-01 ", -1},
        Case{"BlankBefore", " 2024-05-01", -1}, Case{"BlankBehind", "2024-05-01T10:00:00Z ", -1},
        Case{"TwoBlanks", "2024-05-01  10:00", -1}, Case{"LowerCaseSeparator", "2024-05-01t10:00:00", -1},
        Case{"LowerCaseUtc", "2024-05-01T10:00:00z", -1}, Case{"DateWithUtc", "2024-05-01Z", -1},
        Case{"DateWithOffset", "2024-05-01+02:00", -1}, Case{"BlankBeforeOffset", "2024-05-01T10:00:00 +02:00", -1},
        Case{"OffsetOfOneDigit", "2024-05-01T10:00:00+2", -1},
        Case{"OffsetOfThreeDigits", "2024-05-01T10:00:00+020", -1},
        Case{"OffsetWithEndingColon", "2024-05-01T10:00:00+02:", -1},
        Case{"OffsetTwentyFour", "2024-05-01T10:00:00+24:00", -1},
        Case{"OffsetMinuteSixty", "2024-05-01T10:00:00+02:60", -1},
        Case{"OffsetWithSeconds", "2024-05-01T10:00:00+02:00:00", -1}, Case{"SignAlone", "2024-05-01T10:00:00+", -1},
        Case{"TwoZones", "2024-05-01T10:00:00Z+02:00", -1}, Case{"FractionWithoutDigits", "2024-05-01T10:00:00.", -1},
        Case{"FractionOfMinutes", "2024-05-01T10:00.5", -1}, Case{"FractionAfterComma", "2024-05-01T10:00:00,5", -1},
        Case{"TimeAlone", "10:00:00", -1}, Case{"SignInADigitsPlace", "2024-05-+1", -1},
        Case{"Seconds", "1714557600", -1}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(Time, ANulByteBehindATimeIsRefused) {
    EXPECT_EQ(str2time(std::string_view("2024-05-01\0", 11)), -1);
}

TEST(Time, TheSecondBeforeTheEpochIsOne) {
    EXPECT_EQ(parseTime("1969-12-31 23:59:59"), -1);
    EXPECT_EQ(parseTime("1970-01-01T00:59:59+01:00"), -1);
    EXPECT_EQ(parseTime("1969-12-31 23:59:60"), std::nullopt);
    EXPECT_EQ(parseTime("yesterday"), std::nullopt);
    EXPECT_EQ(parseTime(""), std::nullopt);
}

TEST(Time, IsWrittenInUtc) {
    EXPECT_EQ(time2str(noon), "2024-05-01T10:00:00+0000");
    EXPECT_EQ(time2dbstr(noon), "2024-05-01 10:00:00");
    EXPECT_EQ(time2str(0), "1970-01-01T00:00:00+0000");
    EXPECT_EQ(time2str(-1), "1969-12-31T23:59:59+0000");
    EXPECT_EQ(time2str(-62167219200), "0000-01-01T00:00:00+0000");
    EXPECT_EQ(time2str(253402300799), "9999-12-31T23:59:59+0000");
}

TEST(Time, YearsOutsideOfFourDigitsTakeTheRoomTheyNeed) {
    EXPECT_EQ(time2str(253402300800), "10000-01-01T00:00:00+0000");
    EXPECT_EQ(time2str(-62167219201), "-0001-12-31T23:59:59+0000");
    EXPECT_EQ(time2str(std::numeric_limits<std::int64_t>::max()), "292277026596-12-04T15:30:07+0000");
    EXPECT_EQ(time2str(std::numeric_limits<std::int64_t>::min()), "-292277022657-01-27T08:29:52+0000");
}

TEST(Time, WhatIsWrittenIsRead) {
    std::mt19937_64 random(7);
    std::uniform_int_distribution<std::int64_t> times(-62167219200, 253402300799);
    for (int i = 0; i < 20000; ++i) {
        const std::int64_t seconds = times(random);
        ASSERT_EQ(str2time(time2str(seconds)), seconds) << time2str(seconds);
        ASSERT_EQ(str2time(time2dbstr(seconds)), seconds) << time2dbstr(seconds);
    }
}

TEST(Time, DaysFollowOneAnother) {
    // 400 years hold every combination of year, month and leap day.
    std::int64_t seconds = str2time("1800-01-01");
    for (int year = 1800; year < 2200; ++year) {
        for (int month = 1; month <= 12; ++month) {
            const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
            const int days = month == 2                                                ? (leap ? 29 : 28)
                             : (month == 4 || month == 6 || month == 9 || month == 11) ? 30
                                                                                       : 31;
            for (int day = 1; day <= days; ++day, seconds += 86400) {
                char text[64];
                std::snprintf(text, sizeof text, "%04d-%02d-%02d 00:00:00", year, month, day);
                ASSERT_EQ(time2dbstr(seconds), text);
            }
        }
    }
}

}  // namespace
