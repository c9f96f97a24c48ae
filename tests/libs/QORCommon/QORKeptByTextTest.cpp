#include "QORCommon/QORKeptByText.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>

namespace QOR {
namespace {

using KeptNumbers = QORKeptByText<std::unique_ptr<int>>;

/// -1 for nothing.
int takenFrom(KeptNumbers& kept, const std::string& text, bool fits = true) {
    const std::optional<std::unique_ptr<int>> taken = kept.take(text, [&](const auto&) { return fits; });
    return taken ? **taken : -1;
}

TEST(QORKeptByText, AThingIsInOneHandAtATime) {
    KeptNumbers kept(4);
    kept.keep("a", std::make_unique<int>(1));
    EXPECT_EQ(takenFrom(kept, "b"), -1);
    EXPECT_EQ(takenFrom(kept, "a"), 1);
    EXPECT_EQ(takenFrom(kept, "a"), -1);
    EXPECT_EQ(kept.size(), 0U);
}

TEST(QORKeptByText, OfSeveralUnderOneTextTheLastComesFirst) {
    KeptNumbers kept(4);
    kept.keep("a", std::make_unique<int>(1));
    kept.keep("a", std::make_unique<int>(2));
    kept.keep("b", std::make_unique<int>(3));
    EXPECT_EQ(takenFrom(kept, "a"), 2);
    EXPECT_EQ(takenFrom(kept, "a"), 1);
    EXPECT_EQ(takenFrom(kept, "b"), 3);
}

TEST(QORKeptByText, WhatWillNotDoIsDropped) {
    KeptNumbers kept(4);
    kept.keep("a", std::make_unique<int>(1));
    EXPECT_EQ(takenFrom(kept, "a", false), -1);
    EXPECT_EQ(kept.size(), 0U);
}

TEST(QORKeptByText, WhatWasUsedLongestAgoGoesFirst) {
    KeptNumbers kept(2);
    kept.keep("a", std::make_unique<int>(1));
    kept.keep("b", std::make_unique<int>(2));
    kept.keep("a", std::make_unique<int>(takenFrom(kept, "a")));
    kept.keep("c", std::make_unique<int>(3));
    EXPECT_EQ(kept.size(), 2U);
    EXPECT_EQ(takenFrom(kept, "b"), -1);
    EXPECT_EQ(takenFrom(kept, "a"), 1);
    kept.clear();
    EXPECT_EQ(takenFrom(kept, "c"), -1);
}

}  // namespace
}  // namespace QOR
