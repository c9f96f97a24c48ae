// Operator "pager" as clients meet it: through the agent and its socket, on records that were imported there.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "plugins/QORPager/Operators/Pager/PagerAnswer.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"

namespace QOR::test {
namespace {

using test::AgentProcess;
using test::AgentSettings;
using test::HttpClient;
using ::testing::ElementsAre;

constexpr const char* eidA = "aaaaaaaa-0000-4000-8000-000000000001";
constexpr const char* eidB = "bbbbbbbb-0000-4000-8000-000000000002";

constexpr const char* records =
    R"({"kind":"environment","eid":"aaaaaaaa-0000-4000-8000-000000000001","title":"web","state":6,"config":{"hostname":"web1","memory":512}}
{"kind":"environment","eid":"bbbbbbbb-0000-4000-8000-000000000002","parent_eid":"aaaaaaaa-0000-4000-8000-000000000001","state":10}
{"kind":"operation","id":"o1","op":"start","status":0,"time":"2024-01-01T00:00:00Z","eid":"aaaaaaaa-0000-4000-8000-000000000001","message":{"task_id":"t1"}}
{"kind":"operation","id":"o2","op":"stop","status":5,"time":"2024-01-02T00:00:00Z","eid":"bbbbbbbb-0000-4000-8000-000000000002","eids":["bbbbbbbb-0000-4000-8000-000000000002","aaaaaaaa-0000-4000-8000-000000000001"]}
{"kind":"operation","id":"o3","op":"copy","status":1,"time":"2024-01-03T00:00:00Z"}
{"kind":"event","time":"2024-01-01T00:00:00Z","eid":"aaaaaaaa-0000-4000-8000-000000000001","source":"cpu","category":"resource_alert"}
{"kind":"event","time":"2024-01-02T00:00:00Z","eid":"bbbbbbbb-0000-4000-8000-000000000002","source":"up","category":"env_status","info":{"state":"running"}}
{"kind":"backup","id":"b1","eid":"aaaaaaaa-0000-4000-8000-000000000001","time":"2024-01-01T00:00:00Z","size":7,"type":1,"name":"web","hostname":"node1","info":{"title":"Web"}}
{"kind":"backup","id":"b2","eid":"bbbbbbbb-0000-4000-8000-000000000002","time":"2024-01-02T00:00:00Z","size":8,"type":2,"name":"db","hostname":"node2"}
)";

std::string request(const Ask& ask, const std::string& eid = {}) {
    std::string text = R"({"operator":"pager","request":"select","body":)" + ask.body();
    if (!eid.empty()) {
        text += R"(,"client":{"fullAccess":false,"sids":[{"principalId":0,"principalType":1,"eid":")" + eid + "\"}]}";
    }
    return text + "}";
}

class AgentOnRecords : public ::testing::Test {
protected:
    AgentOnRecords() : client(agent.socketPath()) {
        if (client.post("/v1/records", records).status != 200) throw std::runtime_error("records were refused");
    }
    Answer ask(const Ask& what, const std::string& eid = {}) { return readAnswer(client.message(request(what, eid))); }

    AgentProcess agent;
    HttpClient client;
};

TEST_F(AgentOnRecords, AnswersTheOperationLog) {
    EXPECT_EQ(client.message(request(Ask{
                  {"pager.op_log.time", "pager.op_log.status", "pager.op_log_eid.eid"},
                  "pager.op_log.time >= '2024-01-02' and pager.op_log.parameter.env.eid = '" + std::string(eidA) + "'",
                  limit(20, 0) + counts})),
              R"({"response":[[1744,[[1082,[[1026,"pager.op_log.time"]]],[1082,[[1026,"pager.op_log.status"]]],)"
              R"([1082,[[1082,[[1026,"pager.op_log_eid.eid"]]]]],)"
              R"([1739,[[1082,[[1018,"2024-01-02T00:00:00+0000"]]],[1082,[[1018,"5"]]],)"
              R"([1082,[[1082,[[1018,"aaaaaaaa-0000-4000-8000-000000000001"]]],)"
              R"([1082,[[1018,"bbbbbbbb-0000-4000-8000-000000000002"]]]]]]],[1259,"1"],[1040,"1"]]]]})");
    const Answer page = ask(Ask{{"pager.op_log.id", "pager.op_log.task_id"}, {}, limit(2, 1) + counts});
    EXPECT_THAT(page.rows, ElementsAre(ElementsAre("o2", ""), ElementsAre("o1", "t1")));
    EXPECT_EQ(page.counts, (std::pair<std::int64_t, std::int64_t>(2, 3)));
}

TEST_F(AgentOnRecords, AnswersTheEventLog) {
    const Answer both = ask(Ask{{"pager.event_log.source", "pager.env.eid", "pager.event_log.parameter.state"},
                                "pager.event_log.category='env_status' or pager.event_log.category='resource_alert'",
                                limit(1, 0) + counts});
    EXPECT_THAT(both.rows, ElementsAre(ElementsAre("cpu", eidA, ""), ElementsAre("up", eidB, "running")));
    EXPECT_EQ(both.counts, (std::pair<std::int64_t, std::int64_t>(2, 2)));
}

TEST_F(AgentOnRecords, AnswersBackups) {
    const Answer found = ask(Ask{{"pager.backup.id", "pager.backup.time", "pager.backup.info.title"},
                                 "lower(pager.backup.info.hostname) like 'node%'",
                                 limit(1, 0) + counts});
    EXPECT_THAT(found.rows, ElementsAre(ElementsAre("b2", "2024-01-02T00:00:00+0000", ""),
                                        ElementsAre("b1", "2024-01-01T00:00:00+0000", "Web")));
    EXPECT_EQ(found.counts, (std::pair<std::int64_t, std::int64_t>(2, 2)));
}

TEST_F(AgentOnRecords, KnowsTheShippedFieldsOfEnvironments) {
    const Ask ask_{{"pager.event_log.source"}, "pager.event_log.category='env_status' and pager.env.config.memory"};
    EXPECT_EQ(ask(ask_).error, "3152 Pager evaluating error: Invalid type");
}

TEST_F(AgentOnRecords, ReportsEveryErrorOfItsTables) {
    const std::vector<std::pair<Ask, std::string>> rows{
        {{{}}, "400 field is absent"},
        {{{"pager.op_log.id"}, {}, ",[1377]"}, "400 limit/size is absent"},
        {{{}, {}, "[1741]"}, "400 invalid field"},
        {{{"pager.op_log.id"}, {}, ",[1743]"}, "400 sort/field is absent"},
        {{{"pager.op_log.id"}, {}, ",[1742]"}, "400 invalid where"},
        {{{"pager.op_log.id"}, "pager.op_log.time > 5"}, "400 invalid date/time format in where"},
        {{{"nothing"}}, R"(3111 Pager error: unknown field "nothing")"},
        {{{"pager.op_log.id", "pager.backup.id"}}, "3151 Pager parsing error: Can't select from multiply tables"},
        {{{"pager.op_log.id"}, "a b"}, "3151 Pager parsing error: Undeclared identifier: a"},
        {{{"pager.backup.id"}}, "3151 Pager parsing error: Empty expression"},
        {{{"pager.op_log.id"}, "pager.env.eid.InPlaceholder = ''"},
         "3151 Pager parsing error: incorrect <in> expression: cannot find <in> expression for InPlaceholder"},
        {{{"pager.op_log.id", "pager.env.eid"}},
         "3152 Pager evaluating error: joins with env_info table are forbidden"},
        {{{"pager.event_log.time"}, "pager.env.title like '%longer than any title'"},
         "3152 Pager evaluating error: Evaluation error"},
    };
    for (const auto& [what, error] : rows)
        EXPECT_EQ(ask(what).error, error) << what.body();
}

TEST_F(AgentOnRecords, ShowsAClientWhatIsItsOwn) {
    EXPECT_EQ(firstCells(ask(Ask{{"pager.op_log.id"}}, eidB)), "o2");
    EXPECT_EQ(firstCells(ask(Ask{{"pager.op_log.id"}}, eidA)), "o1")
        << "an operation is of the environment that it belongs to";
    EXPECT_EQ(firstCells(ask(Ask{{"pager.backup.id"}, "pager.backup.info.name like '%'"}, eidA)), "b1");
    EXPECT_EQ(firstCells(ask(Ask{{"pager.event_log.source"},
                                 "pager.event_log.category='env_status' or pager.event_log.category='resource_alert'"},
                             eidA)),
              "cpu");
    EXPECT_EQ(firstCells(ask(Ask{{"pager.op_log.id"}})), "o3 o2 o1");
}

TEST_F(AgentOnRecords, TellsNobodyWhatOthersHaveAskedFor) {
    const std::string name = "pager.op_log.parameter.of_a";
    const Ask sorted{{"pager.op_log.id"}, {}, ",[1743,[[1741,\"" + name + "\"]]]"};
    ASSERT_EQ(ask(Ask{{name}}, eidA).error, "");
    EXPECT_EQ(ask(sorted, eidB).error, "3111 Pager error: unknown field \"" + name + "\"");
    EXPECT_EQ(ask(sorted).error, "3111 Pager error: unknown field \"" + name + "\"");
    EXPECT_EQ(ask(sorted, eidA).error, "");
}

TEST_F(AgentOnRecords, ShowsWhatIsImportedAtOnce) {
    HttpClient other(agent.socketPath());
    EXPECT_EQ(firstCells(ask(Ask{{"pager.op_log.id"}, {}, limit(1, 0)})), "o3");
    other.post("/v1/records", R"({"kind":"operation","id":"o4","time":"2024-02-01"})");
    EXPECT_EQ(firstCells(ask(Ask{{"pager.op_log.id"}, {}, limit(1, 0)})), "o4");
    const Ask stateless{{"pager.event_log.source"}, "pager.env.title like '%web'"};
    EXPECT_EQ(ask(stateless).error, "3152 Pager evaluating error: Evaluation error") << "one has no title";
    other.post("/v1/records", std::string(R"({"kind":"environment","eid":")") + eidB + R"(","title":"my web"})");
    EXPECT_EQ(ask(stateless).error, "");
}

TEST_F(AgentOnRecords, ServesTwoClientsAtOnce) {
    const auto serve = [&](const std::string& field, const std::string& eid, const std::string& expected, int& wrong) {
        HttpClient one(agent.socketPath());
        for (int round = 0; round < 200; ++round) {
            const Ask what{{field, "pager.op_log.parameter.of" + eid.substr(0, 8)},
                           "pager.op_log.parameter.env.eid = '" + eid + "'"};
            if (firstCells(readAnswer(one.message(request(what)))) != expected) ++wrong;
        }
    };
    int wrongA = 0;
    int wrongB = 0;
    std::thread second([&] { serve("pager.op_log.op", eidB, "stop", wrongB); });
    serve("pager.op_log.id", eidA, "o2 o1", wrongA);
    second.join();
    EXPECT_EQ(wrongA, 0);
    EXPECT_EQ(wrongB, 0);
}

TEST(AgentWithoutRecords, AnswersEmptyPages) {
    const AgentProcess agent;
    HttpClient client(agent.socketPath());
    const Answer operations = readAnswer(client.message(request(Ask{{"pager.op_log.id"}, {}, limit(5, 5) + counts})));
    EXPECT_EQ(operations.error, "");
    EXPECT_EQ(operations.counts, (std::pair<std::int64_t, std::int64_t>(-5, 0)));
}

}  // namespace
}  // namespace QOR::test
