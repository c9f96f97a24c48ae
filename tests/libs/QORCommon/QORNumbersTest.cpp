#include "QORCommon/QORNumbers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>

#include "QORCommon/QORException.h"

namespace {

using QOR::doubleToStr;
using QOR::parseDouble;
using QOR::parseInt32;
using QOR::parseInt64;
using QOR::strToIp;

TEST(Int32, IsReadWhenTheTextIsWhollyOne) {
    EXPECT_EQ(parseInt32("0"), 0);
    EXPECT_EQ(parseInt32("-0"), 0);
    EXPECT_EQ(parseInt32("+7"), 7);
    EXPECT_EQ(parseInt32("007"), 7);
    EXPECT_EQ(parseInt32("2147483647"), 2147483647);
    EXPECT_EQ(parseInt32("-2147483648"), std::numeric_limits<std::int32_t>::min());
}

TEST(Int32, IsRefusedOtherwise) {
    for (const char* text : {"", " ", "1 ", " 1", "+", "-", "+-1", "-+1", "--1", "++1", "1.0", "1e3", "0x10", "abc",
                             "1a", "2147483648", "-2147483649", "99999999999999999999", "\xD9\xA1"}) {
        EXPECT_EQ(parseInt32(text), std::nullopt) << text;
    }
    EXPECT_EQ(parseInt32(std::string_view("1\0", 2)), std::nullopt);
}

TEST(Int64, EndsAtItsLimits) {
    EXPECT_EQ(parseInt64("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(parseInt64("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(parseInt64("9223372036854775808"), std::nullopt);
    EXPECT_EQ(parseInt64("-9223372036854775809"), std::nullopt);
    EXPECT_EQ(parseInt64("4.5"), std::nullopt);
}

TEST(Double, IsReadWhenTheTextIsWhollyOne) {
    EXPECT_EQ(parseDouble("1.5"), 1.5);
    EXPECT_EQ(parseDouble("+1.5"), 1.5);
    EXPECT_EQ(parseDouble("-1.5e3"), -1500.0);
    EXPECT_EQ(parseDouble("1E+2"), 100.0);
    EXPECT_EQ(parseDouble(".5"), 0.5);
    EXPECT_EQ(parseDouble("5."), 5.0);
    EXPECT_EQ(parseDouble("0e999999999999999999999"), 0.0);
}

TEST(Double, IsRefusedOtherwise) {
    for (const char* text : {"", ".", "+", "-", "e5", "1e", "1e+", "inf", "-inf", "nan", "infinity", "0x1p3", " 1",
                             "1 ", "1,5", "+-1", "--1", "1.2.3", "1e5e5"}) {
        EXPECT_EQ(parseDouble(text), std::nullopt) << text;
    }
}

TEST(Double, TooLargeIsRefusedAndTooSmallIsNought) {
    const std::string zeros(400, '0');
    for (const std::string& text : {std::string("1e999"), std::string("-1e309"), "1" + zeros, "1" + zeros + "e-10",
                                    std::string("1e99999999999999999999"), std::string("0.1e400")}) {
        EXPECT_EQ(parseDouble(text), std::nullopt) << text;
    }
    for (const std::string& text : {std::string("1e-999"), std::string("-1e-400"), "0." + zeros + "1",
                                    std::string("1e-99999999999999999999"), "0." + zeros + "1e10"}) {
        EXPECT_EQ(parseDouble(text), 0.0) << text;
    }
}

TEST(Literals, AnErrorNamesTheTextAndTheType) {
    const auto messageOf = [](const std::function<void()>& call) {
        try {
            call();
        } catch (const QOR::QORException& error) {
            EXPECT_EQ(error.code(), 400);
            return error.message();
        }
        return std::string("no error");
    };
    EXPECT_EQ(messageOf([] { QOR::strToInt("abc"); }), "\"abc\" is not an integer of 32 bits");
    EXPECT_EQ(messageOf([] { QOR::strToInt(""); }), "\"\" is not an integer of 32 bits");
    EXPECT_EQ(messageOf([] { QOR::strToLonglong("1.5"); }), "\"1.5\" is not an integer of 64 bits");
    EXPECT_EQ(messageOf([] { QOR::strToDouble("x\"\n"); }), "\"x\\\"\\n\" is not a number");
    EXPECT_LT(messageOf([] { QOR::strToInt(std::string(100000, '9')); }).size(), 200U);
}

TEST(Literals, GoodOnesAreConverted) {
    EXPECT_EQ(QOR::strToInt("-12"), -12);
    EXPECT_EQ(QOR::strToLonglong("1000000000000"), 1000000000000);
    EXPECT_EQ(QOR::strToDouble("2.25"), 2.25);
}

TEST(Ip, IsANumberInHostOrder) {
    EXPECT_EQ(strToIp("10.0.0.1"), 0x0A000001U);
    EXPECT_EQ(strToIp("255.255.255.255"), 0xFFFFFFFFU);
    EXPECT_EQ(strToIp("0.0.0.1"), 1U);
    EXPECT_LT(strToIp("9.0.0.0"), strToIp("10.0.0.0"));
}

TEST(Ip, AnythingElseIsNought) {
    for (const char* text :
         {"", "10.0.0", "10.0.0.", "10.0.0.1.", "10.0.0.1 ", " 10.0.0.1", "256.0.0.1", "10.0.0.256", "1000.0.0.1",
          "10..0.1", "a.b.c.d", "0x0a.0.0.1", "010.0.0.1", "10.0.0.-1", "::1", "167772161", "10.0.0.1/24"}) {
        EXPECT_EQ(strToIp(text), 0U) << text;
    }
}

TEST(DoubleText, IsTheShortestThatReadsBack) {
    EXPECT_EQ(doubleToStr(1.5), "1.5");
    EXPECT_EQ(doubleToStr(2), "2");
    EXPECT_EQ(doubleToStr(0.1), "0.1");
    EXPECT_EQ(doubleToStr(100000), "100000");
    EXPECT_EQ(doubleToStr(1234567890123456.0), "1234567890123456");
    EXPECT_EQ(doubleToStr(1e30), "1e+30");
    EXPECT_EQ(doubleToStr(-0.0001), "-0.0001");
    EXPECT_EQ(doubleToStr(1e-7), "1e-07");
    EXPECT_EQ(doubleToStr(0), "0");
}

TEST(DoubleText, RoundTrips) {
    std::mt19937_64 random(11);
    for (int i = 0; i < 20000; ++i) {
        const std::uint64_t bits = random();
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        if (!std::isfinite(value)) continue;
        ASSERT_EQ(parseDouble(doubleToStr(value)), value) << doubleToStr(value);
    }
}

}  // namespace
