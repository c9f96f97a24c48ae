// What signals do to a real agent: whatever comes, it answers, and it can be stopped.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/AgentProcess.h"
#include "support/HttpClient.h"

namespace QOR {
namespace {

using test::AgentProcess;
using test::HttpClient;

std::string contentsOf(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void awaitText(const std::filesystem::path& path, const std::string& text) {
    while (contentsOf(path).find(text) == std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

void expectAnswers(const AgentProcess& agent, const std::string& after) {
    EXPECT_EQ(HttpClient(agent.socketPath()).get("/v1/health").status, 200) << after;
    EXPECT_EQ(HttpClient(agent.socketPath())
                  .message(R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vOpLog"],[1741,"id"]]]})"),
              R"({"response":[[1744,[[1026,"id"]]]]})")
        << after;
}

/// All that would end or stop a program by default, but for those that end this one and those of faults.
std::vector<int> signalsToOutlive() {
    std::vector<int> signals{SIGHUP,  SIGPIPE, SIGALRM, SIGUSR1,  SIGUSR2,   SIGSTKFLT, SIGTSTP,
                             SIGTTIN, SIGTTOU, SIGXCPU, SIGXFSZ,  SIGVTALRM, SIGPROF,   SIGIO,
                             SIGPWR,  SIGCHLD, SIGURG,  SIGWINCH, SIGCONT};
    for (int number = SIGRTMIN; number <= SIGRTMAX; ++number)
        signals.push_back(number);
    return signals;
}

TEST(AgentSignals, EachLeavesItAnsweringAndStoppable) {
    for (const int number : signalsToOutlive()) {
        const std::string name = "signal " + std::to_string(number);
        AgentProcess agent;
        agent.signal(number);
        expectAnswers(agent, name);
        EXPECT_EQ(agent.stop(), 0) << name << agent.log();
    }
}

TEST(AgentSignals, AllOfThemAtOnceOverAndOverDoNot) {
    AgentProcess agent;
    for (int round = 0; round < 20; ++round) {
        for (const int number : signalsToOutlive())
            agent.signal(number);
    }
    expectAnswers(agent, "all");
    EXPECT_EQ(agent.stop(), 0) << agent.log();
}

TEST(AgentSignals, TermIntAndQuitStopIt) {
    for (const int number : {SIGTERM, SIGINT, SIGQUIT}) {
        AgentProcess agent;
        agent.signal(SIGUSR1);
        agent.signal(number);
        EXPECT_EQ(agent.wait(), 0) << number << agent.log();
    }
}

TEST(AgentSignals, OnesThatMeanNothingAreLogged) {
    AgentProcess agent;
    agent.signal(SIGUSR1);
    awaitText(agent.directory() / "agent.log", "signal 10 (User defined signal 1) means nothing to the agent");
}

TEST(AgentSignals, HupOpensTheLogAnewAfterItWasMoved) {
    AgentProcess agent;
    const std::filesystem::path log = agent.directory() / "agent.log";
    std::filesystem::rename(log, agent.directory() / "agent.log.1");
    agent.signal(SIGUSR2);
    awaitText(agent.directory() / "agent.log.1", "signal 12");
    EXPECT_FALSE(std::filesystem::exists(log)) << "it writes to the file that it has open";
    agent.signal(SIGHUP);
    awaitText(log, "the log has been opened anew");
    agent.signal(SIGUSR1);
    awaitText(log, "signal 10");
    EXPECT_EQ(contentsOf(agent.directory() / "agent.log.1").find("signal 10"), std::string::npos);
}

TEST(AgentSignals, AfterAHupThatFindsNoPlaceForItTheOldLogIsWrittenOn) {
    AgentProcess agent;
    const std::filesystem::path log = agent.directory() / "agent.log";
    const std::filesystem::path moved = agent.directory() / "agent.log.1";
    std::filesystem::rename(log, moved);
    std::filesystem::create_directory(log);
    agent.signal(SIGHUP);
    awaitText(moved, "the old one is written on");
    expectAnswers(agent, "HUP");
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentSignals, AFileThatMayNotGrowIsAFullDiskAndNotTheEnd) {
    AgentProcess agent;
    rlimit limit{};
    ASSERT_EQ(::prlimit(agent.pid(), RLIMIT_FSIZE, nullptr, &limit), 0);
    limit.rlim_cur = 1;
    ASSERT_EQ(::prlimit(agent.pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
    const std::string event = R"({"kind":"event","time":1,"source":"s","category":"c"})";
    const std::string answer = HttpClient(agent.socketPath()).post("/v1/records", event).body;
    EXPECT_NE(answer.find("\"failure\""), std::string::npos) << answer;
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(::prlimit(agent.pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
    const std::string later = HttpClient(agent.socketPath()).post("/v1/records", event).body;
    EXPECT_NE(later.find("\"accepted\":1"), std::string::npos) << later;
    EXPECT_EQ(agent.stop(), 0);
}

}  // namespace
}  // namespace QOR
