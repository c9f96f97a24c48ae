#include "forward/ForwardReply.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace QOR {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using What = ForwardOutcome::What;

TEST(ForwardReply, RecordsAreTakenButForThoseThatAreNamed) {
    const ForwardOutcome all = outcomeOf({200, R"({"accepted":3,"lastLine":3,"refusedCount":0,"refused":[]})"}, 3);
    EXPECT_EQ(all.what, What::Taken);
    EXPECT_THAT(all.refused, IsEmpty());
    const ForwardOutcome some =
        outcomeOf({200, R"({"accepted":2,"lastLine":3,"refusedCount":1,"refused":[{"line":2,"reason":"why"}]})"}, 3);
    EXPECT_EQ(some.what, What::Taken);
    EXPECT_THAT(some.refused, ElementsAre(Pair(2, "why")));
}

TEST(ForwardReply, WhatSaysLessThanThatAllWasTakenIsAFailure) {
    EXPECT_EQ(outcomeOf({200, R"({"lastLine":2,"refused":[]})"}, 3).what, What::Failed);
    EXPECT_EQ(outcomeOf({200, "<html>"}, 3).what, What::Failed);
    const ForwardOutcome full = outcomeOf(
        {200, R"({"lastLine":3,"refused":[],"failure":{"firstLine":1,"lastLine":3,"reason":"disk is full"}})"}, 3);
    EXPECT_EQ(full.what, What::Failed);
    EXPECT_EQ(full.reason, "disk is full");
    const ForwardOutcome away = outcomeOf({503, R"({"detail":"no room"})"}, 3);
    EXPECT_EQ(away.what, What::Failed);
    EXPECT_THAT(away.reason, HasSubstr("503: no room"));
}

TEST(ForwardReply, ARecordIsRefusedByItsLineAndASenderWithoutOne) {
    const ForwardOutcome record = outcomeOf({403, R"({"detail":"line 2: the event is about another"})"}, 3);
    EXPECT_EQ(record.what, What::Refused);
    EXPECT_THAT(record.refused, ElementsAre(Pair(2, "the event is about another")));
    EXPECT_EQ(outcomeOf({403, R"({"detail":"line 4: beyond"})"}, 3).what, What::Failed);
    EXPECT_EQ(outcomeOf({403, R"({"detail":"/v1/records needs full access"})"}, 3).what, What::Failed);
    EXPECT_EQ(outcomeOf({413, "{}"}, 3).what, What::TooLarge);
}

}  // namespace
}  // namespace QOR
