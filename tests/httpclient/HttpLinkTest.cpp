#include "httpclient/HttpLink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "support/TemporaryDirectory.h"
#include "support/UnixHttpServer.h"

namespace QOR {
namespace {

using test::UnixHttpServer;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::size_t longest = 100'000;
constexpr HttpLink::Bounds patient{.connect = std::chrono::minutes(2),
                                   .send = std::chrono::minutes(2),
                                   .answer = std::chrono::minutes(2),
                                   .body = longest};
constexpr HttpLink::Bounds impatient{.connect = std::chrono::minutes(2),
                                     .send = std::chrono::minutes(2),
                                     .answer = std::chrono::milliseconds(200),
                                     .body = longest};
const std::string chunkedHead = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

bool goesOn() {
    return false;
}

class HttpLinkTest : public testing::Test {
protected:
    std::string socket() const { return m_folder.file("s"); }
    std::unique_ptr<HttpLink> link(const HttpLink::Bounds& bounds = patient,
                                   const HttpLink::IsStopping& isStopping = goesOn) const {
        return std::make_unique<HttpLink>(unixAddress(socket()), std::string(), bounds, isStopping);
    }
    static HttpAnswer ask(HttpLink& link, const std::string& path = "/",
                          const HttpLink::IsStopping& isStopping = goesOn) {
        return link.ask({.method = "GET", .path = path}, isStopping);
    }
    /// What is said of an answer that is lost.
    std::string lostTo(const std::string& answer, const HttpLink::Bounds& bounds = patient,
                       std::chrono::milliseconds pace = {}) const {
        const UnixHttpServer server(
            socket(), [&answer](const std::string&) { return answer; }, pace);
        const auto asking = link(bounds);
        try {
            ask(*asking);
        } catch (const HttpTooLarge& lost) {
            return std::string("too large: ") + lost.what();
        } catch (const HttpLost& lost) {
            return lost.what();
        }
        return "it was read";
    }
    std::error_code failureOfConnecting() const {
        try {
            link();
        } catch (const HttpLost& lost) {
            return lost.code();
        }
        return {};
    }

    const test::TemporaryDirectory m_folder;
};

TEST_F(HttpLinkTest, OneConnectionAnswersOneQuestionAfterTheOther) {
    UnixHttpServer server(socket(), [](const std::string& path) { return UnixHttpServer::ok("of " + path); });
    const auto asking = link();
    for (const std::string path : {"/one", "/two?x=1"}) {
        const HttpAnswer answer = ask(*asking, path);
        EXPECT_EQ(answer.status, 200U);
        EXPECT_EQ(answer.body, "of " + path);
        EXPECT_TRUE(asking->isOpen());
    }
    EXPECT_THAT(server.asked(), ElementsAre("/one", "/two?x=1"));
}

TEST_F(HttpLinkTest, BodiesAreReadInWhateverWayTheyTellTheirEnd) {
    const std::string whole(longest, 'x');
    for (const std::string& answer :
         {UnixHttpServer::ok(whole), "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + whole,
          chunkedHead + "186a0;extension=1\r\n" + whole + "\r\n0\r\nTrailer: yes\r\n\r\n"}) {
        const UnixHttpServer server(socket(), [&answer](const std::string&) { return answer; });
        const auto asking = link();
        EXPECT_EQ(ask(*asking).body.size(), whole.size());
        EXPECT_EQ(asking->isOpen(), answer.find("Connection: close") == std::string::npos);
    }
}

TEST_F(HttpLinkTest, OtherStatusesAreAnswersToo) {
    const UnixHttpServer server(socket(), [](const std::string&) {
        return "HTTP/1.1 503 Busy\r\nRetry-After: 7\r\nContent-Length: 2\r\n\r\nno";
    });
    const HttpAnswer answer = ask(*link());
    EXPECT_EQ(answer.status, 503U);
    EXPECT_EQ(answer.retryAfter, "7");
    EXPECT_EQ(answer.body, "no");
}

TEST_F(HttpLinkTest, WhyNobodyIsThereCanBeTold) {
    EXPECT_EQ(failureOfConnecting(), std::errc::no_such_file_or_directory);
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socket().copy(address.sun_path, sizeof address.sun_path - 1);
        const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        ::close(listener);
    }
    EXPECT_EQ(failureOfConnecting(), std::errc::connection_refused);
    EXPECT_THROW(HttpLink(unixAddress("/" + std::string(200, 'x')), {}, patient, goesOn), HttpLost);
}

TEST_F(HttpLinkTest, WhoAnswersTooSlowlyIsLost) {
    EXPECT_EQ(lostTo("", impatient), "it does not answer in time");
    EXPECT_EQ(lostTo("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nfour", impatient), "it does not answer in time");
    // Each byte comes soon enough, the whole does not.
    EXPECT_EQ(lostTo(UnixHttpServer::ok(std::string(10'000, 'x')), impatient, std::chrono::milliseconds(2)),
              "it does not answer in time");
}

TEST_F(HttpLinkTest, WhatIsTooLongIsNotReadHoweverItTellsItsLength) {
    const std::string much(longest + 1, 'x');
    for (const std::string& answer :
         {UnixHttpServer::ok(much), "HTTP/1.1 200 OK\r\nContent-Length: 100000000\r\n\r\n" + std::string(10, 'x'),
          "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + much, chunkedHead + "186a1\r\n" + much + "\r\n0\r\n\r\n",
          chunkedHead + "5f5e100\r\n" + std::string(10, 'x'),
          "HTTP/1.1 200 OK\r\nMore: " + much + "\r\nContent-Length: 0\r\n\r\n"})
        EXPECT_EQ(lostTo(answer), "too large: its answer is too long") << answer.substr(0, 100);
}

TEST_F(HttpLinkTest, WhatEndsTooSoonOrMakesNoSenseIsLost) {
    EXPECT_EQ(lostTo("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nConnection: close\r\n\r\nfour"),
              "it ended the connection");
    EXPECT_EQ(lostTo("HTTP/1.1 200 OK\r\nConnection: close\r\nHalf"), "it ended the connection");
    for (const std::string answer :
         {"nonsense\r\n\r\n", "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n",
          "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n",
          "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nx",
          "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nx\r\n", "HTTP/1.1 2000 OK\r\n\r\n"}) {
        const std::string lost = lostTo(answer);
        EXPECT_NE(lost, "it was read") << answer;
        EXPECT_NE(lost, "it does not answer in time") << answer;
    }
}

TEST_F(HttpLinkTest, WhoStopsWaitsNoLonger) {
    std::atomic<bool> isAsked = false;
    const UnixHttpServer server(socket(), [&isAsked](const std::string&) {
        isAsked = true;
        return std::string();
    });
    const auto isStopping = [&isAsked] { return isAsked.load(); };
    const auto asking = link(patient, isStopping);
    try {
        ask(*asking, "/", isStopping);
        ADD_FAILURE() << "nobody has answered";
    } catch (const HttpLost& lost) {
        EXPECT_STREQ(lost.what(), "the agent is stopping");
    }
    EXPECT_THROW(link(patient, isStopping), HttpLost);
}

}  // namespace
}  // namespace QOR
