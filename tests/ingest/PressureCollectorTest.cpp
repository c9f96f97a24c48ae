#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ingest/OneCollector.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

using test::queryRows;
using test::queryText;
using test::Row;

/// A tree with what a kernel tells of stalled tasks.
class PressureCollectorTest : public testing::Test {
protected:
    PressureCollectorTest() { m_database.open(); }

    void write(const std::string& resource, const std::string& some, const std::string& full) const {
        std::filesystem::create_directories(m_root / "proc/pressure");
        std::ofstream(m_root / ("proc/pressure/" + resource))
            << "some avg10=99.00 avg60=" << some << " avg300=0.00 total=1\nfull avg10=99.00 avg60=" << full
            << " avg300=0.00 total=1\n";
    }
    QORCollectResult collect() const { return test::runOnce("pressure", m_root.path()); }
    static std::vector<Row> alerts() {
        return queryRows("SELECT source, category, info FROM \"vEventLog\" ORDER BY id", 3);
    }
    static Row alert(const std::string& resource, const std::string& state, const std::string& stalled) {
        return {"pressure", "resource_alert",
                "<info><resource>" + resource + "</resource><state>" + state + "</state><stalled>" + stalled +
                    "</stalled></info>"};
    }

    const test::TemporaryDirectory m_root;
    test::HostDatabase m_database{test::TestTables::Own};
};

TEST_F(PressureCollectorTest, AnAlertIsRaisedOnceAndClearedBelowALowerBound) {
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None) << "this kernel does not tell";
    write("cpu", "59.99", "0.00");
    write("memory", "90.00", "0.10");
    write("io", "0.00", "0.00");
    EXPECT_EQ(collect().outcome, QORCollectOutcome::Done);
    EXPECT_EQ(alerts(), std::vector<Row>());

    std::vector<Row> wanted{alert("cpu", "raised", "60.00")};
    for (const char* const share : {"60.00", "30.00", "95.50", "30.00", "60.00"}) {
        write("cpu", share, "0.00");
        EXPECT_EQ(collect().outcome, QORCollectOutcome::Done);
        EXPECT_EQ(alerts(), wanted) << share;
    }
    write("cpu", "29.99", "0.00");
    write("memory", "90.00", "10.00");
    EXPECT_EQ(collect().stored.of(QORRecordKind::Event).added, 2U);
    wanted.push_back(alert("cpu", "cleared", "29.99"));
    wanted.push_back(alert("memory", "raised", "10.00"));
    EXPECT_EQ(alerts(), wanted);
    EXPECT_EQ(queryText("SELECT position FROM qor_collector_position"), "memory");
}

TEST_F(PressureCollectorTest, AnAlertIsStoredTogetherWithThatItIsRaised) {
    const auto keepPositions = [](const std::string& condition) {
        test::runSql("DROP TABLE qor_collector_position");
        test::runSql(
            "CREATE TABLE qor_collector_position (machine uuid NOT NULL, collector text NOT NULL, position text NOT "
            "NULL "
            "CHECK (" +
            condition + "), PRIMARY KEY (machine, collector))");
    };
    write("cpu", "60.00", "0.00");
    keepPositions("position = 'none'");
    const QORCollectResult broken = collect();
    EXPECT_EQ(broken.outcome, QORCollectOutcome::Failed);
    EXPECT_TRUE(broken.stored.failure);
    EXPECT_EQ(alerts(), std::vector<Row>()) << "else the next run would tell it again";
    keepPositions("position <> 'none'");
    EXPECT_EQ(collect().outcome, QORCollectOutcome::Done);
    EXPECT_EQ(collect().outcome, QORCollectOutcome::Done);
    EXPECT_EQ(alerts(), std::vector<Row>{alert("cpu", "raised", "60.00")});
}

TEST_F(PressureCollectorTest, WhatTheKernelDoesNotTellStaysAsItWas) {
    write("io", "0.00", "40.00");
    write("cpu", "0.00", "0.00");
    EXPECT_EQ(collect().stored.of(QORRecordKind::Event).added, 1U);
    std::filesystem::remove(m_root / "proc/pressure/io");
    std::ofstream(m_root / "proc/pressure/cpu") << "some avg60=\xff\n";
    const QORCollectResult result = collect();
    EXPECT_EQ(result.stored.accepted(), 0U);
    EXPECT_EQ(result.unreadable.size(), 1U);
    EXPECT_EQ(queryText("SELECT position FROM qor_collector_position"), "io");
    write("io", "0.00", "19.99");
    EXPECT_EQ(collect().stored.of(QORRecordKind::Event).added, 1U);
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vEventLog\""), "2");
}

}  // namespace
}  // namespace QOR
