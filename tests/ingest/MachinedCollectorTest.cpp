#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
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
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* machinedProgram = "/lib/systemd/systemd-machined";
constexpr const char* busProgram = "/usr/bin/dbus-daemon";

/// A bus of its own, and the service on it with folders of its own for what it knows of machines and images.
class MachinedCollectorTest : public test::ContainerTest {
protected:
    MachinedCollectorTest() : ContainerTest(ContainerCollector::Engine::Machined) {
        std::filesystem::create_directories(m_root / "run/dbus");
        std::filesystem::create_directories(m_root / "known/machines");
        std::filesystem::create_directories(m_root / "images");
    }

    std::filesystem::path socket() const { return m_root / "run/dbus/system_bus_socket"; }
    void startBus() {
        write("bus.conf",
              "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\" "
              "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\"><busconfig><type>system</type>"
              "<listen>unix:path=" +
                  socket().string() +
                  "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/><allow "
                  "own=\"*\"/><allow send_destination=\"*\"/><allow receive_sender=\"*\"/></policy>"
                  "</busconfig>");
        m_bus = std::make_unique<test::ChildProcess>(
            std::vector<std::string>{busProgram, "--config-file=" + (m_root / "bus.conf").string(), "--nofork",
                                     "--nopidfile", "--print-address"});
        ASSERT_TRUE(m_bus->waitForLine("unix:"));
    }
    /// As the service keeps it for when it is started anew.
    void know(const std::string& name, const std::string& realtime,
              const std::string& service = "systemd-nspawn") const {
        write("known/machines/" + name,
              "NAME=" + name + "\nCLASS=container\nSERVICE=" + service + "\nUNIT=machine-" + name +
                  ".scope\nSCOPE=machine-" + name + ".scope\nLEADER=" + std::to_string(::getpid()) +
                  "\nROOT=/var/lib/machines/" + name + "\nREALTIME=" + realtime + "\nMONOTONIC=1000000\n");
    }
    /// \returns false where that may not be done
    bool startMachined() {
        m_machined.reset();
        const std::string bind = "mkdir -p /run/systemd && mount --bind " + (m_root / "known").string() +
                                 " /run/systemd && mount --bind " + (m_root / "images").string() +
                                 " /var/lib/machines && exec " + machinedProgram;
        m_machined = std::make_unique<test::ChildProcess>(
            std::vector<std::string>{"/usr/bin/unshare", "-m", "/usr/bin/env",
                                     "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + socket().string(), "/bin/sh", "-c", bind});
        for (int tries = 0; tries < 500; ++tries) {
            if (collect().outcome == QORCollectOutcome::Done) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    void endMachined() {
        m_machined->signal(SIGTERM);
        m_machined->wait();
    }
    static bool isPossible() {
        return ::geteuid() == 0 && std::filesystem::exists(machinedProgram) && std::filesystem::exists(busProgram);
    }

    std::unique_ptr<test::ChildProcess> m_bus;
    std::unique_ptr<test::ChildProcess> m_machined;
};

TEST_F(MachinedCollectorTest, WithoutABusOrWithoutTheServiceThereIsNoSuchSource) {
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None);
    if (!std::filesystem::exists(busProgram)) GTEST_SKIP() << "there is no bus here";
    startBus();
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None);
}

TEST_F(MachinedCollectorTest, MachinesOfARealServiceAreEnvironmentsAndTheirLivesOperations) {
    if (!isPossible()) GTEST_SKIP() << "there is no service of machines for root here";
    startBus();
    know("web", "1767323045000000");
    know("domain", "1767323045000000", "libvirt-qemu");
    std::filesystem::create_directories(m_root / "images/job");
    std::filesystem::create_directories(m_root / "images/.on-its-way");
    if (!startMachined()) GTEST_SKIP() << "the service of machines does not work here: " << m_machined->output();
    EXPECT_EQ(lives(), (std::vector<Row>{{"job", "3", "0"}, {"web", "6", "0"}}));
    EXPECT_EQ(queryRows("SELECT type, boot_time FROM \"vEnvironment\" WHERE title = 'web'", 2),
              (std::vector<Row>{{"container", "2026-01-02 03:04:05"}}));
    EXPECT_THAT(queryText("SELECT config FROM \"vEnvironment\" WHERE title = 'web'"),
                AllOf(HasSubstr("<engine>machined</engine>"), HasSubstr("<service>systemd-nspawn</service>"),
                      HasSubstr("<root>/var/lib/machines/web</root>")));
    EXPECT_THAT(operations(), IsEmpty()) << "what was before is no news";
    EXPECT_EQ(collectDone().stored.accepted(), 0U);

    endMachined();
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None) << "it cannot be started on this bus";
    EXPECT_EQ(lives(), (std::vector<Row>{{"job", "3", "0"}, {"web", "6", "0"}}));
    know("web", "1767326645000000");
    know("job", "1767330245000000");
    ASSERT_TRUE(startMachined());
    std::vector<Row> told{{"restart", "0"}, {"start", "0"}};
    EXPECT_THAT(operations(), testing::UnorderedElementsAreArray(told));
    EXPECT_EQ(queryText("SELECT time FROM \"vOpLog\" WHERE op = 'restart'"), "2026-01-02 04:04:05");

    endMachined();
    std::filesystem::remove(m_root / "known/machines/web");
    std::filesystem::remove(m_root / "known/machines/job");
    std::filesystem::create_directories(m_root / "images/new");
    ASSERT_TRUE(startMachined());
    EXPECT_EQ(lives(), (std::vector<Row>{{"job", "3", "0"}, {"new", "3", "0"}, {"web", "1", "0"}}));
    for (const char* const op : {"stop", "stop", "remove", "create"})
        told.push_back({op, "0"});
    EXPECT_THAT(operations(), testing::UnorderedElementsAreArray(told));
    endMachined();
}

TEST_F(MachinedCollectorTest, ABusThatSaysNothingFailsAndAStopIsHeard) {
    const UnixHttpServer silent(socket().string(), [](const std::string&) { return std::string(); });
    std::stop_source stop;
    std::thread stopping([&stop] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        stop.request_stop();
    });
    const QORCollectResult result = runCollector(m_collector, {.root = m_root.path(), .ingest = {}}, stop.get_token());
    stopping.join();
    EXPECT_EQ(result.stored.accepted(), 0U);
}

TEST_F(MachinedCollectorTest, ABusThatSpeaksNonsenseFails) {
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket().string().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    std::thread talking([listener] {
        const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const std::string nonsense = "OK nonsense\r\nAGREE_UNIX_FD\r\n" + std::string(64, '\xff');
        ::send(client, nonsense.data(), nonsense.size(), MSG_NOSIGNAL);
        ::shutdown(client, SHUT_WR);
        char byte = 0;
        while (::recv(client, &byte, 1, 0) > 0) {
        }
        ::close(client);
    });
    const QORCollectResult result = collect();
    talking.join();
    ::close(listener);
    EXPECT_EQ(result.outcome, QORCollectOutcome::Failed);
    EXPECT_THAT(result.text, HasSubstr("ListMachines: "));
}

}  // namespace
}  // namespace QOR
