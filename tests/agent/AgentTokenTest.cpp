// Identities that the database keeps: what each may see, from when on, and until when.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/RecordLines.h"
#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"
#include "support/HostDatabase.h"
#include "support/HttpClient.h"
#include "support/Stranger.h"
#include "support/TestCertificates.h"
#include "support/TlsWire.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr const char* parent = "11111111-1111-1111-1111-111111111111";
constexpr const char* child = "22222222-2222-2222-2222-222222222222";
constexpr const char* other = "33333333-3333-3333-3333-333333333333";

std::string event(const std::string& eid) {
    return R"({"kind":"event","time":1,"eid":")" + eid + R"(","source":"of )" + eid.substr(0, 1) + "\"}\n";
}

int tcpPortOf(const AgentProcess& agent) {
    const std::string text = "listening on http://127.0.0.1:";
    const std::string output = agent.output();
    return std::stoi(output.substr(output.find(text) + text.size()));
}

class AgentTokenTest : public testing::Test {
protected:
    AgentTokenTest() {
        root.post("/v1/records", environment(parent) + environment(child, parent) + environment(other) + event(parent) +
                                     event(child) + event(other));
    }

    AgentSettings settings(std::vector<std::string> more = {}) const {
        more.insert(more.end(), {"--listen", "http://127.0.0.1:0"});
        return {.database = database.connectionString(), .more = std::move(more)};
    }
    /// What an administrator does, through the agent.
    std::string ctl(Words words, int status = 0) const {
        words.insert(words.begin(), (programDirectory() / "qorctl").string());
        words.insert(words.end(), {"--socket", agent.socketPath()});
        const CtlResult result = CtlProcess(words).finish();
        EXPECT_EQ(result.status, status) << result.err;
        return status == 0 ? result.out : result.err;
    }
    std::string tokenOf(const std::string& name, const Words& rights) const {
        Words add{"identity", "add", name, "--kind", "token"};
        add.insert(add.end(), rights.begin(), rights.end());
        ctl(add);
        return newToken(name);
    }
    std::string newToken(const std::string& name) const {
        const std::string line = ctl({"token", "create", name});
        return line.substr(0, line.find('\n'));
    }

    HttpClient connect() const { return connectTo(agent); }
    static HttpClient connectTo(const AgentProcess& to) { return HttpClient(connectTcp("127.0.0.1", tcpPortOf(to))); }
    /// On a connection of its own: a request that is refused with its body unread ends the one that it came by.
    HttpAnswer ask(const std::string& token, const std::string& more = {}) const {
        HttpClient client = connect();
        return ask(client, token, more);
    }
    static HttpAnswer ask(HttpClient& client, const std::string& token, const std::string& more = {}) {
        return client.request("POST", "/v1/messages",
                              R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],)"
                              R"([1741,"source"],[1743,[[1741,"source"]]]]]})",
                              (token.empty() ? "" : "Authorization: Bearer " + token + "\r\n") + more);
    }
    /// The environments whose events are seen, by their first digits.
    static std::string seen(const HttpAnswer& answer) {
        std::string digits;
        for (std::size_t at = 0; (at = answer.body.find("\"of ", at)) != std::string::npos; ++at)
            digits += answer.body[at + 4];
        return answer.status == 200 ? digits : std::to_string(answer.status);
    }

    TestDatabase database{TestTables::Own};
    AgentProcess agent{settings()};
    HttpClient root{agent.socketPath()};
};

TEST_F(AgentTokenTest, ATokenSeesWhatItsIdentityStandsForOverAnyAddress) {
    const std::string token = tokenOf("reader", {"-e", parent, "-e", other});
    EXPECT_THAT(token, MatchesRegex("qor_[0-9a-f]{64}"));
    HttpClient client = connect();
    EXPECT_EQ(seen(ask(client, token)), "13");
    EXPECT_EQ(seen(ask(root, token)), "13") << "who shows a token is who it says, whoever he may be";
    EXPECT_EQ(seen(ask(root, {})), "123");
    EXPECT_EQ(seen(ask(client, tokenOf("all", {"--full"}))), "123");
    EXPECT_EQ(seen(ask(client, tokenOf("nothing", {}))), "");
}

TEST_F(AgentTokenTest, WhatIsBelowFollowsTheTree) {
    const std::string token = tokenOf("reader", {"--below", parent});
    HttpClient client = connect();
    EXPECT_EQ(seen(ask(client, token)), "12");
    root.post("/v1/records", environment(other, child));
    EXPECT_EQ(seen(ask(client, token)), "123");
    root.post("/v1/records", environment(child));
    EXPECT_EQ(seen(ask(client, token)), "1");
}

TEST_F(AgentTokenTest, WhatIsNoTokenIsNotLetIn) {
    const std::string token = tokenOf("reader", {"-e", parent});
    for (const std::string& wrong : {std::string("x"), token + "0", token.substr(1), std::string(8000, 'x')}) {
        const HttpAnswer answer = ask(wrong);
        EXPECT_EQ(answer.status, 401);
        EXPECT_THAT(answer.body, HasSubstr("the token is unknown, revoked or expired"));
        EXPECT_EQ(answer.headers.at("www-authenticate"), "Bearer realm=\"qor-agent\"");
    }
    EXPECT_EQ(seen(ask(root, "x")), "401") << "nor for being root";
    EXPECT_EQ(connect().request("GET", "/v1/views", {}, "Authorization: Basic eDp5\r\n").status, 401);
    EXPECT_EQ(seen(ask(token, "authorization: bearer x\r\n")), "400");
    EXPECT_EQ(seen(ask(token)), "1");
}

TEST_F(AgentTokenTest, AnExpiredTokenIsNone) {
    ctl({"identity", "add", "reader", "--kind", "token", "-e", parent});
    const std::string answer = root.post("/v1/tokens/create", R"({"name":"reader","expires":1000})").body;
    EXPECT_EQ(seen(ask(answer.substr(answer.find("qor_"), 68))), "401");
}

TEST_F(AgentTokenTest, ChangesHoldFromTheNextRequestOn) {
    const std::string first = tokenOf("reader", {"-e", parent});
    const std::string second = newToken("reader");
    EXPECT_EQ(seen(ask(first)), "1");
    const std::string list = ctl({"token", "list", "reader", "-o", "csv"});
    EXPECT_THAT(list, Not(HasSubstr(first)));
    root.post("/v1/tokens/revoke", R"({"name":"reader","id":")" + list.substr(list.find("reader,") + 7, 12) + "\"}");
    const std::string left = seen(ask(first)) == "401" ? second : first;
    EXPECT_EQ(seen(ask(left)), "1");
    ctl({"identity", "remove", "reader"});
    EXPECT_EQ(seen(ask(left)), "401");
    EXPECT_EQ(seen(ask(tokenOf("reader", {"-e", other}))), "3");
    EXPECT_EQ(seen(ask(left)), "401") << "tokens go with their identity";
}

/// Questions that one connection after the other asks again, each of which lists the sources of events.
constexpr std::array eventQuestions{
    "/v1/views/vEventLog/rows?fields=source&sort=source&count=exact",
    "/v1/views/vEventLog/rows?fields=source&sort=source&where=time%20%3C%20now()",
    "/v1/views/vEventLog/rows?fields=source&sort=source&where=source%20like%20'of%20%25'&limit=5&format=notation",
};

TEST_F(AgentTokenTest, AQuestionThatIsAskedAgainIsAnsweredByTheRightsOfItsMoment) {
    const std::string all = tokenOf("all", {"--full"});
    const std::string lesser = tokenOf("reader", {"--below", parent});
    HttpClient client = connect();
    const auto expect = [&](const std::string& token, const std::string& digits) {
        for (const char* question : eventQuestions) {
            const HttpAnswer answer = client.request("GET", question, {}, "Authorization: Bearer " + token + "\r\n");
            EXPECT_EQ(seen(answer), digits) << question << "\n" << answer.body;
        }
    };
    for (int times = 0; times < 3; ++times) {
        expect(lesser, "12");
        expect(all, "123");
    }
    root.post("/v1/records", environment(other, child));
    expect(lesser, "123");
    root.post("/v1/records", environment(child));
    expect(lesser, "1");
    expect(all, "123");
    ctl({"identity", "remove", "reader"});
    expect(lesser, "401");
    expect(tokenOf("reader", {"-e", other}), "3");
    root.post("/v1/records", event(other));
    expect(all, "1233");
}

TEST_F(AgentTokenTest, OtherAgentsOnTheDatabaseKnowSoon) {
    const AgentProcess second(settings(testEngine() == ASEngine::SQLite ? Words{"--read-only"} : Words{}));
    const std::string token = tokenOf("reader", {"-e", parent});
    const auto sees = [&] {
        HttpClient client = connectTo(second);
        return seen(ask(client, token));
    };
    while (sees() != "1")
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ctl({"token", "revoke", "reader"});
    while (sees() != "401")
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

TEST_F(AgentTokenTest, AStreamEndsWithTheRightToIt) {
    std::string events;
    for (int number = 0; number < 20'000; ++number)
        events += R"({"kind":"event","time":1,"eid":")" + std::string(parent) + R"(","source":")" +
                  std::string(250, 's') + "\"}\n";
    ASSERT_EQ(root.post("/v1/records", events).status, 200);
    const std::string token = tokenOf("reader", {"-e", parent});
    HttpClient client = connect();
    client.send(HttpClient::compose("POST", "/v1/messages?stream=true",
                                    R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],)"
                                    R"([1741,"source"]]]})",
                                    "Authorization: Bearer " + token + "\r\n"));
    ASSERT_TRUE(client.awaitBytes());
    ctl({"token", "revoke", "reader"});
    EXPECT_THAT(client.receive().body, HasSubstr("who asked may no longer see what he saw"));
}

TEST_F(AgentTokenTest, FullAccessMayAskAsAnother) {
    const std::string reader = tokenOf("reader", {"-e", other});
    const std::string full = tokenOf("admin", {"--full"});
    EXPECT_EQ(seen(ask(full, "X-Qor-As: reader\r\n")), "3");
    EXPECT_EQ(seen(ask(root, {}, "X-Qor-As: reader\r\n")), "3");
    EXPECT_EQ(seen(ask(full)), "123") << "for that request alone";
    EXPECT_EQ(seen(ask(reader, "X-Qor-As: admin\r\n")), "403");
    EXPECT_EQ(seen(ask(full, "X-Qor-As: nobody here\r\n")), "400");
}

TEST_F(AgentTokenTest, AdministrationIsForFullAccess) {
    const std::string reader = "Authorization: Bearer " + tokenOf("reader", {"-e", other}) + "\r\n";
    const std::string full = "Authorization: Bearer " + tokenOf("admin", {"--full"}) + "\r\n";
    EXPECT_EQ(connect().request("GET", "/v1/identities", {}, reader).status, 403);
    EXPECT_EQ(connect().request("POST", "/v1/tokens/create", R"({"name":"admin"})", reader).status, 403);
    EXPECT_EQ(connect().request("POST", "/v1/records", event(other), reader).status, 403);
    EXPECT_THAT(connect().request("GET", "/v1/identities", {}, full).body, HasSubstr(R"("name":"reader")"));
    EXPECT_EQ(connect().request("POST", "/v1/tokens/create", R"({"name":"admin"})", full).status, 200);
}

TEST_F(AgentTokenTest, QorctlShowsTheTokenOfAFile) {
    const std::string token = tokenOf("reader", {"-e", parent});
    const std::string file = (agent.directory() / "token").string();
    std::ofstream(file) << token << '\n';
    const CtlResult result =
        CtlProcess({(programDirectory() / "qorctl").string(), "select", "--view", "vEventLog", "-f", "source", "-o",
                    "csv", "--agent", "http://127.0.0.1:" + std::to_string(tcpPortOf(agent)), "--token-file", file})
            .finish();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "source\r\nof 1\r\n");
    EXPECT_THAT(result.err, Not(HasSubstr("stand for no environment")));
    const std::string shown = "Authorization: Bearer " + token + "\r\n";
    EXPECT_THAT(connect().request("GET", "/v1/health", {}, shown).body, HasSubstr(R"("access":"environments")"));
}

TEST_F(AgentTokenTest, WhatCannotBeIsRefusedWithTheReason) {
    ctl({"identity", "add", "reader", "--kind", "user", "--subject", "somebody", "-e", parent});
    EXPECT_THAT(ctl({"identity", "add", "reader", "--kind", "token"}, 1), HasSubstr("there is an identity \"reader\""));
    EXPECT_THAT(ctl({"identity", "add", "again", "--kind", "user", "--subject", "somebody"}, 1),
                HasSubstr("the user \"somebody\" is the identity \"reader\""));
    EXPECT_THAT(ctl({"identity", "add", "x", "--kind", "token", "-e", "nonsense"}, 2), HasSubstr("no identifier"));
    EXPECT_THAT(ctl({"identity", "add", "x", "--kind", "token", "-e", parent, "--below", parent}, 1),
                HasSubstr("is given twice"));
    EXPECT_THAT(ctl({"token", "create", "reader"}, 1), HasSubstr("is a user, which has no tokens"));
    EXPECT_THAT(ctl({"token", "create", "nobody"}, 1), HasSubstr("error 404: there is no identity \"nobody\""));
    EXPECT_THAT(ctl({"token", "revoke", "reader"}, 1), HasSubstr("has no token"));
    EXPECT_THAT(ctl({"identity", "show", "nobody"}, 1), HasSubstr("there is no identity"));
    EXPECT_THAT(root.post("/v1/identities/add", R"({"name":"x","kind":"token","acess":"full"})").body,
                HasSubstr("unknown member \\\"acess\\\""));
    EXPECT_EQ(ctl({"identity", "list", "-o", "csv"}),
              "name,kind,subject,access\r\nreader,user,somebody," + std::string(parent) + "\r\n");
}

TEST_F(AgentTokenTest, AUserOfTheSystemSeesWhatHisEntrySaysElseThoseOfHisGroups) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    const auto stranger = [&] { return asStranger(agent, [](HttpClient& client) { return seen(ask(client, {})); }); };
    EXPECT_EQ(stranger(), "");
    ctl({"identity", "add", "team", "--kind", "group", "--subject", "root", "-e", other});
    EXPECT_EQ(stranger(), "3") << "the kernel says that he runs in this group";
    ctl({"identity", "add", "he", "--kind", "user", "--subject", "nobody", "--below", parent});
    EXPECT_EQ(stranger(), "12");
    ctl({"identity", "remove", "he"});
    ctl({"identity", "remove", "team"});
    EXPECT_EQ(stranger(), "");
    EXPECT_EQ(seen(ask(root, {})), "123") << "whom no entry lessens";
}

TEST_F(AgentTokenTest, ACertificateIsAnIdentity) {
    const TestCertificates made;
    made.issue("reporter", "authority", "");
    const AgentProcess second(
        {.database = database.connectionString(),
         .more = {testEngine() == ASEngine::SQLite ? "--read-only" : "--log-level=2", "--listen", "https://127.0.0.1:0",
                  "--tls-certificate", made.certificate("server"), "--tls-key", made.key("server"), "--tls-client-ca",
                  made.certificate("authority")}});
    const std::string text = "listening on https://127.0.0.1:";
    const std::string output = second.output();
    const int port = std::stoi(output.substr(output.find(text) + text.size()));
    const auto with = [&](const std::string& name) {
        const int socket = connectTcp("127.0.0.1", port);
        TlsFiles files{made.certificate("authority")};
        if (!name.empty()) files = {files.authority, made.certificate(name), made.key(name)};
        HttpClient client(socket, std::make_unique<TlsWire>(socket, files));
        return seen(ask(client, {}));
    };
    EXPECT_EQ(with("reporter"), "401");
    ctl({"identity", "add", "reports", "--kind", "certificate", "--subject", "reporter", "-e", child});
    while (with("reporter") != "2")
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(with(""), "401");
}

TEST_F(AgentTokenTest, TheLastUseIsKept) {
    const std::string token = tokenOf("reader", {"-e", parent});
    HttpClient client = connect();
    EXPECT_EQ(seen(ask(client, token)), "1");
    EXPECT_EQ(agent.stop(), 0);
    QORRdbms::instance().configure({.connectionString = database.connectionString()});
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_token WHERE last_use >= created"), "1");
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_token WHERE digest LIKE '%" + token.substr(4) + "%'"), "0");
    QORRdbms::instance().shutdown();
}

}  // namespace
}  // namespace QOR::test
