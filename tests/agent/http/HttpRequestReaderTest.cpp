#include "agent/http/HttpRequestReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {
namespace {

using State = HttpRequestReader::State;
using testing::HasSubstr;

constexpr std::size_t headLimit = 1000;
constexpr std::size_t bodyLimit = 2000;

/// What became of the bytes, in one text.
struct Reading {
    std::string outcome;  ///< "done" or "more", or the status and the message of a failure
    std::string method{};
    std::string target{};
    std::string body{};
    std::vector<std::pair<std::string, std::string>> fields{};
    bool keepAlive = true;
    std::string rest{};  ///< bytes that belong to the next request
};

/// Reads in pieces of at most `piece` bytes.
Reading read(std::string_view bytes, std::size_t piece = std::string_view::npos) {
    HttpRequestReader reader(headLimit, bodyLimit);
    std::size_t at = 0;
    while (at < bytes.size() && reader.state() != State::Done && reader.state() != State::Failed) {
        const std::string_view part = bytes.substr(at, std::min(piece, bytes.size() - at));
        at += reader.take(part);
        if (reader.state() == State::HeadDone) reader.beginBody();
    }
    Reading reading;
    reading.outcome = reader.state() == State::Done ? "done" : "more";
    if (reader.state() == State::Failed) {
        reading.outcome = std::to_string(reader.failure().status) + " " + reader.failure().message;
        return reading;
    }
    reading.method = reader.method();
    reading.target = reader.target();
    reading.body = reader.body();
    for (const HttpField& field : reader.fields())
        reading.fields.emplace_back(field.name, field.value);
    reading.keepAlive = reader.keepAlive();
    reading.rest = bytes.substr(at);
    return reading;
}

std::string get(const std::string& fields) {
    return "GET /x HTTP/1.1\r\nHost: h\r\n" + fields + "\r\n";
}

std::string chunked(const std::string& body) {
    return "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + body;
}

TEST(HttpRequestReader, ReadsHeadAndBodyAndLeavesTheNextRequest) {
    const Reading reading =
        read("POST /p?q=1 HTTP/1.1\r\nHost: h\r\nContent-Length: 3\r\nX:  a b\t\r\nEmpty:\r\n\r\nabcGET /");
    EXPECT_EQ(reading.outcome, "done");
    EXPECT_EQ(reading.method, "POST");
    EXPECT_EQ(reading.target, "/p?q=1");
    EXPECT_EQ(reading.body, "abc");
    EXPECT_EQ(reading.rest, "GET /");
    const std::vector<std::pair<std::string, std::string>> fields{
        {"Host", "h"}, {"Content-Length", "3"}, {"X", "a b"}, {"Empty", ""}};
    EXPECT_EQ(reading.fields, fields);
}

TEST(HttpRequestReader, ChunksAreJoinedExtensionsAndTrailersPassedOver) {
    const Reading reading =
        read(chunked("3\r\nabc\r\n00A;a;b=c ; d = \"e\\\" ;f\"\r\n0123456789\r\n0;x\r\nT: v\r\n\r\nNEXT"));
    EXPECT_EQ(reading.outcome, "done");
    EXPECT_EQ(reading.body, "abc0123456789");
    EXPECT_EQ(reading.rest, "NEXT");
}

TEST(HttpRequestReader, ConnectionStaysOpenAsItsVersionAndItsFieldsSay) {
    EXPECT_TRUE(read(get("")).keepAlive);
    EXPECT_FALSE(read(get("Connection: close\r\n")).keepAlive);
    EXPECT_FALSE(read(get("Connection: keep-alive, Close\r\n")).keepAlive);
    EXPECT_FALSE(read(get("Connection: close\r\nConnection: keep-alive\r\n")).keepAlive);
    EXPECT_FALSE(read("GET / HTTP/1.0\r\n\r\n").keepAlive);
    EXPECT_TRUE(read("GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n").keepAlive);
}

struct Refusal {
    std::string request;
    std::string outcome;
};

std::vector<Refusal> refusals() {
    const std::string nul(1, '\0');
    const std::string bad = "400 this is not HTTP: ";
    return {
        // Two readers could take these for requests of different length.
        {get("Content-Length: 3\r\nTransfer-Encoding: chunked\r\n"), bad + "both a Content-Length"},
        {get("Transfer-Encoding: chunked\r\nContent-Length: 3\r\n"), bad + "both a Content-Length"},
        {get("Content-Length: 3\r\nContent-Length: 4\r\n"), bad + "a field that may be given once is given twice"},
        {get("Content-Length: 3\r\nContent-Length: 3\r\n"), bad + "a field that may be given once is given twice"},
        {get("Content-Length: 3\r\ncontent-length: 3\r\n"), bad + "a field that may be given once is given twice"},
        {get("Content-Length: 3, 3\r\n"), bad + "bad Content-Length"},
        {get("Content-Length: 3,4\r\n"), bad + "bad Content-Length"},
        {get("Content-Length: +3\r\n"), bad + "bad Content-Length"},
        {get("Content-Length: -3\r\n"), bad + "bad Content-Length"},
        {get("Content-Length: 0x3\r\n"), bad + "bad Content-Length"},
        {get("Content-Length: 3 4\r\n"), bad + "bad Content-Length"},
        {get("Content-Length: 3.0\r\n"), bad + "bad Content-Length"},
        {get("Content-Length: 3;\r\n"), bad + "bad Content-Length"},
        {get("Content-Length:\r\n"), bad + "bad Content-Length"},
        {get("Content-Length: 18446744073709551619\r\n"), bad + "bad Content-Length"},
        {get("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n"), bad + "a field that may be given once"},
        {get("Transfer-Encoding: chunked\r\nTransfer-Encoding: identity\r\n"), bad + "a field that may be given once"},
        {get("Host: other\r\n"), bad + "a field that may be given once is given twice"},
        {"POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n", bad + "a Transfer-Encoding in HTTP/1.0"},
        {get("Transfer-Encoding: gzip\r\n"), "501 the only Transfer-Encoding"},
        {get("Transfer-Encoding: identity\r\n"), "501 the only Transfer-Encoding"},
        {get("Transfer-Encoding: gzip, chunked\r\n"), "501 the only Transfer-Encoding"},
        {get("Transfer-Encoding: chunked, gzip\r\n"), "501 the only Transfer-Encoding"},
        {get("Transfer-Encoding: chunked, chunked\r\n"), "501 the only Transfer-Encoding"},
        {get("Transfer-Encoding: chunked,\r\n"), "501 the only Transfer-Encoding"},
        {get("Transfer-Encoding: \"chunked\"\r\n"), "501 the only Transfer-Encoding"},
        {get("Transfer-Encoding: xchunked\r\n"), "501 the only Transfer-Encoding"},
        {get("Transfer-Encoding: chunked;q=1\r\n"), "501 the only Transfer-Encoding"},
        {get("Transfer-Encoding:\r\n"), "501 the only Transfer-Encoding"},
        {get("Transfer-Encoding: \x0B"
             "chunked\r\n"),
         bad + "bad field value"},
        {get("Transfer-Encoding : chunked\r\n"), bad + "bad field name"},
        {get("Transfer-Encoding\t: chunked\r\n"), bad + "bad field name"},
        {get("Content-Length : 3\r\n"), bad + "bad field name"},
        {get("X: a\r\n Content-Length: 3\r\n"), bad + "a folded line"},
        {get("X: a\r\n\tfolded\r\n"), bad + "a folded line"},
        {"GET / HTTP/1.1\r\n Host: h\r\n\r\n", bad + "a folded line"},
        // Lines.
        {"GET / HTTP/1.1\nHost: h\n\n", bad + "a line does not end in CR LF"},
        {get("X: a\nContent-Length: 3\r\n"), bad + "a line does not end in CR LF"},
        {get("X: a\rContent-Length: 3\r\n"), bad + "bad field value"},
        {get("X: a\r\r\n"), bad + "bad field value"},
        {get("X: a" + nul + "b\r\n"), bad + "bad field value"},
        {get("X: a\x7F\r\n"), bad + "bad field value"},
        {get("X" + nul + ": a\r\n"), bad + "bad field name"},
        {get("no colon\r\n"), bad + "a field without a colon"},
        {get(": a\r\n"), bad + "bad field name"},
        {get("(x): a\r\n"), bad + "bad field name"},
        {get("\xC3\xA4: a\r\n"), bad + "bad field name"},
        // The first line.
        {"\r\nGET / HTTP/1.1\r\n\r\n", bad + "the first line is not"},
        {"GET /\r\n\r\n", bad + "the first line is not"},
        {"GET  / HTTP/1.1\r\n\r\n", bad + "bad target"},
        {"GET /  HTTP/1.1\r\n\r\n", bad + "bad version"},
        {" GET / HTTP/1.1\r\n\r\n", bad + "bad method"},
        {"G(T / HTTP/1.1\r\n\r\n", bad + "bad method"},
        {"GET /a\tb HTTP/1.1\r\n\r\n", bad + "bad target"},
        {"GET /a" + nul + " HTTP/1.1\r\n\r\n", bad + "bad target"},
        {"GET /\xC3\xA4 HTTP/1.1\r\n\r\n", bad + "bad target"},
        {"GET / HTTP/1.1 \r\n\r\n", bad + "bad version"},
        {"GET / HTTP/1.1\r\r\n\r\n", bad + "bad version"},
        {"GET / HTTP/2.0\r\n\r\n", bad + "bad version"},
        {"GET / HTTP/1.10\r\n\r\n", bad + "bad version"},
        {"GET / http/1.1\r\n\r\n", bad + "bad version"},
        {"GET / HTTP/01.1\r\n\r\n", bad + "bad version"},
        // Chunks.
        {chunked("x\r\n"), bad + "bad chunk"},
        {chunked("\r\n"), bad + "bad chunk"},
        {chunked("-1\r\n"), bad + "bad chunk"},
        {chunked("+1\r\na\r\n"), bad + "bad chunk"},
        {chunked("0x1\r\na\r\n"), bad + "bad chunk"},
        {chunked(" 1\r\na\r\n"), bad + "bad chunk"},
        {chunked("1 \r\na\r\n"), bad + "bad chunk"},
        {chunked("1,\r\na\r\n"), bad + "bad chunk"},
        {chunked("1;\r\na\r\n"), bad + "bad chunk"},
        {chunked("1;=a\r\na\r\n"), bad + "bad chunk"},
        {chunked("1;a=\r\na\r\n"), bad + "bad chunk"},
        {chunked("1;a b\r\na\r\n"), bad + "bad chunk"},
        {chunked("1;a=\"b\r\na\r\n"), bad + "bad chunk"},
        {chunked("1;a=\"b\"c\r\na\r\n"), bad + "bad chunk"},
        {chunked("1;a=\"\\\r\na\r\n"), bad + "bad chunk"},
        {chunked("1;a\rb\r\na\r\n"), bad + "bad chunk"},
        {chunked("1;a" + nul + "\r\na\r\n"), bad + "bad chunk"},
        {chunked("10000000000000000\r\n"), bad + "bad chunk"},
        {chunked("00000000000000001\r\na\r\n"), bad + "bad chunk"},
        {chunked("FFFFFFFFFFFFFFFF\r\n"), "413 the body is larger than 2000 bytes"},
        {chunked("1\na\r\n"), bad + "a line does not end in CR LF"},
        {chunked("1;a\na\r\n"), bad + "a line does not end in CR LF"},
        {chunked("1\r\na\n"), bad + "bad end of a chunk"},
        {chunked("1\r\nab"), bad + "bad end of a chunk"},
        {chunked("1\r\na\rb"), bad + "bad end of a chunk"},
        {chunked("0\r\nContent-Length: 3\r\n\r\n"), bad + "bad field behind the last chunk"},
        {chunked("0\r\nTransfer-Encoding: x\r\n\r\n"), bad + "bad field behind the last chunk"},
        {chunked("0\r\nGET / HTTP/1.1\r\n\r\n"), bad + "bad field behind the last chunk"},
        {chunked("0\r\n folded: x\r\n\r\n"), bad + "bad field behind the last chunk"},
        {chunked("0\r\nX: y\n\r\n"), bad + "a line does not end in CR LF"},
        // Sizes.
        {get("X: " + std::string(headLimit, 'x') + "\r\n"), "431 the headers are larger than 1000 bytes"},
        {std::string(headLimit + 1, 'G'), "431 the headers are larger than 1000 bytes"},
        {get("Content-Length: 2001\r\n"), "413 the body is larger than 2000 bytes"},
        {get("Content-Length: 9999999999999999999\r\n"), "413 the body is larger than 2000 bytes"},
        {chunked("7d1\r\n"), "413 the body is larger than 2000 bytes"},
        {chunked("1;a=" + std::string(headLimit, 'x') + "\r\na\r\n"), bad + "too much between the chunks"},
        {chunked("0\r\n" + std::string("X: yyyyyyyyyyyyyyy\r\n") + "X: " + std::string(headLimit - 10, 'x') +
                 "\r\n\r\n"),
         bad + "too much between the chunks"},
    };
}

TEST(HttpRequestReader, WhatCouldBeReadInTwoWaysIsRefusedHoweverItArrives) {
    for (const Refusal& refusal : refusals()) {
        for (const std::size_t piece : {std::string_view::npos, std::size_t{1}, std::size_t{7}}) {
            EXPECT_THAT(read(refusal.request, piece).outcome, HasSubstr(refusal.outcome)) << refusal.request;
        }
    }
}

TEST(HttpRequestReader, SizesAtTheirLimitsAreTaken) {
    const std::string empty = get("X: \r\n");
    EXPECT_EQ(read(get("X: " + std::string(headLimit - empty.size(), 'x') + "\r\n")).outcome, "done");
    EXPECT_EQ(read(get("Content-Length: 2000\r\n") + std::string(2000, 'b')).body.size(), 2000U);
    EXPECT_EQ(read(chunked("7d0\r\n" + std::string(2000, 'b') + "\r\n0\r\n\r\n")).body.size(), 2000U);
    EXPECT_EQ(read(get("Content-Length: 00003\r\n") + "abc").body, "abc");
}

TEST(HttpRequestReader, ARequestIsTheSameInAnyPieces) {
    const std::string requests[] = {
        get("Content-Length: 5\r\n") + "hello" + get(""),
        chunked("5\r\nhello\r\n1;a=\"b\"\r\n!\r\n0\r\nT: v\r\n\r\n") + get(""),
    };
    for (const std::string& request : requests) {
        const Reading whole = read(request);
        for (std::size_t piece = 1; piece < 20; ++piece) {
            const Reading pieces = read(request, piece);
            EXPECT_EQ(pieces.outcome, "done");
            EXPECT_EQ(pieces.body, whole.body) << piece;
            EXPECT_EQ(pieces.rest, whole.rest) << piece;
            EXPECT_EQ(pieces.fields, whole.fields) << piece;
        }
    }
}

TEST(HttpRequestReader, AnIncompleteRequestWaitsForMore) {
    const std::string request = chunked("5\r\nhello\r\n0\r\n\r\n");
    for (std::size_t size = 0; size < request.size(); ++size)
        EXPECT_EQ(read(request.substr(0, size)).outcome, "more") << size;
}

TEST(HttpRequestReader, FieldsAreFoundInEitherCase) {
    const HttpField fields[] = {{"Idempotency-Key", "k"}, {"X", "1"}, {"x", "2"}};
    HttpRequest request;
    request.fields = fields;
    EXPECT_EQ(request.field("idempotency-key"), "k");
    EXPECT_EQ(request.field("X"), "1");
    EXPECT_EQ(request.field("idempotency"), "");
}

/// Any change of one byte is read in the same way whatever the pieces: no state is lost between them.
TEST(HttpRequestReader, ChangedBytesAreJudgedTheSameInAnyPieces) {
    std::mt19937 random(7);
    const std::string request = chunked("3;a=\"b\"\r\nabc\r\n0\r\nT: v\r\n\r\n") + get("Content-Length: 2\r\n") + "xy";
    constexpr std::string_view bytes("\r\n\t :;=\"\\0aF\x7F\0,", 16);
    for (int round = 0; round < 20'000; ++round) {
        std::string changed = request;
        const std::size_t at = random() % changed.size();
        changed[at] = bytes[random() % bytes.size()];
        const Reading whole = read(changed);
        const Reading pieces = read(changed, 1 + random() % 9);
        ASSERT_EQ(pieces.outcome, whole.outcome) << changed;
        ASSERT_EQ(pieces.body, whole.body) << changed;
        ASSERT_EQ(pieces.rest, whole.rest) << changed;
    }
}

}  // namespace
}  // namespace QOR
