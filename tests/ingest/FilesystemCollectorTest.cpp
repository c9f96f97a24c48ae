#include "ingest/collectors/FilesystemCollector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ingest/OneCollector.h"
#include "ingest/collectors/EscapedPath.h"
#include "ingest/collectors/MountProbes.h"
#include "ingest/collectors/MountTable.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

using test::queryRows;
using test::queryText;
using test::Row;

constexpr std::uint64_t oneGibibyte = std::uint64_t{1} << 30;

std::vector<Mount> mountsOf(const std::string& text, std::uint64_t wrong = 0) {
    std::istringstream lines(text);
    std::uint64_t malformed = 0;
    std::vector<Mount> mounts = readMounts(lines, malformed);
    EXPECT_EQ(malformed, wrong);
    return mounts;
}

std::vector<std::string> pointsOf(const std::vector<Mount>& mounts) {
    std::vector<std::string> points;
    for (const Mount& mount : mounts)
        points.push_back(mount.point);
    return points;
}

TEST(MountTable, TellsWhatIsMountedWhere) {
    const std::vector<Mount> mounts = mountsOf(
        "27 1 254:0 / / rw,relatime shared:1 master:2 - ext4 /dev/vda rw,discard\n"
        "nonsense\n"
        "28 27 0:40 /a\\040folder /srv/a\\040b\\134c\\011\xff ro,nosuid - nfs4 server:/x rw\n"
        "29 27 0:41 / /short rw - ext4 /dev/vdb\n"
        "30 27 7:1 / /image ro - squashfs /dev/loop0 ro,errors=continue\n",
        2);
    ASSERT_EQ(mounts.size(), 3U);
    EXPECT_EQ(mounts[0].device, "254:0");
    EXPECT_EQ(mounts[0].type, "ext4");
    EXPECT_EQ(mounts[0].source, "/dev/vda");
    EXPECT_EQ(mounts[1].root, "/a folder");
    EXPECT_EQ(mounts[1].point, "/srv/a b\\c\t\xff");
    EXPECT_FALSE(mounts[1].readOnly) << "the mount is, the file system is not";
    EXPECT_TRUE(mounts[2].readOnly);
    EXPECT_EQ(escapePath(mounts[1].point), "/srv/a\\040b\\134c\\011\\377");
    for (const char* const path : {"/srv/a b\\c\t\xff", "/\\", "/\\04", "/\\400", "", "/caf\xc3\xa9"})
        EXPECT_EQ(unescapePath(escapePath(path)), path);
}

TEST(MountTable, EachFileSystemHasOnePlace) {
    const std::string line = " rw - ext4 /dev/sda1 rw\n";
    EXPECT_EQ(pointsOf(mountsWithRoom(mountsOf("1 0 8:1 /etc /bound" + line + "2 0 8:1 / /whole" + line +
                                               "3 0 8:1 / /again" + line + "4 0 8:2 /part /only/a/part" + line +
                                               "5 0 8:3 / /hidden" + line + "6 0 8:4 / /hidden" + line +
                                               "7 0 0:5 / /proc rw - proc proc rw\n"
                                               "8 0 0:6 / /net rw - autofs map rw\n"
                                               "9 0 0:7 / /image rw - iso9660 /dev/sr0 rw\n"
                                               "10 0 8:8 / /read rw - ext4 /dev/sdb ro\n"
                                               "11 0 0:9 / /var/lib/merged rw - overlay overlay rw\n"
                                               "12 0 0:10 / / rw - overlay overlay rw\n"
                                               "13 0 0:11 / /run rw - tmpfs tmpfs rw\n"))),
              (std::vector<std::string>{"/whole", "/only/a/part", "/hidden", "/", "/run"}));
}

TEST(MountTable, BelowAFolderTheyHaveThePathsThatTheyHaveThere) {
    const std::vector<Mount> mounts = mountsOf(
        "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "2 0 8:2 / /srv rw - ext4 /dev/sda2 rw\n"
        "3 0 8:3 / /srv/tree/home rw - ext4 /dev/sda3 rw\n"
        "4 0 8:4 / /srv/trees rw - ext4 /dev/sda4 rw\n");
    EXPECT_EQ(pointsOf(mountsBelow(mounts, "/srv/tree")), (std::vector<std::string>{"/", "/home"}));
    EXPECT_EQ(mountsBelow(mounts, "/srv/tree")[0].device, "8:2") << "that one holds the folder";
    EXPECT_EQ(pointsOf(mountsBelow(mounts, "/srv/trees")), std::vector<std::string>{"/"});
    EXPECT_EQ(pointsOf(mountsBelow(mounts, "/")), pointsOf(mounts));
}

/// Mounts that answer when they are let.
class SlowMounts {
public:
    MountRoom ask(const std::string& path) {
        std::unique_lock lock(m_mutex);
        ++m_asked;
        m_opened.wait(lock, [&] { return m_open || path != "/dead"; });
        return {.bytes = 1};
    }
    void open() {
        const std::lock_guard lock(m_mutex);
        m_open = true;
        m_opened.notify_all();
    }
    int asked() {
        const std::lock_guard lock(m_mutex);
        return m_asked;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_opened;
    bool m_open = false;
    int m_asked = 0;
};

TEST(MountProbes, AMountThatDoesNotAnswerIsAskedAgainWhenItHas) {
    constexpr std::chrono::hours long_(1);
    // Shared with a thread that may outlive the test.
    const auto mounts = std::make_shared<SlowMounts>();
    MountProbes probes([mounts](const std::string& path) { return mounts->ask(path); });
    EXPECT_TRUE(probes.ask("alive", "/alive", long_));
    EXPECT_FALSE(probes.ask("dead", "/dead", std::chrono::milliseconds(1)));
    EXPECT_FALSE(probes.ask("dead", "/dead", long_)) << "nobody waits for it a second time";
    EXPECT_TRUE(probes.ask("alive", "/alive", long_)) << "the others are none the worse";
    mounts->open();
    while (!probes.ask("dead", "/dead", long_))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(mounts->asked(), 4) << "at most one thread asks it";
}

TEST(MountProbes, TheSystemTellsHowMuchRoomThereIs) {
    const test::TemporaryDirectory folder;
    const MountRoom room = askMount(folder.path().string());
    EXPECT_EQ(room.error, 0);
    EXPECT_GT(room.bytes, 0U);
    EXPECT_LE(room.freeBytes, room.bytes);
    EXPECT_EQ(askMount((folder / "none").string()).error, ENOENT);
}

/// A recorded table of mounts, whose room the test tells.
class FilesystemCollectorTest : public testing::Test {
protected:
    FilesystemCollectorTest() {
        m_database.open();
        std::filesystem::create_directories(m_root / "proc/self");
    }

    void mount(const std::string& lines) const { std::ofstream(m_root / "proc/self/mountinfo") << lines; }
    void answer(const std::string& point, const MountRoom& room) {
        (*m_rooms)[(m_root.path() / point).string()] = room;
    }
    QORCollectResult collect() { return test::runOnce(m_collector, m_root.path()); }
    static std::vector<Row> alerts() {
        return queryRows("SELECT source, category, info FROM \"vEventLog\" ORDER BY id", 3);
    }
    static Row alert(const std::string& resource, const std::string& state, const std::string& more) {
        return {"filesystems", "resource_alert",
                "<info><resource>" + resource + "</resource><state>" + state + "</state>" + more + "</info>"};
    }
    static std::string position() { return queryText("SELECT position FROM qor_collector_position"); }

    using Rooms = std::map<std::string, MountRoom>;
    const bool m_registered = (registerCollectors(), true);  // the host's own keeps its name
    const test::TemporaryDirectory m_root;
    test::HostDatabase m_database{test::TestTables::Own};
    const std::shared_ptr<Rooms> m_rooms = std::make_shared<Rooms>();  // threads that ask see it as it is at that time
    FilesystemCollector m_collector{[rooms = m_rooms](const std::string& path) { return rooms->at(path); },
                                    {std::chrono::hours(1), std::chrono::hours(2)}};
};

constexpr const char* dataMount = "1 0 8:1 / /srv/a\\040b\xff rw - ext4 /dev/sda1 rw\n";
constexpr const char* dataPoint = "srv/a b\xff";
constexpr const char* dataInfo = "<mount>/srv/a b\xef\xbf\xbd</mount><type>ext4</type><device>/dev/sda1</device>";

TEST_F(FilesystemCollectorTest, LittleRoomIsToldOnceAndClearedWhereThereIsMuchMore) {
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None) << "this kernel does not tell";
    mount(dataMount);
    std::vector<Row> wanted;
    const auto has = [&](std::uint64_t freeBytes, std::uint64_t freeInodes) {
        answer(dataPoint,
               {.bytes = 100 * oneGibibyte, .freeBytes = freeBytes, .inodes = 1000, .freeInodes = freeInodes});
        EXPECT_EQ(collect().outcome, QORCollectOutcome::Done);
        EXPECT_EQ(alerts(), wanted) << freeBytes << " " << freeInodes;
    };
    has(5 * oneGibibyte, 50);
    wanted.push_back(alert("space", "raised", std::string(dataInfo) + "<free>4.00</free><left>4294967296</left>"));
    has(4 * oneGibibyte, 50);
    has(9 * oneGibibyte, 50);
    has(1 * oneGibibyte, 50);
    EXPECT_EQ(position(), "space:/srv/a\\040b\\377");
    wanted.push_back(alert("inodes", "raised", std::string(dataInfo) + "<free>4.90</free><left>49</left>"));
    has(9 * oneGibibyte, 49);
    wanted.push_back(alert("space", "cleared", std::string(dataInfo) + "<free>10.00</free><left>10737418240</left>"));
    has(10 * oneGibibyte, 99);
    wanted.push_back(alert("inodes", "cleared", std::string(dataInfo) + "<free>10.00</free><left>100</left>"));
    has(10 * oneGibibyte, 100);
    EXPECT_EQ(position(), "");
}

TEST_F(FilesystemCollectorTest, ControlCharactersOfAPathAreShown) {
    mount("1 0 8:1 / /srv/a\\033b rw - ext4 /dev/sda1 rw\n");
    answer(
        "srv/a\x1b"
        "b",
        {.bytes = 100});
    collect();
    ASSERT_EQ(alerts().size(), 1U);
    EXPECT_THAT(alerts()[0][2], testing::HasSubstr("<mount>/srv/a\\x1bb</mount>"));
}

TEST_F(FilesystemCollectorTest, FewPerCentOfALargeOneAreEnough) {
    mount(dataMount);
    answer(dataPoint, {.bytes = 1000 * oneGibibyte, .freeBytes = 10 * oneGibibyte});
    collect();
    EXPECT_EQ(alerts(), std::vector<Row>());
    answer(dataPoint, {.bytes = 1000 * oneGibibyte, .freeBytes = 10 * oneGibibyte - 1});
    collect();
    EXPECT_EQ(alerts().size(), 1U);
    answer(dataPoint, {.bytes = 1000 * oneGibibyte, .freeBytes = 20 * oneGibibyte});
    collect();
    EXPECT_EQ(alerts().size(), 2U);
}

TEST_F(FilesystemCollectorTest, WhatIsUnmountedHasNoAlert) {
    mount(std::string(dataMount) + "2 0 0:9 / /none rw - tmpfs tmpfs rw\n3 0 0:10 / /broken rw - fuse x rw\n");
    answer(dataPoint, {.bytes = 100});
    answer("none", {});
    answer("broken", {.error = ENOTCONN});
    EXPECT_EQ(collect().outcome, QORCollectOutcome::Done);
    EXPECT_EQ(alerts().size(), 2U);
    mount("");
    EXPECT_EQ(collect().outcome, QORCollectOutcome::Done);
    EXPECT_EQ(alerts().back(), alert("space", "cleared", "<mount>/srv/a b\xef\xbf\xbd</mount>"));
    EXPECT_EQ(alerts().size(), 4U);
    EXPECT_EQ(position(), "");
}

TEST_F(FilesystemCollectorTest, AMountThatAnswersWithAnErrorIsAnAlertUntilItAnswersWell) {
    mount("3 0 0:10 / /broken rw - fuse x rw\n");
    const std::string broken = "<mount>/broken</mount><type>fuse</type><device>x</device>";
    std::vector<Row> wanted;
    const auto says = [&](int error) {
        answer("broken", {.error = error});
        EXPECT_EQ(collect().outcome, QORCollectOutcome::Done);
        EXPECT_EQ(alerts(), wanted) << error;
    };
    says(EACCES);  // others may look there
    wanted.push_back(alert("mount", "raised", broken + "<error>Input/output error</error>"));
    says(EIO);
    says(ESTALE);
    EXPECT_EQ(position(), "mount:/broken");
    wanted.push_back(alert("mount", "cleared", broken));
    says(0);
}

TEST_F(FilesystemCollectorTest, WhatTurnsReadOnlyKeepsItsAlerts) {
    mount("1 0 8:1 / /data rw - ext4 /dev/sda1 rw\n2 0 8:2 / /other rw - ext4 /dev/sda2 rw\n");
    answer("data", {.bytes = 100});
    answer("other", {.bytes = 100, .freeBytes = 50});
    collect();
    EXPECT_EQ(alerts().size(), 1U);
    mount("1 0 8:1 / /data ro - ext4 /dev/sda1 ro\n2 0 8:2 / /other ro - ext4 /dev/sda2 ro\n");
    answer("other", {.bytes = 100});
    collect();
    EXPECT_EQ(alerts().size(), 1U) << "nothing has become better, and nobody can fill the other one";
    EXPECT_EQ(position(), "space:/data");
    answer("data", {.bytes = 100, .freeBytes = 50});
    collect();
    EXPECT_EQ(alerts().size(), 2U) << "it is asked as long as it has an alert";
    EXPECT_EQ(position(), "");
}

TEST_F(FilesystemCollectorTest, OfAnotherRootTheMountsThatAreSeenThereAreAsked) {
    std::filesystem::remove_all(m_root / "proc");
    std::filesystem::create_directory_symlink("/proc", m_root / "proc");  // as in a tree that is mounted with its proc
    const auto asked = std::make_shared<std::vector<std::string>>();
    FilesystemCollector asking(
        [asked](const std::string& path) {
            asked->push_back(path);
            return MountRoom{};
        },
        {std::chrono::hours(1), std::chrono::hours(2)});
    EXPECT_EQ(test::runOnce(asking, m_root.path()).outcome, QORCollectOutcome::Done);
    EXPECT_EQ(*asked, std::vector<std::string>{(m_root.path() / "").string()});
}

TEST_F(FilesystemCollectorTest, AMountThatHangsIsAnAlertUntilItComesBack) {
    const auto mounts = std::make_shared<SlowMounts>();
    FilesystemCollector impatient([mounts](const std::string&) { return mounts->ask("/dead"); },
                                  {std::chrono::milliseconds(1), std::chrono::hours(1)});
    mount("1 0 0:9 / /far rw - nfs4 server:/far rw\n");
    for (int run = 0; run < 3; ++run)
        EXPECT_EQ(test::runOnce(impatient, m_root.path()).outcome, QORCollectOutcome::Done);
    while (mounts->asked() == 0)  // the thread that asks may be late
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(mounts->asked(), 1);
    const std::string far = "<mount>/far</mount><type>nfs4</type><device>server:/far</device>";
    EXPECT_EQ(alerts(), std::vector<Row>{alert("mount", "raised", far)});
    EXPECT_EQ(position(), "mount:/far");
    mounts->open();
    while (alerts().size() < 2)
        test::runOnce(impatient, m_root.path());
    EXPECT_EQ(alerts()[1], alert("mount", "cleared", far));
}

}  // namespace
}  // namespace QOR
