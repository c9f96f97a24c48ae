// Clients that mean harm, over a unix socket and over TLS: whatever they do, an honest client is answered meanwhile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/TestCertificates.h"
#include "support/TlsWire.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;

constexpr const char* one = "11111111-1111-1111-1111-111111111111";
constexpr const char* two = "22222222-2222-2222-2222-222222222222";

enum class Way { Unix, Tls };

std::string nameOf(const testing::TestParamInfo<Way>& info) {
    return info.param == Way::Unix ? "Unix" : "Tls";
}

const TestCertificates& certificates() {
    static const TestCertificates made;
    return made;
}

std::string eventOf(const std::string& eid) {
    return R"({"kind":"environment","eid":")" + eid + "\"}\n" + R"({"kind":"event","time":1,"eid":")" + eid +
           R"(","source":"of )" + eid.substr(0, 1) + "\"}\n";
}

std::string select(const std::string& more = {}) {
    return R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],[1741,"source"])" + more + "]]}";
}

class HostileClients : public testing::TestWithParam<Way> {
protected:
    static void SetUpTestSuite() {
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }

    HostileClients() {
        HttpClient root(agent.socketPath());
        EXPECT_EQ(root.post("/v1/records", eventOf(one) + eventOf(two)).status, 200);
        honestToken = tokenOf(root, "honest", R"("access":"full")");
        const std::string eids[] = {one, two};
        for (const std::string& eid : eids)
            readers.push_back(tokenOf(root, "reader" + eid.substr(0, 1),
                                      R"("access":"environments","environments":[{"eid":")" + eid + "\"}]"));
        EXPECT_EQ(early.request("GET", "/v1/views", {}, honestToken).status, 200);
    }

    static std::string tokenOf(HttpClient& root, const std::string& name, const std::string& access) {
        root.post("/v1/identities/add", R"({"name":")" + name + R"(","kind":"token",)" + access + "}");
        const std::string answer = root.post("/v1/tokens/create", R"({"name":")" + name + "\"}").body;
        return "Authorization: Bearer " + answer.substr(answer.find("qor_"), 68) + "\r\n";
    }

    HttpClient connect() const {
        if (GetParam() == Way::Unix) return HttpClient(agent.socketPath());
        return connectTls(TlsFiles{certificates().certificate("authority")});
    }
    HttpClient connectTls(const TlsFiles& files) const {
        const std::string text = "listening on https://127.0.0.1:";
        const std::string output = agent.output();
        const int socket = connectTcp("127.0.0.1", std::stoi(output.substr(output.find(text) + text.size())));
        // Else the system keeps back what is sent behind the handshake until the agent's system has acknowledged that.
        const int now = 1;
        EXPECT_EQ(::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &now, sizeof now), 0);
        return HttpClient(socket, std::make_unique<TlsWire>(socket, files));
    }

    /// Sends requests of which there are more than the system keeps, and looks at the answers: of one connection over
    /// TLS a single thread sends and receives. \param meanwhile when nothing has been received yet
    template <class Meanwhile, class Look>
    static void pipeline(HttpClient& client, const std::vector<std::string>& requests, Meanwhile meanwhile, Look look) {
        constexpr std::size_t ahead = 200;  // requests that have not been answered; the system keeps so many
        std::size_t sent = 0;
        const auto sendUpTo = [&](std::size_t end) {
            std::string some;
            for (; sent < std::min(end, requests.size()); ++sent)
                some += requests[sent];
            client.send(some);
        };
        sendUpTo(ahead);
        meanwhile();
        for (std::size_t request = 0; request < requests.size(); ++request) {
            look(request, client.receive());
            sendUpTo(request + 1 + ahead);
        }
    }

    /// One who has come before, and one who comes now, with a request that takes a worker.
    void expectHonestIsAnswered() {
        const std::string body = select();
        EXPECT_EQ(early.request("POST", "/v1/messages", body, honestToken).status, 200);
        HttpClient late = connect();
        EXPECT_THAT(late.request("POST", "/v1/messages", body, honestToken).body, HasSubstr("of 1"));
    }

    template <class Attack>
    std::vector<HttpClient> many(int number, Attack attack) {
        std::vector<HttpClient> clients;
        for (int client = 0; client < number; ++client) {
            clients.push_back(connect());
            attack(clients.back());
        }
        return clients;
    }

    AgentProcess agent{
        {.more = {"--listen", "https://127.0.0.1:0", "--tls-certificate", certificates().certificate("server"),
                  "--tls-key", certificates().key("server"), "--tls-client-ca", certificates().certificate("authority"),
                  "--connections", "1100", "--user-connections", "1050"}}};
    std::string honestToken;
    std::vector<std::string> readers;
    HttpClient early = connect();
};

INSTANTIATE_TEST_SUITE_P(Over, HostileClients, testing::Values(Way::Unix, Way::Tls), nameOf);

TEST_P(HostileClients, WhoNeverEndTheirHeadsHoldUpNobody) {
    auto clients = many(100, [](HttpClient& client) { client.send("GET /v1/views HTTP/1.1\r\nX-Slow: "); });
    for (HttpClient& client : clients)
        client.send("x");
    expectHonestIsAnswered();
}

TEST_P(HostileClients, WhoNeverEndTheirBodiesHoldUpNobody) {
    auto clients = many(100, [&](HttpClient& client) {
        client.send("POST /v1/messages HTTP/1.1\r\n" + honestToken + "Content-Length: 60000\r\n\r\n{");
    });
    auto chunked = many(50, [&](HttpClient& client) {
        client.send("POST /v1/messages HTTP/1.1\r\n" + honestToken + "Transfer-Encoding: chunked\r\n\r\n5\r\n{");
    });
    expectHonestIsAnswered();
}

TEST_P(HostileClients, WhoNeverReadTheirAnswersHoldUpNobody) {
    HttpClient root(agent.socketPath());
    std::string events;
    for (int number = 0; number < 3000; ++number)
        events += R"({"kind":"event","time":2,"eid":")" + std::string(one) + R"(","source":")" + std::string(250, 's') +
                  "\"}\n";
    ASSERT_EQ(root.post("/v1/records", events).status, 200);
    const std::string large = select(R"(,[1741,"id"],[1741,"info"])");
    auto pages = many(8, [&](HttpClient& client) {
        for (int request = 0; request < 5; ++request)
            client.send(HttpClient::compose("POST", "/v1/messages", large, honestToken));
    });
    expectHonestIsAnswered();
    auto streams = many(6, [&](HttpClient& client) {
        client.send(HttpClient::compose("POST", "/v1/messages?stream=true", large, readers.front()));
    });
    expectHonestIsAnswered();
}

TEST_P(HostileClients, WhoCloseHalfOfTheirConnectionAreAnsweredOrDropped) {
    auto silent = many(100, [](HttpClient& client) { client.finishSending(); });
    auto halves = many(100, [](HttpClient& client) {
        client.send("GET /v1/views HTTP/1.1\r\nHost: x");
        client.finishSending();
    });
    expectHonestIsAnswered();
    for (HttpClient& client : halves)
        EXPECT_TRUE(client.isClosed());
}

TEST_P(HostileClients, AThousandWhoSayNothingHoldUpNobody) {
    auto clients = many(1000, [](HttpClient&) {});
    expectHonestIsAnswered();
}

TEST_P(HostileClients, WhoSendTwoRequestsInOneSendNone) {
    const std::string second = "GET /v1/identities HTTP/1.1\r\nHost: x\r\n" + honestToken + "\r\n";
    const std::string head = "POST /v1/messages HTTP/1.1\r\nHost: x\r\n" + honestToken;
    const std::string size = std::to_string(second.size());
    const std::string attempts[] = {
        head + "Content-Length: 0\r\nTransfer-Encoding: chunked\r\n\r\n" + second,
        head + "Transfer-Encoding: chunked\r\nContent-Length: " + size + "\r\n\r\n0\r\n\r\n" + second,
        head + "Content-Length: 0\r\nContent-Length: " + size + "\r\n\r\n" + second,
        head + "Content-Length: 0, " + size + "\r\n\r\n" + second,
        head + "Content-Length: +0\r\n\r\n" + second,
        head + "Content-Length : 0\r\n\r\n" + second,
        head + "Transfer-Encoding: identity, chunked\r\n\r\n0\r\n\r\n" + second,
        head + "Transfer-Encoding:\x0b chunked\r\n\r\n0\r\n\r\n" + second,
        head + "Transfer-Encoding: chunked\r\n\r\n0x0\r\n\r\n" + second,
        head + "Transfer-Encoding: chunked\r\n\r\n0\n\n" + second,
        head + "Transfer-Encoding: chunked\r\n\r\n00000000000000000000\r\n\r\n" + second,
        head + "Transfer-Encoding: chunked\r\n\r\n1;a=\"\r\n\r\n" + second,
        head + "Transfer-Encoding: chunked\r\n\r\n2\r\n{}x\r\n0\r\n\r\n" + second,
        head + "X: a\r\n b\r\nContent-Length: 0\r\n\r\n" + second,
        head + "\rContent-Length: 0\r\n\r\n" + second,
    };
    for (const std::string& attempt : attempts) {
        HttpClient client = connect();
        client.send(attempt);
        const HttpAnswer answer = client.receive();
        EXPECT_TRUE(answer.status == 400 || answer.status == 501) << answer.status << '\n' << attempt;
        EXPECT_TRUE(client.isClosed()) << attempt;
    }
    expectHonestIsAnswered();
}

TEST_P(HostileClients, FloodsOfRequestsAreAnsweredInOrderBesideOthers) {
    HttpClient client = connect();
    std::vector<std::string> flood;
    for (int request = 0; request < 2000; ++request)
        flood.push_back(HttpClient::compose("GET", request % 2 == 0 ? "/v1/views" : "/nothing", {}, honestToken));
    pipeline(
        client, flood, [this] { expectHonestIsAnswered(); },
        [](std::size_t request, const HttpAnswer& answer) {
            EXPECT_EQ(answer.status, request % 2 == 0 ? 200 : 404) << request;
        });
}

TEST_P(HostileClients, BrokenTextsAreRefusedWhereverTheyBreak) {
    const std::string good = select(R"(,[1742,[[2225,[[1741,"source"],[1018,"a"]]]]])");
    HttpClient client = connect();
    for (std::size_t at = 0; at < good.size(); ++at) {
        for (const std::string& bad :
             {good.substr(0, at), good.substr(0, at) + "\xff" + good.substr(at),
              good.substr(0, at) + "\\x" + good.substr(at), good.substr(0, at) + "\xed\xa0\x80" + good.substr(at),
              good.substr(0, at) + "[" + good.substr(at)}) {
            const HttpAnswer answer = client.request("POST", "/v1/messages", bad, honestToken);
            ASSERT_TRUE(answer.status == 400 || answer.body.find("\"error\"") != std::string::npos ||
                        answer.body.find("\"response\":[[1744") != std::string::npos)
                << bad << '\n'
                << answer.body;
        }
    }
    const std::string deep(100'000, '[');
    EXPECT_EQ(
        client.request("POST", "/v1/messages", R"({"operator":"pager2","request":"select","body":)" + deep, honestToken)
            .status,
        400);
    for (const char* query : {"where=%", "where=%f", "where=%zz", "where=%ff", "where=%c0%af", "where=%ed%a0%80",
                              "where=%00", "%ff=1", "limit=%", "=", "&", "where=a%20=%20'"})
        EXPECT_EQ(client.request("GET", std::string("/v1/views/vEventLog/rows?") + query, {}, honestToken).status, 400)
            << query;
    EXPECT_EQ(client.request("GET", "/v1/views/%ff", {}, honestToken).status, 400);
    EXPECT_EQ(client.request("GET", "/v1/views/%zz", {}, honestToken).status, 400);
    expectHonestIsAnswered();
}

TEST_P(HostileClients, CertificatesOfAnotherAuthorityAreNoIdentity) {
    certificates().issue("stranger", "other", "");
    const TlsFiles files{certificates().certificate("authority"), certificates().certificate("stranger"),
                         certificates().key("stranger")};
    for (int attempt = 0; attempt < 20; ++attempt) {
        try {
            HttpClient client = connectTls(files);
            client.send(HttpClient::compose("GET", "/v1/views"));
            EXPECT_TRUE(client.isClosed());
        } catch (const std::runtime_error&) {
            // Refused while it shook hands.
        }
    }
    expectHonestIsAnswered();
}

/// Requests of several identities, one behind the other on one connection, the next sent before the last is answered.
TEST_P(HostileClients, EachAnswerIsThatOfTheIdentityThatItsRequestShowed) {
    const std::string tokens[] = {readers[0], readers[1], honestToken};
    const char* const seen[] = {"1", "2", "12"};
    HttpClient client = connect();
    std::vector<std::string> requests;
    for (std::size_t request = 0; request < 300; ++request)
        requests.push_back(HttpClient::compose("POST", "/v1/messages", select(R"(,[1743,[[1741,"source"]]])"),
                                               tokens[request * 7 % 3]));
    pipeline(
        client, requests, [] {},
        [&](std::size_t request, const HttpAnswer& answer) {
            std::string digits;
            for (std::size_t at = 0; (at = answer.body.find("\"of ", at)) != std::string::npos; ++at)
                digits += answer.body[at + 4];
            EXPECT_EQ(digits, seen[request * 7 % 3]) << request;
        });
    expectHonestIsAnswered();
}

// Of one user, as they are at a unix socket: what waits for a refusal goes before what waits for a request.
TEST(GuessingClients, TakeNoConnectionFromAnHonestOneOfTheSameUser) {
    AgentProcess agent{{.more = {"--connections", "40", "--user-connections", "8"}}};
    HttpClient honest(agent.socketPath());
    EXPECT_EQ(honest.get("/v1/views").status, 200);
    std::vector<HttpClient> guessing;
    for (int guess = 0; guess < 30; ++guess) {
        guessing.emplace_back(agent.socketPath());
        guessing.back().send("GET /v1/views HTTP/1.1\r\nHost: a\r\nAuthorization: Bearer " + std::to_string(guess) +
                             "\r\n\r\n");
    }
    EXPECT_EQ(honest.get("/v1/views").status, 200);
}

}  // namespace
}  // namespace QOR::test
