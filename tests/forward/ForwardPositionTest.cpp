// What is kept of records that the other agent does not want.
#include "forward/ForwardPosition.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/HostDatabase.h"

namespace QOR::test {
namespace {

class ForwardPositionTest : public testing::Test {
protected:
    void SetUp() override { m_database.open(); }
    static std::vector<ForwardRefused> events(std::size_t first, std::size_t number) {
        std::vector<ForwardRefused> refused;
        for (std::size_t at = first; at < first + number; ++at)
            refused.push_back(
                {{.kind = QORChangeKind::Event, .id = std::to_string(at), .owner = {}, .server = {}}, "no"});
        return refused;
    }

    HostDatabase m_database{TestTables::Own};
};

TEST_F(ForwardPositionTest, TellsHowManyRefusedRecordsItForgets) {
    const ForwardPosition stored("there");
    const ForwardPosition other("elsewhere");
    EXPECT_EQ(other.store({{"", 1}}, {}, events(0, 3)), 0U);
    for (std::size_t at = 0; at < ForwardPosition::mostRefused; at += 1000)
        EXPECT_EQ(stored.store({{"", 1}}, {}, events(at, 1000)), 0U) << at;
    EXPECT_EQ(stored.countRefused(), ForwardPosition::mostRefused);
    EXPECT_EQ(stored.store({{"", 2}}, {}, events(7, 2)), 0U) << "they are known";
    EXPECT_EQ(stored.store({{"", 3}}, {}, events(ForwardPosition::mostRefused, 5)), 5U);
    EXPECT_EQ(stored.settle({}, events(ForwardPosition::mostRefused + 5, 2)), 2U);
    EXPECT_EQ(stored.store({{"", 4}}, {}, {}), 0U);
    EXPECT_EQ(stored.countRefused(), ForwardPosition::mostRefused);
    EXPECT_EQ(other.countRefused(), 3U);
}

}  // namespace
}  // namespace QOR::test
