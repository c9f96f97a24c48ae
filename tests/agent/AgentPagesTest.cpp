// Pages that hold over HTTP, asked to their end by tests and by the examples of clients.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/AgentProcess.h"
#include "support/ChildProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"

namespace QOR {
namespace {

using test::HttpAnswer;
using test::HttpClient;
using test::jsonAt;
using testing::HasSubstr;

constexpr int operations = 230;

std::string operation(int number) {
    char line[200];
    std::snprintf(line, sizeof line,
                  R"({"kind":"operation","id":"op-%03d","op":"install","status":%d,"time":%d,"message":{}})", number,
                  number % 2, 1714557600 + number / 7);
    return std::string(line) + "\n";
}

/// A text of JSON without its quotes.
std::string plain(const std::string& text) {
    return text.size() < 2 ? text : text.substr(1, text.size() - 2);
}

class AgentPages : public testing::Test {
protected:
    static void SetUpTestSuite() {
        test::AgentSettings settings;
        settings.more = {"--listen", "http://127.0.0.1:0"};
        agent = new test::AgentProcess(settings);
        std::string lines;
        for (int number = 0; number < operations; ++number)
            lines += operation(number);
        ASSERT_EQ(HttpClient(agent->socketPath()).post("/v1/records", lines).status, 200);
    }
    static void TearDownTestSuite() { delete agent; }
    static HttpAnswer get(const std::string& query) {
        return HttpClient(agent->socketPath()).get("/v1/views/vOpLog/rows?" + query);
    }
    /// Of an identity with full access, which is made for it.
    static std::string tokenFor(const test::AgentProcess& process) {
        HttpClient root(process.socketPath());
        EXPECT_EQ(root.post("/v1/identities/add", R"({"name":"reader","kind":"token","access":"full"})").status, 200);
        return plain(jsonAt(root.post("/v1/tokens/create", R"({"name":"reader"})").body, "token"));
    }
    /// Where it says that it listens.
    static std::string portOf(const test::AgentProcess& process) {
        const std::string said = "listening on http://127.0.0.1:";
        const std::string output = process.output();
        return std::to_string(std::stoi(output.substr(output.find(said) + said.size())));
    }
    static std::string tokenOf(const HttpAnswer& answer) { return plain(jsonAt(answer.body, "page/next")); }

    static inline test::AgentProcess* agent = nullptr;
};

TEST_F(AgentPages, TheirTokensLeadThroughAllRowsOnce) {
    std::set<std::string> seen;
    const std::string question = "fields=id,time&sort=-time&limit=33";
    HttpAnswer answer = get(question);
    for (int pages = 1;; ++pages) {
        ASSERT_EQ(answer.status, 200) << answer.body;
        const rapidjson::Document document = test::readJson(answer.body);
        for (const auto& row : document["rows"].GetArray())
            EXPECT_TRUE(seen.insert(row[0].GetString()).second) << row[0].GetString();
        if (document["page"]["next"].IsNull()) {
            EXPECT_EQ(pages, 7);
            break;
        }
        answer = get(question + "&after=" + document["page"]["next"].GetString());
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(operations));
}

TEST_F(AgentPages, ATokenIsOfItsQuestionAndOfThisDatabase) {
    const std::string token = tokenOf(get("fields=id&sort=id&limit=3"));
    EXPECT_EQ(get("fields=id&sort=id&limit=5&format=csv&after=" + token).status, 200) << "these may differ";
    for (const std::string& query : std::vector<std::string>{
             "fields=id&sort=-id&limit=3&after=" + token, "fields=op&sort=id&limit=3&after=" + token,
             "fields=id&sort=id&limit=3&where=status=1&after=" + token, "fields=id&sort=id&after=" + token + "x",
             "fields=id&sort=id&after=" + token.substr(1), "fields=id&sort=id&after="}) {
        const HttpAnswer answer = get(query);
        EXPECT_EQ(answer.status, 400) << query;
        EXPECT_EQ(jsonAt(answer.body, "code"), R"("bad_token")") << query << answer.body;
        EXPECT_EQ(jsonAt(answer.body, "parameter"), R"("after")") << query;
    }
    EXPECT_EQ(jsonAt(get("fields=id&sort=id&offset=1&after=" + token).body, "parameter"), R"("offset")");
}

TEST_F(AgentPages, TimesToldFromNowStayThoseOfTheFirstPage) {
    const std::string question = "fields=id&sort=id&limit=100&where=time+%3C+now()+-+1h";
    HttpAnswer answer = get(question);
    ASSERT_EQ(jsonAt(answer.body, "page/returned"), "100") << answer.body;
    answer = get(question + "&after=" + tokenOf(answer));
    EXPECT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(jsonAt(answer.body, "rows/0/0"), R"("op-100")");
}

TEST_F(AgentPages, AreCountedAsFarAsWasAsked) {
    EXPECT_THAT(get("fields=id&limit=2&count=exact").body, HasSubstr(R"("total":230,"exactness":"exact")"));
    EXPECT_THAT(get("fields=id&limit=2&count=capped").body, HasSubstr(R"("total":230,"exactness":"exact")"));
    EXPECT_THAT(get("fields=id&limit=2&count=5000ms").body, HasSubstr(R"("exactness":"exact")"));
    EXPECT_EQ(jsonAt(get("fields=id&limit=2&count=none").body, "page/total"), "");
}

TEST_F(AgentPages, ColumnsAreAnsweredAsOftenAndInTheOrderInWhichTheyWereAskedFor) {
    const HttpAnswer answer = get("fields=status,id,status&sort=status,-id&limit=1");
    EXPECT_EQ(jsonAt(answer.body, "rows"), R"([[0,"op-228",0]])") << answer.body;
    const HttpAnswer counts = get("fields=count(id),max(id),status&sort=-count(id),status");
    EXPECT_EQ(counts.status, 200) << counts.body;
    EXPECT_EQ(jsonAt(counts.body, "rows/0/0"), "115");
}

TEST_F(AgentPages, ExamplesOfClientsAskThemToTheEnd) {
    const std::string token = tokenFor(*agent);
    const std::string port = portOf(*agent);
    for (const auto& [program, file] :
         std::vector<std::pair<std::string, std::string>>{{"python3", "pages.py"}, {"node", "pages.mjs"}}) {
        test::ChildProcess look({"/usr/bin/env", program, "--version"});
        if (look.wait() != 0) GTEST_SKIP() << program << " is not installed";
        test::ChildProcess client({"/usr/bin/env", program, QOR_PROJECT_DIR "/examples/clients/" + file,
                                   "http://127.0.0.1:" + port, token, "status = 1"});
        EXPECT_EQ(client.wait(), 0) << client.output();
        const std::string printed = client.output();
        EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 116) << printed;
        EXPECT_THAT(printed, HasSubstr("115 rows"));
        test::ChildProcess wrong({"/usr/bin/env", program, QOR_PROJECT_DIR "/examples/clients/" + file,
                                  "http://127.0.0.1:" + port, token, "satus = 1"});
        EXPECT_NE(wrong.wait(), 0);
        EXPECT_THAT(wrong.output(), HasSubstr("bad_condition"));
    }
}

TEST_F(AgentPages, ExamplesOfClientsFollowAndComeAgainWhenTheyFindNoRoom) {
    const test::AgentProcess own(
        {.more = {"--listen", "http://127.0.0.1:0", "--followers", "1", "--follow-heartbeat", "1"}});
    HttpClient root(own.socketPath());
    std::string records;
    for (int number = 0; number < 30; ++number)
        records += R"({"kind":"operation","id":")" + std::to_string(number) +
                   R"(","status":1,"time":1,"eid":"11111111-1111-1111-1111-111111111111"})" + "\n";
    ASSERT_EQ(root.post("/v1/records", records).status, 200);
    const std::string token = tokenFor(own);
    const auto refusals = [&] {
        const std::string numbers = root.get("/metrics").body;
        const std::size_t at = numbers.find("qor_http_limits_total{limit=\"followers\"} ");
        return numbers.substr(at, numbers.find('\n', at) - at);
    };
    for (const auto& [program, file] :
         std::vector<std::pair<std::string, std::string>>{{"python3", "follow.py"}, {"node", "follow.mjs"}}) {
        test::ChildProcess look({"/usr/bin/env", program, "--version"});
        if (look.wait() != 0) GTEST_SKIP() << program << " is not installed";
        auto first = std::make_unique<HttpClient>(own.socketPath());
        first->send(HttpClient::compose("GET", "/v1/follow"));
        while (first->receiveHead().status != 200) {
            // The one before has gone, which the agent sees when it tells him something.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            first = std::make_unique<HttpClient>(own.socketPath());
            first->send(HttpClient::compose("GET", "/v1/follow"));
        }
        const std::string before = refusals();
        test::ChildProcess client({"/usr/bin/env", program, QOR_PROJECT_DIR "/examples/clients/" + file,
                                   "http://127.0.0.1:" + portOf(own), token, "beginning", "30"});
        while (refusals() == before)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        first.reset();
        EXPECT_EQ(client.wait(), 0) << client.output();
        const std::string printed = client.output();
        EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 30) << printed;
        EXPECT_THAT(printed, HasSubstr("29 1\n"));
    }
}

}  // namespace
}  // namespace QOR
