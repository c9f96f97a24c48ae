#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "HttpServerFixture.h"

namespace QOR {
namespace {

using namespace std::chrono_literals;
using test::HttpAnswer;
using test::HttpClient;
using test::HttpServerTest;
using test::Over;
using testing::HasSubstr;
using testing::StartsWith;

TEST_F(HttpServerTest, AnswersWithTheApplicationsReply) {
    start();
    HttpClient client = connect();
    EXPECT_EQ(client.request("PUT", "/path/x?a=b&c", "body").body, "PUT /path/x a=b&c body");
    const HttpAnswer answer = client.get("/teapot");
    EXPECT_EQ(answer.status, 418);
    EXPECT_EQ(answer.headers.at("content-type"), "text/plain");
    EXPECT_EQ(answer.headers.at("allow"), "POST");
}

TEST_F(HttpServerTest, OneConnectionIsOneHandler) {
    start();
    {
        HttpClient first = connect();
        HttpClient second = connect();
        EXPECT_EQ(first.get("/number").body, "1");
        EXPECT_EQ(first.get("/number").body, "2");
        EXPECT_EQ(second.get("/number").body, "1");
    }
    EXPECT_TRUE(stop());
    EXPECT_EQ(application.connected, 2);
    EXPECT_EQ(application.gone, 2);
}

TEST_F(HttpServerTest, HandlerGoesWhenItsClientDoes) {
    start();
    {
        HttpClient client = connect();
        client.get("/");
    }
    while (application.gone == 0 || server->connections() != 0)  // in either order
        std::this_thread::yield();
}

TEST_F(HttpServerTest, TheSystemVouchesForThePeer) {
    if (over != Over::Unix) GTEST_SKIP() << "it does not over TCP";
    start();
    connect().get("/");
    EXPECT_EQ(application.lastUid, ::geteuid());
}

TEST_F(HttpServerTest, PipelinedRequestsAreAnsweredInOrder) {
    start();
    HttpClient client = connect();
    std::string requests;
    for (int number = 0; number < 200; ++number) {
        requests += HttpClient::compose("POST", "/" + std::to_string(number), std::string(100, 'p'));
    }
    client.send(requests);  // no more than the system keeps for a server that does not read on
    for (int number = 0; number < 200; ++number) {
        EXPECT_THAT(client.receive().body, StartsWith("POST /" + std::to_string(number) + " "));
    }
}

TEST_F(HttpServerTest, ChunkedBodiesAreReadWhole) {
    start();
    HttpClient client = connect();
    client.send(
        "POST /c HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n6;x=y\r\n world\r\n0\r\n\r\n");
    EXPECT_EQ(client.receive().body, "POST /c  hello world");
    EXPECT_EQ(client.get("/next").status, 200);
}

TEST_F(HttpServerTest, RequestsMayArriveByteByByte) {
    start();
    HttpClient client = connect();
    for (const char byte : HttpClient::compose("POST", "/slow", "abc")) {
        client.send(std::string_view(&byte, 1));
        std::this_thread::yield();
    }
    EXPECT_EQ(client.receive().body, "POST /slow  abc");
}

TEST_F(HttpServerTest, ClientsThatAskFirstAreToldToGoOn) {
    start();
    HttpClient client = connect();
    client.send("POST /e HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\n");
    EXPECT_EQ(client.receive(false, true).status, 100);
    client.send("abc");
    EXPECT_EQ(client.receive().body, "POST /e  abc");
}

TEST_F(HttpServerTest, OtherExpectationsAreRefused) {
    start();
    HttpClient client = connect();
    client.send("POST /e HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\nExpect: miracles\r\n\r\n");
    EXPECT_EQ(client.receive().status, 417);
}

TEST_F(HttpServerTest, HeadHasNoBodyAndKeepsTheConnection) {
    start();
    HttpClient client = connect();
    const HttpAnswer answer = client.request("HEAD", "/h");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.headers.at("content-length"), "9");
    EXPECT_EQ(client.get("/g").body, "GET /g  ");
}

TEST_F(HttpServerTest, ConnectionCloseIsHonoured) {
    start();
    HttpClient client = connect();
    const HttpAnswer answer = client.request("GET", "/", {}, "Connection: close\r\n");
    EXPECT_EQ(answer.headers.at("connection"), "close");
    EXPECT_TRUE(client.isClosed());
}

TEST_F(HttpServerTest, OldClientsAreAnsweredAndClosed) {
    start();
    HttpClient client = connect();
    client.send("GET /old HTTP/1.0\r\n\r\n");
    EXPECT_EQ(client.receive().body, "GET /old  ");
    EXPECT_TRUE(client.isClosed());
}

TEST_F(HttpServerTest, LargeAnswersArriveWhole) {
    start();
    HttpClient client = connect();
    const std::size_t size = 50'000'000;
    const HttpAnswer answer = client.post("/big", std::to_string(size));
    EXPECT_EQ(answer.body.size(), size);
    EXPECT_EQ(answer.body.find_first_not_of('b'), std::string::npos);
}

TEST_F(HttpServerTest, WhatIsNoHttpIsRefusedAndTheConnectionClosed) {
    start();
    const std::vector<std::string> requests{
        "hello\r\n\r\n",
        "GET / HTTP/1.1 extra\r\n\r\n",
        "GET / HTTP/9.9\r\n\r\n",
        "GET / HTTP/1.1\r\nno colon\r\n\r\n",
        "POST / HTTP/1.1\r\nContent-Length: x\r\n\r\n",
        "POST / HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\nabcd",
        "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n",
        std::string("GET /\0 HTTP/1.1\r\n\r\n", 19),
    };
    for (const std::string& request : requests) {
        HttpClient client = connect();
        client.send(request);
        const HttpAnswer answer = client.receive();
        EXPECT_EQ(answer.status, 400) << request;
        EXPECT_THAT(answer.body, HasSubstr("this is not HTTP")) << request;
        EXPECT_TRUE(client.isClosed()) << request;
    }
    EXPECT_EQ(connect().get("/").status, 200);
}

TEST_F(HttpServerTest, AHalfRequestIsDropped) {
    start();
    for (const char* request : {"GE", "GET / HTTP/1.1\r\nHost", "POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc"}) {
        HttpClient client = connect();
        client.send(request);
        client.finishSending();
        EXPECT_TRUE(client.isClosed()) << request;
    }
    EXPECT_EQ(connect().get("/").status, 200);
}

TEST_F(HttpServerTest, HeadersBeyondTheLimitAreRefused) {
    start();
    HttpClient client = connect();
    client.send("GET / HTTP/1.1\r\nX: " + std::string(options.headerLimit, 'x') + "\r\n\r\n");
    EXPECT_EQ(client.receive().status, 431);
    EXPECT_TRUE(client.isClosed());
}

TEST_F(HttpServerTest, ABodyAtTheLimitIsTakenOneBeyondIsNot) {
    options.bodyLimit = 1000;
    start();
    EXPECT_EQ(connect().post("/", std::string(1000, 'x')).status, 200);
    const HttpAnswer answer = connect().post("/", std::string(1001, 'x'));
    EXPECT_EQ(answer.status, 413);
    EXPECT_THAT(answer.body, HasSubstr("1000 bytes"));
}

TEST_F(HttpServerTest, AHugeBodyIsRefusedBeforeItIsSentWhole) {
    options.bodyLimit = 1000;
    start();
    HttpClient client = connect();
    client.send("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 100000000000\r\n\r\n");
    EXPECT_EQ(client.receive().status, 413);
}

TEST_F(HttpServerTest, ARefusalReachesAClientThatIsStillSending) {
    options.bodyLimit = 1000;
    start();
    HttpClient client = connect();
    // More than the system keeps, and little for the seconds in which the server takes what is still sent.
    client.send("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 8000000\r\n\r\n");
    EXPECT_TRUE(client.send(std::string(8'000'000, 'x')));
    EXPECT_EQ(client.receive().status, 413);
}

TEST_F(HttpServerTest, ChunkedBodiesAreLimitedToo) {
    options.bodyLimit = 1000;
    start();
    HttpClient client = connect();
    client.send("POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n");
    for (int chunk = 0; chunk < 11; ++chunk)
        client.send("64\r\n" + std::string(100, 'x') + "\r\n");
    client.send("0\r\n\r\n");
    EXPECT_EQ(client.receive().status, 413);
}

TEST_F(HttpServerTest, AnExceptionIsAReplyAndTheConnectionGoesOn) {
    start();
    HttpClient client = connect();
    const HttpAnswer answer = client.get("/throw");
    EXPECT_EQ(answer.status, 500);
    EXPECT_THAT(answer.body, HasSubstr("thrown"));
    EXPECT_EQ(client.get("/").status, 200);
}

TEST_F(HttpServerTest, SlowRequestsHoldUpNobodyElse) {
    options.threads = 3;
    options.requestsPerIdentity = 3;
    start();
    HttpClient slow1 = connect();
    HttpClient slow2 = connect();
    slow1.send(HttpClient::compose("GET", "/wait"));
    slow2.send(HttpClient::compose("GET", "/wait"));
    application.gate.awaitWaiting(2);
    for (int number = 0; number < 10; ++number)
        EXPECT_EQ(connect().get("/quick").status, 200);
    application.gate.open();
    EXPECT_EQ(slow1.receive().status, 200);
    EXPECT_EQ(slow2.receive().status, 200);
}

TEST_F(HttpServerTest, ManyClientsAtOnce) {
    start();
    std::vector<std::future<int>> clients;
    for (int number = 0; number < 16; ++number) {
        clients.push_back(std::async(std::launch::async, [this, number] {
            HttpClient client = connect();
            int right = 0;
            for (int request = 0; request < 50; ++request) {
                const std::string body = std::to_string(number * 1000 + request);
                right += client.post("/", body).body == "POST /  " + body ? 1 : 0;
            }
            return right;
        }));
    }
    for (auto& client : clients)
        EXPECT_EQ(client.get(), 50);
}

TEST_F(HttpServerTest, SilentConnectionsAreClosed) {
    options.idleTimeout = 20ms;
    start();
    EXPECT_TRUE(connect().isClosed());
}

TEST_F(HttpServerTest, RequestsThatDoNotGoOnAreClosed) {
    options.headerTimeout = 20ms;
    options.bodyTimeout = 20ms;
    start();
    for (const char* request : {"GET / HTTP/1.1\r\n", "POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc"}) {
        HttpClient client = connect();
        client.send(request);
        EXPECT_TRUE(client.isClosed()) << request;
    }
}

TEST_F(HttpServerTest, ClientsThatDoNotReadAreClosed) {
    options.writeTimeout = 20ms;
    start();
    HttpClient client = connect();
    client.send(HttpClient::compose("POST", "/big", "100000000"));
    while (application.gone == 0)
        std::this_thread::yield();
    EXPECT_THROW(client.receive(), std::runtime_error);
}

TEST_F(HttpServerTest, AClientThatGoesDuringItsRequestHarmsNobody) {
    start();
    {
        HttpClient client = connect();
        client.send(HttpClient::compose("GET", "/wait"));
        application.gate.awaitWaiting(1);
    }
    application.gate.open();
    EXPECT_EQ(connect().get("/").status, 200);
    while (application.gone == 0)
        std::this_thread::yield();
}

// ---- stopping

TEST_F(HttpServerTest, StoppingRemovesTheSocket) {
    if (over != Over::Unix) GTEST_SKIP() << "it has no name";
    start();
    EXPECT_TRUE(stop());
    EXPECT_FALSE(std::filesystem::exists(options.listen.front().path));
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(HttpServerTest, RequestsInFlightAreAnsweredLaterOnesRefused) {
    start();
    HttpClient waiting = connect();
    HttpClient open = connect();
    EXPECT_EQ(open.get("/").status, 200);
    waiting.send(HttpClient::compose("GET", "/wait") + HttpClient::compose("GET", "/pipelined"));
    application.gate.awaitWaiting(1);
    server->stop();
    // The refusal of new connections shows that the server has taken notice.
    for (;;) {
        try {
            connect();
        } catch (const std::exception&) {
            break;
        }
    }
    const HttpAnswer refused = open.get("/late");
    EXPECT_EQ(refused.status, 503);
    EXPECT_EQ(refused.headers.at("connection"), "close");
    application.gate.open();
    const HttpAnswer answer = waiting.receive();
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.headers.at("connection"), "close");
    EXPECT_TRUE(result.get());
    server.reset();
    EXPECT_EQ(application.gone, 2);
}

TEST_F(HttpServerTest, ReplyThatIsNotTakenIsDroppedWhenTheGraceIsOver) {
    start();
    HttpClient client = connect();
    client.send(HttpClient::compose("POST", "/big", "100000000"));
    ASSERT_TRUE(client.awaitBytes());
    server->stop();
    EXPECT_TRUE(stop()) << "the second call ends the grace";
    EXPECT_EQ(application.gone, 1);
    EXPECT_THROW(client.receive(), std::runtime_error);
}

TEST_F(HttpServerTest, IdleConnectionsDoNotDelayTheEnd) {
    start();
    HttpClient client = connect();
    client.get("/");
    HttpClient silent = connect();
    EXPECT_TRUE(stop());
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(application.gone, application.connected);
}

}  // namespace
}  // namespace QOR
