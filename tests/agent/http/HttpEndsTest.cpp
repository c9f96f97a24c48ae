// What the application is told of requests at their end, and lanes that are counted by themselves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "HttpServerFixture.h"

namespace QOR {
namespace {

using test::HttpAnswer;
using test::HttpClient;
using testing::HasSubstr;
using How = HttpEnd::How;

class HttpServerEnds : public test::HttpServerTest {
protected:
    void expectEnd(How how, unsigned status, std::size_t bytes) {
        const HttpEnd end = application.nextEnd();
        EXPECT_EQ(end.how, how);
        EXPECT_EQ(end.status, status);
        EXPECT_EQ(end.bytes, bytes);
    }
};

TEST_F(HttpServerEnds, EachRequestHasOneHoweverItWasAnswered) {
    start();
    HttpClient client = connect();
    client.get("/now");
    expectEnd(How::Answered, 200, 3);
    client.post("/big", "1000");
    expectEnd(How::Answered, 200, 1000);
    client.request("HEAD", "/big", "1000");
    expectEnd(How::Answered, 200, 0);
    const std::size_t packed = client.request("POST", "/big", "100000", "Accept-Encoding: gzip\r\n").body.size();
    expectEnd(How::Answered, 200, packed);
    const std::size_t thrown = client.get("/throw").body.size();
    expectEnd(How::Answered, 500, thrown);
    client.send(HttpClient::compose("GET", "/now") + HttpClient::compose("GET", "/no") + "nonsense\r\n\r\n");
    expectEnd(How::Answered, 200, 3);
    expectEnd(How::Answered, 404, 2);
    EXPECT_EQ(application.nextEnd().status, 400U) << "of what is no request";
    EXPECT_TRUE(application.hasNoEnd());
}

TEST_F(HttpServerEnds, AClientThatGoesIsToldOfWhenTheWorkForItHasEnded) {
    start();
    {
        HttpClient client = connect();
        client.send(HttpClient::compose("GET", "/wait"));
        application.gate.awaitWaiting(1);
        client.close();
    }
    while (server->connections() > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(application.hasNoEnd());
    // What is read behind the end of that connection is answered when the server knows of it.
    connect().get("/now");
    expectEnd(How::Answered, 200, 3);
    application.gate.open();
    expectEnd(How::Gone, 0, 0);
}

TEST_F(HttpServerEnds, AnIdleConnectionHasNone) {
    start();
    connect().send("GET /half HTTP/1.1\r\n");
    connect().get("/now");
    expectEnd(How::Answered, 200, 3);
    stop();
    EXPECT_TRUE(application.hasNoEnd());
}

TEST_F(HttpServerEnds, FollowersTakeNobodyElsesWorkersAndAreTurnedDownAtOnce) {
    options.threads = 1;
    options.followers = 3;
    options.followersPerIdentity = 2;
    start();
    const auto follow = [&](const std::string& key) {
        HttpClient client = connectAs(key);
        client.send(HttpClient::compose("GET", "/follow/wait"));
        return client;
    };
    HttpClient first = follow("a");
    HttpClient second = follow("a");
    application.gate.awaitWaiting(2);
    const HttpAnswer own = connectAs("a").get("/follow/wait");
    EXPECT_EQ(own.status, 429);
    EXPECT_THAT(own.body, HasSubstr("(--user-followers)"));
    HttpClient third = follow("b");
    application.gate.awaitWaiting(3);
    HttpClient fourth = connectAs("b");
    const HttpAnswer all = fourth.get("/follow/wait");
    EXPECT_EQ(all.status, 503);
    EXPECT_EQ(all.headers.at("retry-after"), "1");
    EXPECT_THAT(all.body, HasSubstr("(--followers)"));
    EXPECT_EQ(fourth.get("/page").status, 200);
    application.gate.open();
    for (HttpClient* client : {&first, &second, &third})
        EXPECT_EQ(client->receive().status, 200);
    EXPECT_EQ(fourth.get("/follow/again").status, 200);
}

TEST_F(HttpServerEnds, StreamsWaitForEachOtherAndNotInFrontOfPages) {
    options.threads = 1;
    options.streams = 1;
    start();
    HttpClient busy = connectAs("a");
    busy.send(HttpClient::compose("GET", "/stream/wait"));
    application.gate.awaitWaiting(1);
    HttpClient next = connectAs("a");
    next.send(HttpClient::compose("GET", "/stream/next"));
    EXPECT_EQ(connectAs("a").get("/page").status, 200);
    EXPECT_THAT(application.handled(), testing::Not(testing::Contains("/stream/next")));
    application.gate.open();
    EXPECT_EQ(next.receive().status, 200);
}

TEST_F(HttpServerEnds, AStreamThatWaitedTooLongIsToldOfTheirNumber) {
    options.streams = 1;
    options.deadline = std::chrono::milliseconds(30);
    start();
    HttpClient busy = connectAs("a");
    busy.send(HttpClient::compose("GET", "/stream/wait"));
    application.gate.awaitWaiting(1);
    const HttpAnswer answer = connectAs("a").get("/stream/next");
    EXPECT_EQ(answer.status, 503);
    EXPECT_THAT(answer.body, HasSubstr("(--streams)"));
    application.gate.open();
}

}  // namespace
}  // namespace QOR
