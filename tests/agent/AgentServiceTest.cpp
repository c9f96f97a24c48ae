// A real agent under a service manager, whose side of the protocols the test takes.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "support/ChildProcess.h"
#include "support/HttpClient.h"
#include "support/TemporaryDirectory.h"

namespace QOR {
namespace {

using test::ChildProcess;
using test::HttpClient;
using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
    return address;
}

template <class Address>
void bindTo(int socket, const Address& address) {
    if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error(std::string("cannot bind: ") + std::strerror(errno));
}

class AgentServiceTest : public ::testing::Test {
protected:
    AgentServiceTest() : m_manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        bindTo(m_manager, addressOf(m_folder.file("notify")));
    }
    ~AgentServiceTest() override {
        if (m_manager >= 0) ::close(m_manager);
    }

    /// What the agent tells next.
    std::string told() const {
        char text[4096];
        const ssize_t size = ::recv(m_manager, text, sizeof text, 0);
        return size < 0 ? std::string() : std::string(text, static_cast<std::size_t>(size));
    }
    std::string toldOf(const std::string& what) const {
        std::string text = told();
        while (text.find(what) == std::string::npos)
            text = told();
        return text;
    }
    /// A shell's line that becomes the agent, with these words in front of it and behind it.
    std::string command(const std::string& before, const std::string& more, const std::string& behind = {}) const {
        return before + " exec '" + (test::programDirectory() / "qor-agent").string() + "' --database '" +
               m_folder.file("agent.db") + "' " + more + ' ' + behind;
    }
    std::string notified() const { return "NOTIFY_SOCKET='" + m_folder.file("notify") + "'"; }
    std::string own() const { return "--socket '" + m_folder.file("agent.sock") + "'"; }

    test::TemporaryDirectory m_folder;
    int m_manager;
};

TEST_F(AgentServiceTest, TheManagerIsToldWhenClientsMayComeWhatIsReloadedAndThatItStops) {
    std::ofstream(m_folder.file("agent.toml")) << "threads = 2\n";
    ChildProcess agent(
        {"bash", "-c", command(notified(), own() + " --settings '" + m_folder.file("agent.toml") + "'")});
    EXPECT_EQ(told(), "READY=1\nSTATUS=the settings hold");
    EXPECT_EQ(HttpClient(m_folder.file("agent.sock")).get("/health/live").status, 200);
    std::ofstream(m_folder.file("agent.toml")) << "listen = ['unix:/nowhere']\n";
    agent.signal(SIGHUP);
    EXPECT_THAT(told(), MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+\nSTATUS=.*"));
    EXPECT_EQ(told(), "READY=1\nSTATUS=a restart is needed for listen");
    std::ofstream(m_folder.file("agent.toml")) << "listen = 1\nthreads = 0\n";
    agent.signal(SIGHUP);
    EXPECT_THAT(told(), StartsWith("RELOADING=1"));
    EXPECT_THAT(told(), AllOf(StartsWith("READY=1\nSTATUS=the settings stay as they were: "), HasSubstr(":1:10: ")));
    // The manager throws away what is longer than 4096 bytes, and would wait for ever.
    std::ofstream many(m_folder.file("agent.toml"));
    for (int i = 0; i < 200; ++i)
        many << "unknown-" << i << " = 1\n";
    many.close();
    agent.signal(SIGHUP);
    EXPECT_THAT(told(), StartsWith("RELOADING=1"));
    const std::string cut = told();
    EXPECT_THAT(cut, StartsWith("READY=1\nSTATUS=the settings stay as they were: "));
    EXPECT_LT(cut.size(), 2000U);
    agent.signal(SIGTERM);
    EXPECT_EQ(told(), "STOPPING=1\nSTATUS=stopping");
    EXPECT_EQ(agent.wait(), 0) << agent.output();
}

TEST_F(AgentServiceTest, ItsWatchdogHearsOfTheThreadThatServes) {
    ChildProcess agent({"bash", "-c", command(notified() + " WATCHDOG_USEC=20000", own())});
    toldOf("WATCHDOG=1");
    toldOf("WATCHDOG=1");
    agent.signal(SIGTERM);
    toldOf("STOPPING=1");
    // It goes on telling until it ends, and would wait for somebody who does not listen.
    ::close(std::exchange(m_manager, -1));
    EXPECT_EQ(agent.wait(), 0) << agent.output();
}

TEST_F(AgentServiceTest, SocketsThatListenAlreadyAreServedAndStay) {
    // Descriptors that the shell's own do not meet.
    constexpr int beyond = 20;
    const int local = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int tcp = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bindTo(local, addressOf(m_folder.file("handed.sock")));
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bindTo(tcp, loopback);
    ::listen(local, SOMAXCONN);
    ::listen(tcp, SOMAXCONN);
    const int first = ::fcntl(local, F_DUPFD, beyond);
    const int second = ::fcntl(tcp, F_DUPFD, beyond);
    ::close(local);
    ::close(tcp);
    socklen_t size = sizeof loopback;
    ASSERT_EQ(::getsockname(second, reinterpret_cast<sockaddr*>(&loopback), &size), 0);
    const int port = ntohs(loopback.sin_port);
    ChildProcess agent({"bash", "-c",
                        command("export LISTEN_PID=$$ LISTEN_FDS=2;", "",
                                "3<&" + std::to_string(first) + " 4<&" + std::to_string(second))});
    ::close(first);
    ::close(second);
    ASSERT_TRUE(agent.waitForLine("qor-agent listening on http://127.0.0.1:" + std::to_string(port))) << agent.output();
    EXPECT_THAT(agent.output(), HasSubstr("qor-agent listening on " + m_folder.file("handed.sock") + "\n"));
    EXPECT_THAT(agent.output(), Not(HasSubstr("/run/")));
    EXPECT_EQ(HttpClient(m_folder.file("handed.sock")).get("/v1/views").status, 200);
    EXPECT_EQ(HttpClient(test::connectTcp("127.0.0.1", port)).get("/v1/views").status, 401);
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait(), 0) << agent.output();
    EXPECT_TRUE(std::filesystem::exists(m_folder.file("handed.sock"))) << "it is the manager's";
}

TEST_F(AgentServiceTest, PlainHttpForOtherMachinesIsRefusedOnASocketThatListensAlready) {
    constexpr int beyond = 20;
    const int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in everywhere{};
    everywhere.sin_family = AF_INET;
    bindTo(made, everywhere);
    ::listen(made, SOMAXCONN);
    const int handed = ::fcntl(made, F_DUPFD, beyond);
    ::close(made);
    socklen_t size = sizeof everywhere;
    ASSERT_EQ(::getsockname(handed, reinterpret_cast<sockaddr*>(&everywhere), &size), 0);
    const std::string address = "http://0.0.0.0:" + std::to_string(ntohs(everywhere.sin_port));
    ChildProcess agent({"bash", "-c",
                        command("export LISTEN_PID=$$ LISTEN_FDS=1;", own() + " --listen " + address,
                                "3<&" + std::to_string(handed))});
    ::close(handed);
    EXPECT_EQ(agent.wait(), 1);
    EXPECT_THAT(agent.output(),
                HasSubstr("cannot listen at " + address + ": plain http is for this machine's own programs"));
}

TEST_F(AgentServiceTest, TheJournalIsToldPrioritiesAndAFileTheTime) {
    const std::string journal = m_folder.file("journal");
    ChildProcess agent(
        {"bash", "-c",
         command("exec 2>'" + journal + "'; export JOURNAL_STREAM=$(stat -c %d:%i '" + journal + "');", own())});
    ASSERT_TRUE(agent.waitForLine("qor-agent listening on ")) << agent.output();
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait(), 0) << agent.output();
    std::ifstream file(journal);
    const std::string lines{std::istreambuf_iterator<char>(file), {}};
    EXPECT_THAT(lines, HasSubstr("<5>2 QORAgent qor/agent/main serve: listening on "));
    EXPECT_THAT(lines, Not(HasSubstr("+0000 2 QORAgent")));
}

}  // namespace
}  // namespace QOR
