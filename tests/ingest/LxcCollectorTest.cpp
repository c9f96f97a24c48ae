#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "ingest/ContainerTest.h"

namespace QOR {
namespace {

using test::queryRows;
using test::queryText;
using test::Row;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// A tree as LXC 5.0 leaves it.
class LxcCollectorTest : public test::ContainerTest {
protected:
    LxcCollectorTest() : ContainerTest(ContainerCollector::Engine::Lxc) { setRunning({}); }

    void define(const std::string& name, const std::string& more = {}) const {
        write("var/lib/lxc/" + name + "/config",
              "# Template used to create this container\nlxc.uts.name = " + name + "\nlxc.arch = amd64\n" + more);
    }
    /// \param inode of the socket of its monitor
    void setRunning(const std::vector<std::pair<std::string, std::string>>& running) const {
        std::string text =
            "Num       RefCount Protocol Flags    Type St Inode Path\n"
            "000000009112b61c: 00000002 00000000 00010000 0001 01 7392071 /run/dbus/system_bus_socket\n"
            "000000009112b61d: 00000003 00000000 00000000 0001 03 7392072\n";
        for (const auto& [name, inode] : running) {
            text += "000000007e5e883f: 00000002 00000000 00010000 0001 01 " + inode + " @/var/lib/lxc/" + name +
                    "/command\n";
            text += "000000007e5e8840: 00000002 00000000 00000000 0001 03 99" + inode + " @/var/lib/lxc/" + name +
                    "/command\n";  // somebody asks it
        }
        write("proc/net/unix", text);
    }
    void setFrozen(const std::string& name, bool isFrozen) const {
        write("sys/fs/cgroup/lxc.payload." + name + "/cgroup.events",
              std::string("populated 1\nfrozen ") + (isFrozen ? "1\n" : "0\n"));
    }
};

TEST_F(LxcCollectorTest, WithoutContainersThereIsNoSuchSource) {
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None);
    std::filesystem::create_directories(m_root / "var/lib/lxc/no-container");
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None);
}

TEST_F(LxcCollectorTest, ContainersAreEnvironmentsBelowTheMachine) {
    define("web",
           "lxc.net.0.ipv4.address = 10.0.3.7/24\nlxc.cgroup2.memory.max = 512M\nlxc.environment = PASSWORD=secret\n");
    define("job");
    setRunning({{"web", "7392401"}});
    setFrozen("web", false);
    collectDone();
    EXPECT_EQ(lives(), (std::vector<Row>{{"job", "3", "0"}, {"web", "6", "0"}}));
    EXPECT_EQ(queryRows("SELECT hostname, type, ip, memory, architecture FROM \"vEnvironment\" WHERE title = 'web'", 5),
              (std::vector<Row>{{"web", "container", "10.0.3.7", "512", "amd64"}}));
    EXPECT_THAT(queryText("SELECT config FROM \"vEnvironment\" WHERE title = 'web'"),
                AllOf(HasSubstr("<engine>lxc</engine>"), HasSubstr("<boot_time>"), Not(HasSubstr("secret"))));
    EXPECT_THAT(operations(), IsEmpty()) << "what was before is no news";
    EXPECT_EQ(collectDone().stored.accepted(), 0U);
}

TEST_F(LxcCollectorTest, WhatHappensToThemIsToldOnce) {
    define("web");
    collectDone();
    setRunning({{"web", "1"}});
    setFrozen("web", false);
    collectDone();
    setFrozen("web", true);
    collectDone();
    EXPECT_EQ(lives(), (std::vector<Row>{{"web", "5", "0"}}));
    setFrozen("web", false);
    collectDone();
    setRunning({{"web", "2"}});
    collectDone();
    setRunning({});
    collectDone();
    define("new");
    collectDone();
    std::filesystem::remove_all(m_root / "var/lib/lxc/web");
    std::filesystem::remove_all(m_root / "var/lib/lxc/new");
    collectDone();
    const std::vector<Row> all{{"start", "0"}, {"suspend", "0"}, {"resume", "0"}, {"restart", "0"},
                               {"stop", "0"},  {"create", "0"},  {"remove", "0"}, {"remove", "0"}};
    EXPECT_EQ(operations(), all);
    EXPECT_EQ(lives(), (std::vector<Row>{{"new", "1", "0"}, {"web", "1", "0"}}));
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None);
    EXPECT_EQ(operations(), all);
}

TEST_F(LxcCollectorTest, AContainerThatStartsItselfAnewIsToldByItsControlGroup) {
    define("web");
    define("web-1");
    setRunning({{"web", "1"}, {"web-1", "5"}});
    setFrozen("web", false);
    setFrozen("web-1", true);  // another one's
    collectDone();
    EXPECT_EQ(lives(), (std::vector<Row>{{"web", "6", "0"}, {"web-1", "5", "0"}}));
    // The monitor goes on, what runs in it does not.
    std::filesystem::rename(m_root / "sys/fs/cgroup/lxc.payload.web", m_root / "sys/fs/cgroup/old");
    setFrozen("web", false);
    collectDone();
    EXPECT_EQ(operations(), (std::vector<Row>{{"restart", "0"}}));
}

TEST_F(LxcCollectorTest, ConfigurationsThatMayNotBeReadOrMakeNoSenseHideNoContainer) {
    write("var/lib/lxc/odd/config",
          std::string("=\n\0lxc.cgroup2.memory.max = 9999999999999999999T\nlxc.uts.name", 58));
    write("var/lib/lxc/\xff\x1b/config", "lxc.uts.name = \xff\x1b\n");
    std::filesystem::create_directories(m_root / "var/lib/lxc/folder/config");
    collectDone();
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vEnvironment\""), "3");
    EXPECT_EQ(queryText("SELECT title FROM \"vEnvironment\" WHERE title LIKE '%x1b%'"), "\xef\xbf\xbd\\x1b");
}

TEST_F(LxcCollectorTest, AFolderThatMayNotBeReadFails) {
    if (::geteuid() == 0) GTEST_SKIP() << "root may read everything";
    define("web");
    std::filesystem::permissions(m_root / "var/lib/lxc", std::filesystem::perms::none);
    const QORCollectResult result = collect();
    std::filesystem::permissions(m_root / "var/lib/lxc", std::filesystem::perms::owner_all);
    EXPECT_EQ(result.outcome, QORCollectOutcome::Failed);
    EXPECT_THAT(result.text, HasSubstr("/var/lib/lxc: Permission denied"));
}

}  // namespace
}  // namespace QOR
