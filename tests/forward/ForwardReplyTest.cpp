#include "forward/ForwardReply.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "forward/ForwardConnection.h"
#include "forward/ForwardPause.h"

namespace QOR {
namespace {

constexpr const char* sentBody = "packed";

/// Who listens on 127.0.0.1 and gives requests with that body these answers, one after the other over one connection.
class AnsweringPeer {
public:
    explicit AnsweringPeer(std::vector<std::string> heads, const std::string& body = "{}")
        : m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (::bind(m_listener, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
            ::listen(m_listener, 1) != 0 ||
            ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            throw std::runtime_error("cannot listen");
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this, heads = std::move(heads), body] { answer(heads, body); });
    }
    ~AnsweringPeer() {
        ::shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        ::close(m_listener);
    }
    AnsweringPeer(const AnsweringPeer&) = delete;
    AnsweringPeer& operator=(const AnsweringPeer&) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port); }

private:
    void answer(const std::vector<std::string>& heads, const std::string& body) const {
        const int client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) return;
        for (const std::string& head : heads) {
            if (!hasRequest(client)) break;
            const bool saysHow = head.find("Content-Length") != std::string::npos || head.ends_with("chunked");
            const std::string whole = "HTTP/1.1 " + head + (saysHow ? "" : "\r\nContent-Length: 2") + "\r\n\r\n" + body;
            if (::send(client, whole.data(), whole.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(whole.size())) break;
        }
        ::close(client);
    }
    static bool hasRequest(int client) {
        const std::string end = std::string("\r\n\r\n") + sentBody;
        std::string request;
        char some[4096];
        while (!request.ends_with(end)) {
            const ssize_t got = ::recv(client, some, sizeof some, 0);
            if (got <= 0) return false;
            request.append(some, static_cast<std::size_t>(got));
        }
        return true;
    }

    const int m_listener;
    int m_port = 0;
    std::thread m_thread;
};

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using What = ForwardOutcome::What;

TEST(ForwardReply, RecordsAreTakenButForThoseThatAreNamed) {
    const ForwardOutcome all = outcomeOf({200, R"({"accepted":3,"lastLine":3,"refusedCount":0,"refused":[]})"}, 3);
    EXPECT_EQ(all.what, What::Taken);
    EXPECT_THAT(all.refused, IsEmpty());
    const ForwardOutcome some =
        outcomeOf({200, R"({"accepted":2,"lastLine":3,"refusedCount":1,"refused":[{"line":2,"reason":"why"}]})"}, 3);
    EXPECT_EQ(some.what, What::Taken);
    EXPECT_THAT(some.refused, ElementsAre(Pair(2, "why")));
}

TEST(ForwardReply, WhatSaysLessThanThatAllWasTakenIsAFailure) {
    EXPECT_EQ(outcomeOf({200, R"({"lastLine":2,"refused":[]})"}, 3).what, What::Failed);
    EXPECT_EQ(outcomeOf({200, "<html>"}, 3).what, What::Failed);
    const ForwardOutcome full = outcomeOf(
        {200, R"({"lastLine":3,"refused":[],"failure":{"firstLine":1,"lastLine":3,"reason":"disk is full"}})"}, 3);
    EXPECT_EQ(full.what, What::Failed);
    EXPECT_EQ(full.reason, "disk is full");
    const ForwardOutcome away = outcomeOf({503, R"({"detail":"no room"})"}, 3);
    EXPECT_EQ(away.what, What::Failed);
    EXPECT_THAT(away.reason, HasSubstr("503: no room"));
}

TEST(ForwardReply, HowLongTheOtherSideWantsToBeLeftAloneIsWaited) {
    const AnsweringPeer peer({"503 Service Unavailable\r\nRetry-After: 7", "429 Too Many Requests\r\nRetry-After: 90",
                              "503 Service Unavailable", "503 Service Unavailable\r\nRetry-After: soon",
                              "503 Service Unavailable\r\nRetry-After: -3"});
    ForwardConnection connection({.address = readAgentAddress(peer.url())});
    const auto answered = [&] { return connection.post("/v1/records", sentBody, {}); };
    ForwardPause pause{std::chrono::milliseconds(1000)};
    for (const auto& [status, seconds] : {std::pair(503U, 7), std::pair(429U, 90)}) {
        const ForwardReply reply = answered();
        EXPECT_EQ(reply.status, status);
        EXPECT_EQ(outcomeOf(reply, 3).what, What::Failed) << "what was sent stays to be sent";
        EXPECT_EQ(pause.next(reply.retryAfter), std::chrono::seconds(seconds));
    }
    for (int unclear = 0; unclear < 3; ++unclear)
        EXPECT_EQ(answered().retryAfter, 0U);
}

TEST(ForwardReply, AnAnswerThatIsTooLongIsNotReadHoweverItTellsItsLength) {
    const std::string inChunks = "5f5e100\r\n" + std::string(1000, ' ');
    for (const auto& [head, body] : {std::pair("200 OK\r\nContent-Length: 100000000", std::string(1000, ' ')),
                                     std::pair("200 OK\r\nTransfer-Encoding: chunked", inChunks)}) {
        const AnsweringPeer peer({head}, body);
        ForwardConnection connection({.address = readAgentAddress(peer.url())});
        try {
            connection.post("/v1/records", sentBody, {});
            ADD_FAILURE() << head << " was read";
        } catch (const HttpLost& lost) {
            EXPECT_STREQ(lost.what(), "its answer is too long") << head;
        }
    }
}

TEST(ForwardReply, ARecordIsRefusedByItsLineAndASenderWithoutOne) {
    const ForwardOutcome record = outcomeOf({403, R"({"detail":"line 2: the event is about another"})"}, 3);
    EXPECT_EQ(record.what, What::Refused);
    EXPECT_THAT(record.refused, ElementsAre(Pair(2, "the event is about another")));
    EXPECT_EQ(outcomeOf({403, R"({"detail":"line 4: beyond"})"}, 3).what, What::Failed);
    EXPECT_EQ(outcomeOf({403, R"({"detail":"/v1/records needs full access"})"}, 3).what, What::Failed);
    EXPECT_EQ(outcomeOf({413, "{}"}, 3).what, What::TooLarge);
}

}  // namespace
}  // namespace QOR
