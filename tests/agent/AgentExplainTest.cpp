// What would become of a question, from a real agent on each engine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"
#include "support/TestDatabase.h"

namespace QOR {
namespace {

using test::HttpAnswer;
using test::HttpClient;
using test::jsonAt;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr const char* mine = "0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10";
constexpr const char* hidden = "1b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10";

std::string environment(const char* eid) {
    return R"({"kind":"environment","eid":")" + std::string(eid) +
           R"(","title":"e","state":6,"transition":0,"config":{"name":"e"}})" + "\n";
}

/// Some operations of the one environment, and as many as are asked for of the other.
std::string operations(const char* eid, const char* id, int count) {
    std::string lines;
    for (int i = 0; i < count; ++i)
        lines += R"({"kind":"operation","id":")" + std::string(id) + std::to_string(i) +
                 R"(","op":"install","status":0,"time":)" + std::to_string(1714557600 + i) + R"(,"eid":")" + eid +
                 R"(","eids":[")" + eid + R"("],"message":{"package":{"name":"curl"}}})" + "\n";
    return lines;
}

class AgentExplain : public testing::Test {
protected:
    static void SetUpTestSuite() {
        agent = new test::AgentProcess;
        HttpClient client(agent->socketPath());
        ASSERT_EQ(
            client.post("/v1/records", environment(mine) + environment(hidden) + operations(mine, "m", 20)).status,
            200);
        ASSERT_EQ(client
                      .post("/v1/identities/add",
                            R"({"name":"reports","kind":"token","subject":"reports","access":"environments",)"
                            R"("environments":[{"eid":")" +
                                std::string(mine) + R"(","below":false}]})")
                      .status,
                  200);
    }
    static void TearDownTestSuite() { delete agent; }
    static HttpAnswer explain(const std::string& body, const std::string& as = {}) {
        const std::string fields = as.empty() ? std::string() : "X-Qor-As: " + as + "\r\n";
        return HttpClient(agent->socketPath())
            .request("POST", "/v1/explain", body, "Content-Type: application/json\r\n" + fields);
    }
    static HttpAnswer query(const std::string& body) {
        return HttpClient(agent->socketPath()).request("POST", "/v1/query", body, "Content-Type: application/json\r\n");
    }
    static inline test::AgentProcess* agent = nullptr;
};

TEST_F(AgentExplain, ASelectIsShownWithItsParametersPlanAndBounds) {
    const HttpAnswer answer = explain(
        R"({"view":"voplog","fields":["id","status"],"where":"id = 'm1' and status <> 3","sort":["-time"],"limit":5})");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(answer.headers.at("content-type"), "application/json");
    EXPECT_EQ(jsonAt(answer.body, "view"), R"("vOpLog")");
    EXPECT_EQ(jsonAt(answer.body, "restricted"), "false");
    EXPECT_EQ(jsonAt(answer.body, "access"), "null");
    EXPECT_THAT(jsonAt(answer.body, "statements/0/sql"),
                AllOf(HasSubstr("SELECT"), HasSubstr("?"), Not(HasSubstr("m1"))));
    EXPECT_THAT(jsonAt(answer.body, "statements/0/parameters"), AllOf(HasSubstr("'m1'"), HasSubstr("3")));
    EXPECT_THAT(jsonAt(answer.body, "statements/0/plan"), Not(testing::AnyOf("", "[]"))) << answer.body;
    EXPECT_EQ(jsonAt(answer.body, "statements/1/sql"), "") << "one statement";
    EXPECT_THAT(jsonAt(answer.body, "indexes"), HasSubstr(R"("columns":["time")"));
    EXPECT_GE(std::stoll(jsonAt(answer.body, "estimate/most")), 20);
    EXPECT_EQ(jsonAt(answer.body, "engine"),
              test::testEngine() == ASEngine::SQLite ? R"("SQLite")" : R"("PostgreSQL")");
}

TEST_F(AgentExplain, WhetherAnIndexServesConditionAndOrderIsTheEnginesWord) {
    if (test::testEngine() != ASEngine::SQLite) GTEST_SKIP() << "of few rows this engine reads all, whatever there is";
    const HttpAnswer served = explain(R"({"view":"vOpLog","where":"time > '2024-05-01 00:00:00'","sort":["time"]})");
    EXPECT_EQ(jsonAt(served.body, "statements/0/servesCondition"), "true") << served.body;
    EXPECT_EQ(jsonAt(served.body, "statements/0/servesOrder"), "true") << served.body;
    const HttpAnswer sorted = explain(R"({"view":"vOpLog","where":"status = 3","sort":["package"]})");
    EXPECT_EQ(jsonAt(sorted.body, "statements/0/servesCondition"), "false") << sorted.body;
    EXPECT_EQ(jsonAt(sorted.body, "statements/0/servesOrder"), "false") << sorted.body;
    EXPECT_EQ(jsonAt(sorted.body, "warnings/0/code"), R"("sorts_all")") << sorted.body;
    EXPECT_EQ(jsonAt(sorted.body, "warnings/0/parameter"), R"("sort")");
}

TEST_F(AgentExplain, APageThatGoesOnIsShownAsTheSelectsThatItComesFrom) {
    const std::string question = R"({"view":"vOpLog","fields":["id"],"sort":["package","op"],"limit":3)";
    const HttpAnswer first = query(question + "}");
    const HttpAnswer answer = explain(question + R"(,"after":)" + jsonAt(first.body, "page/next") + "}");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_NE(jsonAt(answer.body, "statements/1/sql"), "") << answer.body;
}

TEST_F(AgentExplain, WarningsNameThePlaceInCharacters) {
    const HttpAnswer answer = explain(
        R"J({"view":"vOpLog","fields":["id"],"where":"package <> 'ä' and (op = 'INSTALL' or status = 1 and status = 2)"})J");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(jsonAt(answer.body, "warnings/0/code"), R"("other_case")") << answer.body;
    EXPECT_EQ(jsonAt(answer.body, "warnings/0/position"), "25");
    EXPECT_EQ(jsonAt(answer.body, "warnings/0/found"), R"("INSTALL")");
    EXPECT_EQ(jsonAt(answer.body, "warnings/0/suggestion"), R"("install")");
    EXPECT_EQ(jsonAt(answer.body, "warnings/1/code"), R"("never_true")");
    EXPECT_EQ(jsonAt(answer.body, "warnings/1/position"), "53");
}

TEST_F(AgentExplain, NothingOfTheQuestionIsRun) {
    const HttpAnswer before = query(R"({"view":"vOpLog","count":"exact","limit":1})");
    explain(R"({"view":"vOpLog","count":"exact","where":"message like '%x%'"})");
    explain(R"({"source":"operations","fields":["pager.op_log.id"],"count":"exact"})");
    EXPECT_EQ(jsonAt(query(R"({"view":"vOpLog","count":"exact","limit":1})").body, "page/total"),
              jsonAt(before.body, "page/total"));
}

TEST_F(AgentExplain, OfASourceItIsToldWhatNarrowsAndWhatIsTested) {
    const HttpAnswer answer =
        explain(R"({"source":"operations","fields":["pager.op_log.id"],"sort":["pager.op_log.status"],"where":)"
                R"J("pager.op_log.time >= '2024-05-01' and pager.op_log.status != 0 and )J"
                R"J((pager.op_log.id = 'a' or pager.op_log.id = 'b')"})J");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(jsonAt(answer.body, "source"), R"("operations")");
    EXPECT_THAT(jsonAt(answer.body, "narrowing"), HasSubstr("pager.op_log.time >= '2024-05-01"));
    EXPECT_THAT(jsonAt(answer.body, "ignored"),
                AllOf(HasSubstr("pager.op_log.status <> 0"), HasSubstr("pager.op_log.id = a")));
    EXPECT_THAT(jsonAt(answer.body, "tested"), HasSubstr("'2024-05-01' and pager.op_log.status != 0"));
    EXPECT_EQ(jsonAt(answer.body, "order"), R"("sorted")");
    EXPECT_EQ(jsonAt(answer.body, "warnings"), "[]");
    const HttpAnswer whole =
        explain(R"({"source":"operations","fields":["pager.op_log.id"],"where":"pager.op_log.time >= '2024-05-01'"})");
    EXPECT_EQ(jsonAt(whole.body, "tested"), "null") << whole.body;
    EXPECT_EQ(jsonAt(whole.body, "ignored"), "[]");
    EXPECT_EQ(jsonAt(whole.body, "order"), R"("read")");
    EXPECT_EQ(jsonAt(whole.body, "estimate/rows"), jsonAt(whole.body, "estimate/most"));
}

struct Trap {
    const char* where;
    const char* code;
    const char* position;
};

TEST_F(AgentExplain, TrapsInFiltersAreToldOf) {
    for (const Trap& trap : std::vector<Trap>{
             {"pager.op_log.status != 0", R"("narrows_nothing")", ""},
             {"pager.op_log.time > '2024-05-01' and pager.op_log.op like 'a%b'", R"("inner_wildcard")", "58"},
             {"pager.op_log.time > '2024-05-01' and pager.op_log.op = 'null'", R"("compares_null")", "55"},
             {"pager.op_log.time > '2024-05-02' and pager.op_log.time < '2024-05-01'", R"("always_false")", ""},
             {"pager.op_log.time > '2024-05-01' and pager.op_log.status > 5 and pager.op_log.status < 3",
              R"("always_false")", "65"},
             {"pager.op_log.time > '2024-05-01' and pager.op_log.op = 'a' and pager.op_log.op = 'b'",
              R"("always_false")", "63"},
         }) {
        const HttpAnswer answer = explain(R"({"source":"operations","fields":["pager.op_log.id"],"where":")" +
                                          std::string(trap.where) + "\"}");
        EXPECT_EQ(jsonAt(answer.body, "warnings/0/code"), trap.code) << trap.where << answer.body;
        EXPECT_EQ(jsonAt(answer.body, "warnings/0/position"), trap.position) << trap.where;
    }
}

TEST_F(AgentExplain, WhatIsCalledAlwaysFalseHasNoRows) {
    for (const char* const where : {"pager.op_log.time > '2024-05-02' and pager.op_log.time < '2024-05-01'",
                                    "pager.op_log.status > 5 and pager.op_log.status < 3",
                                    "pager.op_log.op = 'install' and pager.op_log.op = 'remove'"}) {
        const std::string body =
            R"({"source":"operations","fields":["pager.op_log.id"],"where":")" + std::string(where) + "\"}";
        EXPECT_THAT(explain(body).body, HasSubstr("always_false"));
        EXPECT_EQ(jsonAt(query(body).body, "rows"), "[]") << where;
    }
}

TEST_F(AgentExplain, WhoSeesSomeRowsIsToldNothingThatRestsOnTheOthers) {
    const std::vector<std::string> questions{
        R"({"view":"vOpLog","fields":["id"],"where":"package like '%u%' and op = 'INSTALL'","sort":["package"]})",
        R"J({"view":"vOpLog","fields":["count(id)"]})J",
        R"({"source":"operations","fields":["pager.op_log.id"],"where":"pager.op_log.time > '2024-01-01'"})",
        R"({"source":"environments","fields":["pager.env.eid"]})",
    };
    std::vector<std::string> before;
    for (const std::string& question : questions) {
        const HttpAnswer answer = explain(question, "reports");
        ASSERT_EQ(answer.status, 200) << answer.body;
        before.push_back(answer.body);
        EXPECT_EQ(jsonAt(answer.body, "restricted"), "true");
        for (const char* const member : {"statements", "estimate", "engine"})
            EXPECT_EQ(jsonAt(answer.body, member), "") << member << answer.body;
        EXPECT_THAT(answer.body, Not(HasSubstr(hidden)));
    }
    EXPECT_THAT(jsonAt(before[0], "access"), HasSubstr(mine)) << "what he may see himself";
    EXPECT_THAT(before[0], AllOf(HasSubstr("other_case"), HasSubstr("sorts_all")));
    HttpClient client(agent->socketPath());
    ASSERT_EQ(client.post("/v1/records", operations(hidden, "h", 3000)).status, 200);
    for (std::size_t i = 0; i < questions.size(); ++i)
        EXPECT_EQ(explain(questions[i], "reports").body, before[i]) << "as if nothing had come";
}

TEST_F(AgentExplain, MistakesAreProblems) {
    struct Row {
        const char* body;
        unsigned status;
        const char* code;
        const char* parameter;
    };
    for (const Row& row : std::vector<Row>{
             {"", 400, "bad_body", ""},
             {"{}", 400, "missing_parameter", "view"},
             {R"({"view":"vOpLog","source":"operations"})", 400, "bad_parameter", "view"},
             {R"({"view":"vNothing"})", 404, "unknown_view", "view"},
             {R"({"view":"vOpLog","format":"csv"})", 400, "unknown_parameter", "format"},
             {R"({"view":"vOpLog","fields":["nothing"]})", 400, "unknown_column", "fields"},
             {R"({"view":"vOpLog","where":"id ="})", 400, "bad_condition", "where"},
             {R"({"view":"vOpLog","after":"x"})", 400, "bad_token", "after"},
             {R"({"source":"operations"})", 400, "missing_parameter", "fields"},
             {R"({"source":"operations","fields":["pager.op_log.id"],"where":"pager.op_log.status !="})", 400,
              "bad_condition", "where"},
         }) {
        const HttpAnswer answer = explain(row.body);
        EXPECT_EQ(answer.status, row.status) << row.body << answer.body;
        EXPECT_EQ(answer.headers.at("content-type"), "application/problem+json");
        EXPECT_EQ(jsonAt(answer.body, "code"), "\"" + std::string(row.code) + "\"") << row.body << answer.body;
        const std::string parameter = *row.parameter == 0 ? "" : "\"" + std::string(row.parameter) + "\"";
        EXPECT_EQ(jsonAt(answer.body, "parameter"), parameter) << row.body;
    }
}

TEST_F(AgentExplain, InNotationItIsARowSetOfAnExactRequest) {
    HttpClient client(agent->socketPath());
    const HttpAnswer answer = client.post(
        "/v1/messages",
        R"({"operator":"pager2","request":"select","body":["select",[["view","vOpLog"],["field","id"],["explain"]]]})");
    EXPECT_THAT(answer.body, AllOf(HasSubstr(R"("sql")"), HasSubstr("SELECT"))) << answer.body;
    const HttpAnswer narrow = client.post(
        "/v1/messages",
        R"({"operator":"pager","request":"select","body":["select",[["field","pager.op_log.id"],["explain"]]]})");
    EXPECT_THAT(narrow.body, HasSubstr("explain is for exact requests"));
}

}  // namespace
}  // namespace QOR
