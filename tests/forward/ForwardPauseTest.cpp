#include "forward/ForwardPause.h"

#include <gtest/gtest.h>

namespace QOR {
namespace {

using std::chrono::milliseconds;

TEST(ForwardPause, GrowsToItsBoundAndBeginsAnewWhenItHasWorked) {
    ForwardPause pause{milliseconds(2000)};
    for (int round = 0; round < 2; ++round) {
        for (const int most : {250, 500, 1000, 2000, 2000, 2000}) {
            const milliseconds now = pause.next(0);
            EXPECT_LE(now, milliseconds(most));
            EXPECT_GE(now, milliseconds(most / 2));
        }
        pause.reset();
    }
}

TEST(ForwardPause, IsAsLongAsTheOtherSideAsksWithinReason) {
    ForwardPause pause{milliseconds(1000)};
    EXPECT_EQ(pause.next(7), milliseconds(7000));
    EXPECT_EQ(pause.next(1'000'000'000), milliseconds(3'600'000));
    EXPECT_LE(pause.next(0), milliseconds(1000));
}

}  // namespace
}  // namespace QOR
