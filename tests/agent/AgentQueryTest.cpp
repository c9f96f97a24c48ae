// Fields, rows by fields, and questions as bodies, from a real agent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"

namespace QOR {
namespace {

using test::HttpAnswer;
using test::HttpClient;
using test::jsonAt;
using testing::HasSubstr;

constexpr const char* other = "1b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10";
constexpr const char* webEid = "0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10";

std::string queriedRecords() {
    const std::string begin = R"(,"eids":[")" + std::string(webEid) + R"(",")" + other +
                              R"("],"message":{"package":{"name":"curl"}}})" + "\n";
    return R"({"kind":"environment","eid":")" + std::string(webEid) +
           R"(","title":"web","state":6,"transition":0,"config":{"name":"web1"}})" + "\n" +
           R"({"kind":"operation","id":"1","op":"install","status":0,"time":1714557600)" + begin +
           R"({"kind":"operation","id":"2","op":"remove","status":3,"time":1714557660)" + begin;
}

class AgentQuery : public testing::Test {
protected:
    static void SetUpTestSuite() {
        agent = new test::AgentProcess;
        ASSERT_EQ(HttpClient(agent->socketPath()).post("/v1/records", queriedRecords()).status, 200);
    }
    static void TearDownTestSuite() { delete agent; }
    static HttpAnswer get(const std::string& target) { return HttpClient(agent->socketPath()).get(target); }
    static HttpAnswer query(const std::string& body, const std::string& parameters = {}) {
        return HttpClient(agent->socketPath())
            .request("POST", "/v1/query" + parameters, body, "Content-Type: application/json\r\n");
    }
    static inline test::AgentProcess* agent = nullptr;
};

TEST_F(AgentQuery, FieldsAreListedWithTheirSourcesAndTypes) {
    const HttpAnswer answer = get("/v1/fields");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_THAT(answer.body,
                testing::AllOf(
                    HasSubstr(R"({"name":"pager.op_log.status","source":"operations","type":"integer","list":false,)"
                              R"("prefix":false})"),
                    HasSubstr(R"("name":"pager.env.config.ip","source":"environments")"),
                    HasSubstr(R"({"name":"pager.op_log.parameter.","source":"operations","type":"text","list":false,)"
                              R"("prefix":true})")));
    EXPECT_EQ(answer.headers.count("etag"), 1U);
}

TEST_F(AgentQuery, RowsByFieldsHaveTypesAndLists) {
    const HttpAnswer answer = get(
        "/v1/rows?fields=pager.op_log.time,pager.op_log.id,pager.op_log.status,pager.op_log.parameter.package.name");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(jsonAt(answer.body, "columns/0"), R"({"name":"pager.op_log.time","type":"time"})");
    EXPECT_THAT(answer.body, HasSubstr(R"(["2024-05-01T10:00:00Z","1",0,"curl"])"));
    const HttpAnswer lists = get("/v1/rows?fields=pager.op_log.id,pager.op_log_eid.eid");
    EXPECT_THAT(lists.body, HasSubstr(R"(["1",[")" + std::string(webEid) + R"(",")" + other + R"("]])")) << lists.body;
}

TEST_F(AgentQuery, TheFilterIsTakenAsItStands) {
    const HttpAnswer answer = get("/v1/rows?fields=pager.op_log.id&where=pager.op_log.status%20!=%200");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(jsonAt(answer.body, "rows"), R"([["2"]])") << "it means what it says";
    const HttpAnswer broken = get("/v1/rows?fields=pager.op_log.id&where=pager.op_log.status%20!=");
    EXPECT_EQ(broken.status, 400);
    EXPECT_EQ(jsonAt(broken.body, "code"), R"("bad_condition")") << broken.body;
    EXPECT_EQ(jsonAt(broken.body, "parameter"), R"("where")");
}

TEST_F(AgentQuery, PagesOfRowsByFieldsGoOnFromTheirTokens) {
    const std::string question = "/v1/rows?fields=pager.op_log.id&sort=-pager.op_log.time&limit=1&count=exact";
    const HttpAnswer first = get(question);
    EXPECT_EQ(jsonAt(first.body, "rows"), R"([["2"]])") << first.body;
    EXPECT_THAT(first.body, HasSubstr(R"("total":2,"exactness":"exact")"));
    const std::string token = jsonAt(first.body, "page/next");
    ASSERT_GT(token.size(), 4U) << first.body;
    const HttpAnswer second = get(question + "&after=" + token.substr(1, token.size() - 2));
    EXPECT_EQ(jsonAt(second.body, "rows"), R"([["1"]])") << second.body;
    const HttpAnswer strange = get(question + "&after=x" + token.substr(1, token.size() - 2));
    EXPECT_EQ(jsonAt(strange.body, "code"), R"("bad_token")") << strange.body;
}

TEST_F(AgentQuery, AFieldThatThereIsNotIsNamedWithTheNearest) {
    const HttpAnswer answer = get("/v1/rows?fields=pager.op_log.id,pager.op_log.statsu");
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(jsonAt(answer.body, "code"), R"("unknown_field")");
    EXPECT_EQ(jsonAt(answer.body, "position"), "16");
    EXPECT_EQ(jsonAt(answer.body, "suggestion"), R"("pager.op_log.status")");
    EXPECT_EQ(jsonAt(get("/v1/rows").body, "code"), R"("missing_parameter")");
    EXPECT_EQ(jsonAt(get("/v1/rows?fields=pager.op_log.id&sort=-pager.nothing.here").body, "parameter"), R"("sort")");
    EXPECT_EQ(get("/v1/rows?fields=pager.op_log.id&distinct").status, 400);
    EXPECT_EQ(get("/v1/rows?fields=pager.op_log.id,pager.event_log.id").status, 400) << "of two sources";
}

TEST_F(AgentQuery, BodiesAskTheSameQuestions) {
    EXPECT_EQ(
        jsonAt(query(R"({"view":"vOpLog","fields":["id","status"],"where":"status > 0","limit":5})").body, "rows"),
        R"([["2",3]])");
    EXPECT_EQ(jsonAt(query(R"({"view":"vOpLog","fields":"id,op","sort":["-id"],"distinct":true})").body, "rows"),
              R"([["2","remove"],["1","install"]])");
    const HttpAnswer source =
        query(R"({"source":"operations","fields":["pager.op_log.id"],"limit":null})", "?format=csv");
    EXPECT_EQ(source.headers.at("content-type"), "text/csv") << source.body;
    EXPECT_THAT(source.body, testing::StartsWith("pager.op_log.id\r\n"));
}

TEST_F(AgentQuery, BodiesAreReadStrictly) {
    struct Row {
        const char* body;
        const char* code;
        const char* parameter;
    };
    for (const Row& row : std::vector<Row>{
             {"", "bad_body", ""},
             {"[]", "bad_body", ""},
             {R"({"view":"vOpLog")", "bad_body", ""},
             {"{\"view\":\"v\xff\"}", "bad_body", ""},
             {R"({"view":"vOpLog"} {})", "bad_body", ""},
             {R"({})", "missing_parameter", "view"},
             {R"({"view":"vOpLog","source":"operations"})", "bad_parameter", "view"},
             {R"({"view":"vOpLog","lmit":1})", "unknown_parameter", "lmit"},
             {R"({"view":"vOpLog","limit":1,"limit":2})", "bad_parameter", "limit"},
             {R"({"view":"vOpLog","limit":null,"limit":2})", "bad_parameter", "limit"},
             {R"({"view":"vOpLog","limit":0})", "bad_parameter", "limit"},
             {R"({"view":"vOpLog","limit":-1})", "bad_parameter", "limit"},
             {R"({"view":"vOpLog","limit":1.5})", "bad_parameter", "limit"},
             {R"({"view":"vOpLog","limit":true})", "bad_parameter", "limit"},
             {R"({"view":"vOpLog","distinct":1})", "bad_parameter", "distinct"},
             {R"({"view":"vOpLog","fields":[1]})", "bad_parameter", "fields"},
             {R"({"view":"vOpLog","fields":[""]})", "bad_parameter", "fields"},
             {R"({"view":"vOpLog","fields":{}})", "bad_parameter", "fields"},
             {R"({"view":"vOpLog","where":["a"]})", "bad_parameter", "where"},
             {"{\"view\":\"vOpLog\",\"where\":\"id = '\\u0000'\"}", "bad_parameter", "where"},
             {R"({"view":"vOpLog","format":"csv"})", "unknown_parameter", "format"},
             {R"({"source":"operations"})", "missing_parameter", "fields"},
             {R"({"source":"events","fields":["pager.op_log.id"]})", "bad_parameter", "fields"},
             {R"({"source":"operations","fields":["pager.op_log.id"],"distinct":true})", "bad_parameter", "distinct"},
         }) {
        const HttpAnswer answer = query(row.body);
        EXPECT_EQ(answer.status, 400) << row.body << answer.body;
        EXPECT_EQ(jsonAt(answer.body, "code"), "\"" + std::string(row.code) + "\"") << row.body << answer.body;
        const std::string parameter = *row.parameter == 0 ? "" : "\"" + std::string(row.parameter) + "\"";
        EXPECT_EQ(jsonAt(answer.body, "parameter"), parameter) << row.body;
    }
    EXPECT_EQ(query(R"({"view":"vNothing"})").status, 404);
    EXPECT_EQ(query(std::string(200'000, '[')).status, 400);
}

}  // namespace
}  // namespace QOR
