// Records whose answer was lost: they are sent again, and stored once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "support/AgentProcess.h"
#include "support/HttpClient.h"

namespace QOR {
namespace {

using test::AgentProcess;
using test::HttpClient;
using testing::HasSubstr;

std::string event(int number) {
    return R"({"kind":"event","time":)" + std::to_string(number) + R"(,"category":"env_status"})" + "\n";
}

std::string countedEvents(const AgentProcess& agent) {
    return HttpClient(agent.socketPath())
        .message(
            R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],[1741,"id"],[1377,[[1024,"1"]]],[1259]]]})");
}

/// Stands between a client and the agent, and loses the first answers: the agent has given them, the client sees its
/// connection end.
class LossyWay {
public:
    LossyWay(std::string path, std::string agent, int lost)
        : m_agent(std::move(agent)), m_lost(lost), m_listener(socketAt(path, true)) {
        m_thread = std::thread([this] { serve(); });
    }
    ~LossyWay() {
        m_stop = true;
        m_thread.join();
        ::close(m_listener);
    }
    LossyWay(const LossyWay&) = delete;
    LossyWay& operator=(const LossyWay&) = delete;

    int answersLost() const { return m_answersLost; }

private:
    static int socketAt(const std::string& path, bool listens) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size());
        const auto* const name = reinterpret_cast<const sockaddr*>(&address);
        if ((listens ? ::bind(fd, name, sizeof address) : ::connect(fd, name, sizeof address)) != 0 ||
            (listens && ::listen(fd, 8) != 0)) {
            throw std::runtime_error("cannot use " + path);
        }
        return fd;
    }

    bool isReady(int first, int second, std::array<bool, 2>& ready) const {
        std::array<pollfd, 2> waiting{pollfd{first, POLLIN, 0}, pollfd{second, POLLIN, 0}};
        if (::poll(waiting.data(), second < 0 ? 1 : 2, 20) < 0) return false;
        ready = {waiting[0].revents != 0, second >= 0 && waiting[1].revents != 0};
        return !m_stop;
    }

    void serve() {
        std::array<bool, 2> ready{};
        while (isReady(m_listener, -1, ready)) {
            if (!ready[0]) continue;
            const int client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            const int agent = socketAt(m_agent, false);
            relay(client, agent);
            ::close(client);
            ::close(agent);
        }
    }

    void relay(int client, int agent) {
        std::array<bool, 2> ready{};
        std::array<char, 65536> bytes{};
        while (isReady(client, agent, ready)) {
            if (ready[1]) {
                const ssize_t size = ::read(agent, bytes.data(), bytes.size());
                if (size > 0 && m_answersLost < m_lost) {
                    ++m_answersLost;
                    return;
                }
                if (size <= 0 || ::write(client, bytes.data(), static_cast<std::size_t>(size)) != size) return;
            }
            if (ready[0]) {
                const ssize_t size = ::read(client, bytes.data(), bytes.size());
                if (size <= 0 || ::write(agent, bytes.data(), static_cast<std::size_t>(size)) != size) return;
            }
        }
    }

    const std::string m_agent;
    const int m_lost;
    const int m_listener;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_answersLost{0};
    std::thread m_thread;
};

TEST(AgentRepeat, RecordsUnderAKeyAreStoredOnce) {
    AgentProcess agent;
    const auto send = [&](const std::string& lines, const std::string& key) {
        return HttpClient(agent.socketPath()).request("POST", "/v1/records", lines, "Idempotency-Key: " + key + "\r\n");
    };
    const auto first = send(event(1) + event(2), "a-1");
    EXPECT_THAT(first.body, HasSubstr(R"("accepted":2)"));
    EXPECT_EQ(send(event(1) + event(2), "a-1").body, first.body);
    agent.kill();
    agent.start();
    EXPECT_EQ(send(event(1) + event(2), "a-1").body, first.body) << "the agent was started again";
    EXPECT_THAT(countedEvents(agent), HasSubstr(R"([1040,"2"])"));

    const auto other = send(event(3), "a-1");
    EXPECT_EQ(other.status, 422);
    EXPECT_THAT(other.body, HasSubstr("another content"));
    EXPECT_EQ(send(event(3), "").status, 400);
    EXPECT_EQ(send(event(3), "two words").status, 400);
    EXPECT_THAT(send(event(3), "a-2").body, HasSubstr(R"("accepted":1)"));
    EXPECT_THAT(countedEvents(agent), HasSubstr(R"([1040,"3"])"));
}

TEST(AgentRepeat, AnImportWhoseAnswersAreLostStoresEachRecordOnce) {
    const AgentProcess agent;
    const std::string way = (agent.directory() / "way.sock").string();
    const LossyWay lossy(way, agent.socketPath(), 3);
    const std::string file = (agent.directory() / "events.ndjson").string();
    {
        std::ofstream lines(file);
        for (int number = 0; number < 4500; ++number)
            lines << event(number);
    }
    const auto [status, output] =
        test::runProgram({(test::programDirectory() / "qorctl").string(), "import", "--socket", way, file});
    EXPECT_EQ(status, 0) << output;
    EXPECT_THAT(output, HasSubstr("event: 4500 added"));
    EXPECT_EQ(lossy.answersLost(), 3);
    EXPECT_THAT(countedEvents(agent), HasSubstr(R"([1040,"4500"])"));
}

TEST(AgentRepeat, AnImportGoesOnWhenTheAgentIsStartedAgain) {
    AgentProcess agent;
    const std::string file = (agent.directory() / "events.ndjson").string();
    {
        std::ofstream lines(file);
        for (int number = 0; number < 60000; ++number)
            lines << event(number);
    }
    test::ChildProcess import(
        {(test::programDirectory() / "qorctl").string(), "import", "--socket", agent.socketPath(), file});
    while (countedEvents(agent).find(R"([1040,"0"])") != std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    agent.kill();
    agent.start();
    EXPECT_EQ(import.wait(), 0) << import.output();
    EXPECT_THAT(import.output(), HasSubstr("event: 60000 added"));
    EXPECT_THAT(countedEvents(agent), HasSubstr(R"([1040,"60000"])"));
}

}  // namespace
}  // namespace QOR
