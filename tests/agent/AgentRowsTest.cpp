// Rows of views over HTTP from a real agent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"
#include "support/LargeView.h"
#include "support/ResidentMemory.h"

namespace QOR {
namespace {

using test::HttpAnswer;
using test::HttpClient;
using test::jsonAt;
using testing::HasSubstr;

constexpr int operationCount = 120;
constexpr const char* eid = "0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10";

/// As a URL has it.
std::string escaped(std::string_view text) {
    constexpr const char* digits = "0123456789ABCDEF";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0) {
            out += c;
        } else {
            out += {'%', digits[byte >> 4U], digits[byte & 15U]};
        }
    }
    return out;
}

/// Operations op-000 ... of two kinds, a minute apart; a backup; an environment.
std::string records() {
    std::string lines = R"({"kind":"environment","eid":")" + std::string(eid) +
                        R"(","title":"web","state":6,"transition":0,"config":{"name":"web1","memory":"4096"}})" + "\n";
    for (int i = 0; i < operationCount; ++i) {
        char id[16];
        std::snprintf(id, sizeof id, "op-%03d", i);
        lines += R"({"kind":"operation","id":")" + std::string(id) + R"(","op":")" +
                 (i % 3 == 0 ? "remove" : "install") + R"(","status":)" + std::to_string(i % 4) + R"(,"time":)" +
                 std::to_string(1714557600 + 60 * i) + R"(,"eid":")" + eid + R"(","eids":[")" + eid +
                 R"("],"message":{"package":{"name":"p \"q\" <)" + std::to_string(i % 5) + R"(>","version":"1"}}})" +
                 "\n";
    }
    return lines + R"({"kind":"backup","id":"b1","eid":")" + eid +
           R"(","time":1714557600,"size":9007199254740993,"type":0,"info":{"title":"x"}})" + "\n";
}

class AgentRows : public testing::Test {
protected:
    static void SetUpTestSuite() {
        agent = new test::AgentProcess;
        const HttpAnswer stored = HttpClient(agent->socketPath()).post("/v1/records", records());
        ASSERT_EQ(stored.status, 200);
        ASSERT_THAT(stored.body, HasSubstr(R"("refusedCount":0)"));
    }
    static void TearDownTestSuite() { delete agent; }
    static HttpClient connect() { return HttpClient(agent->socketPath()); }
    static HttpAnswer get(const std::string& target, const std::string& fields = {}) {
        return connect().request("GET", target, {}, fields);
    }
    /// Of the operation log.
    static HttpAnswer rows(const std::string& query) { return get("/v1/views/vOpLog/rows?" + query); }

    static inline test::AgentProcess* agent = nullptr;
};

TEST_F(AgentRows, ComeInTheOrderOfTheRequestWithTypedColumns) {
    const HttpAnswer answer = rows("fields=time,id,status,eid,parent_id&sort=id&limit=2");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(answer.headers.at("content-type"), "application/json");
    EXPECT_THAT(answer.headers.at("vary"), HasSubstr("Accept"));
    EXPECT_EQ(jsonAt(answer.body, "columns"),
              R"([{"name":"time","type":"time"},{"name":"id","type":"text"},{"name":"status","type":"integer"},)"
              R"({"name":"eid","type":"guid"},{"name":"parent_id","type":"text"}])");
    EXPECT_EQ(jsonAt(answer.body, "rows"), R"([["2024-05-01T10:00:00Z","op-000",0,")" + std::string(eid) +
                                               R"(",null],["2024-05-01T10:01:00Z","op-001",1,")" + eid + R"(",null]])");
    EXPECT_EQ(jsonAt(answer.body, "page/returned"), "2");
    EXPECT_EQ(jsonAt(answer.body, "page/total"), "");
}

TEST_F(AgentRows, WholeNumbersHaveAllTheirDigitsAndBytesAreBase64) {
    const HttpAnswer answer = get("/v1/views/vBackupInfo/rows?fields=size,info,description");
    EXPECT_EQ(jsonAt(answer.body, "columns/1/type"), R"("bytes")");
    EXPECT_THAT(answer.body, HasSubstr(R"([[9007199254740993,"PGluZm8+PHRpdGxlPng8L3RpdGxlPjwvaW5mbz4=",)"));
}

TEST_F(AgentRows, ConditionsAreWrittenAsText) {
    const HttpAnswer answer = rows("fields=id&sort=-id&limit=3&where=" +
                                   escaped("status <> 0 and op = 'remove' and time < '2024-05-01 11:00'"));
    EXPECT_EQ(jsonAt(answer.body, "rows"), R"([["op-057"],["op-054"],["op-051"]])") << answer.body;
    EXPECT_EQ(jsonAt(rows("fields=id&where=id+in+(select+id+from+vOpLog+where+status=3)&sort=id&limit=1").body, "rows"),
              R"([["op-003"]])");
}

TEST_F(AgentRows, WithoutFieldsAreAllThatSomebodyWouldLookFor) {
    const std::string columns = jsonAt(get("/v1/views/vBackupInfo/rows").body, "columns");
    EXPECT_THAT(columns, HasSubstr(R"("name":"size")"));
    EXPECT_THAT(columns, testing::Not(HasSubstr("secur")));
    EXPECT_THAT(columns, testing::Not(HasSubstr(R"("info")")));
    EXPECT_THAT(jsonAt(get("/v1/views/vbackupinfo/rows?fields=*").body, "columns"),
                testing::AllOf(HasSubstr("securableObjId"), HasSubstr(R"("info")")));
}

TEST_F(AgentRows, APageHasFiftyRowsUnlessItIsTold) {
    EXPECT_EQ(jsonAt(rows("fields=id").body, "page/returned"), "50");
    EXPECT_EQ(jsonAt(rows("fields=id&limit=10000").body, "page/returned"), std::to_string(operationCount));
    for (const char* limit : {"0", "-1", "10001", "1.5", "x", "", "007"}) {
        const HttpAnswer answer = rows("limit=" + std::string(limit));
        EXPECT_EQ(answer.status, 400) << limit;
        EXPECT_EQ(jsonAt(answer.body, "parameter"), R"("limit")") << limit;
        EXPECT_THAT(answer.body, testing::AllOf(HasSubstr("after"), HasSubstr("application/x-ndjson"))) << limit;
    }
    EXPECT_EQ(jsonAt(rows("fields=id&sort=id&limit=1&offset=7").body, "rows"), R"([["op-007"]])");
}

TEST_F(AgentRows, AggregatesAndDistinctRows) {
    EXPECT_EQ(jsonAt(rows("fields=count(id),op&sort=op").body, "columns"),
              R"x([{"name":"count(id)","type":"integer"},{"name":"op","type":"text"}])x");
    EXPECT_EQ(jsonAt(rows("fields=op&distinct&sort=op").body, "rows"), R"([["install"],["remove"]])");
    EXPECT_EQ(jsonAt(rows("fields=op&distinct=false&limit=3").body, "page/returned"), "3");
}

TEST_F(AgentRows, EveryFormHoldsTheSame) {
    const std::string query = "fields=id,status,package,parent_id&sort=id&limit=1";
    EXPECT_EQ(rows(query + "&format=csv").body, "id,status,package,parent_id\r\nop-000,0,\"p \"\"q\"\" <0>\",\r\n");
    EXPECT_EQ(rows(query + "&format=ndjson").body.substr(0, 74),
              "{\"id\":\"op-000\",\"status\":0,\"package\":\"p \\\"q\\\" <0>\",\"parent_id\":null}\n{\"page");
    EXPECT_THAT(
        rows(query + "&format=xml").body,
        HasSubstr("<rows><row><v>op-000</v><v>0</v><v>p \"q\" &lt;0&gt;</v><v null=\"true\"/></row></rows><page "
                  "returned=\"1\""));
    EXPECT_THAT(rows(query + "&format=notation").body,
                testing::StartsWith(R"({"response":[[1744,[[1026,"id"],[1026,"status"],[1026,"package"],)"
                                    R"([1026,"parent_id"],[1739,[[1018,"op-000"],[1018,"0"],)"
                                    R"([1018,"p \"q\" <0>"],[1018]]])"));
}

TEST_F(AgentRows, TheFormIsChosenByAcceptToo) {
    const std::string target = "/v1/views/vOpLog/rows?fields=id&limit=1";
    for (const auto& [accept, type] : std::vector<std::pair<std::string, std::string>>{
             {"text/csv", "text/csv"},
             {"application/xml;q=0.5, text/csv;q=0.4", "application/xml"},
             {"*/*", "application/json"},
             {"application/x-ndjson", "application/x-ndjson"},
             {"application/vnd.qor.notation+json", "application/vnd.qor.notation+json"}}) {
        const HttpAnswer answer = get(target, "Accept: " + accept + "\r\n");
        EXPECT_EQ(answer.status, 200) << accept;
        EXPECT_EQ(answer.headers.at("content-type"), type) << accept;
    }
    EXPECT_EQ(get(target, "Accept: image/png\r\n").status, 406);
    EXPECT_EQ(get(target + "&format=csv", "Accept: image/png\r\n").status, 200);
}

TEST_F(AgentRows, AStreamHoldsAllRowsAndSaysThatItIsWhole) {
    const HttpAnswer answer = get("/v1/views/vOpLog/rows?fields=id&sort=id", "Accept: application/x-ndjson\r\n");
    EXPECT_EQ(answer.headers.at("transfer-encoding"), "chunked");
    EXPECT_EQ(answer.headers.at("content-type"), "application/x-ndjson");
    EXPECT_EQ(std::count(answer.body.begin(), answer.body.end(), '\n'), operationCount + 1);
    EXPECT_THAT(answer.body, HasSubstr(R"({"page":{"returned":120)"));
}

TEST_F(AgentRows, MistakesAreNamedWithTheirPlace) {
    struct Row {
        std::string query;
        const char* code;
        const char* parameter;
        const char* position;
        const char* found;
        const char* suggestion;
    };
    for (const Row& row : std::vector<Row>{
             {"fields=id,packge", "unknown_column", "fields", "3", "packge", "package"},
             {"fields=id,,op", "bad_parameter", "fields", "3", "", ""},
             {"fields=", "bad_parameter", "fields", "0", "", ""},
             {"fields=total(id)", "unknown_function", "fields", "0", "total", ""},
             {"fields=cuont(id)", "unknown_function", "fields", "0", "cuont", "count"},
             {"sort=-tiem", "unknown_column", "sort", "0", "tiem", "time"},
             {"sort=id,-id", "bad_parameter", "sort", "3", "id", ""},
             {"sort=max(time)", "bad_parameter", "sort", "0", "max(time)", ""},
             {"where=" + escaped("status = 1 and satus = 2"), "bad_condition", "where", "15", "satus", "status"},
             {"where=" + escaped("op = 'ü' and ("), "bad_condition", "where", "14", "", ""},
             {"where=" + escaped("status = = 1"), "bad_condition", "where", "9", "=", ""},
             {"where=" + escaped("id in (select ide from vOpLog)"), "bad_condition", "where", "14", "ide", "id"},
             {"where=" + escaped("id in (select id from vNothing)"), "bad_condition", "where", "22", "vNothing", ""},
             {"where=" + escaped("op = 'ü' or status = 'many'"), "bad_condition", "where", "21", "many", ""},
             {"where=" + escaped("eid = 'many' or op = 'many'"), "bad_condition", "where", "6", "many", ""},
             {"fields=op&distinct&sort=time", "bad_parameter", "sort", "0", "time", ""},
             {"where=", "bad_condition", "where", "0", "", ""},
             {"count=all", "bad_parameter", "count", "", "all", ""},
             {"count=0ms", "bad_parameter", "count", "", "0ms", ""},
             {"offset=-1", "bad_parameter", "offset", "", "-1", ""},
             {"offset=99999999999", "bad_parameter", "offset", "", "99999999999", ""},
             {"distinct=yes", "bad_parameter", "distinct", "", "yes", ""},
             {"format=yaml", "bad_parameter", "format", "", "yaml", ""},
             {"after=nonsense", "bad_token", "after", "", "", ""},
             {"lmit=1", "unknown_parameter", "lmit", "", "", "limit"},
         }) {
        const HttpAnswer answer = rows(row.query);
        const auto quoted = [](const std::string& text) { return text.empty() ? text : "\"" + text + "\""; };
        EXPECT_EQ(answer.status, 400) << row.query << ' ' << answer.body;
        EXPECT_EQ(jsonAt(answer.body, "code"), quoted(row.code)) << row.query << answer.body;
        EXPECT_EQ(jsonAt(answer.body, "parameter"), quoted(row.parameter)) << row.query;
        EXPECT_EQ(jsonAt(answer.body, "position"), row.position) << row.query << answer.body;
        EXPECT_EQ(jsonAt(answer.body, "found"), quoted(row.found)) << row.query;
        EXPECT_EQ(jsonAt(answer.body, "suggestion"), quoted(row.suggestion)) << row.query;
    }
}

TEST_F(AgentRows, WhatAnOperatorRefusesIsNamedWithItsPlaceToo) {
    struct Row {
        std::string query;
        const char* code;
        const char* parameter;
        const char* position;
        const char* suggestion;
    };
    for (const Row& row : std::vector<Row>{
             {"where=" + escaped("true and pager.op_log.statsu == 1"), "\"unknown_field\"", "\"where\"", "9",
              "\"pager.op_log.status\""},
             {"sort=pager.op_log.id,pager.event_log.time&where=true", "\"bad_parameter\"", "\"sort\"", "16", ""},
         }) {
        const HttpAnswer answer = connect().get("/v1/rows?fields=pager.op_log.id&" + row.query);
        EXPECT_EQ(answer.status, 400) << row.query << ' ' << answer.body;
        EXPECT_EQ(jsonAt(answer.body, "code"), row.code) << answer.body;
        EXPECT_EQ(jsonAt(answer.body, "parameter"), row.parameter) << answer.body;
        EXPECT_EQ(jsonAt(answer.body, "position"), row.position) << answer.body;
        EXPECT_EQ(jsonAt(answer.body, "suggestion"), row.suggestion) << answer.body;
    }
}

TEST_F(AgentRows, WhatAFilterCannotBeReadForIsToldWithItsPlaceAndWhatWouldDo) {
    struct Row {
        const char* where;
        const char* position;
        const char* found;
        const char* expected;
    };
    for (const Row& row : std::vector<Row>{
             {"1 ==", "2", "==", "an operator with its operands"},
             {"true true", "0", "true", "an operator with its operands"},
             {"pager.op_log.op == 'ü' and (true", "27", "(", "a bracket that is closed"},
             {"true) and true", "4", ")", "an opening bracket before it"},
             {"true, true", "4", ",", "a comma between arguments only"},
             {"pager.op_log.op == 'ü' and upper(1, 2) == '1'", "37", ")", "as many arguments as the function takes"},
             {"true and upside('a') == 'b'", "9", "upside", "upper or lower"},
             {"true and # == 1", "9", "#", "an operand or an operator"},
             {"pager.op_log.op == 'never", "19", "'never", "a text with a quote at its end"},
             // Where dates became seconds before it, and the name stands there twice.
             {"pager.op_log.time > '2024-05-01' and '2024-05-02' > pager.op_log.time and pager.no == 1 or pager.no == "
              "2",
              "74", "pager.no", "a field"},
             {" ", "1", "", "a condition"},
         }) {
        const std::string target = "/v1/rows?fields=pager.op_log.id&where=" + escaped(row.where);
        const HttpAnswer asked = connect().get(target);
        const HttpAnswer explained =
            connect().post("/v1/explain", R"({"source":"operations","fields":["pager.op_log.id"],"where":")" +
                                              std::string(row.where) + "\"}");
        for (const HttpAnswer& answer : {asked, explained}) {
            EXPECT_EQ(answer.status, 400) << row.where << ' ' << answer.body;
            EXPECT_EQ(jsonAt(answer.body, "parameter"), "\"where\"") << row.where << answer.body;
            EXPECT_EQ(jsonAt(answer.body, "position"), row.position) << row.where << answer.body;
            EXPECT_EQ(jsonAt(answer.body, "found"), *row.found == 0 ? "" : '"' + std::string(row.found) + '"')
                << row.where;
            EXPECT_EQ(jsonAt(answer.body, "expected"), '"' + std::string(row.expected) + '"') << row.where;
        }
    }
}

TEST_F(AgentRows, AViewThatThereIsNotIs404WithTheNearestName) {
    const HttpAnswer answer = get("/v1/views/vOpLgo/rows");
    EXPECT_EQ(answer.status, 404);
    EXPECT_EQ(jsonAt(answer.body, "code"), R"("unknown_view")");
    EXPECT_EQ(jsonAt(answer.body, "suggestion"), R"("vOpLog")");
    EXPECT_EQ(get("/v1/views//rows").status, 404);
    EXPECT_EQ(get("/v1/views/vOpLog/rows/").status, 404);
    EXPECT_EQ(get("/v1/views/%zz/rows").status, 400);
    EXPECT_EQ(get("/v1/views/v%4FpLog/rows?limit=1").status, 200);
}

TEST_F(AgentRows, AreOnlyThoseThatTheAskerMaySee) {
    const HttpAnswer answer = get("/v1/views/vOpLog/rows?limit=5", "X-Qor-As: nobody\r\n");
    EXPECT_EQ(answer.status, 400) << "there is no such identity";
    ASSERT_EQ(
        connect()
            .post("/v1/identities/add", R"({"name":"other","kind":"token","access":"environments","environments":[]})")
            .status,
        200);
    const HttpAnswer none = get("/v1/views/vOpLog/rows?limit=5", "X-Qor-As: other\r\n");
    EXPECT_EQ(none.status, 200) << none.body;
    EXPECT_EQ(jsonAt(none.body, "rows"), "[]");
}

/// Views of any size, and one that fails in the middle.
class AgentRowsStream : public testing::Test {
protected:
    static constexpr int rows = 300'000;

    AgentRowsStream() { test::makeLargeView(m_database.connectionString(), rows, 200'000); }
    test::AgentSettings settings(std::vector<std::string> more = {}) const {
        test::AgentSettings settings;
        settings.database = m_database.connectionString();
        settings.more = std::move(more);
        settings.more.push_back("--read-only");
        return settings;
    }
    static constexpr const char* ndjson = "Accept: application/x-ndjson\r\n";

private:
    test::TestDatabase m_database;
};

TEST_F(AgentRowsStream, AFailureBehindTheFirstRowBreaksTheConnection) {
    const test::AgentProcess agent(settings());
    HttpClient client(agent.socketPath());
    EXPECT_THROW(client.request("GET", "/v1/views/vBroken/rows?fields=id,name", {}, ndjson), std::runtime_error);
    const HttpAnswer page =
        HttpClient(agent.socketPath()).get("/v1/views/vBroken/rows?fields=id,name&limit=20&offset=199990");
    EXPECT_EQ(page.status, 500) << "a page is an error alone";
    EXPECT_EQ(page.headers.at("content-type"), "application/problem+json");
}

TEST_F(AgentRowsStream, AllRowsOfALargeViewComeAndTheAgentStaysSmall) {
    const test::AgentProcess agent(settings());
    HttpClient client(agent.socketPath());
    client.request("GET", "/v1/views/vMany/rows?limit=10", {}, ndjson);
    const std::size_t before = test::residentBytes(agent.pid());
    const HttpAnswer answer = client.request("GET", "/v1/views/vMany/rows", {}, ndjson);
    EXPECT_EQ(std::count(answer.body.begin(), answer.body.end(), '\n'), rows + 1);
    EXPECT_THAT(answer.body, testing::EndsWith("{\"page\":{\"returned\":300000}}\n"));
    if (test::residentMemoryTells) {
        EXPECT_LT(test::residentBytes(agent.pid()), before + answer.body.size() / 2);
    }
}

TEST_F(AgentRowsStream, APageThatIsTooLargeSaysHowToGetItsRows) {
    const test::AgentProcess agent(settings({"--answer-bytes", "65536"}));
    const HttpAnswer answer = HttpClient(agent.socketPath()).get("/v1/views/vMany/rows?limit=10000");
    EXPECT_EQ(answer.status, 422);
    EXPECT_EQ(jsonAt(answer.body, "code"), R"("answer_too_large")");
    EXPECT_THAT(answer.body, HasSubstr("application/x-ndjson"));
}

}  // namespace
}  // namespace QOR
