// Who may do what: identities of connections, and of requests that name a client.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <functional>
#include <string>

#include "QORMessage/QORNotation.h"
#include "agent/ProbeAgent.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/Stranger.h"

namespace QOR {
namespace {

using test::AgentProcess;
using test::asStranger;
using test::HttpAnswer;
using test::HttpClient;
using test::withProbe;
using testing::HasSubstr;

constexpr const char* one = "11111111-1111-1111-1111-111111111111";
constexpr const char* two = "22222222-2222-2222-2222-222222222222";

std::string identityRequest(const std::string& client = {}) {
    return R"({"operator":"probe","request":"identity","body":[1740])" +
           (client.empty() ? "" : ",\"client\":" + client) + "}";
}

class AgentIdentity : public testing::Test {
protected:
    AgentProcess agent{withProbe()};
};

TEST_F(AgentIdentity, TheAgentsOwnUserHasFullAccess) {
    EXPECT_EQ(HttpClient(agent.socketPath()).message(identityRequest()), R"({"response":[[1007,"full"]]})");
}

TEST_F(AgentIdentity, ARequestRunsAsTheClientItNames) {
    HttpClient client(agent.socketPath());
    const std::string sid = std::string(R"({"principalId":0,"principalType":1,"eid":")") + one + "\"}";
    const std::string other = std::string(R"({"principalId":0,"principalType":2,"eid":")") + two + "\"}";
    const std::string group = std::string(R"({"principalId":7,"principalType":2,"eid":")") + two + "\"}";
    EXPECT_EQ(client.message(identityRequest(R"({"fullAccess":false,"sids":[]})")),
              R"({"response":[[1007,"limited"]]})");
    EXPECT_EQ(client.message(identityRequest(R"({"fullAccess":false,"sids":[)" + sid + "," + other + "]}")),
              std::string(R"({"response":[[1007,"limited"],[1156,")") + one + R"("],[1624,")" + two + R"("]]})");
    EXPECT_EQ(client.message(identityRequest(R"({"fullAccess":false,"sids":[)" + group + "]}")),
              R"({"response":[[1007,"limited"],[1156,"none"]]})");
    EXPECT_EQ(client.message(identityRequest()), R"({"response":[[1007,"full"]]})") << "the next one is itself again";
}

class AgentStranger : public AgentIdentity {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
        // Any user may use the socket here; what it then may do is the question.
        std::filesystem::permissions(agent.socketPath(), std::filesystem::perms(0666));
    }
    std::string ask(const std::function<std::string(HttpClient&)>& question) { return asStranger(agent, question); }
};

TEST_F(AgentStranger, HasNoFullAccessAndStandsForNothing) {
    EXPECT_EQ(ask([](HttpClient& client) { return client.message(identityRequest()); }),
              R"({"response":[[1007,"limited"]]})");
}

TEST_F(AgentStranger, MayNotNameAClient) {
    for (const char* client : {R"({"fullAccess":true})", R"({"fullAccess":false,"sids":[]})"}) {
        const QORResponse response =
            readResponse(ask([&](HttpClient& http) { return http.message(identityRequest(client)); }));
        ASSERT_TRUE(response.error) << client;
        EXPECT_EQ(response.error->code, 400);
        EXPECT_EQ(response.error->message, "only a connection with full access may name a client");
        EXPECT_TRUE(response.response.empty());
    }
}

TEST_F(AgentStranger, MayNotBringOrCollectRecords) {
    for (const char* target : {"/v1/records", "/v1/collect"}) {
        const std::string answer = ask([&](HttpClient& client) {
            const HttpAnswer http = client.post(target, "");
            return std::to_string(http.status) + " " + http.body;
        });
        EXPECT_THAT(answer, testing::StartsWith("403 ")) << target;
        EXPECT_THAT(answer, HasSubstr("full access")) << target;
    }
}

TEST_F(AgentStranger, MayNotSeeWhatIsKnownOfAllRecords) {
    EXPECT_THAT(ask([](HttpClient& client) {
                    const HttpAnswer answer = client.get("/v1/status");
                    return std::to_string(answer.status) + " " + answer.body;
                }),
                testing::AllOf(testing::StartsWith("403 "), HasSubstr("full access")));
}

TEST_F(AgentStranger, MayLookAtViewsAndHealth) {
    for (const char* target : {"/v1/views", "/v1/health"}) {
        EXPECT_EQ(ask([&](HttpClient& client) { return std::to_string(client.get(target).status); }), "200") << target;
    }
}

TEST_F(AgentStranger, CannotConnectWithoutThePermissionOfTheSocket) {
    std::filesystem::permissions(agent.socketPath(), std::filesystem::perms(0600));
    EXPECT_THAT(ask([](HttpClient& client) { return client.message(identityRequest()); }), HasSubstr("cannot connect"));
}

}  // namespace
}  // namespace QOR
