// Sessions of a console: cookies that any agent on the database knows, for as long as their token holds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <string>
#include <thread>

#include "agent/Follower.h"
#include "support/AgentProcess.h"
#include "support/HostDatabase.h"
#include "support/HttpClient.h"
#include "support/TestCertificates.h"
#include "support/TlsWire.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::Not;

int portOf(const AgentProcess& agent, const std::string& scheme) {
    const std::string text = "listening on " + scheme + "://127.0.0.1:";
    const std::string output = agent.output();
    return std::stoi(output.substr(output.find(text) + text.size()));
}

class AgentSessionTest : public testing::Test {
protected:
    struct Session {
        std::string cookie;  ///< as a header
        std::string csrf;    ///< likewise
    };

    AgentSettings settings(std::vector<std::string> more = {}) const {
        more.insert(more.end(), {"--listen", "http://127.0.0.1:0"});
        return {.database = database.connectionString(), .more = std::move(more)};
    }
    /// Of an agent on the same database; of a file one alone may write.
    AgentSettings beside() const {
        return settings(testEngine() == ASEngine::SQLite ? std::vector<std::string>{"--read-only"}
                                                         : std::vector<std::string>{});
    }
    static HttpClient connect(const AgentProcess& agent) {
        return HttpClient(connectTcp("127.0.0.1", portOf(agent, "http")));
    }
    std::string newToken(const std::string& more = {}) {
        root.post("/v1/identities/add", R"({"name":"console","kind":"token","access":"full"})");
        const std::string answer = root.post("/v1/tokens/create", R"({"name":"console")" + more + "}").body;
        return "Authorization: Bearer " + answer.substr(answer.find("qor_"), 68) + "\r\n";
    }
    static std::string member(const std::string& json, const std::string& name) {
        const std::size_t at = json.find('"' + name + "\":\"") + name.size() + 4;
        return json.substr(at, json.find('"', at) - at);
    }
    static std::string valueOf(const HttpAnswer& answer) {
        const std::string cookie = answer.headers.at("set-cookie");
        return cookie.substr(0, cookie.find(';'));
    }
    static Session begin(HttpClient& client, const std::string& token) {
        const HttpAnswer answer = client.request("POST", "/v1/session", {}, token);
        EXPECT_EQ(answer.status, 200) << answer.body;
        return {"Cookie: theme=dark; " + valueOf(answer) + "\r\n",
                "X-Qor-Csrf: " + member(answer.body, "csrf") + "\r\n"};
    }
    static int status(HttpClient& client, const std::string& method, const std::string& target,
                      const std::string& headers, const std::string& body = {}) {
        client.send(HttpClient::compose(method, target, body, headers));
        HttpAnswer answer = client.receiveHead();
        if (answer.status != 204) client.receiveBody(answer);
        if (answer.headers["connection"] == "close") client.close();
        return answer.status;
    }
    /// On a connection of its own, from an address that has never been refused.
    int once(const std::string& method, const std::string& target, const std::string& headers,
             const std::string& body = {}) const {
        HttpClient fresh(connectTcp("127.0.0.1", portOf(agent, "http"), unusedLoopbackAddress()));
        return status(fresh, method, target, headers, body);
    }
    static constexpr const char* select =
        R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vOpLog"],[1741,"op"]]]})";

    TestDatabase database{TestTables::Own};
    AgentProcess agent{settings()};
    HttpClient root{agent.socketPath()};
    HttpClient client = connect(agent);
};

TEST_F(AgentSessionTest, ACookieIsAsGoodAsItsTokenButForChangesFromOtherPages) {
    const std::string token = newToken();
    const HttpAnswer begun = client.request("POST", "/v1/session", {}, token);
    EXPECT_THAT(begun.headers.at("set-cookie"), HasSubstr("; Path=/; HttpOnly; SameSite=Strict; Max-Age=43200"));
    EXPECT_THAT(begun.headers.at("set-cookie"), Not(HasSubstr("Secure")));
    EXPECT_EQ(begun.headers.at("cache-control"), "no-store");
    const Session session = begin(client, token);
    EXPECT_EQ(status(client, "GET", "/v1/views", session.cookie), 200);
    EXPECT_EQ(status(client, "GET", "/v1/identities", session.cookie), 200);
    const HttpAnswer told = client.request("GET", "/v1/session", {}, session.cookie);
    EXPECT_EQ(member(told.body, "name"), "console");
    EXPECT_EQ("X-Qor-Csrf: " + member(told.body, "csrf") + "\r\n", session.csrf);

    EXPECT_EQ(once("POST", "/v1/messages", session.cookie, select), 403);
    EXPECT_EQ(once("POST", "/v1/messages", session.cookie + "X-Qor-Csrf: \r\n", select), 403);
    const Session other = begin(client, token);
    EXPECT_EQ(once("POST", "/v1/messages", session.cookie + other.csrf, select), 403) << "each has its own";
    EXPECT_EQ(once("POST", "/v1/messages", session.cookie + session.csrf, select), 200);
    EXPECT_EQ(once("GET", "/v1/session", token), 404) << "a token is no session";
    EXPECT_EQ(once("POST", "/v1/session", session.cookie + session.csrf), 403) << "nor does one begin another";
}

TEST_F(AgentSessionTest, WhatWasNotSealedByTheseAgentsIsNoSession) {
    const Session session = begin(client, newToken());
    const std::string value = session.cookie.substr(session.cookie.find("qor_session="));
    const std::string digits = value.substr(12, value.size() - 14);
    std::string changed = digits;
    changed[40] = changed[40] == '0' ? '1' : '0';
    for (const std::string& wrong : {changed, digits.substr(2), digits + "00", std::string(), std::string("zz"),
                                     std::string("0"), std::string(5000, 'a')})
        EXPECT_EQ(once("GET", "/v1/views", "Cookie: qor_session=" + wrong + "\r\n"), 401) << wrong;
    EXPECT_EQ(once("GET", "/v1/views", session.cookie + session.cookie), 400) << "which of the two?";
    EXPECT_EQ(once("GET", "/v1/views", session.cookie), 200);
    HttpClient local(agent.socketPath());
    EXPECT_EQ(status(local, "GET", "/v1/views", "Cookie: qor_session=" + changed + "\r\n"), 401) << "nor for root";
}

TEST_F(AgentSessionTest, EndsWhenItIsTold) {
    const std::string token = newToken();
    const Session session = begin(client, token);
    const Session other = begin(client, token);
    EXPECT_EQ(status(client, "DELETE", "/v1/session", session.cookie + session.csrf), 204);
    EXPECT_EQ(once("GET", "/v1/views", session.cookie), 401);
    EXPECT_EQ(once("GET", "/v1/views", other.cookie), 200);
}

TEST_F(AgentSessionTest, EndsOnAllAgentsAndStaysEndedAfterThey) {
    const std::string token = newToken();
    const Session session = begin(client, token);
    const Session other = begin(client, token);
    {
        const AgentProcess second(beside());
        const auto there = [&](const Session& which) {
            HttpClient at(connectTcp("127.0.0.1", portOf(second, "http"), unusedLoopbackAddress()));
            return status(at, "GET", "/v1/views", which.cookie);
        };
        while (there(session) != 200)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        Follower follower(connect(second), "", session.cookie);
        EXPECT_EQ(status(client, "DELETE", "/v1/session", session.cookie + session.csrf), 204);
        while (there(session) != 401)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(there(other), 200) << "another one of the same token goes on";
        Event event = follower.next();
        while (!event.name.empty() && event.name != "end")
            event = follower.next();
        EXPECT_EQ(event.at("code"), R"("revoked")");
    }
    const AgentProcess later(beside());
    HttpClient at = connect(later);
    EXPECT_EQ(status(at, "GET", "/v1/views", other.cookie), 200);
    EXPECT_EQ(status(at, "GET", "/v1/views", session.cookie), 401);
}

TEST_F(AgentSessionTest, LastsNoLongerThanItsToken) {
    const std::string soon = std::to_string(std::time(nullptr) + 600);
    const HttpAnswer answer = client.request("POST", "/v1/session", {}, newToken(",\"expires\":" + soon));
    EXPECT_THAT(answer.body, HasSubstr("\"expires\":" + soon));
    const Session session = begin(client, newToken());
    root.post("/v1/tokens/revoke", R"({"name":"console"})");
    EXPECT_EQ(once("GET", "/v1/views", session.cookie), 401);
}

TEST_F(AgentSessionTest, OtherAgentsOnTheDatabaseKnowItAndItsEnd) {
    const AgentProcess second(beside());
    const std::string token = newToken();
    const Session session = begin(client, token);
    const auto there = [&] {
        HttpClient at = connect(second);
        return status(at, "GET", "/v1/views", session.cookie);
    };
    while (there() != 200)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    root.post("/v1/tokens/revoke", R"({"name":"console"})");
    while (there() != 401)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

TEST_F(AgentSessionTest, OverTlsTheCookieGoesNoOtherWay) {
    const TestCertificates made;
    const AgentProcess secure({.more = {"--listen", "https://127.0.0.1:0", "--tls-certificate",
                                        made.certificate("server"), "--tls-key", made.key("server")}});
    HttpClient there(secure.socketPath());
    there.post("/v1/identities/add", R"({"name":"console","kind":"token","access":"full"})");
    const std::string answer = there.post("/v1/tokens/create", R"({"name":"console"})").body;
    const int socket = connectTcp("127.0.0.1", portOf(secure, "https"));
    HttpClient tls(socket, std::make_unique<TlsWire>(socket, TlsFiles{made.certificate("authority")}));
    const HttpAnswer begun = tls.request("POST", "/v1/session", {},
                                         "Authorization: Bearer " + answer.substr(answer.find("qor_"), 68) + "\r\n");
    EXPECT_THAT(begun.headers.at("set-cookie"), HasSubstr("; Secure"));
}

}  // namespace
}  // namespace QOR::test
