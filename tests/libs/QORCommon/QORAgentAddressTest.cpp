#include "QORCommon/QORAgentAddress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "QORCommon/QORException.h"

namespace QOR {
namespace {

using testing::HasSubstr;

TEST(QORAgentAddress, WhatIsReadIsWrittenTheSame) {
    for (const char* text :
         {"unix:/run/qor/agent.sock", "unix:relative path", "http://127.0.0.1:7481", "https://0.0.0.0:7480",
          "https://[::]:7480", "https://db.example.org:443", "http://[::1]:0"})
        EXPECT_EQ(readAgentAddress(text).text(), text);
    EXPECT_EQ(readAgentAddress("http://127.0.0.1:1/").text(), "http://127.0.0.1:1");
}

TEST(QORAgentAddress, HasItsParts) {
    const QORAgentAddress address = readAgentAddress("https://[::1]:7480");
    EXPECT_EQ(address.scheme, QORAgentAddress::Scheme::Https);
    EXPECT_EQ(address.host, "::1");
    EXPECT_EQ(address.port, 7480);
    EXPECT_EQ(address.authority(), "[::1]:7480");
    EXPECT_TRUE(readAgentAddress("unix:a").isUnix());
    EXPECT_EQ(readAgentAddress("unix:a").path, "a");
}

TEST(QORAgentAddress, WhatIsNoneIsRefusedWithTheReason) {
    const struct {
        const char* text;
        const char* reason;
    } wrong[] = {
        {"", "one is written unix:PATH, http://HOST:PORT or https://HOST:PORT"},
        {"/run/qor/agent.sock", "one is written"},
        {"ftp://127.0.0.1:1", "one is written"},
        {"HTTP://127.0.0.1:1", "one is written"},
        {"unix:", "the path of the socket is missing"},
        {"http://127.0.0.1", "its port is missing"},
        {"https://[::1]", "its port is missing"},
        {"http://127.0.0.1:", "a port is a number from 0 to 65535"},
        {"http://127.0.0.1:65536", "a port is a number from 0 to 65535"},
        {"http://127.0.0.1:-1", "a port is a number from 0 to 65535"},
        {"http://127.0.0.1:80 ", "a port is a number from 0 to 65535"},
        {"http://::1:80", "an IPv6 address stands in brackets"},
        {"http://[127.0.0.1]:80", "brackets are for IPv6"},
        {"http://:80", "its host is missing or no name"},
        {"http://user@host:80", "its host is missing or no name"},
        {"http://host/path:80", "its host is missing or no name"},
    };
    for (const auto& [text, reason] : wrong) {
        try {
            readAgentAddress(text);
            ADD_FAILURE() << text;
        } catch (const QORException& exception) {
            EXPECT_EQ(exception.code(), errBadRequest);
            EXPECT_THAT(exception.message(),
                        HasSubstr(std::string("\"") + text + "\" is no address of an agent: " + reason));
        }
    }
}

}  // namespace
}  // namespace QOR
