#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ingest/ContainerTest.h"
#include "support/ChildProcess.h"
#include "support/UnixHttpServer.h"

namespace QOR {
namespace {

using test::queryRows;
using test::queryText;
using test::Row;
using test::UnixHttpServer;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// The daemon as its clients see it. Texts are those that version 5.0 sends.
class Daemon {
public:
    explicit Daemon(const std::filesystem::path& socket)
        : m_server((std::filesystem::create_directories(socket.parent_path()), socket.string()),
                   [this](const std::string& path) {
                       const std::lock_guard lock(m_mutex);
                       return answer(path);
                   }) {}

    struct Instance {
        std::string name = "web";
        std::string status = "Running";
        std::string started = "2026-01-02T03:04:05.678901234Z";
        std::string project = "default";
        std::string location = "none";
        std::string type = "container";
    };
    void set(std::vector<Instance> instances) {
        const std::lock_guard lock(m_mutex);
        m_instances = std::move(instances);
    }
    void setImages(std::string images) {
        const std::lock_guard lock(m_mutex);
        m_images = std::move(images);
    }
    void setAnswer(std::string path, std::string answer) {
        const std::lock_guard lock(m_mutex);
        m_special = {std::move(path), std::move(answer)};
    }
    void joinCluster() {
        const std::lock_guard lock(m_mutex);
        m_isClustered = true;
    }

private:
    static std::string sync(const std::string& metadata) {
        return UnixHttpServer::ok(
            R"({"type":"sync","status":"Success","status_code":200,"operation":"","error_code":0,"error":"","metadata":)" +
            metadata + "}");
    }
    std::string answer(const std::string& path) const {
        if (!m_special.first.empty() && path.find(m_special.first) != std::string::npos) return m_special.second;
        if (path == "/1.0")
            return sync(std::string(R"({"auth":"trusted","environment":{"server":"lxd","server_name":"one",)"
                                    R"("server_clustered":)") +
                        (m_isClustered ? "true" : "false") + "}}");
        if (path == "/1.0/images?recursion=1&all-projects=true") return sync("[" + m_images + "]");
        if (path == "/1.0/instances?recursion=1&all-projects=true") {
            std::string all;
            for (const Instance& one : m_instances)
                all += (all.empty() ? "" : ",") + instance(one);
            return sync("[" + all + "]");
        }
        for (const Instance& one : m_instances) {
            const std::string own = "/1.0/instances/" + one.name;
            const std::string project = "?project=" + (one.project == "a b" ? "a%20b" : one.project);
            if (path == own + project) return sync(instance(one));
            if (path == own + "/state" + project)
                return sync(R"({"status":"Running","network":{"eth0":{"addresses":[{"family":"inet","address":)"
                            R"("10.1.2.3","netmask":"24","scope":"global"},{"family":"inet6","address":"fe80::1",)"
                            R"("scope":"link"}]},"lo":{"addresses":[{"address":"127.0.0.1","scope":"local"}]}}})");
        }
        return UnixHttpServer::status("404 Not Found");
    }
    static std::string instance(const Instance& one) {
        return R"({"architecture":"x86_64","config":{"user.user-data":"secret"},"description":"the shop","name":")" +
               one.name + R"(","status":")" + one.status + R"(","last_used_at":")" + one.started + R"(","location":")" +
               one.location + R"(","type":")" + one.type + R"(","project":")" + one.project +
               R"(","expanded_config":{"image.description":"Debian bookworm","image.os":"Debian","image.release":)"
               R"("bookworm","limits.cpu":"2","limits.memory":"512MiB","volatile.base_image":"12c3",)"
               R"("user.user-data":"secret","environment.PASSWORD":"secret"}})";
    }

    std::mutex m_mutex;
    std::vector<Instance> m_instances;              // guarded by m_mutex
    std::string m_images;                           // guarded by m_mutex
    std::pair<std::string, std::string> m_special;  // guarded by m_mutex
    bool m_isClustered = false;                     // guarded by m_mutex
    UnixHttpServer m_server;
};

class LxdCollectorTest : public test::ContainerTest {
protected:
    LxdCollectorTest() : ContainerTest(ContainerCollector::Engine::Lxd) {}
    std::filesystem::path socket() const { return m_root / "var/lib/lxd/unix.socket"; }
};

TEST_F(LxdCollectorTest, WithoutASocketThereIsNoSuchSourceAndTheOtherOneIsLookedFor) {
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None);
    Daemon daemon(m_root / "var/snap/lxd/common/lxd/unix.socket");
    daemon.set({{}});
    collectDone();
    EXPECT_EQ(lives(), (std::vector<Row>{{"web", "6", "0"}}));
}

TEST_F(LxdCollectorTest, InstancesAreEnvironmentsBelowTheMachineWithoutTheirSecrets) {
    Daemon daemon(socket());
    daemon.set({{}, {"vm", "Frozen", "2026-01-02T03:04:05Z", "a b", "none", "virtual-machine"}});
    collectDone();
    EXPECT_EQ(queryRows("SELECT title, state, type, ip, memory, boot_time, os_name, os_version FROM \"vEnvironment\" "
                        "ORDER BY title",
                        8),
              (std::vector<Row>{
                  {"vm", "5", "virtual machine", "10.1.2.3", "512", "2026-01-02 03:04:05", "Debian", "bookworm"},
                  {"web", "6", "container", "10.1.2.3", "512", "2026-01-02 03:04:05", "Debian", "bookworm"}}));
    EXPECT_THAT(queryText("SELECT config FROM \"vEnvironment\" WHERE title = 'vm'"),
                AllOf(HasSubstr("<description>the shop</description>"),
                      HasSubstr("<engine>lxd</engine><image>Debian bookworm</image><image_id>12c3</image_id>"
                                "<cpus>2</cpus><project>a b</project>"),
                      Not(HasSubstr("secret"))));
    EXPECT_THAT(operations(), IsEmpty()) << "what was before is no news";
    EXPECT_EQ(collectDone().stored.accepted(), 0U);
}

TEST_F(LxdCollectorTest, WhatHappensToInstancesIsToldOnce) {
    Daemon daemon(socket());
    daemon.set({{}});
    collectDone();
    daemon.set({{"web", "Running", "2026-01-02T04:00:00Z"}});
    collectDone();
    daemon.set({{"web", "Frozen", "2026-01-02T04:00:00Z"}});
    collectDone();
    daemon.set({{"web", "Running", "2026-01-02T04:00:00Z"}});
    collectDone();
    daemon.set({{"web", "Stopped", "2026-01-02T04:00:00Z"}});
    collectDone();
    daemon.set({{"web", "Stopped", "2026-01-02T05:00:00Z"}, {"new", "Running", "2026-01-02T06:00:00Z"}});
    collectDone();
    daemon.set({});
    collectDone();
    std::vector<Row> all{{"restart", "0"}, {"suspend", "0"}, {"resume", "0"}, {"stop", "0"},
                         {"create", "0"},  {"start", "0"},   {"start", "0"},  {"stop", "0"},
                         {"stop", "0"},    {"remove", "0"},  {"remove", "0"}};
    std::vector<Row> told = operations();
    EXPECT_THAT(std::vector<Row>(told.begin(), told.begin() + 4),
                testing::ElementsAreArray(all.begin(), all.begin() + 4));
    EXPECT_THAT(told, testing::UnorderedElementsAreArray(all));
    EXPECT_EQ(queryText("SELECT time FROM \"vOpLog\" WHERE op = 'restart'"), "2026-01-02 04:00:00");
    EXPECT_EQ(lives(), (std::vector<Row>{{"new", "1", "0"}, {"web", "1", "0"}}));
    collectDone();
    EXPECT_EQ(operations(), told);
}

TEST_F(LxdCollectorTest, OfAClusterThoseOfThisMachineAreTold) {
    Daemon daemon(socket());
    daemon.joinCluster();
    daemon.set({{"here", "Running", "", "default", "one"}, {"there", "Running", "", "default", "two"}});
    collectDone();
    EXPECT_EQ(lives(), (std::vector<Row>{{"here", "6", "0"}}));
}

TEST_F(LxdCollectorTest, ImagesThatComeAndGoAreOperationsOfTheMachine) {
    const std::string image =
        R"({"fingerprint":"12c3","aliases":[{"name":"tiny/1"}],"properties":{"description":"tiny","release":"1.35"},)"
        R"("cached":false,"uploaded_at":"2026-01-02T03:04:05Z"})";
    const std::string cached =
        R"({"fingerprint":"9999","aliases":[],"properties":{"description":"Debian bookworm amd64"},"cached":true,)"
        R"("update_source":{"alias":"debian/12","server":"https://images"},"uploaded_at":"2026-01-02T03:04:06Z"})";
    Daemon daemon(socket());
    collectDone();
    daemon.setImages(image + "," + cached);
    collectDone();
    daemon.setImages(cached);
    collectDone();
    collectDone();
    EXPECT_EQ(queryRows("SELECT op, package, version FROM \"vOpLog\" ORDER BY package, op", 3),
              (std::vector<Row>{{"pull", "Debian bookworm amd64", "<null>"},
                                {"delete", "tiny/1", "<null>"},
                                {"import", "tiny/1", "1.35"}}));
    EXPECT_EQ(queryText("SELECT time FROM \"vOpLog\" WHERE op = 'import'"), "2026-01-02 03:04:05");
}

TEST_F(LxdCollectorTest, AnswersThatMakeNoSenseFailAndLeaveWhatWasToldAsItIs) {
    Daemon daemon(socket());
    daemon.set({{}});
    collectDone();
    for (const auto& [path, answer] : std::vector<std::pair<std::string, std::string>>{
             {"/1.0", UnixHttpServer::ok("[]")},
             {"/1.0", UnixHttpServer::ok(R"({"metadata":{"auth":"untrusted"}})")},
             {"/1.0", "nonsense\r\n\r\n"},
             {"/instances?", UnixHttpServer::ok(R"({"metadata":{}})")},
             {"/instances?", UnixHttpServer::ok("{\"metadata\":[{\"name\":\"\xff\"}]}")},
             {"/instances?", UnixHttpServer::status("500 Oops")},
             {"/images?", UnixHttpServer::ok(std::string(200, '['))}}) {
        daemon.setAnswer(path, answer);
        EXPECT_EQ(collect().outcome, QORCollectOutcome::Failed) << path << " " << answer;
        EXPECT_EQ(lives(), (std::vector<Row>{{"web", "6", "0"}}));
    }
    daemon.setAnswer("", "");
    EXPECT_EQ(collectDone().stored.accepted(), 0U);
    daemon.set({{"../../1.0"}, {}});
    const QORCollectResult result = collectDone();
    EXPECT_EQ(result.malformed, 1U);
}

TEST_F(LxdCollectorTest, AnInstanceThatCannotBeLookedAtIsToldWhenItCan) {
    Daemon daemon(socket());
    collectDone();
    daemon.set({{}});
    daemon.setAnswer("/state", UnixHttpServer::status("500 Oops"));
    EXPECT_EQ(collect().outcome, QORCollectOutcome::Failed);
    EXPECT_THAT(operations(), IsEmpty());
    daemon.setAnswer("", "");
    collectDone();
    EXPECT_EQ(operations(), (std::vector<Row>{{"create", "0"}, {"start", "0"}}));
}

/// A daemon as it is, with a store of its own, whose mounts are nobody else's.
class RealLxd {
public:
    explicit RealLxd(const std::filesystem::path& folder)
        : m_folder(folder),
          m_daemon({"/usr/bin/unshare", "-m", "/usr/bin/env", "LXD_DIR=" + folder.string(), "/usr/bin/lxd", "--group",
                    "root"}) {}
    ~RealLxd() {
        m_daemon.signal(SIGTERM);
        m_daemon.wait();
    }
    std::pair<int, std::string> run(const std::vector<std::string>& more) const {
        std::vector<std::string> command{"/usr/bin/env", "LXD_DIR=" + m_folder.string(),
                                         "LXD_CONF=" + (m_folder / "client").string(), "/usr/bin/lxc"};
        command.insert(command.end(), more.begin(), more.end());
        test::ChildProcess child(command);
        const int status = child.wait();
        return {status, child.output()};
    }
    bool isReady() const {
        for (int tries = 0; tries < 600 && ::kill(m_daemon.pid(), 0) == 0; ++tries) {
            if (std::filesystem::exists(m_folder / "unix.socket") && run({"list"}).first == 0) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }

private:
    const std::filesystem::path m_folder;
    test::ChildProcess m_daemon;
};

TEST_F(LxdCollectorTest, ARealLxdIsUnderstood) {
    if (::geteuid() != 0 || !std::filesystem::exists("/usr/bin/lxd") || !std::filesystem::exists("/bin/busybox"))
        GTEST_SKIP() << "there is no LXD for root here";
    std::filesystem::create_directories(m_root / "var/lib/lxd");
    const RealLxd lxd(m_root / "var/lib/lxd");
    if (!lxd.isReady() || lxd.run({"storage", "create", "default", "dir"}).first != 0)
        GTEST_SKIP() << "LXD does not work here";
    collectDone();
    write("image/metadata.yaml",
          "architecture: x86_64\ncreation_date: 1700000000\nproperties:\n  description: tiny\n  os: busybox\n  "
          "release: \"1.35\"\n");
    write("image/rootfs/etc/hostname", "tiny\n");
    std::filesystem::create_directories(m_root / "image/rootfs/sbin");
    std::filesystem::copy("/bin/busybox", m_root / "image/rootfs/sbin/init");
    const std::string archive = (m_root / "image.tar").string();
    test::ChildProcess tar({"/bin/tar", "-C", (m_root / "image").string(), "-cf", archive, "."});
    ASSERT_EQ(tar.wait(), 0);
    ASSERT_EQ(lxd.run({"image", "import", archive, "--alias", "tiny/1"}).first, 0);
    const auto [status, output] =
        lxd.run({"init", "tiny/1", "web", "--storage", "default", "-c", "limits.memory=64MiB"});
    ASSERT_EQ(status, 0) << output;
    collectDone();
    EXPECT_EQ(queryRows("SELECT title, state, memory, os_name, os_version FROM \"vEnvironment\"", 5),
              (std::vector<Row>{{"web", "3", "64", "busybox", "1.35"}}));
    EXPECT_EQ(operations(), (std::vector<Row>{{"create", "0"}, {"import", "0"}}));
    EXPECT_EQ(queryText("SELECT package FROM \"vOpLog\" WHERE op = 'import'"), "tiny/1");
    const auto [deleted, why] = lxd.run({"delete", "web"});
    ASSERT_EQ(deleted, 0) << why;
    ASSERT_EQ(lxd.run({"image", "delete", "tiny/1"}).first, 0);
    collectDone();
    EXPECT_EQ(lives(), (std::vector<Row>{{"web", "1", "0"}}));
    EXPECT_THAT(operations(), AllOf(Contains(Row{"remove", "0"}), Contains(Row{"delete", "0"})));
}

}  // namespace
}  // namespace QOR
