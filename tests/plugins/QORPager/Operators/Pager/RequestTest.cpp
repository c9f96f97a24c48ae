// The driver: what a request may say, in which order its mistakes are found, and which source answers it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "plugins/QORPager/Operators/Pager/PagerHost.h"
#include "plugins/QORPager/Operators/Pager/Vocabulary.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class Request : public ::testing::Test {
protected:
    void SetUp() override {
        host.import(R"({"kind":"environment","eid":"aaaaaaaa-0000-4000-8000-000000000001","title":"web","state":6,)"
                    R"("config":{"hostname":"web1.example.com","memory":2048,"ip":["10.0.0.1","10.0.0.2"]}})");
    }

    struct HostWithVocabulary : PagerHost {
        HostWithVocabulary() { useShippedVocabulary(); }
    };
    HostWithVocabulary host;
    PagerClient client;
};

struct MistakeRow {
    const char* body;
    const char* error;
};

TEST_F(Request, IsRefusedWithTheComplaintThatFits) {
    const std::vector<MistakeRow> rows{
        {R"([1740])", "400 field is absent"},
        {R"([1740,[[1377,[[1087,"1"]]],[1741,"pager.op_log.id"]]])", "400 limit/size is absent"},
        {R"([1740,[[1377],[1741,"pager.op_log.id"]]])", "400 limit/size is absent"},
        {R"([1740,[[1377,[[1024,"x"]]],[1741,"pager.op_log.id"]]])", "400 limit/size is absent"},
        {R"([1740,[[1377,[[1024]]],[1741,"pager.op_log.id"]]])", "400 limit/size is absent"},
        {R"([1740,[[1741]]])", "400 invalid field"},
        {R"([1740,[[1741,[[1018,"x"]]]]])", "400 invalid field"},
        {R"([1740,[[1741,"pager.op_log.id"],[1741]]])", "400 invalid field"},
        {R"([1740,[[1741,""]]])", R"(3111 Pager error: unknown field "")"},
        {R"([1740,[[1741,"pager.op_log.Id"]]])", R"(3111 Pager error: unknown field "pager.op_log.Id")"},
        {R"([1740,[[1741,"pager.env.config.os.kernel"]]])",
         R"(3111 Pager error: unknown field "pager.env.config.os.kernel")"},
        {R"([1740,[[1741,"%s%n"]]])", R"(3111 Pager error: unknown field "%s%n")"},
        {R"([1740,[[1741,"pager.op_log.id"],[1741,"pager.event_log.time"]]])",
         "3151 Pager parsing error: Can't select from multiply tables"},
        {R"([1740,[[1741,"pager.env.eid"],[1741,"pager.op_log.id"],[1741,"pager.backup.id"]]])",
         "3151 Pager parsing error: Can't select from multiply tables"},
        {R"([1740,[[1741,"pager.op_log.id"],[1743]]])", "400 sort/field is absent"},
        {R"([1740,[[1741,"pager.op_log.id"],[1743,[[1378]]]]])", "400 sort/field is absent"},
        {R"([1740,[[1741,"pager.op_log.id"],[1743,[[1741]]]]])", "400 sort/field is absent"},
        {R"([1740,[[1741,"pager.op_log.id"],[1743,[[1741,"nothing"]]]]])",
         R"(3111 Pager error: unknown field "nothing")"},
        {R"([1740,[[1741,"pager.op_log.id"],[1743,[[1741,"pager.op_log.parameter.x"]]]]])",
         R"(3111 Pager error: unknown field "pager.op_log.parameter.x")"},
        {R"([1740,[[1741,"pager.op_log.id"],[1742]]])", "400 invalid where"},
        {R"([1740,[[1741,"pager.op_log.id"],[1742,[[1018,"x"]]]]])", "400 invalid where"},
        {R"([1740,[[1741,"pager.op_log.id"],[1742,""]]])", "3151 Pager parsing error: Empty expression"},
        {R"([1740,[[1741,"pager.op_log.id"],[1742,"pager.op_log.time > 'soon'"]]])",
         "400 invalid date/time format in where"},
        {R"([1740,[[1741,"pager.op_log.id"],[1742,"pager.op_log.time > 5"]]])",
         "400 invalid date/time format in where"},
        {R"([1740,[[1741,"pager.op_log.id"],[1742,"pager.event_log.time > 5"]]])",
         "400 invalid date/time format in where"},
        {R"([1740,[[1741,"pager.op_log.id"],[1742,"nothing = 1"]]])",
         "3151 Pager parsing error: Undeclared identifier: nothing"},
        {R"([1740,[[1741,"pager.op_log.id"],[1742,"pager.op_log.id pager.op_log.id"]]])",
         "3151 Pager parsing error: Operator or function expected"},
        {R"j([1740,[[1741,"pager.op_log.id"],[1742,"pager.op_log.id in ('x')"]]])j",
         "3151 Pager parsing error: Parse error: incorrect <in> expression"},
        {R"([1740,[[1741,"pager.event_log.time"],[1742,"pager.env.eid.InPlaceholder = 'x'"]]])",
         "3151 Pager parsing error: incorrect <in> expression: cannot find <in> expression for InPlaceholder"},
        {R"j([1740,[[1741,"pager.event_log.time"],[1742,"not pager.env.eid in (unit 'x', recursive)"]]])j",
         "3151 Pager parsing error: incorrect <in> expression: cannot find <in> expression for InPlaceholder"},
        {R"([1740,[[1741,"pager.event_log.time"],[1742,"pager.env.title"]]])",
         "3152 Pager evaluating error: Invalid type"},
        {R"([1740,[[1741,"pager.event_log.time"],[1742,"pager.env.title / 0 = 1"]]])",
         "3152 Pager evaluating error: Invalid type"},
        {R"([1740,[[1741,"pager.event_log.time"],[1742,"pager.env.title like '%longer than web'"]]])",
         "3152 Pager evaluating error: Evaluation error"},
        {R"([1740,[[1741,"pager.op_log.id"],[1742,"pager.env.title = 'web'"]]])",
         "3152 Pager evaluating error: joins with env_info table are forbidden"},
        {R"([1740,[[1741,"pager.op_log.id"],[1741,"pager.env.title"]]])",
         "3152 Pager evaluating error: joins with env_info table are forbidden"},
        {R"([1740,[[1741,"pager.backup.id"]]])", "3151 Pager parsing error: Empty expression"},
    };
    for (const MistakeRow& row : rows)
        EXPECT_EQ(client.errorOf(row.body), row.error) << row.body;
}

TEST_F(Request, ChecksInOneOrder) {
    // Every request has the mistake of the next one too.
    const std::vector<MistakeRow> rows{
        {R"([1740,[[1377],[1742,"x y"],[1743]]])", "400 limit/size is absent"},
        {R"([1740,[[1742,"x y"],[1743]]])", "400 field is absent"},
        {R"([1740,[[1741],[1741,"x"],[1742,"x y"],[1743]]])", "400 invalid field"},
        {R"([1740,[[1741,"x"],[1741],[1742,"x y"],[1743]]])", R"(3111 Pager error: unknown field "x")"},
        {R"([1740,[[1741,"pager.op_log.id"],[1741,"pager.event_log.time"],[1741,"x"],[1742,"x y"],[1743]]])",
         "3151 Pager parsing error: Can't select from multiply tables"},
        {R"([1740,[[1741,"pager.op_log.id"],[1742],[1743]]])", "400 sort/field is absent"},
        {R"([1740,[[1741,"pager.op_log.id"],[1743,[[1741,"x"]]],[1743],[1742]]])",
         R"(3111 Pager error: unknown field "x")"},
        {R"([1740,[[1741,"pager.op_log.id"],[1742,"pager.op_log.time = 5 x"]]])",
         "400 invalid date/time format in where"},
    };
    for (const MistakeRow& row : rows)
        EXPECT_EQ(client.errorOf(row.body), row.error) << row.body;
}

TEST_F(Request, ReportsErrorsWhereTheyAreExpected) {
    EXPECT_EQ(client.ask(R"([1740,[[1377],[1741,"pager.op_log.id"]]])"),
              R"({"response":[[1738]],"error":{"code":400,"message":"limit/size is absent"}})");
    EXPECT_EQ(client.ask(R"([1740,[[1741,"pager.op_log.id"],[1743]]])"),
              R"({"response":[],"error":{"code":400,"message":"sort/field is absent"}})");
    EXPECT_EQ(client.ask(R"([1740,[[1741,"pager.op_log.id"],[1741,"pager.env.eid"]]])"),
              R"({"response":[],"error":{"code":3152,"message":"Pager evaluating error: joins with env_info table are )"
              R"(forbidden"}})");
}

TEST_F(Request, NeedsTheCacheOfEnvironments) {
    setEnvCache(nullptr);
    EXPECT_THAT(client.errorOf("[1740]"), ::testing::StartsWith("420 "));
    setEnvCache(&host.envs.cache);
    EXPECT_EQ(client.errorOf("[1740]"), "400 field is absent");
}

TEST_F(Request, ForEnvironmentsAloneAnswersNothing) {
    EXPECT_EQ(client.ask(Ask{{"pager.env.eid", "pager.env.title"}, {}, counts}.body()), R"({"response":[]})");
    EXPECT_EQ(client.ask(Ask{{"pager.env.eid"}, "pager.env.state = 6"}.body()), R"({"response":[]})");
    EXPECT_EQ(client.ask(Ask{{"pager.env.eid"}, "pager.env.title like '%too long to match'"}.body()),
              R"({"response":[]})")
        << "the filter is not evaluated";
    EXPECT_EQ(client.ask(Ask{{"pager.env.eid"}, "pager.op_log.id = 'x'"}.body()), R"({"response":[]})");
}

TEST_F(Request, WritesAHeaderThatNamesTheFields) {
    EXPECT_EQ(client.ask(Ask{{"pager.op_log.op", "pager.op_log_eid.eid"}}.body()),
              R"({"response":[[1744,[[1082,[[1026,"pager.op_log.op"]]],)"
              R"([1082,[[1082,[[1026,"pager.op_log_eid.eid"]]]]]]]]})");
    EXPECT_EQ(client.ask(Ask{{"pager.event_log.info", "pager.env.config.ip"}}.body()),
              R"({"response":[[1744,[[1082,[[1026,"pager.event_log.info"]]],)"
              R"([1082,[[1082,[[1026,"pager.env.config.ip"]]]]]]]]})");
}

TEST_F(Request, TakesNamesUnderAPrefixInTheFilterWithoutSelectingThem) {
    PagerClient fresh;
    EXPECT_EQ(fresh.errorOf(Ask{{"pager.op_log.time", "pager.op_log.status"},
                                "pager.op_log.time >= '2024-01-01' and pager.op_log.parameter.env.eid = 'x'",
                                limit(20, 40) + counts}
                                .body()),
              "");
    EXPECT_EQ(fresh.errorOf(Ask{{"pager.op_log.id"}, "pager.op_log.parameter = 1"}.body()),
              "3151 Pager parsing error: Undeclared identifier: pager.op_log.parameter");
    EXPECT_EQ(fresh.errorOf(Ask{{"pager.op_log.id"}, "'pager.op_log.parameter.quoted' = 'x'"}.body()), "");
    EXPECT_EQ(fresh.op().fields().find("pager.op_log.parameter.quoted"), fresh.op().fields().end());
}

TEST_F(Request, MaySortByAFieldThatItFoundByItsPrefix) {
    const std::string sort = R"(,[1743,[[1741,"pager.op_log.parameter.x"]]])";
    EXPECT_EQ(client.errorOf(Ask{{"pager.op_log.parameter.x"}, {}, sort}.body()), "");
    PagerClient other;
    EXPECT_EQ(other.errorOf(Ask{{"pager.op_log.id"}, {}, sort}.body()),
              R"(3111 Pager error: unknown field "pager.op_log.parameter.x")");
}

TEST_F(Request, KeepsFieldsOfOneCacheTogether) {
    const ScopedVocabulary two(R"(<vocabulary>
      <category name="pager_caches">
        <parameter id="one"><source>first</source><info_prefix>one.</info_prefix></parameter>
        <parameter id="two"><source>second</source><info_prefix>two.</info_prefix></parameter>
      </category>
      <category name="pager_fields">
        <parameter id="like.one"><source>x</source><cache>one</cache></parameter>
        <parameter id="like.first"><source>x</source><cache>first</cache></parameter>
      </category>
    </vocabulary>)");
    PagerClient both;
    EXPECT_EQ(both.errorOf(Ask{{"one.a", "one.b", "like.one"}, "one.a = 1"}.body()), "");
    for (const char* other : {"two.a", "like.first"}) {
        EXPECT_EQ(both.errorOf(Ask{{"one.a", other}, "one.a = 1"}.body()),
                  "3151 Pager parsing error: Can't select from multiply tables")
            << other;
    }
}

TEST_F(Request, EvaluatesTheFilterOnEnvironmentsAndRestrictsNothingByIt) {
    host.import(
        R"({"kind":"event","time":1700000000,"eid":"bbbbbbbb-0000-4000-8000-000000000002","category":"env_status"})");
    const std::string category = "pager.event_log.category='env_status'";
    for (const char* filter :
         {"pager.env.state = 7", "pager.env.state = 6", "pager.env.eid in (unit 'x', recursive)"}) {
        const Answer answer =
            readAnswer(client.ask(Ask{{"pager.env.eid", "pager.env.state", "pager.env.title", "pager.event_log.time"},
                                      category + " and " + filter}
                                      .body()));
        EXPECT_EQ(answer.error, "");
        EXPECT_THAT(answer.rows, ElementsAre(ElementsAre(eidB, "0", "", "2023-11-14T22:13:20+0000"))) << filter;
    }
}

TEST_F(Request, UsesConfiguredFieldsOfEnvironments) {
    const std::string category = "pager.event_log.category='env_status'";
    EXPECT_EQ(client.errorOf(Ask{{"pager.event_log.time"}, category + " and pager.env.config.memory < 4096"}.body()),
              "");
    EXPECT_EQ(client.errorOf(Ask{{"pager.event_log.time"}, category + " and pager.env.config.memory"}.body()),
              "3152 Pager evaluating error: Invalid type");
}

TEST_F(Request, OfAnotherNameIsLeftToTheHost) {
    QORMessage request;
    QORMessage response;
    QORBinaryIterator in = request.root();
    QORBinaryIterator out = response.root();
    EXPECT_NE(client.op().call("Select", &in, &out), 0);
    EXPECT_TRUE(response.empty());
}

TEST_F(Request, ThatDoesNotFitIntoAMessageIsAnErrorAndNotAPart) {
    std::string lines;
    for (int i = 0; i < 50; ++i) {
        lines += R"({"kind":"operation","id":")" + std::to_string(i) + R"(","time":1700000000})" + "\n";
    }
    host.import(lines);
    const QORClientContextScope scope(fullAccess());
    QORMessage request;
    readElement(Ask{{"pager.op_log.id"}}.body(), request);
    QORMessage response(QORMessageLimits{64, 60, 10000});
    QORBinaryIterator in = request.root();
    in.firstChild();
    QORBinaryIterator out = response.root();
    client.op().call("select", &in, &out);
    std::string text;
    writeResponse(response, text);
    EXPECT_EQ(text, R"({"response":[],"error":{"code":1,"message":"the answer does not fit into a message"}})");
}

}  // namespace
}  // namespace QOR::test
