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

/// A recorded tree of control groups.
class CgroupCollectorTest : public testing::Test {
protected:
    CgroupCollectorTest() { m_database.open(); }

    void write(const std::string& file, const std::string& text) const {
        const std::filesystem::path path = m_groups / file;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }
    void begin() const {
        write("cgroup.controllers", "cpu memory pids\n");
        EXPECT_EQ(collect().outcome, QORCollectOutcome::Done);
    }
    void kill(const std::string& group, int count) const {
        write(group + "/memory.events", "low 0\nhigh 0\nmax 0\noom 9\noom_kill " + std::to_string(count) + "\n");
    }
    QORCollectResult collect() const { return test::runOnce("cgroups", m_root.path()); }
    static std::vector<Row> alerts() {
        return queryRows("SELECT source, category, info FROM \"vEventLog\" ORDER BY id", 3);
    }
    static Row alert(const std::string& resource, const std::string& state, const std::string& counter,
                     const std::string& group, const std::string& more = {}) {
        return {"cgroups", "resource_alert",
                "<info><resource>" + resource + "</resource><state>" + state + "</state><counter>" + counter +
                    "</counter><cgroup>" + group + "</cgroup>" + more + "</info>"};
    }
    static std::string position() { return queryText("SELECT position FROM qor_collector_position"); }

    const test::TemporaryDirectory m_root;
    const std::filesystem::path m_groups = m_root / "sys/fs/cgroup";
    test::HostDatabase m_database{test::TestTables::Own};
};

TEST_F(CgroupCollectorTest, WhatIsKilledIsAnAlertThatEndsAfterQuietRuns) {
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None) << "there is no tree of version 2";
    kill("system.slice/shop.service", 2);
    begin();
    EXPECT_EQ(alerts(), std::vector<Row>()) << "what was before is no news";
    EXPECT_EQ(position(), "\noom_kill:/system.slice/shop.service=2");

    std::vector<Row> wanted{alert("memory", "raised", "oom_kill", "/system.slice/shop.service", "<count>3</count>")};
    for (const int count : {5, 5, 6, 6}) {
        kill("system.slice/shop.service", count);
        collect();
        EXPECT_EQ(alerts(), wanted) << count;
    }
    for (int quiet = 2; quiet < 10; ++quiet)
        collect();
    EXPECT_EQ(alerts(), wanted);
    collect();
    wanted.push_back(alert("memory", "cleared", "oom_kill", "/system.slice/shop.service"));
    EXPECT_EQ(alerts(), wanted);
    EXPECT_EQ(position(), "\noom_kill:/system.slice/shop.service=6");
}

TEST_F(CgroupCollectorTest, CountersOfAGroupThatWasMadeAnewBeginAnew) {
    begin();
    kill("a b\xff", 7);
    collect();
    kill("a b\xff", 1);
    for (int run = 0; run < 10; ++run)
        collect();
    EXPECT_EQ(alerts().size(), 1U) << "somebody was killed in the new one, too";
    std::filesystem::remove_all(m_groups / "a b\xff");
    collect();
    EXPECT_EQ(alerts(), (std::vector<Row>{
                            alert("memory", "raised", "oom_kill", "/a b\xef\xbf\xbd", "<count>7</count>"),
                            alert("memory", "cleared", "oom_kill", "/a b\xef\xbf\xbd"),
                        }));
    EXPECT_EQ(position(), "\n");
}

TEST_F(CgroupCollectorTest, AGroupIsToldOfAndNotTheOnesThatItIsIn) {
    begin();
    write("pods/one/memory.events", "max 4\noom_kill 1\n");
    write("pods/one/memory.events.local", "max 4\noom_kill 1\n");
    write("pods/one/pids.events", "max 3\n");
    write("pods/memory.events", "max 4\noom_kill 1\n");
    write("pods/memory.events.local", "max 0\noom_kill 0\n");
    collect();
    EXPECT_EQ(alerts(), (std::vector<Row>{alert("memory", "raised", "oom_kill", "/pods/one", "<count>1</count>"),
                                          alert("memory", "raised", "max", "/pods/one", "<count>4</count>"),
                                          alert("pids", "raised", "max", "/pods/one", "<count>3</count>")}));
}

TEST_F(CgroupCollectorTest, ProcessorTimeThatIsWithheldIsAnAlertByItsShare) {
    const auto throttle = [this](int periods, int throttled) {
        write("job/cpu.stat", "usage_usec 1\nnr_periods " + std::to_string(periods) + "\nnr_throttled " +
                                  std::to_string(throttled) + "\n");
        collect();
    };
    begin();
    std::vector<Row> wanted;
    throttle(100, 24);
    throttle(109, 33);  // too few to tell
    EXPECT_EQ(alerts(), wanted);
    throttle(209, 58);
    wanted.push_back(alert("cpu", "raised", "nr_throttled", "/job", "<throttled>25.00</throttled>"));
    EXPECT_EQ(alerts(), wanted);
    throttle(309, 68);
    EXPECT_EQ(alerts(), wanted) << "between the bounds it stays";
    throttle(20, 1);
    wanted.push_back(alert("cpu", "cleared", "nr_throttled", "/job", "<throttled>5.00</throttled>"));
    EXPECT_EQ(alerts(), wanted);
}

TEST_F(CgroupCollectorTest, ProcessorTimeThatPassesIsNoNewPosition) {
    const auto throttle = [this](int periods, int throttled) {
        write("job/cpu.stat",
              "nr_periods " + std::to_string(periods) + "\nnr_throttled " + std::to_string(throttled) + "\n");
        collect();
    };
    begin();
    kill("job", 1);
    throttle(100, 1);
    collect();
    for (int quiet = 0; quiet < 10; ++quiet)
        collect();
    const std::string settled = position();
    EXPECT_EQ(alerts().size(), 2U);
    throttle(200, 2);
    throttle(1000, 3);
    EXPECT_EQ(position(), settled);
    throttle(1100, 53);
    EXPECT_EQ(alerts().size(), 3U) << "half of the time since the last run, though little since the position";
    EXPECT_NE(position(), settled);
}

TEST_F(CgroupCollectorTest, ManyAlertsAreToldInSeveralRuns) {
    begin();
    for (int group = 100; group < 350; ++group)
        kill("group" + std::to_string(group), 1);
    for (const std::size_t told : {100U, 200U, 250U, 250U}) {
        collect();
        EXPECT_EQ(alerts().size(), told);
    }
}

}  // namespace
}  // namespace QOR
