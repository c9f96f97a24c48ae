// What a real agent answers to requests that it does not serve.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/AgentProcess.h"
#include "support/ChildProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"

namespace QOR {
namespace {

using test::HttpAnswer;
using test::HttpClient;
using test::jsonAt;
using testing::HasSubstr;

class AgentProblem : public testing::Test {
protected:
    static void SetUpTestSuite() { agent = new test::AgentProcess; }
    static void TearDownTestSuite() { delete agent; }
    static HttpClient connect() { return HttpClient(agent->socketPath()); }
    static inline test::AgentProcess* agent = nullptr;
};

TEST_F(AgentProblem, IsADocumentWithTheStatusAndAWordForPrograms) {
    HttpClient client = connect();
    const HttpAnswer answer = client.get("/v1/nothing");
    EXPECT_EQ(answer.status, 404);
    EXPECT_EQ(answer.headers.at("content-type"), "application/problem+json");
    EXPECT_EQ(jsonAt(answer.body, "title"), R"("Not Found")");
    EXPECT_EQ(jsonAt(answer.body, "status"), "404");
    EXPECT_EQ(jsonAt(answer.body, "code"), R"("not_found")");
    EXPECT_EQ(jsonAt(answer.body, "detail"), R"("there is nothing at /v1/nothing")");
    EXPECT_EQ(jsonAt(answer.body, "parameter"), "");
}

TEST_F(AgentProblem, AMethodThatThereIsNotNamesThoseThatThereAre) {
    const HttpAnswer answer = connect().request("DELETE", "/v1/views");
    EXPECT_EQ(answer.status, 405);
    EXPECT_THAT(answer.headers.at("allow"), HasSubstr("GET, HEAD"));
    EXPECT_EQ(jsonAt(answer.body, "found"), R"("DELETE")");
}

TEST_F(AgentProblem, ParametersAreRefusedByName) {
    struct Row {
        const char* query;
        const char* code;
        const char* parameter;
        const char* detail;
    };
    HttpClient client = connect();
    for (const Row& row : std::vector<Row>{
             {"first-lien=1", "unknown_parameter", "first-lien", "unknown parameter"},
             {"first-line=0", "bad_parameter", "first-line", "must lie between 1 and"},
             {"first-line=", "bad_parameter", "first-line", "must lie between 1 and"},
             {"first-line=1&first-line=1", "bad_parameter", "first-line", "given twice"},
             {"first-line=%4", "bad_parameter", "first-line", "no percent-escape"},
             {"first-line=%zz", "bad_parameter", "first-line", "no percent-escape"},
             {"first-line=%ff", "bad_parameter", "first-line", "no UTF-8"},
             {"first-line=%00", "bad_parameter", "first-line", "NUL"},
             {"=1", "unknown_parameter", "", "unknown parameter"},
         }) {
        const HttpAnswer answer = client.post("/v1/records?" + std::string(row.query), "");
        EXPECT_EQ(answer.status, 400) << row.query;
        EXPECT_EQ(jsonAt(answer.body, "code"), "\"" + std::string(row.code) + "\"") << row.query;
        if (*row.parameter != 0) {
            EXPECT_EQ(jsonAt(answer.body, "parameter"), "\"" + std::string(row.parameter) + "\"") << row.query;
        }
        EXPECT_THAT(jsonAt(answer.body, "detail"), HasSubstr(row.detail)) << row.query;
    }
    EXPECT_EQ(jsonAt(client.post("/v1/records?first-lien=1", "").body, "suggestion"), R"("first-line")");
    EXPECT_EQ(client.post("/v1/records?first%2Dline=%31", "").status, 200) << "escapes are what they stand for";
}

TEST_F(AgentProblem, WhatCannotBeServedIs406AndWhatCannotBeReadIs415) {
    HttpClient client = connect();
    const auto asking = [&](const std::string& accept) {
        return client.request("GET", "/v1/views", {}, "Accept: " + accept + "\r\n").status;
    };
    EXPECT_EQ(asking("text/html"), 406);
    EXPECT_EQ(asking("application/json;q=0"), 406);
    EXPECT_EQ(asking("*/*, application/json;q=0"), 406);
    EXPECT_EQ(asking("text/html, application/*;q=0.1"), 200);
    EXPECT_EQ(asking("text/html\r\nAccept: */*"), 200);
    const HttpAnswer answer = client.request("POST", "/v1/messages", "<a/>", "Content-Type: text/xml\r\n");
    EXPECT_EQ(answer.status, 415);
    EXPECT_EQ(jsonAt(answer.body, "expected"), R"("application/json")");
    EXPECT_EQ(
        connect().request("POST", "/v1/records", "", "Content-Type: Application/X-NDJSON; charset=utf-8\r\n").status,
        200);
}

TEST_F(AgentProblem, MessagesAreAnsweredInNotationWhateverIsWrongWithThem) {
    HttpClient client = connect();
    for (const char* target : {"/v1/messages", "/v1/messages?stream=maybe", "/v1/messages?x=1"}) {
        const HttpAnswer answer = client.post(target, "nonsense");
        EXPECT_EQ(answer.status, 400) << target;
        EXPECT_EQ(answer.headers.at("content-type"), "application/json") << target;
        EXPECT_EQ(jsonAt(answer.body, "error/code"), "400") << target;
    }
}

TEST_F(AgentProblem, QorctlTellsWhatTheAgentSays) {
    const auto run = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {(test::programDirectory() / "qorctl").string()});
        arguments.insert(arguments.end(), {"--socket", agent->socketPath()});
        test::ChildProcess child(arguments);
        child.wait();
        return child.output();
    };
    EXPECT_THAT(run({"token", "revoke", "nobody"}), HasSubstr("error 404: there is no identity \"nobody\""));
}

}  // namespace
}  // namespace QOR
