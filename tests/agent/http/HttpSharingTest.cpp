// How clients share a server: turns, memory, connections; and what none of them can smuggle past it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "HttpServerFixture.h"

namespace QOR {
namespace {

using namespace std::chrono_literals;
using test::HttpAnswer;
using test::HttpClient;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class HttpSharingTest : public test::HttpServerTest {
protected:
    HttpSharingTest() {
        options.threads = 2;
        options.requestsPerIdentity = 1;
    }

    /// Keeps a worker until the gate opens.
    HttpClient occupy(const std::string& key, const std::string& path = "/wait") {
        HttpClient client = connectAs(key);
        client.send(HttpClient::compose("GET", path));
        application.gate.awaitWaiting(++m_occupied);
        return client;
    }

    /// \param status 429 where it is his own doing
    static void expectUnavailable(const HttpAnswer& answer, const char* text, int status = 503) {
        EXPECT_EQ(answer.status, status);
        EXPECT_EQ(answer.headers.at("retry-after"), "1");
        EXPECT_THAT(answer.body, HasSubstr(text));
    }

private:
    int m_occupied = 0;
};

// ---- turns

TEST_F(HttpSharingTest, OneWhoOccupiesHisShareLeavesTheOthersToOthers) {
    start();
    HttpClient busy = occupy("a");
    HttpClient waiting = connectAs("a");
    waiting.send(HttpClient::compose("GET", "/second"));
    for (int request = 0; request < 20; ++request)
        EXPECT_EQ(connectAs("b").get("/b").status, 200);
    EXPECT_THAT(application.handled(), Not(Contains("/second")));
    application.gate.open();
    EXPECT_EQ(waiting.receive().status, 200);
    EXPECT_EQ(busy.receive().status, 200);
}

TEST_F(HttpSharingTest, WhatNeedsNoWorkerIsAnsweredWhileAllAreBusy) {
    start();
    HttpClient first = occupy("a");
    HttpClient second = occupy("b");
    HttpClient client = connectAs("c");
    EXPECT_EQ(client.get("/now").body, "now");
    EXPECT_EQ(client.get("/no").status, 404);
    EXPECT_EQ(client.get("/now").body, "now") << "the connection goes on";
    client.send("nonsense\r\n\r\n");
    EXPECT_EQ(client.receive().status, 400);
}

TEST_F(HttpSharingTest, AReplyThatDoesNotReadTheBodyEndsTheConnection) {
    start();
    HttpClient client = connect();
    client.send(HttpClient::compose("POST", "/no", HttpClient::compose("GET", "/smuggled")));
    const HttpAnswer answer = client.receive();
    EXPECT_EQ(answer.status, 404);
    EXPECT_EQ(answer.headers.at("connection"), "close");
    EXPECT_TRUE(client.isClosed());
    EXPECT_THAT(application.handled(), ElementsAre());
}

TEST_F(HttpSharingTest, WritersAndReadersDoNotWaitForEachOther) {
    options.threads = 1;
    options.writers = 1;
    start();
    HttpClient writer = occupy("a", "/write/wait");
    EXPECT_EQ(connectAs("a").get("/read").status, 200) << "the same user, too";
    HttpClient next = connectAs("b");
    next.send(HttpClient::compose("GET", "/write/next"));
    EXPECT_EQ(connectAs("b").get("/read").status, 200);
    EXPECT_THAT(application.handled(), Not(Contains("/write/next")));
    application.gate.open();
    EXPECT_EQ(next.receive().status, 200);
}

TEST_F(HttpSharingTest, UsersTakeTurnsNotConnections) {
    options.threads = 1;
    start();
    HttpClient busy = occupy("x");
    std::vector<HttpClient> clients;
    for (const char* path : {"/a1", "/a2", "/a3", "/b1"}) {
        clients.push_back(connectAs(std::string(path).substr(1, 1)));
        clients.back().send(HttpClient::compose("GET", path));
        // What was sent is read before another connection is accepted and answered.
        connectAs("y");
    }
    application.gate.open();
    for (HttpClient& client : clients)
        EXPECT_EQ(client.receive().status, 200);
    EXPECT_THAT(application.handled(), ElementsAre("/wait", "/a1", "/b1", "/a2", "/a3"));
}

TEST_F(HttpSharingTest, MoreThanMayWaitAreTurnedDownAndMayTryAgain) {
    options.waitingPerIdentity = 2;
    start();
    HttpClient busy = occupy("a");
    std::vector<HttpClient> clients;
    for (int number = 0; number < 2; ++number) {
        clients.push_back(connectAs("a"));
        clients.back().send(HttpClient::compose("GET", "/waits"));
        connectAs("y");
    }
    HttpClient third = connectAs("a");
    expectUnavailable(third.get("/third"), "too many requests of this user wait for their turn (--user-waiting)", 429);
    EXPECT_EQ(third.get("/now").status, 200) << "its connection goes on";
    EXPECT_EQ(connectAs("b").get("/b").status, 200) << "others are not concerned";
    application.gate.open();
    for (HttpClient& client : clients)
        EXPECT_EQ(client.receive().status, 200);
    EXPECT_EQ(third.get("/again").status, 200);
    EXPECT_THAT(application.handled(), Not(Contains("/third")));
}

TEST_F(HttpSharingTest, ARequestThatWaitedTooLongIsNotRun) {
    options.deadline = 20ms;
    start();
    HttpClient busy = occupy("a");
    HttpClient late = connectAs("a");
    expectUnavailable(late.get("/late"), "waited too long for its turn");
    application.gate.open();
    EXPECT_EQ(busy.receive().status, 200);
    EXPECT_EQ(connectAs("a").get("/next").status, 200);
    EXPECT_THAT(application.handled(), Not(Contains("/late")));
}

TEST_F(HttpSharingTest, StoppingAnswersWhatWaits) {
    start();
    HttpClient busy = occupy("a");
    HttpClient waiting = connectAs("a");
    waiting.send(HttpClient::compose("GET", "/waits"));
    connectAs("y");
    server->stop();
    application.gate.open();
    EXPECT_EQ(busy.receive().status, 200);
    EXPECT_EQ(waiting.receive().status, 200);
    EXPECT_TRUE(result.get());
    server.reset();
}

// ---- connections

TEST_F(HttpSharingTest, ForANewConnectionTheLongestIdleOneOfWhoeverHasMostIsClosed) {
    options.maxConnections = 5;
    options.reservedConnections = 0;
    start();
    HttpClient other = connectAs("b");
    std::vector<HttpClient> many;
    for (int number = 0; number < 4; ++number)
        many.push_back(connectAs("a"));
    EXPECT_EQ(many[0].get("/now").status, 200) << "now the second is the one that is idle the longest";
    HttpClient third = connectAs("c");
    EXPECT_TRUE(many[1].isClosed());
    EXPECT_EQ(many[0].get("/now").status, 200);
    EXPECT_EQ(other.get("/now").status, 200);
    EXPECT_EQ(third.get("/now").status, 200);
    EXPECT_EQ(server->connections(), 5U);
}

TEST_F(HttpSharingTest, AUserMakesRoomForHimselfAtHisOwnLimit) {
    options.connectionsPerIdentity = 2;
    start();
    HttpClient first = connectAs("a");
    HttpClient second = connectAs("a");
    HttpClient other = connectAs("b");
    HttpClient third = connectAs("a");
    EXPECT_TRUE(first.isClosed());
    EXPECT_EQ(second.get("/now").status, 200);
    EXPECT_EQ(other.get("/now").status, 200);
}

TEST_F(HttpSharingTest, AConnectionBeyondThatFindsNobodyIdleIsTurnedAway) {
    if (over == test::Over::Tls) GTEST_SKIP() << "there is no answer without a handshake";
    options.connectionsPerIdentity = 2;
    start();
    HttpClient busy = occupy("a");
    HttpClient half = connectAs("a");
    half.send("GET /half HTTP/1.1\r\n");
    connectAs("b");  // by now the half has been read
    application.setIdentity({"a", false});
    HttpClient third = connect();
    third.send(HttpClient::compose("GET", "/third"));
    expectUnavailable(third.receive(), "this user has 2 connections, and all of them are busy (--user-connections)",
                      429);
    EXPECT_TRUE(third.isClosed());
    half.send("\r\n");
    application.gate.open();
    EXPECT_EQ(half.receive().status, 200);
    EXPECT_EQ(busy.receive().status, 200);
}

TEST_F(HttpSharingTest, SomeConnectionsAreKeptForThoseWhoLookAfterTheAgent) {
    if (over == test::Over::Tls) GTEST_SKIP() << "there is no answer without a handshake";
    options.threads = 8;
    options.requestsPerIdentity = 4;
    options.maxConnections = 4;
    options.reservedConnections = 2;
    start();
    HttpClient first = occupy("a");
    HttpClient second = occupy("a");
    application.setIdentity({"b", false});
    expectUnavailable(connect().receive(), "all 4 connections are in use");
    HttpClient root = connectAs("root", true);
    EXPECT_EQ(root.get("/root").status, 200);
    HttpClient again = connectAs("root", true);
    EXPECT_EQ(again.get("/root").status, 200);
}

TEST_F(HttpSharingTest, ManyIdleConnectionsShutNobodyOut) {
    options.maxConnections = 50;
    options.connectionsPerIdentity = 40;
    options.reservedConnections = 5;
    start();
    application.setIdentity({"hoarder", false});
    std::vector<HttpClient> idle;
    for (int number = 0; number < 200; ++number)
        idle.push_back(connect());
    for (int number = 0; number < 20; ++number)
        EXPECT_EQ(connectAs("honest" + std::to_string(number)).get("/x").status, 200);
}

// ---- bodies

TEST_F(HttpSharingTest, BodiesThatComeTooSlowlyAreEnded) {
    options.bodyTimeout = 50ms;
    options.bodyRate = 1'000'000;
    start();
    HttpClient client = connect();
    client.send("POST / HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n");
    while (client.send("x"))
        std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(connect().post("/", "x").status, 200) << "what comes at once does not";
}

TEST_F(HttpSharingTest, LargeBodiesWaitForTheirMemorySmallOnesDoNot) {
    options.bodyLimit = 100'000;
    options.bodyMemory = options.bodyMemoryPerIdentity = 100'000;
    options.freeBody = 1000;
    start();
    HttpClient half = connectAs("a");
    half.send("POST /half HTTP/1.1\r\nContent-Length: 60000\r\n\r\n" + std::string(59'999, 'x'));
    HttpClient waiting = connectAs("a");
    waiting.send("POST /waits HTTP/1.1\r\nContent-Length: 60000\r\nExpect: 100-continue\r\n\r\n");
    connectAs("y");
    EXPECT_EQ(connectAs("a").post("/small", std::string(1000, 'x')).status, 200);
    half.send("x");
    EXPECT_EQ(half.receive().status, 200);
    EXPECT_EQ(waiting.receive(false, true).status, 100) << "only now it is told to go on";
    waiting.send(std::string(60'000, 'x'));
    EXPECT_EQ(waiting.receive().status, 200);
    EXPECT_THAT(application.handled(), ElementsAre("/small", "/half", "/waits"));
}

TEST_F(HttpSharingTest, OneUsersBodiesLeaveMemoryToOthers) {
    options.bodyLimit = 60'000;
    options.bodyMemory = 120'000;
    options.bodyMemoryPerIdentity = 60'000;
    start();
    HttpClient half = connectAs("a");
    half.send("POST /half HTTP/1.1\r\nContent-Length: 60000\r\n\r\nx");
    EXPECT_EQ(connectAs("b").post("/b", std::string(60'000, 'x')).status, 200);
}

TEST_F(HttpSharingTest, ABodyThatWaitsTooLongForMemoryIsTurnedDown) {
    options.bodyLimit = options.bodyMemory = options.bodyMemoryPerIdentity = 100'000;
    options.bodyWait = 20ms;
    start();
    HttpClient half = connectAs("a");
    half.send("POST /half HTTP/1.1\r\nContent-Length: 100000\r\n\r\nx");
    HttpClient waiting = connectAs("a");
    waiting.send("POST /waits HTTP/1.1\r\nContent-Length: 100000\r\n\r\n");
    expectUnavailable(waiting.receive(), "no memory for the body became free in time");
    EXPECT_TRUE(waiting.isClosed());
}

TEST_F(HttpSharingTest, AChunkedBodyTakesMemoryAsItGrowsOrIsTurnedDown) {
    options.bodyLimit = options.bodyMemory = options.bodyMemoryPerIdentity = 1'000'000;
    options.freeBody = 1000;
    start();
    const std::string head = "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string chunk = "186a0\r\n" + std::string(100'000, 'x') + "\r\n";
    {
        HttpClient half = connectAs("a");
        half.send("POST /half HTTP/1.1\r\nContent-Length: 900000\r\n\r\nx");
        HttpClient client = connectAs("a");
        client.send(head + chunk + chunk + chunk);
        expectUnavailable(client.receive(), "no memory for the body became free in time");
        EXPECT_TRUE(client.isClosed());
    }
    HttpClient client = connectAs("a");
    client.send(head + chunk + chunk + chunk + "0\r\n\r\n");
    EXPECT_EQ(client.receive().status, 200) << "what the two had held is free again";
}

TEST_F(HttpSharingTest, MemoryOfBodiesIsGivenBackHoweverTheyEnd) {
    options.bodyLimit = options.bodyMemory = options.bodyMemoryPerIdentity = 100'000;
    start();
    const std::string head = "POST / HTTP/1.1\r\nContent-Length: 100000\r\n\r\n";
    for (int round = 0; round < 5; ++round) {
        { connectAs("a").send(head + std::string(50'000, 'x')); }
        EXPECT_EQ(connectAs("a").post("/", std::string(100'000, 'x')).status, 200);
        EXPECT_EQ(connectAs("a").post("/throw", std::string(100'000, 'x')).status, 500);
        { connectAs("a").send(HttpClient::compose("POST", "/big", std::string(99'000, '0') + "90000000")); }
    }
    EXPECT_EQ(connectAs("a").post("/", std::string(100'000, 'x')).status, 200);
}

// ---- smuggling

/// Each request tries to carry a second one past a reader that sees one only.
TEST_F(HttpSharingTest, NothingIsSmuggledPastTheServer) {
    start();
    const std::string second = HttpClient::compose("GET", "/smuggled");
    const std::string chunked = "Transfer-Encoding: chunked\r\n";
    const auto post = [](const std::string& fields, const std::string& body) {
        return "POST /first HTTP/1.1\r\nHost: x\r\n" + fields + "\r\n" + body;
    };
    const std::string requests[] = {
        post("Content-Length: 6\r\n" + chunked, "0\r\n\r\n" + second),
        post(chunked + "Content-Length: 6\r\n", "0\r\n\r\n" + second),
        post("Content-Length: 0\r\nContent-Length: 44\r\n", second),
        post("Content-Length: 0, 44\r\n", second),
        post("Content-Length: +0\r\n", second),
        post("Content-Length : 0\r\n", second),
        post("Content-Length: 0\n", second),
        post("X: a\r\n Content-Length: 0\r\n", second),
        post("Transfer-Encoding: gzip\r\n", second),
        post("Transfer-Encoding: gzip, chunked\r\n", "0\r\n\r\n" + second),
        post("Transfer-Encoding: chunked, identity\r\n", "0\r\n\r\n" + second),
        post("Transfer-Encoding: identity\r\nContent-Length: 3\r\n", "abc" + second),
        post("Transfer-Encoding: xchunked\r\n", "0\r\n\r\n" + second),
        post("Transfer-Encoding : chunked\r\n", "0\r\n\r\n" + second),
        post("Transfer-Encoding: chunked\r\nTransfer-Encoding: x\r\n", "0\r\n\r\n" + second),
        post("Transfer-Encoding:\x0B"
             "chunked\r\n",
             "0\r\n\r\n" + second),
        post("X: y\nTransfer-Encoding: chunked\r\n", "0\r\n\r\n" + second),
        post("X: y\rTransfer-Encoding: chunked\r\n", "0\r\n\r\n" + second),
        post(chunked, "0\r\nX: y\n\r\n" + second),
        post(chunked, "0\n\n" + second),
        post(chunked, "3\r\nabcd\r\n0\r\n\r\n" + second),
        post(chunked, "3\r\nab\r\n0\r\n\r\n" + second),
        post(chunked, "0x0\r\n\r\n" + second),
        post(chunked, "1;a\nb\r\na\r\n0\r\n\r\n" + second),
        post(chunked, "10000000000000000\r\n\r\n" + second),
        post(chunked, "0\r\nContent-Length: 44\r\n\r\n" + second),
        "POST /first HTTP/1.0\r\n" + chunked + "Connection: keep-alive\r\n\r\n0\r\n\r\n" + second,
        "GET /first HTTP/1.1\nHost: x\n\n" + second,
    };
    for (const std::string& request : requests) {
        HttpClient client = connect();
        client.send(request);
        const int status = client.receive().status;
        EXPECT_TRUE(status == 400 || status == 501) << status << ' ' << request;
        EXPECT_TRUE(client.isClosed()) << request;
    }
    EXPECT_THAT(application.handled(), ElementsAre());
    EXPECT_EQ(connect().get("/honest").status, 200);
}

}  // namespace
}  // namespace QOR
