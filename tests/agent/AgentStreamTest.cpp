// Answers of any size from a real agent: bounded as a whole, unbounded as a stream, and what becomes of its memory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "QORMessage/QORNotation.h"
#include "support/AgentProcess.h"
#include "support/DirectDatabase.h"
#include "support/HttpClient.h"
#include "support/LargeView.h"
#include "support/ResidentMemory.h"

namespace QOR {
namespace {

using namespace std::chrono_literals;
using test::AgentProcess;
using test::AgentSettings;
using test::HttpAnswer;
using test::HttpClient;
using testing::HasSubstr;

constexpr int rows = 300'000;
constexpr int brokenAt = 200'000;
constexpr const char* streamed = "/v1/messages?stream=true";

std::string request(const std::string& view, const std::string& more = {}) {
    return R"({"operator":"pager2","request":"select","body":[1740,[[1009,")" + view +
           R"("],[1741,"id"],[1741,"name"])" + more + "]]}";
}

std::size_t occurrences(const std::string& text, std::string_view what) {
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size())
        ++found;
    return found;
}

class AgentStream : public testing::Test {
protected:
    static void SetUpTestSuite() {
        database = new test::TestDatabase;
        test::makeLargeView(database->connectionString(), rows, brokenAt);
    }
    static void TearDownTestSuite() { delete database; }

    static AgentSettings settings(std::vector<std::string> more = {}) {
        AgentSettings settings;
        settings.database = database->connectionString();
        settings.more = std::move(more);
        settings.more.push_back("--read-only");
        return settings;
    }

    static inline test::TestDatabase* database = nullptr;
};

TEST_F(AgentStream, AnAnswerWithTooManyRowsIsRefusedAndSaysHowToGetThem) {
    const AgentProcess agent(settings());
    HttpClient client(agent.socketPath());
    const auto answer = readResponse(client.message(request("vMany")));
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->code, 1);
    EXPECT_EQ(answer.error->message,
              "the answer has more than 100000 rows: ask for it in parts (limit with size and offset), or as a stream "
              "(stream=true)");
    EXPECT_EQ(answer.response.nodeCount(), 0U);
    const std::string page = client.message(request("vMany", R"(,[1377,[[1024,"100000"],[1087,"7"]]],[1259])"));
    EXPECT_EQ(occurrences(page, "[1739,"), 100'000U);
    EXPECT_THAT(page, HasSubstr(R"([1259,"100000"],[1040,"300000"])"));
}

TEST_F(AgentStream, LimitsOfAnswersAreSettings) {
    const AgentProcess agent(settings({"--answer-rows", "50", "--answer-bytes", "65536"}));
    HttpClient client(agent.socketPath());
    EXPECT_THAT(client.message(request("vMany")), HasSubstr("more than 50 rows"));
    EXPECT_EQ(occurrences(client.message(request("vMany", R"(,[1377,[[1024,"50"]]])")), "[1739,"), 50U);
    EXPECT_THAT(client.message(R"({"operator":"pager2","request":"select","body":[1740,[[1009,")" +
                               std::string(70'000, 'x') + R"("],[1741,"id"]]]})"),
                HasSubstr("the answer is larger than 64 KiB"));
}

TEST_F(AgentStream, AStreamBringsAllRowsAndTheirCounts) {
    const AgentProcess agent(settings());
    HttpClient client(agent.socketPath());
    const HttpAnswer answer = client.post(streamed, request("vMany", R"(,[1743,[[1741,"id"]]],[1259])"));
    EXPECT_EQ(answer.headers.at("transfer-encoding"), "chunked");
    EXPECT_EQ(occurrences(answer.body, "[1739,"), static_cast<std::size_t>(rows));
    EXPECT_THAT(answer.body.substr(answer.body.size() - 200),
                testing::EndsWith(R"([1018,"this is row number 300000"]]],[1259,"300000"],[1040,"300000"]]]]})"));
    EXPECT_THAT(client.post("/v1/messages?stream=false", request("vMany")).body, HasSubstr("more than 100000 rows"));
}

TEST_F(AgentStream, AnErrorInTheMiddleStandsBehindTheRowsThatHaveLeft) {
    const AgentProcess agent(settings());
    HttpClient client(agent.socketPath());
    const std::string answer = client.post(streamed, request("vBroken")).body;
    // Of PostgreSQL's, rows that come together fail together.
    const std::size_t together = test::testEngine() == ASEngine::SQLite ? 0 : 40'000;
    EXPECT_LE(occurrences(answer, "[1739,"), static_cast<std::size_t>(brokenAt - 1));
    EXPECT_GE(occurrences(answer, "[1739,") + together, static_cast<std::size_t>(brokenAt - 1));
    EXPECT_THAT(answer.substr(answer.size() - 100),
                HasSubstr(R"("error":{"code":1,"message":")" +
                          test::oneOf("a sum is beyond 64 bits of SQLite", "bigint out of range") + "\"}}"));
    const auto whole = readResponse(client.message(
        request("vBroken", R"(,[1377,[[1024,"50000"],[1087,")" + std::to_string(brokenAt - 10) + "\"]]]")));
    EXPECT_TRUE(whole.error);
    EXPECT_EQ(whole.response.nodeCount(), 0U) << "as a whole it is an error alone";
}

TEST_F(AgentStream, ParametersOfMessagesAreRefusedUnlessKnown) {
    const AgentProcess agent(settings());
    HttpClient client(agent.socketPath());
    for (const auto& [query, message] :
         std::vector<std::pair<std::string, std::string>>{{"stream=yes", R"(stream is true or false, not \"yes\")"},
                                                          {"stream", R"(stream is true or false, not \"\")"},
                                                          {"format=csv", R"(unknown parameter \"format=csv\")"}}) {
        const HttpAnswer answer = client.post("/v1/messages?" + query, request("vMany"));
        EXPECT_EQ(answer.status, 400) << query;
        EXPECT_THAT(answer.body, HasSubstr(message)) << query;
    }
}

TEST_F(AgentStream, WhatIsNoRequestIsA400AlsoWhenAStreamIsAskedFor) {
    const AgentProcess agent(settings());
    EXPECT_EQ(HttpClient(agent.socketPath()).post(streamed, "nonsense").status, 400);
}

TEST_F(AgentStream, ThreeStreamsAtOnceKeepTheAgentSmall) {
    const AgentProcess agent(settings());
    HttpClient(agent.socketPath()).post(streamed, request("vMany", R"(,[1377,[[1024,"10"]]])"));
    const std::size_t idle = test::residentMegabytes(agent.pid());
    std::vector<std::future<std::size_t>> streams;
    for (int number = 0; number < 3; ++number) {
        streams.push_back(std::async(std::launch::async, [&] {
            return occurrences(HttpClient(agent.socketPath()).post(streamed, request("vMany")).body, "[1739,");
        }));
    }
    std::size_t peak = 0;
    for (auto& stream : streams) {
        while (stream.wait_for(1ms) != std::future_status::ready)
            peak = std::max(peak, test::residentMegabytes(agent.pid()));
        EXPECT_EQ(stream.get(), static_cast<std::size_t>(rows));
    }
    if (!test::residentMemoryTells) return;
    EXPECT_LT(peak, idle + 32) << "three answers of 20 MB";
}

TEST_F(AgentStream, AReaderThatGoesEndsTheWork) {
    AgentProcess agent(settings({"--threads", "1"}));
    {
        HttpClient client(agent.socketPath());
        client.send(HttpClient::compose("POST", streamed, request("vMany")));
        client.awaitBytes();
    }
    EXPECT_THAT(HttpClient(agent.socketPath()).message(request("vMany", R"(,[1377,[[1024,"1"]]])")),
                HasSubstr("[1739,"))
        << "the only worker is free again";
    EXPECT_EQ(agent.stop(), 0);
}

TEST_F(AgentStream, AReaderThatWaitsDoesNotKeepTheAgentFromStopping) {
    AgentProcess agent(settings({"--grace", "0"}));
    HttpClient client(agent.socketPath());
    client.send(HttpClient::compose("POST", streamed, request("vMany")));
    client.awaitBytes();
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_THROW(client.receive(), std::runtime_error) << "what was not sent to its end must not look whole";
}

}  // namespace
}  // namespace QOR
