// In what form a client gets what it asked for: packed, not again, and to whose pages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "HttpServerFixture.h"
#include "QORCommon/QORException.h"
#include "agent/http/HttpNegotiation.h"
#include "support/Unpacked.h"

namespace QOR {
namespace {

using test::HttpAnswer;
using test::HttpClient;
using testing::HasSubstr;

bool packs(const std::vector<std::string>& values) {
    std::vector<HttpField> fields;
    for (const std::string& value : values)
        fields.push_back({"Accept-encoding", value});
    HttpRequest request;
    request.fields = fields;
    return acceptsGzip(request);
}

TEST(AcceptEncoding, GzipIsSentToThoseAloneWhoSayThatTheyTakeIt) {
    for (const char* taken : {"gzip", "GZip", "x-gzip", "br, gzip", " br ;q=1.0 ,\tgzip ; q=0.001", "*", "gzip;q=1.000",
                              "identity;q=0.5, gzip;q=0.5", "identity;q=0,gzip;q=0.1", "gzip;Q=0.3", "gzip;x=y"})
        EXPECT_TRUE(packs({taken})) << taken;
    for (const char* refused :
         {"", "identity", "br", "gzip;q=0", "gzip;q=0.000", "gzip;q=0, *", "*;q=0", "gzip;q=0.4, identity;q=0.5",
          "gzip;q=2", "gzip;q=-1", "gzip;q=", "gzip;q=0.0001", "gzip;q=1.5", "gzip;q=x", "gzipped", ",,;;", ";q=1"})
        EXPECT_FALSE(packs({refused})) << refused;
    EXPECT_FALSE(packs({}));
    EXPECT_TRUE(packs({"br", "gzip"})) << "on two lines";
    EXPECT_FALSE(packs({"gzip;q=0", "*"}));
}

bool hasIt(const std::string& known, const std::string& tag) {
    const std::vector<HttpField> fields{{"if-none-match", known}};
    HttpRequest request;
    request.fields = fields;
    return hasAlready(request, tag);
}

TEST(IfNoneMatch, IsAnyOfTheTagsWhetherWeakOrNot) {
    const std::string tag = entityTagOf("text");
    EXPECT_EQ(tag, entityTagOf("text"));
    EXPECT_NE(tag, entityTagOf("texT"));
    EXPECT_EQ(tag.rfind("W/\"", 0), 0U);
    EXPECT_TRUE(hasIt(tag, tag));
    EXPECT_TRUE(hasIt(tag.substr(2), tag));
    EXPECT_TRUE(hasIt("\"a,b\",  W/\"\" ," + tag, tag));
    EXPECT_TRUE(hasIt("*", tag));
    for (const std::string& other : {std::string(), std::string("\"x\""), tag.substr(3), tag.substr(0, 20),
                                     "nonsense " + tag, "\"" + tag.substr(2), std::string("W/"), std::string("\"")})
        EXPECT_FALSE(hasIt(other, tag)) << other;
}

class HttpServerForms : public test::HttpServerTest {
protected:
    static HttpAnswer ask(HttpClient& client, const std::string& method, const std::string& target,
                          const std::string& headers, std::string_view body = {}) {
        client.send(HttpClient::compose(method, target, body, headers));
        HttpAnswer head = client.receiveHead();
        const bool bodyless = method == "HEAD" || head.status == 204 || head.status == 304;
        if (!bodyless) client.receiveBody(head);
        return head;
    }
};

TEST_F(HttpServerForms, LargerAnswersArePackedForThoseWhoTakeIt) {
    start();
    HttpClient client = connect();
    const HttpAnswer packed = ask(client, "POST", "/big", "Accept-Encoding: gzip\r\n", "100000");
    EXPECT_EQ(packed.headers.at("content-encoding"), "gzip");
    EXPECT_EQ(packed.headers.at("vary"), "Accept-Encoding");
    EXPECT_LT(packed.body.size(), 2000U);
    EXPECT_EQ(test::unpackedWhole(packed.body), std::string(100000, 'b'));

    const HttpAnswer plain = ask(client, "POST", "/big", "Accept-Encoding: gzip;q=0\r\n", "100000");
    EXPECT_EQ(plain.headers.count("content-encoding"), 0U);
    EXPECT_EQ(plain.headers.at("vary"), "Accept-Encoding") << "so that nobody keeps it for those who take gzip";
    EXPECT_EQ(plain.body.size(), 100000U);
    EXPECT_EQ(client.post("/big", "100000").body.size(), 100000U);

    const HttpAnswer small = ask(client, "POST", "/big", "Accept-Encoding: gzip\r\n", "100");
    EXPECT_EQ(small.headers.count("content-encoding"), 0U) << "of which nothing is gained";
    EXPECT_EQ(small.body, std::string(100, 'b'));
}

TEST_F(HttpServerForms, WhatAClientHasIsNotSentAgain) {
    start();
    HttpClient client = connect();
    const HttpAnswer first = ask(client, "GET", "/kept?one", "");
    const std::string tag = first.headers.at("etag");
    const std::string known = "If-None-Match: " + tag + "\r\n";
    EXPECT_EQ(first.body, "one");
    const HttpAnswer again = ask(client, "GET", "/kept?one", known);
    EXPECT_EQ(again.status, 304);
    EXPECT_EQ(again.headers.at("etag"), tag);
    EXPECT_EQ(again.headers.count("content-length"), 0U);
    EXPECT_EQ(again.headers.count("content-type"), 0U);
    EXPECT_EQ(ask(client, "HEAD", "/kept?one", known).status, 304);
    EXPECT_EQ(ask(client, "GET", "/kept?two", known).body, "two");
    EXPECT_EQ(ask(client, "GET", "/other", "").headers.count("etag"), 0U);
    EXPECT_EQ(ask(client, "GET", "/kept?one", known + "Accept-Encoding: gzip\r\n").status, 304);
}

TEST_F(HttpServerForms, HeadHasTheHeadOfGet) {
    start();
    HttpClient client = connect();
    const std::string large = "/kept?" + std::string(3000, 'x');
    for (const std::string& target : {std::string("/kept?one"), large, std::string("/teapot"), std::string("/now")}) {
        const HttpAnswer get = ask(client, "GET", target, "Accept-Encoding: gzip\r\n");
        const HttpAnswer head = ask(client, "HEAD", target, "Accept-Encoding: gzip\r\n");
        EXPECT_EQ(head.status, get.status) << target;
        EXPECT_EQ(head.headers, get.headers) << target;
    }
}

TEST_F(HttpServerForms, PagesOfOtherOriginsAreNotSpokenOfUnlessOriginsAreListed) {
    start();
    HttpClient client = connect();
    const HttpAnswer answer = ask(client, "GET", "/echo", "Origin: https://console.example\r\n");
    EXPECT_EQ(answer.headers.count("access-control-allow-origin"), 0U);
    EXPECT_EQ(answer.headers.at("vary"), "Accept-Encoding");
    const HttpAnswer asked =
        ask(client, "OPTIONS", "/echo", "Origin: https://console.example\r\nAccess-Control-Request-Method: GET\r\n");
    EXPECT_EQ(asked.status, 200) << "the application's answer";
    EXPECT_EQ(asked.headers.count("access-control-allow-methods"), 0U);
}

TEST_F(HttpServerForms, PagesOfListedOriginsMayAsk) {
    options.origins.add("https://console.example");
    options.origins.add("http://localhost:3000");
    start();
    HttpClient client = connect();
    for (const std::string origin : {"https://console.example", "http://localhost:3000"}) {
        const std::string from = "Origin: " + origin + "\r\n";
        const HttpAnswer asked = ask(client, "OPTIONS", "/no",
                                     from +
                                         "Access-Control-Request-Method: POST\r\nAccess-Control-Request-Headers: "
                                         "authorization\r\n");
        EXPECT_EQ(asked.status, 204) << "whatever there is at that path";
        EXPECT_EQ(asked.headers.at("access-control-allow-origin"), origin);
        EXPECT_THAT(asked.headers.at("access-control-allow-methods"), HasSubstr("POST"));
        EXPECT_THAT(asked.headers.at("access-control-allow-headers"), HasSubstr("Authorization"));
        EXPECT_EQ(asked.headers.count("content-length"), 0U);
        for (const char* target : {"/echo", "/no", "/now", "/throw"}) {
            const HttpAnswer answer = ask(client, "GET", target, from);
            EXPECT_EQ(answer.headers.at("access-control-allow-origin"), origin) << target;
            EXPECT_EQ(answer.headers.at("access-control-allow-credentials"), "true") << target;
        }
    }
    for (const char* other : {"https://console.example.org", "https://console.example:443", "null", "*", ""}) {
        const std::string from = "Origin: " + std::string(other) + "\r\n";
        const HttpAnswer answer = ask(client, "GET", "/no", from);
        EXPECT_EQ(answer.headers.count("access-control-allow-origin"), 0U) << other;
        EXPECT_EQ(answer.headers.at("vary"), "Origin") << other;
        EXPECT_EQ(ask(client, "OPTIONS", "/no", from + "Access-Control-Request-Method: POST\r\n").status, 404) << other;
    }
    EXPECT_EQ(ask(client, "GET", "/no", "").headers.at("vary"), "Origin") << "also where no page asked";
}

TEST(Origins, AreNamedOneByOne) {
    HttpOrigins origins;
    for (const char* wrong : {"*", "null", "", "console.example", "https://", "ftp://x", "https://x/", "https://X",
                              "https://x y", "https://*.example", "https://a@b"})
        EXPECT_THROW(origins.add(wrong), QORException) << wrong;
    for (const char* right : {"https://console.example", "http://127.0.0.1:8080", "https://[::1]:7480"})
        EXPECT_NO_THROW(origins.add(right)) << right;
}

}  // namespace
}  // namespace QOR
