// What requests may hold of the agent's memory, and that they give it back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "QORMessage/QORNotation.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/LargeView.h"
#include "support/LongTexts.h"
#include "support/ResidentMemory.h"

namespace QOR {
namespace {

using namespace std::chrono_literals;
using test::AgentProcess;
using test::AgentSettings;
using test::filterRequest;
using test::HttpClient;
using test::repeatedToBytes;
using testing::HasSubstr;

constexpr std::size_t mebi = std::size_t{1} << 20;

AgentSettings settings(std::vector<std::string> more) {
    AgentSettings settings;
    settings.more = std::move(more);
    return settings;
}

/// A request of many elements, none of which means anything.
std::string elements(std::size_t bytes) {
    return R"({"operator":"pager2","request":"select","body":[1740,[[1])" + repeatedToBytes(",[1]", bytes) + "]]}";
}

std::string messageOf(const std::string& answer) {
    const auto response = readResponse(answer);
    return response.error ? response.error->message : "no error";
}

TEST(AgentMemory, AFilterBeyondTheMemoryOfARequestIsRefusedByName) {
    const AgentProcess agent(settings({"--request-memory", "16777216"}));
    HttpClient client(agent.socketPath());
    EXPECT_EQ(messageOf(client.message(filterRequest(2 * mebi))),
              "the filter does not fit into memory: one request (--request-memory) may hold 16 MiB");
    EXPECT_EQ(messageOf(client.message(filterRequest(1000))), "no error") << "the next one is";
}

TEST(AgentMemory, AMessageBeyondTheMemoryOfARequestIsRefusedByName) {
    const AgentProcess agent(settings({"--request-memory", "16777216"}));
    HttpClient client(agent.socketPath());
    const auto answer = client.post("/v1/messages", elements(4 * mebi));
    EXPECT_EQ(answer.status, 400);
    EXPECT_THAT(answer.body, HasSubstr("the message does not fit into memory: one request (--request-memory) may hold "
                                       "16 MiB"));
    EXPECT_THAT(messageOf(client.message(elements(1000))), HasSubstr("view name"));
}

TEST(AgentMemory, WhatAllMayHoldIsNamedToo) {
    const AgentProcess agent(settings({"--memory", "8388608"}));
    HttpClient client(agent.socketPath());
    EXPECT_THAT(client.message(elements(4 * mebi)),
                HasSubstr("all requests together (--memory) may hold 8 MiB, of which "));
}

TEST(AgentMemory, WhatAStormHasUsedIsGivenBack) {
    const test::TestDatabase database;
    test::makeLargeView(database.connectionString(), 100'000, 50'000);
    AgentSettings settings;
    settings.database = database.connectionString();
    settings.more = {"--read-only"};
    const AgentProcess agent(settings);
    const std::string rows =
        R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vMany"],[1741,"id"],[1741,"name"]]]})";
    const std::string page = rows.substr(0, rows.size() - 3) + R"(,[1377,[[1024,"20"]]]]]})";
    HttpClient first(agent.socketPath());
    ASSERT_THAT(first.message(page), HasSubstr("row number 20"));
    const std::size_t idle = test::residentMegabytes(agent.pid());

    std::vector<std::future<void>> storm;
    const auto ask = [&](const std::string& request, const char* target = "/v1/messages") {
        storm.push_back(std::async(
            std::launch::async, [&agent, request, target] { HttpClient(agent.socketPath()).post(target, request); }));
    };
    for (int number = 0; number < 2; ++number) {
        ask(filterRequest(16 * mebi));
        ask(filterRequest(mebi));
        ask(elements(8 * mebi));
        ask(elements(2 * mebi));
        ask(rows);
        ask(rows, "/v1/messages?stream=true");
        storm.push_back(std::async(std::launch::async, [&agent] {
            HttpClient client(agent.socketPath());
            const std::string request = HttpClient::compose("POST", "/v1/messages", elements(8 * mebi));
            client.send(std::string_view(request).substr(0, request.size() / 2));
        }));
    }
    for (auto& one : storm)
        one.get();
    const std::size_t peak = test::mostResidentMegabytes(agent.pid());
    EXPECT_GT(peak, idle + 64) << "no storm at all";
    if (!test::residentMemoryTells) return;
    const auto deadline = std::chrono::steady_clock::now() + 120s;
    while (test::residentMegabytes(agent.pid()) > idle + 64 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(100ms);
    EXPECT_LE(test::residentMegabytes(agent.pid()), idle + 64) << "of " << peak;
    EXPECT_THAT(first.message(page), HasSubstr("row number 20"));
}

}  // namespace
}  // namespace QOR
