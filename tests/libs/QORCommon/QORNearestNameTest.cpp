#include "QORCommon/QORNearestName.h"

#include <gtest/gtest.h>

#include <string>

namespace QOR {
namespace {

using Names = std::vector<std::string_view>;

TEST(NearestName, TheNearestComesFirstAndWhatIsFarIsLeftOut) {
    const Names names{"time", "title", "status", "pager.env.state"};
    EXPECT_EQ(nearestNames("tiem", names), (Names{"time"}));
    EXPECT_EQ(nearestNames("STATSU", names), (Names{"status"}));
    EXPECT_EQ(nearestNames("state", names), (Names{"pager.env.state", "status"}));
    EXPECT_EQ(nearestNames("package", names), Names{});
}

TEST(NearestName, NoMoreThanThreeAreToldInTheirOrder) {
    EXPECT_EQ(nearestNames("ab", Names{"aa", "ac", "ad", "ae"}), (Names{"aa", "ac", "ad"}));
}

TEST(NearestName, WhatNobodyWouldTypeResemblesNothing) {
    EXPECT_EQ(nearestNames(std::string(100'000, 'x'), Names{"xx"}), Names{});
    EXPECT_EQ(nearestNames("xx", Names{std::string_view()}), Names{});
}

}  // namespace
}  // namespace QOR
