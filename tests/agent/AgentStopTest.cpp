// How the daemon ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "agent/ProbeAgent.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"

namespace QOR {
namespace {

using test::AgentProcess;
using test::HttpAnswer;
using test::HttpClient;
using test::withProbe;
using testing::HasSubstr;
using testing::Not;

std::string sleepRequest(const std::string& milliseconds) {
    return HttpClient::compose("POST", "/v1/messages",
                               R"({"operator":"probe","request":"sleep","body":[1740,")" + milliseconds + R"("]})");
}

/// Answered when the file is there.
std::string waitRequest(const std::filesystem::path& file) {
    return HttpClient::compose("POST", "/v1/messages",
                               R"({"operator":"probe","request":"wait","body":[1740,")" + file.string() + R"("]})");
}

void awaitLog(const AgentProcess& agent, const std::string& text) {
    while (agent.log().find(text) == std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

void expectCleanEnd(AgentProcess& agent) {
    EXPECT_EQ(agent.wait(), 0) << agent.output() << agent.log();
    EXPECT_FALSE(std::filesystem::exists(agent.socketPath()));
    EXPECT_FALSE(std::filesystem::exists(agent.socketPath() + ".lock"));
    EXPECT_THAT(agent.log(), HasSubstr("probe unloaded"));
}

TEST(AgentStop, BothTerminationSignalsEndItCleanly) {
    for (const int signal : {SIGTERM, SIGINT}) {
        AgentProcess agent(withProbe());
        agent.signal(signal);
        expectCleanEnd(agent);
    }
}

TEST(AgentStop, IdleClientsDoNotDelayTheEndAndAreDisconnected) {
    AgentProcess agent(withProbe());
    HttpClient client(agent.socketPath());
    client.message(R"({"operator":"probe","request":"count","body":[1740]})");
    agent.signal(SIGTERM);
    expectCleanEnd(agent);
    EXPECT_TRUE(client.isClosed());
    EXPECT_THAT(agent.log(), HasSubstr("probe disconnected after 1 requests"));
}

TEST(AgentStop, ARequestInFlightIsAnsweredAndLaterOnesAreRefused) {
    AgentProcess agent(withProbe({"--grace", "600"}));
    HttpClient open(agent.socketPath());
    open.get("/v1/health");
    HttpClient slow(agent.socketPath());
    const std::filesystem::path end = agent.directory() / "end";
    slow.send(waitRequest(end));
    awaitLog(agent, "probe waits");
    agent.signal(SIGTERM);
    awaitLog(agent, "stopping; 1 requests are in flight");
    const HttpAnswer refused = open.get("/v1/health");
    EXPECT_EQ(refused.status, 503);
    EXPECT_EQ(refused.headers.at("connection"), "close");
    EXPECT_THAT(refused.body, HasSubstr("the agent is stopping"));
    EXPECT_THROW(HttpClient(agent.socketPath()), std::runtime_error) << "new connections are not taken";
    std::ofstream(end) << "";
    const HttpAnswer answer = slow.receive();
    EXPECT_EQ(answer.status, 200);
    EXPECT_THAT(answer.body, HasSubstr("waited"));
    expectCleanEnd(agent);
}

TEST(AgentStop, DisconnectsComeBeforeThePlugInIsUnloaded) {
    AgentProcess agent(withProbe());
    HttpClient client(agent.socketPath());
    client.message(R"({"operator":"probe","request":"count","body":[1740]})");
    agent.stop();
    const std::string log = agent.log();
    EXPECT_LT(log.find("probe disconnected"), log.find("probe unloaded"));
}

TEST(AgentStop, ARequestThatOutlastsTheGraceIsGivenUp) {
    AgentProcess agent(withProbe({"--grace", "0"}));
    HttpClient slow(agent.socketPath());
    slow.send(sleepRequest("600000"));
    awaitLog(agent, "probe sleeps");
    EXPECT_EQ(agent.stop(), 1);
    EXPECT_FALSE(std::filesystem::exists(agent.socketPath()));
    EXPECT_THAT(agent.log(), HasSubstr("1 requests are given up"));
    EXPECT_THAT(agent.log(), Not(HasSubstr("probe unloaded")));
}

TEST(AgentStop, ARequestWhoseClientHasGoneIsNotWaitedForAnyLonger) {
    AgentProcess agent(withProbe({"--grace", "0"}));
    {
        HttpClient slow(agent.socketPath());
        slow.send(sleepRequest("600000"));
        awaitLog(agent, "probe sleeps");
    }
    HttpClient(agent.socketPath()).get("/v1/health");
    EXPECT_EQ(agent.stop(), 1);
}

TEST(AgentStop, ASecondSignalEndsTheGrace) {
    AgentProcess agent(withProbe());
    HttpClient slow(agent.socketPath());
    slow.send(sleepRequest("600000"));
    awaitLog(agent, "probe sleeps");
    agent.signal(SIGTERM);
    awaitLog(agent, "stopping;");
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait(), 1);
}

TEST(AgentStop, AClientThatHangsUpDuringItsAnswerIsNoReasonToEnd) {
    AgentProcess agent(withProbe({"--grace", "600"}));
    for (int client = 0; client < 5; ++client) {
        HttpClient hasty(agent.socketPath());
        hasty.send(HttpClient::compose("POST", "/v1/messages",
                                       R"({"operator":"probe","request":"rows","body":[1740,"100000"]})"));
    }
    EXPECT_EQ(HttpClient(agent.socketPath()).get("/v1/health").status, 200);
    EXPECT_EQ(agent.stop(), 0);
}

}  // namespace
}  // namespace QOR
