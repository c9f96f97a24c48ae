#include "QORServers/QORPlacement.h"

#include <gtest/gtest.h>

#include "QORCommon/QORException.h"

namespace QOR::test {
namespace {

QORServer server(int number, std::uint64_t modulus, std::uint64_t remainder) {
    return {"s" + std::to_string(number), number, "", modulus, remainder};
}

std::string refusal(std::vector<QORServer> servers) {
    try {
        const QORPlacement placement(1, std::move(servers));
    } catch (const QORException& error) {
        return error.message();
    }
    return "(taken)";
}

TEST(QORPlacement, WithoutServersThereIsNoDivision) {
    EXPECT_TRUE(QORPlacement().none());
    EXPECT_TRUE(QORPlacement(7, {}).none());
    EXPECT_EQ(QORPlacement().find("s1"), nullptr);
}

TEST(QORPlacement, ServersAreInTheOrderOfTheirNumbersAndFoundByName) {
    const QORPlacement placement(3, {server(2, 2, 1), server(1, 2, 0)});
    EXPECT_EQ(placement.epoch(), 3);
    EXPECT_EQ(placement.servers().front().name, "s1");
    EXPECT_EQ(placement.find("s2")->remainder, 1U);
    EXPECT_EQ(placement.find("s3"), nullptr);
}

TEST(QORPlacement, RecordsWithoutEnvironmentAreOfRemainderZero) {
    const QORPlacement placement(1, {server(1, 3, 2), server(2, 3, 0), server(3, 3, 1)});
    EXPECT_EQ(placement.of(QOREID()).name, "s2");
}

TEST(QORPlacement, AServerThatWasSplitSharesItsEnvironmentsWithTheNewOneAlone) {
    const QORPlacement before(1, {server(1, 3, 0), server(2, 3, 1), server(3, 3, 2)});
    const QORPlacement after(2, {server(1, 3, 0), server(2, 6, 1), server(3, 3, 2), server(4, 6, 4)});
    int moved = 0;
    for (int i = 0; i < 3000; ++i) {
        const QOREID eid(QORGUIDBase::random());
        const std::string& name = after.of(eid).name;
        if (name == "s4") ++moved;
        EXPECT_EQ(name == "s4" ? "s2" : name, before.of(eid).name);
    }
    EXPECT_GT(moved, 300);
    EXPECT_LT(moved, 700);
}

TEST(QORPlacement, EachEnvironmentHasExactlyOneServer) {
    EXPECT_EQ(refusal({server(1, 2, 0)}), "the placement of environments: no server has the remainder 1 of 2");
    EXPECT_EQ(refusal({server(1, 2, 0), server(2, 2, 1), server(3, 4, 3)}),
              "the placement of environments: servers \"s2\" and \"s3\" have environments in common");
    EXPECT_EQ(refusal({server(1, 2, 0), server(2, 3, 1)}),
              "the placement of environments: the modulus of server \"s1\" does not divide the largest one");
    EXPECT_EQ(refusal({server(1, 2, 2)}), "the placement of environments: server \"s1\" has the remainder 2 of 2");
    EXPECT_EQ(refusal({server(1, 0, 0)}), "the placement of environments: server \"s1\" has the remainder 0 of 0");
}

}  // namespace
}  // namespace QOR::test
