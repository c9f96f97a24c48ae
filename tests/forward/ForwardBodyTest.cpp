// Records that come packed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <stdexcept>
#include <string>

#include "forward/ForwardAgents.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;

std::string packed(const std::string& text) {
    z_stream stream{};
    if (::deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("no memory");
    std::string made(::deflateBound(&stream, text.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(made.data());
    stream.avail_out = static_cast<uInt>(made.size());
    ::deflate(&stream, Z_FINISH);
    made.resize(stream.total_out);
    ::deflateEnd(&stream);
    return made;
}

HttpAnswer send(const AgentProcess& agent, const std::string& body, const std::string& encoding = "gzip",
                const std::string& target = "/v1/records") {
    return HttpClient(agent.socketPath()).request("POST", target, body, "Content-Encoding: " + encoding + "\r\n");
}

std::string events(int many) {
    std::string lines;
    for (int number = 0; number < many; ++number)
        lines += R"({"kind":"event","time":)" + std::to_string(number) + "}\n";
    return lines;
}

TEST(ForwardBody, RecordsMayComePacked) {
    const AgentProcess agent;
    EXPECT_THAT(send(agent, packed(events(20000))).body, HasSubstr("\"accepted\":20000,"));
    EXPECT_THAT(send(agent, packed(events(3)) + packed(events(4)), "GZip").body, HasSubstr("\"accepted\":7,"));
    EXPECT_THAT(send(agent, packed("")).body, HasSubstr("\"accepted\":0,"));
    EXPECT_THAT(send(agent, events(2), "identity").body, HasSubstr("\"accepted\":2,"));
}

TEST(ForwardBody, AFewBytesThatStandForTooManyAreRefused) {
    const AgentProcess agent({.more = {"--body-limit", "1000000"}});
    std::string bomb = packed(std::string(50'000'000, '\n'));
    ASSERT_LT(bomb.size(), 1'000'000U);
    const HttpAnswer answer = send(agent, bomb);
    EXPECT_EQ(answer.status, 413) << answer.body;
    EXPECT_THAT(answer.body, HasSubstr("larger than 1000000 bytes when it is unpacked"));
    EXPECT_EQ(send(agent, packed(std::string(1'000'000, '\n'))).status, 200);
    EXPECT_EQ(send(agent, packed(std::string(1'000'001, '\n'))).status, 413);
}

TEST(ForwardBody, WhatIsNotPackedAsItSaysIsRefused) {
    const AgentProcess agent;
    const std::string whole = packed(events(1000));
    EXPECT_EQ(send(agent, "no gzip").status, 400);
    EXPECT_THAT(send(agent, whole.substr(0, whole.size() - 3)).body, HasSubstr("it breaks off"));
    EXPECT_EQ(send(agent, whole + "x").status, 400);
    EXPECT_EQ(send(agent, whole, "br").status, 415);
    EXPECT_EQ(send(agent, whole, "gzip, gzip").status, 415);
    EXPECT_EQ(send(agent, packed("{}"), "gzip", "/v1/query").status, 415);
    EXPECT_EQ(rowsOf(agent, "vEventLog", "id"), "[]");
}

}  // namespace
}  // namespace QOR::test
