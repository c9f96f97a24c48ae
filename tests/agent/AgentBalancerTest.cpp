// Agents on one database answer as one: whichever of them a balancer hands a client to.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/Follower.h"
#include "agent/RecordLines.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"
#include "support/TcpBalancer.h"

namespace QOR::test {
namespace {

using testing::Each;
using testing::Ge;
using testing::HasSubstr;

constexpr const char* mine = "11111111-1111-1111-1111-111111111111";
constexpr const char* other = "33333333-3333-3333-3333-333333333333";

std::string event(int number, const std::string& eid = mine) {
    return R"({"kind":"event","time":)" + std::to_string(number / 7) + R"(,"source":")" + std::to_string(number) +
           R"(","eid":")" + eid + "\"}\n";
}
std::string events(int from, int to) {
    std::string lines;
    for (int number = from; number < to; ++number)
        lines += event(number);
    return lines;
}

int portOf(const AgentProcess& agent) {
    const std::string text = "listening on http://127.0.0.1:";
    const std::string output = agent.output();
    return std::stoi(output.substr(output.find(text) + text.size()));
}

/// Two agents: where a file is the database, one of them only reads.
class AgentBalancer : public testing::Test {
protected:
    AgentBalancer() {
        const HttpAnswer added =
            root.post("/v1/identities/add", R"({"name":"console","kind":"token","access":"full"})");
        EXPECT_EQ(added.status, 200) << added.body;
        token = newToken("console");
        // Both know it: the second one within a second.
        for (const AgentProcess* agent : {&first, &second}) {
            while (HttpClient(connectTcp("127.0.0.1", portOf(*agent))).request("GET", "/v1/views", {}, token).status !=
                   200) {
            }
        }
    }

    AgentSettings settings(bool isSecond) const {
        AgentSettings one{.database = database.connectionString(), .more = {"--listen", "http://127.0.0.1:0"}};
        if (isSecond && testEngine() == ASEngine::SQLite) one.more.emplace_back("--read-only");
        return one;
    }
    std::string newToken(const std::string& name) {
        const std::string answer = root.post("/v1/tokens/create", R"({"name":")" + name + "\"}").body;
        return "Authorization: Bearer " + answer.substr(answer.find("qor_"), 68) + "\r\n";
    }
    void store(const std::string& lines) {
        const HttpAnswer answer = root.post("/v1/records", lines);
        ASSERT_EQ(answer.status, 200) << answer.body;
        ASSERT_THAT(answer.body, HasSubstr("\"refusedCount\":0,"));
    }
    /// On a connection of its own, so that the next agent answers.
    HttpAnswer get(const std::string& target, const std::string& headers) const {
        return balancer.connect().request("GET", target, {}, headers);
    }
    HttpAnswer get(const std::string& target) const { return get(target, token); }

    TestDatabase database{TestTables::Own};
    AgentProcess first{settings(false)};
    AgentProcess second{settings(true)};
    HttpClient root{first.socketPath()};
    TcpBalancer balancer{{portOf(first), portOf(second)}};
    std::string token;
};

TEST_F(AgentBalancer, PagesGoOnAtWhicheverAgentIsAsked) {
    store(events(0, 1000));
    std::vector<std::string> sources;
    std::string after;
    do {
        const HttpAnswer page = get("/v1/views/vEventLog/rows?fields=source&sort=-time&limit=37" + after);
        ASSERT_EQ(page.status, 200) << page.body;
        const rapidjson::Document json = readJson(page.body);
        for (const rapidjson::Value& row : json["rows"].GetArray())
            sources.emplace_back(row[0].GetString());
        // Of rows that lie with other servers nobody knows.
        EXPECT_EQ(jsonAt(json, "page/changed"), after.empty() ? "" : hasTestServers() ? "true" : "false");
        const rapidjson::Value& next = json["page"]["next"];
        after = next.IsString() ? "&after=" + std::string(next.GetString()) : std::string();
    } while (!after.empty());
    EXPECT_EQ(sources.size(), 1000U);
    EXPECT_EQ(std::set<std::string>(sources.begin(), sources.end()).size(), 1000U);
    EXPECT_THAT(balancer.served(), Each(Ge(13U)));
}

TEST_F(AgentBalancer, CountersAreThoseOfTheDatabase) {
    for (int round = 1; round <= 6; ++round) {
        store(events(100 * round, 100 * round + 100));
        const std::string total = "\"total\":" + std::to_string(100 * round) + ",";
        for (int agent = 0; agent < 2; ++agent) {
            EXPECT_THAT(get("/v1/rows?fields=pager.event_log.category&count=exact&limit=1").body, HasSubstr(total));
            EXPECT_THAT(get("/v1/views/vEventLog/rows?fields=id&count=exact&limit=1").body, HasSubstr(total));
        }
    }
}

TEST_F(AgentBalancer, IdentitiesHoldAtAllAgentsAndNoLongerThanTheyAreThere) {
    store(environment(mine) + environment(other) + event(1) + event(2, other));
    root.post("/v1/identities/add",
              R"({"name":"reader","kind":"token","access":"environments","environments":[{"eid":")" +
                  std::string(mine) + R"(","below":false}]})");
    const std::string reader = newToken("reader");
    const auto untilBothSay = [&](int status) {
        for (int inARow = 0; inARow < 2;)
            inARow = get("/v1/views", reader).status == status ? inARow + 1 : 0;
    };
    untilBothSay(200);
    for (int agent = 0; agent < 2; ++agent) {
        const HttpAnswer rows = get("/v1/views/vEventLog/rows?fields=source", reader);
        EXPECT_EQ(jsonAt(rows.body, "rows"), R"([["1"]])") << rows.body;
    }
    root.post("/v1/identities/remove", R"({"name":"reader"})");
    untilBothSay(401);
}

TEST_F(AgentBalancer, ASessionOfOneAgentIsKnownToTheOther) {
    HttpAnswer begun = balancer.connect().request("POST", "/v1/session", {}, token);
    ASSERT_EQ(begun.status, 200) << begun.body;
    const std::string cookie = begun.headers.at("set-cookie");
    const std::string shown = "Cookie: " + cookie.substr(0, cookie.find(';')) + "\r\n";
    const auto before = balancer.served();
    for (int agent = 0; agent < 2; ++agent) {
        EXPECT_EQ(get("/v1/views", shown).status, 200);
        EXPECT_EQ(jsonAt(get("/v1/session", shown).body, "name"), "\"console\"");
    }
    EXPECT_THAT(balancer.served(), testing::ElementsAre(before[0] + 2, before[1] + 2));
    EXPECT_EQ(get("/v1/views", "Cookie: qor_session=nonsense\r\n").status, 401);
}

/// Connections end in the middle of what they carry, and the next one is another agent's.
TEST_F(AgentBalancer, AFollowGoesOnAtTheOtherAgentWhereItWasCutOff) {
    constexpr int all = 900;
    std::jthread writer([&] {
        HttpClient client(first.socketPath());
        for (int from = 0; from < all; from += 30)
            client.post("/v1/records", events(from, from + 30));
    });
    std::vector<std::string> sources;
    std::mt19937 random(5);
    std::string fields = token;
    while (sources.size() < all) {
        Follower follower(balancer.connect(), "?source=events&fields=source&after=beginning", fields);
        const std::size_t enough = sources.size() + 1 + random() % 150;
        while (sources.size() < enough && sources.size() < all) {
            const Event event = follower.next();
            ASSERT_FALSE(event.name.empty() || event.name == "gap" || event.name == "end") << event.name;
            if (event.name == "events") sources.push_back(event.at("source"));
            fields = token + "Last-Event-ID: " + follower.last() + "\r\n";
        }
        balancer.cut();
    }
    writer.join();
    std::set<std::string> expected;
    for (int number = 0; number < all; ++number)
        expected.insert('"' + std::to_string(number) + '"');
    EXPECT_EQ(sources.size(), expected.size()) << "each once";
    EXPECT_EQ(std::set<std::string>(sources.begin(), sources.end()), expected);
    EXPECT_THAT(balancer.served(), Each(Ge(3U)));
}

}  // namespace
}  // namespace QOR::test
