// Replies that leave while they are made.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "HttpServerFixture.h"
#include "QORCommon/QORRequestControl.h"
#include "support/Unpacked.h"

namespace QOR {
namespace {

using namespace std::chrono_literals;
using test::HttpAnswer;
using test::HttpClient;
using testing::HasSubstr;

constexpr std::size_t pieceSize = std::size_t{64} << 10;

/// What clients ask for is made piece by piece; what became of it can be waited for.
class StreamApplication final : public HttpApplication {
public:
    std::unique_ptr<HttpClientHandler> connect(const HttpPeer&) override { return std::make_unique<Handler>(*this); }
    HttpReply errorReply(unsigned status, std::string_view) override { return {status, std::to_string(status)}; }

    std::promise<void> goOn;                     ///< lets "/halting" send its second piece
    std::atomic<int> sent{0};                    ///< pieces of "/endless"
    std::promise<QORRequestControl::End> ended;  ///< of "/endless" and "/working"

private:
    class Handler final : public HttpClientHandler {
    public:
        explicit Handler(StreamApplication& application) : m_application(application) {}

        HttpReply handle(const HttpRequest& request) override {
            HttpReplyStream& stream = *request.stream;
            if (request.path == "/pieces") {
                const int pieces = std::stoi(std::string(request.query));
                for (int piece = 0; piece < pieces; ++piece)
                    stream.send(std::string(pieceSize, static_cast<char>('a' + piece % 26)));
            } else if (request.path == "/halting") {
                stream.send("first");
                m_application.goOn.get_future().wait();
                stream.send("second");
            } else if (request.path == "/events") {
                stream.describe("text/event-stream; charset=utf-8", {{"Cache-Control", "no-store"}});
                stream.send("first");
            } else if (request.path == "/throwing") {
                stream.send("first");
                throw std::runtime_error("no more");
            } else if (request.path == "/failing") {
                stream.send("first");
                return {500, "no more"};
            } else if (request.path == "/endless") {
                const std::string piece(pieceSize, 'x');
                while (stream.send(piece))
                    ++m_application.sent;
                m_application.ended.set_value(QORRequestControl::current()->ended());
            } else if (request.path == "/working") {
                ++m_application.sent;
                while (!QORRequestControl::current()->expired())
                    std::this_thread::sleep_for(1ms);
                m_application.ended.set_value(QORRequestControl::current()->ended());
            }
            return {200, "whole"};
        }

    private:
        StreamApplication& m_application;
    };
};

class HttpStream : public test::HttpServing<StreamApplication> {
protected:
    /// How many pieces have left when no more do.
    int awaitStandstill() {
        int before = -1;
        for (int now = 0; now != before || now == 0; now = application.sent) {
            before = now;
            std::this_thread::sleep_for(100ms);
        }
        return before;
    }
};

TEST_F(HttpStream, ArrivesWholeInChunksAndTheConnectionGoesOn) {
    start();
    HttpClient client = connect();
    for (const int pieces : {1, 2, 40}) {
        const HttpAnswer answer = client.get("/pieces?" + std::to_string(pieces));
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.headers.at("transfer-encoding"), "chunked");
        EXPECT_EQ(answer.headers.at("content-type"), "application/json");
        EXPECT_EQ(answer.headers.count("content-length"), 0U);
        std::string expected;
        for (int piece = 0; piece < pieces; ++piece)
            expected.append(pieceSize, static_cast<char>('a' + piece % 26));
        EXPECT_EQ(answer.body.size(), expected.size());
        EXPECT_TRUE(answer.body == expected);
    }
    EXPECT_EQ(client.get("/other").body, "whole");
}

TEST_F(HttpStream, AReplyOfWhichNoPieceWasSentIsAnOrdinaryOne) {
    start();
    const HttpAnswer answer = connect().get("/pieces?0");
    EXPECT_EQ(answer.headers.at("content-length"), "5");
    EXPECT_EQ(answer.body, "whole");
}

TEST_F(HttpStream, ThePiecesArriveWhileTheRestIsMade) {
    start();
    HttpClient client = connect();
    client.send(HttpClient::compose("GET", "/halting"));
    EXPECT_TRUE(client.awaitBytes());
    application.goOn.set_value();
    EXPECT_EQ(client.receive().body, "firstsecond");
}

TEST_F(HttpStream, WhatItIsStandsInItsHead) {
    start();
    HttpClient client = connect();
    const HttpAnswer events = client.request("GET", "/events", {}, "Accept-Encoding: gzip\r\n");
    EXPECT_EQ(events.headers.at("content-type"), "text/event-stream; charset=utf-8");
    EXPECT_EQ(events.headers.at("cache-control"), "no-store");
    EXPECT_EQ(events.headers.count("content-encoding"), 0U) << "which are small and not to be held back";
    EXPECT_EQ(events.body, "first");
    const HttpAnswer pieces = client.get("/pieces?1");
    EXPECT_EQ(pieces.headers.at("content-type"), "application/json") << "as it is for the next one again";
    EXPECT_EQ(pieces.headers.count("cache-control"), 0U);
    EXPECT_EQ(pieces.headers.at("vary"), "Accept-Encoding");
}

TEST_F(HttpStream, InGzipThePiecesLeaveAsTheyAreMadeToo) {
    start();
    HttpClient client = connect();
    client.send(HttpClient::compose("GET", "/halting", {}, "Accept-Encoding: gzip\r\n"));
    HttpAnswer answer = client.receiveHead();
    EXPECT_EQ(answer.headers.at("content-encoding"), "gzip");
    const std::string first = client.receiveChunk();
    EXPECT_EQ(test::unpacked(first), "first") << "without what comes behind it";
    application.goOn.set_value();
    std::string all = first;
    for (std::string chunk = client.receiveChunk(); !chunk.empty(); chunk = client.receiveChunk())
        all += chunk;
    EXPECT_EQ(test::unpackedWhole(all), "firstsecond");
    const HttpAnswer large = client.request("GET", "/pieces?40", {}, "Accept-Encoding: gzip\r\n");
    EXPECT_LT(large.body.size(), pieceSize);
    EXPECT_EQ(test::unpackedWhole(large.body).size(), 40 * pieceSize);
}

TEST_F(HttpStream, InGzipAFailureInTheMiddleBreaksTheConnectionToo) {
    start();
    HttpClient client = connect();
    client.send(HttpClient::compose("GET", "/throwing", {}, "Accept-Encoding: gzip\r\n"));
    client.receiveHead();
    EXPECT_EQ(test::unpacked(client.receiveChunk()), "first");
    EXPECT_THROW(client.receiveChunk(), std::runtime_error);
}

TEST_F(HttpStream, RequestsBehindAStreamAreAnsweredInOrder) {
    start();
    HttpClient client = connect();
    client.send(HttpClient::compose("GET", "/pieces?3") + HttpClient::compose("GET", "/other") +
                HttpClient::compose("GET", "/pieces?2"));
    EXPECT_EQ(client.receive().body.size(), 3 * pieceSize);
    EXPECT_EQ(client.receive().body, "whole");
    EXPECT_EQ(client.receive().body.size(), 2 * pieceSize);
}

TEST_F(HttpStream, AClientOfTheFirstVersionGetsItWithoutChunksUpToTheEndOfTheConnection) {
    start();
    HttpClient client = connect();
    client.send("GET /pieces?2 HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
    const HttpAnswer head = client.receive(true);
    EXPECT_EQ(head.headers.count("transfer-encoding"), 0U);
    std::string rest;
    while (client.awaitBytes() && rest.size() < 2 * pieceSize)
        rest += client.takeBytes();
    EXPECT_EQ(rest.size(), 2 * pieceSize);
    EXPECT_TRUE(client.isClosed());
}

TEST_F(HttpStream, AFailureInTheMiddleBreaksTheConnection) {
    start();
    for (const char* path : {"/throwing", "/failing"}) {
        HttpClient client = connect();
        client.send(HttpClient::compose("GET", path));
        EXPECT_TRUE(client.awaitBytes());
        EXPECT_THROW(client.receive(), std::runtime_error) << path;
    }
}

TEST_F(HttpStream, WaitsForAReaderThatIsSlow) {
    start();
    HttpClient client = connect();
    client.send(HttpClient::compose("GET", "/endless"));
    EXPECT_TRUE(client.awaitBytes());
    EXPECT_LT(awaitStandstill(), 100) << "what the system buffers, and a few";
    EXPECT_EQ(connect().get("/other").body, "whole") << "others are served meanwhile";
    client.close();
    EXPECT_EQ(application.ended.get_future().get(), QORRequestControl::End::Gone);
}

TEST_F(HttpStream, AReaderThatTakesNothingForLongIsGivenUp) {
    options.writeTimeout = 50ms;
    start();
    HttpClient client = connect();
    client.send(HttpClient::compose("GET", "/endless"));
    EXPECT_EQ(application.ended.get_future().get(), QORRequestControl::End::Gone);
}

TEST_F(HttpStream, AClientThatGoesEndsItsStream) {
    start();
    {
        HttpClient client = connect();
        client.send(HttpClient::compose("GET", "/endless"));
        client.awaitBytes();
    }
    EXPECT_EQ(application.ended.get_future().get(), QORRequestControl::End::Gone);
}

TEST_F(HttpStream, AClientThatGoesEndsARequestThatHasNothingToSendYet) {
    start();
    {
        HttpClient client = connect();
        client.send(HttpClient::compose("GET", "/working"));
        while (application.sent == 0)
            std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(application.ended.get_future().get(), QORRequestControl::End::Gone);
}

TEST_F(HttpStream, AClientThatOnlySendsNoMoreIsAnswered) {
    start();
    HttpClient client = connect();
    client.send(HttpClient::compose("GET", "/halting"));
    client.finishSending();
    client.awaitBytes();
    application.goOn.set_value();
    EXPECT_EQ(client.receive().body, "firstsecond");
}

TEST_F(HttpStream, AStreamThatNobodyTakesDoesNotKeepTheServerFromStopping) {
    options.grace = 0ms;
    start();
    HttpClient client = connect();
    client.send(HttpClient::compose("GET", "/endless"));
    client.awaitBytes();
    awaitStandstill();
    EXPECT_TRUE(stop());
    EXPECT_EQ(application.ended.get_future().get(), QORRequestControl::End::Stopping);
}

}  // namespace
}  // namespace QOR
