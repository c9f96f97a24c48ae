#include "QORCommon/QORRequestControl.h"

#include <thread>

#include "QORCommon/QORException.h"

namespace QOR {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using End = QORRequestControl::End;

void waitForEnd(const QORRequestControl& control) {
    while (!control.expired())
        std::this_thread::sleep_for(milliseconds(1));
}

TEST(QORRequestControl, WithoutALimitItGoesOn) {
    const QORRequestControl control;
    EXPECT_EQ(control.ended(), End::None);
    EXPECT_EQ(control.deadline(), QORRequestControl::Clock::time_point::max());
    EXPECT_EQ(control.text(), "");
    EXPECT_NO_THROW(control.check());
}

TEST(QORRequestControl, EndsAtItsLimitAndNamesIt) {
    const QORRequestControl control(milliseconds(20));
    waitForEnd(control);
    EXPECT_EQ(control.ended(), End::Deadline);
    EXPECT_EQ(control.text(), "the request's deadline of 20 ms has passed");
}

TEST(QORRequestControl, WorkMayGoOnUntilTheRequestEnds) {
    QORRequestControl endless;
    EXPECT_TRUE(endless.mayGoOn());
    std::this_thread::sleep_for(milliseconds(30));  // a long request by now
    EXPECT_TRUE(endless.mayGoOn());
    endless.cancel(End::Gone);
    EXPECT_FALSE(endless.mayGoOn());

    QORRequestControl limited(milliseconds(30));
    while (limited.mayGoOn()) {
    }
    EXPECT_EQ(limited.ended(), End::Deadline);
}

TEST(QORRequestControl, WholeSecondsAreNamedAsSuch) {
    QORRequestControl control(hours(1));
    control.limitTo(milliseconds(1000));
    waitForEnd(control);
    EXPECT_EQ(control.text(), "the request's deadline of 1 s has passed");
}

TEST(QORRequestControl, ARequestMayAskForLessButNotForMore) {
    QORRequestControl control(milliseconds(20));
    control.limitTo(hours(1));
    waitForEnd(control);
    EXPECT_EQ(control.text(), "the request's deadline of 20 ms has passed");

    QORRequestControl patient(hours(1));
    patient.limitTo(milliseconds(10));
    waitForEnd(patient);
    EXPECT_EQ(patient.text(), "the request's deadline of 10 ms has passed");
}

TEST(QORRequestControl, OfTwoAskedLimitsTheShorterCounts) {
    QORRequestControl control;
    control.limitTo(milliseconds(10));
    control.limitTo(hours(1));
    waitForEnd(control);
    EXPECT_EQ(control.text(), "the request's deadline of 10 ms has passed");
}

TEST(QORRequestControl, ALimitBeyondTheClockIsNone) {
    QORRequestControl control(milliseconds::max());
    control.limitTo(milliseconds::max());
    EXPECT_EQ(control.deadline(), QORRequestControl::Clock::time_point::max());
    EXPECT_FALSE(control.expired());
}

TEST(QORRequestControl, RenewingMovesTheLimitButNotWhatWasAskedFor) {
    QORRequestControl control(hours(1));
    const auto first = control.deadline();
    std::this_thread::sleep_for(milliseconds(2));
    control.renew();
    EXPECT_GT(control.deadline(), first);

    QORRequestControl asked(hours(2));
    asked.limitTo(hours(1));
    const auto fixed = asked.deadline();
    asked.renew();
    EXPECT_EQ(asked.deadline(), fixed);
}

TEST(QORRequestControl, ALiftedLimitIsGoneForGoodButNotWhatWasAskedFor) {
    QORRequestControl control(hours(1));
    control.lift();
    control.renew();
    EXPECT_EQ(control.deadline(), QORRequestControl::Clock::time_point::max());
    control.limitTo(hours(2));
    EXPECT_LT(control.deadline(), QORRequestControl::Clock::time_point::max());
    control.cancel(QORRequestControl::End::Gone);
    EXPECT_EQ(control.ended(), QORRequestControl::End::Gone);
}

TEST(QORRequestControl, WithGraceItIsDueAtItsDeadlineAndEndsLater) {
    QORRequestControl patient(hours(1));
    patient.grantGrace(hours(1));
    EXPECT_FALSE(patient.isDue());

    QORRequestControl control(milliseconds(10));
    control.grantGrace(hours(1));
    while (!control.isDue())
        std::this_thread::sleep_for(milliseconds(1));
    EXPECT_EQ(control.ended(), End::None);
    EXPECT_TRUE(control.mayGoOn());
    EXPECT_EQ(control.dueText(), "the request's deadline of 10 ms has passed");
    EXPECT_GT(control.deadline(), QORRequestControl::Clock::now() + std::chrono::minutes(50));
    control.cancel(End::Gone);
    EXPECT_EQ(control.ended(), End::Gone) << "grace is for deadlines alone";
}

TEST(QORRequestControl, GraceEndsToo) {
    QORRequestControl control;
    control.limitTo(milliseconds(1));
    control.grantGrace(milliseconds(10));
    waitForEnd(control);
    EXPECT_EQ(control.ended(), End::Deadline);
    EXPECT_EQ(control.text(), "the request's deadline of 1 ms has passed");
}

TEST(QORRequestControl, WithoutALimitItIsNeverDue) {
    QORRequestControl control;
    control.grantGrace(milliseconds(1));
    EXPECT_FALSE(control.isDue());
    EXPECT_EQ(control.deadline(), QORRequestControl::Clock::time_point::max());
}

TEST(QORRequestControl, WhatHasEndedStaysEndedForItsFirstReason) {
    QORRequestControl control(milliseconds(1));
    waitForEnd(control);
    control.renew();
    control.cancel(End::Gone);
    EXPECT_EQ(control.ended(), End::Deadline);

    QORRequestControl cancelled;
    cancelled.cancel(End::Gone);
    cancelled.cancel(End::Stopping);
    EXPECT_EQ(cancelled.ended(), End::Gone);
    EXPECT_EQ(cancelled.text(), "the client has gone");
}

TEST(QORRequestControl, CheckThrowsTheReason) {
    QORRequestControl control;
    control.cancel(End::Stopping);
    try {
        control.check();
        FAIL() << "it goes on";
    } catch (const QORException& error) {
        EXPECT_EQ(error.code(), errDeadline);
        EXPECT_EQ(error.message(), "the agent is stopping");
    }
}

TEST(QORRequestControl, AnotherThreadMayCancel) {
    QORRequestControl control;
    std::thread other([&] { control.cancel(End::Gone); });
    waitForEnd(control);
    other.join();
    EXPECT_EQ(control.ended(), End::Gone);
}

TEST(QORRequestControl, ScopesNestAndBelongToTheirThread) {
    EXPECT_EQ(QORRequestControl::current(), nullptr);
    EXPECT_NO_THROW(QORRequestControl::checkCurrent());
    const auto outer = std::make_shared<QORRequestControl>();
    const QORRequestScope scope(outer);
    EXPECT_EQ(QORRequestControl::current(), outer.get());
    {
        const auto inner = std::make_shared<QORRequestControl>();
        const QORRequestScope nested(inner);
        EXPECT_EQ(QORRequestControl::shareCurrent(), inner);
        const QORRequestScope none(nullptr);
        EXPECT_EQ(QORRequestControl::current(), nullptr);
    }
    EXPECT_EQ(QORRequestControl::current(), outer.get());
    std::thread([] { EXPECT_EQ(QORRequestControl::current(), nullptr); }).join();
}

TEST(QORRequestControl, AWatchNoticesTheEndWithinItsTurns) {
    const auto control = std::make_shared<QORRequestControl>();
    const QORRequestScope scope(control);
    QORRequestWatch watch;
    control->cancel(End::Gone);
    EXPECT_THROW(for (int turn = 0; turn < 256; ++turn) watch.check(), QORException);
}

}  // namespace
}  // namespace QOR
