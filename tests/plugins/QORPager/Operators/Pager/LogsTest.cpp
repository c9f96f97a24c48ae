// The operation log and the event log as sources of rows.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "plugins/QORPager/Operators/Pager/PagerHost.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr const char* nil = "00000000-0000-0000-0000-000000000000";

/// Operations 1 to 9, a minute apart: those with odd numbers are eidA's, 2 touches eidB, 4 is eidB's and touches eidA,
/// the others belong to nobody.
std::string operations() {
    std::string lines;
    for (int number = 1; number <= 9; ++number) {
        lines += R"({"kind":"operation","id":"o)" + std::to_string(number) + R"(","op":"run","status":)" +
                 std::to_string(number) + R"(,"time":)" + std::to_string(1700000000 + 60 * number);
        if (number % 2 == 1) lines += std::string(R"(,"eid":")") + eidA + "\"";
        if (number == 2) lines += std::string(R"(,"eids":[")") + eidC + "\",\"" + eidB + "\"]";
        if (number == 4) lines += std::string(R"(,"eid":")") + eidB + R"(","eids":[")" + eidA + "\"]";
        lines += "}\n";
    }
    return lines;
}

/// Events e1 to e6 of resource_alert, s1 to s3 of env_status, one of another category; e2, e4, e6 and s2 are eidA's.
std::string events() {
    std::string lines;
    const auto add = [&](const std::string& source, const char* category, int number) {
        lines += R"({"kind":"event","time":)" + std::to_string(1700000000 + 60 * number) + R"(,"source":")" + source +
                 std::to_string(number) + R"(","category":")" + category + "\"";
        if (number % 2 == 0) lines += std::string(R"(,"eid":")") + eidA + "\"";
        lines += "}\n";
    };
    for (int number = 1; number <= 6; ++number)
        add("e", "resource_alert", number);
    for (int number = 1; number <= 3; ++number)
        add("s", "env_status", number);
    add("x", "other", 1);
    return lines;
}

constexpr const char* alerts = "pager.event_log.category='resource_alert'";
constexpr const char* statuses = "pager.event_log.category='env_status'";

struct SourceRow {
    std::optional<std::string> where;
    std::string more;
    std::string rows;  ///< the first cells
    std::int64_t written;
    std::int64_t total;
};

class Logs : public ::testing::Test {
protected:
    void SetUp() override { host.import(operations() + events()); }
    Answer ask(const char* field, const std::optional<std::string>& where, const std::string& more,
               const QORClientContextPtr& as = fullAccess()) {
        return readAnswer(client.ask(Ask{{field}, where, more + counts}.body(), as));
    }
    void expect(const char* field, const std::vector<SourceRow>& rows, const QORClientContextPtr& as = fullAccess()) {
        for (const SourceRow& row : rows) {
            const Answer answer = ask(field, row.where, row.more, as);
            const std::string name = row.where.value_or("(none)") + row.more;
            EXPECT_EQ(answer.error, "") << name;
            EXPECT_EQ(firstCells(answer), row.rows) << name;
            EXPECT_EQ(answer.counts, (std::pair(row.written, row.total))) << name;
        }
    }
    static std::string operationsOf(const std::string& eid) { return "pager.op_log.parameter.env.eid = '" + eid + "'"; }
    static std::string eventsOf(const std::string& eid) { return "pager.event_log.parameter.env.eid = '" + eid + "'"; }

    PagerHost host;
    PagerClient client;
};

TEST_F(Logs, OperationsComeNewestFirstAPageAtATime) {
    expect("pager.op_log.id", {
                                  {{}, "", "o9 o8 o7 o6 o5 o4 o3 o2 o1", 9, 9},
                                  {{}, limit(3, 0), "o9 o8 o7", 3, 9},
                                  {{}, limit(3, 6), "o3 o2 o1", 3, 9},
                                  {{}, limit(3, 8), "o1", 1, 9},
                                  {{}, limit(3, 9), "", 0, 9},
                                  {{}, limit(3, 15), "", -6, 9},
                                  {{}, limit(0, 7), "o2 o1", 2, 9},
                                  {{}, limit(-1, -1), "o9 o8 o7 o6 o5 o4 o3 o2 o1", 9, 9},
                                  {{}, limit(2147483647, 8), "o1", 1, 9},
                                  {{}, limit(2147483647, 2147483647), "", 9 - 2147483647LL, 9},
                              });
}

TEST_F(Logs, OperationsAreFoundByEnvironmentAndTime) {
    const std::string from = "pager.op_log.time >= '2023-11-14T22:18:20'";  // operation 5
    const std::string to = "pager.op_log.time <= '2023-11-14T22:20:20'";    // operation 7
    expect("pager.op_log.id", {
                                  {operationsOf(eidA), "", "o9 o7 o5 o4 o3 o1", 6, 6},
                                  {operationsOf(eidB), "", "o4 o2", 2, 2},
                                  {operationsOf(eidC), limit(5, 0), "o2", 1, 1},
                                  {operationsOf("{AAAAAAAA-0000-4000-8000-000000000001}"), limit(1, 0), "o9", 1, 6},
                                  {operationsOf("dddddddd-0000-4000-8000-000000000004"), "", "", 0, 0},
                                  {operationsOf("no GUID"), "", "", 0, 0},
                                  {operationsOf(""), "", "", 0, 0},
                                  {operationsOf(nil), limit(2, 0), "o9 o8", 2, 9},
                                  {operationsOf("no GUID"), limit(5, 10), "", -10, 0},
                                  {from, "", "o9 o8 o7 o6 o5", 5, 5},
                                  {to, limit(2, 0), "o7 o6", 2, 7},
                                  {from + " and " + to, "", "o7 o6 o5", 3, 3},
                                  {to + " and " + from + " and " + operationsOf(eidA), "", "o7 o5", 2, 2},
                                  {"1=1 and '2023-11-14T22:20:20' >= pager.op_log.time", "", "o9 o8 o7", 3, 3},
                                  {"'2023-11-14T22:20:20' >= pager.op_log.time", limit(2, 0), "o9 o8", 2, 9},
                                  {"pager.op_log.time > '2023-11-14T22:18:20'", "", "o9 o8 o7 o6 o5 o4 o3 o2 o1", 9, 9},
                                  {"pager.op_log.time >= '2100-01-01'", "", "", 0, 0},
                                  {"pager.op_log.time <= '2100-01-01'", "", "o9 o8 o7 o6 o5 o4 o3 o2 o1", 9, 9},
                                  {"pager.op_log.time <= \"4000000000\"", limit(1, 0), "o9", 1, 9},
                                  {"pager.op_log.time <= \"abc\"", "", "", 0, 0},
                                  {"pager.op_log.status = 5 or pager.op_log.id = 'o1'", limit(2, 0), "o9 o8", 2, 9},
                                  {"not (" + operationsOf(eidB) + ")", limit(2, 0), "o9 o8", 2, 9},
                              });
}

TEST_F(Logs, AnEqualTimeIsOrderedByArrival) {
    host.import(R"({"kind":"operation","id":"p1","time":1700009999}
{"kind":"operation","id":"p2","time":1700009999}
{"kind":"operation","id":"p3","time":1700009999})");
    expect("pager.op_log.id", {{{}, limit(4, 0), "p3 p2 p1 o9", 4, 12}});
}

TEST_F(Logs, WritesNoCountsUnlessAsked) {
    const Answer answer = readAnswer(client.ask(Ask{{"pager.op_log.id"}, {}, limit(1, 0)}.body()));
    EXPECT_EQ(answer.counts, std::nullopt);
    for (const char* asked : {R"(,[1259,"0"])", R"(,[1259,"1"])", R"(,[1259,"-7"])"}) {
        EXPECT_NE(readAnswer(client.ask(Ask{{"pager.op_log.id"}, {}, asked}.body())).counts, std::nullopt) << asked;
    }
    // Without a number that can be read, it is as if nothing were asked.
    for (const char* unread : {",[1259]", R"(,[1259,"yes"])", R"(,[1259,""])", R"(,[1259,[[1018,"1"]]])"}) {
        const Answer plain = readAnswer(client.ask(Ask{{"pager.op_log.id"}, {}, unread}.body()));
        EXPECT_EQ(plain.counts, std::nullopt) << unread;
        EXPECT_EQ(plain.error, "") << unread;
    }
}

TEST_F(Logs, SortKeysAreCheckedAndHaveNoEffect) {
    EXPECT_EQ(firstCells(readAnswer(client.ask(
                  Ask{{"pager.op_log.id"}, {}, R"(,[1743,[[1741,"pager.op_log.status"]]])" + limit(3, 0)}.body()))),
              "o9 o8 o7");
}

TEST_F(Logs, ShowsTheValuesOfARecord) {
    host.import(
        R"({"kind":"operation","id":"full","parent_id":"up","op":"install","status":2,"time":1700001000,)"
        R"("eid":"aaaaaaaa-0000-4000-8000-000000000001","eids":["bbbbbbbb-0000-4000-8000-000000000002",)"
        R"("aaaaaaaa-0000-4000-8000-000000000001"],"message":{"task_id":"t1","package":{"name":"curl"},)"
        R"("source_env":{"eid":"cccccccc-0000-4000-8000-000000000003","type":"a rather long type","title":"src"}}})");
    const std::vector<std::pair<std::string, std::string>> expected{
        {"pager.op_log.origin.eid", eidC},
        {"pager.op_log.origin.type", "a rather long ty"},
        {"pager.op_log.origin.title", "src"},
        {"pager.op_log_eid.eid", std::string(eidA) + "|" + eidB},
        {"pager.op_log.time", "2023-11-14T22:30:00+0000"},
        {"pager.op_log.id", "full"},
        {"pager.op_log.parent_id", "up"},
        {"pager.op_log.op", "install"},
        {"pager.op_log.status", "2"},
        {"pager.op_log.latest", "true"},
        {"pager.op_log.task_id", "t1"},
        {"pager.op_log.parameter.package.name", "curl"},
        {"pager.op_log.parameter.package", "<package><name>curl</name></package>"},
        {"pager.op_log.parameter.nothing.here", ""},
    };
    Ask ask{{}, {}, limit(1, 0)};
    std::vector<std::string> values;
    for (const auto& [name, value] : expected) {
        ask.fields.push_back(name);
        values.push_back(value);
    }
    EXPECT_THAT(readAnswer(client.ask(ask.body())).rows, ElementsAre(values));
}

TEST_F(Logs, EventsAreFoundByTheCategoriesThatTheFilterNames) {
    const std::string both = std::string(statuses) + " or " + alerts;
    expect("pager.event_log.source",
           {
               {{}, "", "", 0, 0},
               {alerts, "", "e6 e5 e4 e3 e2 e1", 6, 6},
               {statuses, limit(2, 0), "s3 s2", 2, 3},
               {both, "", "e6 e5 e4 e3 e2 e1 s3 s2 s1", 9, 9},
               {both, limit(2, 0), "e6 e5 s3 s2", 4, 9},
               {both, limit(2, 2), "e4 e3 s1", 3, 9},
               {both, limit(2, 4), "e2 e1", 1, 9},
               {both, limit(2, 10), "", -11, 9},
               {"pager.event_log.category = 'env_status'", "", "", 0, 0},
               {"pager.event_log.category=\"env_status\"", "", "", 0, 0},
               {"pager.event_log.category='other'", "", "", 0, 0},
               {"pager.event_log.category='ENV_STATUS'", "", "", 0, 0},
               {"not (" + std::string(statuses) + ")", limit(1, 0), "s3", 1, 3},
               {"pager.event_log.source = \"pager.event_log.category='env_status'\"", limit(1, 0), "s3", 1, 3},
               {std::string(alerts) + " and " + eventsOf(eidA), "", "e6 e4 e2", 3, 3},
               {both + " and " + eventsOf(eidA), limit(2, 0), "e6 e4 s2", 3, 4},
               {std::string(alerts) + " and " + eventsOf("no GUID"), "", "", 0, 0},
               {std::string(alerts) + " and pager.event_log.time >= '2023-11-14T22:17:20' and pager.event_log.time <= "
                                      "'2023-11-14T22:18:20'",
                "", "e5 e4", 2, 2},
           });
}

TEST_F(Logs, EventRowsShowTheirEnvironmentsIdentifier) {
    EXPECT_THAT(
        readAnswer(client.ask(Ask{{"pager.event_log.source", "pager.env.eid", "pager.env.state", "pager.env.transition",
                                   "pager.env.title", "pager.env.config.ip", "pager.event_log.category"},
                                  statuses,
                                  limit(2, 0)}
                                  .body()))
            .rows,
        ElementsAre(ElementsAre("s3", "", "0", "0", "", "", "env_status"),
                    ElementsAre("s2", eidA, "0", "0", "", "", "env_status")));
}

TEST_F(Logs, AClientWithoutFullAccessFindsWhatIsItsOwn) {
    const auto asA = restricted({QORLocalSID(0, 1, eid(eidA))});
    expect("pager.op_log.id",
           {
               {{}, "", "o9 o7 o5 o3 o1", 5, 5},
               {{}, limit(2, 3), "o3 o1", 2, 5},
               {operationsOf(eidA), limit(1, 0), "o9", 1, 5},
               {operationsOf(eidB), "", "", 0, 0},
               {operationsOf("no GUID"), "", "", 0, 0},
               {"pager.op_log.time >= '2023-11-14T22:18:20'", "", "o9 o7 o5", 3, 3},
           },
           asA);
    // An operation of one of the client's environments is found by the environments of others that it touches.
    expect("pager.op_log.id", {{{}, "", "o4", 1, 1}, {operationsOf(eidA), "", "o4", 1, 1}},
           restricted({QORLocalSID(0, 1, eid(eidB))}));
    expect("pager.event_log.source",
           {
               {std::string(alerts) + " or " + statuses, "", "e6 e4 e2 s2", 4, 4},
               {std::string(alerts) + " and " + eventsOf(eidB), "", "", 0, 0},
           },
           asA);
    expect("pager.op_log.id", {{{}, "", "o9 o7 o5 o3 o1", 5, 5}},
           restricted({QORLocalSID(0, 1, eid(eidA)), QORLocalSID(0, 2, eid(eidC))}));
    expect("pager.op_log.id", {{{}, limit(5, 2), "", -2, 0}}, restricted({}));
}

TEST_F(Logs, ARequestWithoutAFilterHasNoConstantsOfAnEarlierOne) {
    expect("pager.op_log.id", {{operationsOf(eidB), "", "o4 o2", 2, 2}, {{}, limit(1, 0), "o9", 1, 9}});
    expect("pager.event_log.source", {{alerts, limit(1, 0), "e6", 1, 6}, {{}, "", "", 0, 0}});
}

TEST_F(Logs, ARefusalIsOneErrorAndTheEndOfTheRequest) {
    QOR_NOT_WITH_SERVERS("servers are asked for their own tables");
    host.run("ALTER TABLE qor_event RENAME TO hidden_event");
    host.run("ALTER TABLE qor_operation RENAME TO hidden_operation");
    const Answer events = ask("pager.event_log.source", std::string(alerts) + " or " + statuses, "");
    EXPECT_THAT(events.error, StartsWith("1 "));
    EXPECT_THAT(events.rows, IsEmpty());
    EXPECT_EQ(events.counts, std::nullopt);
    const std::string text = client.ask(Ask{{"pager.op_log.id"}, {}, counts}.body());
    EXPECT_THAT(text, StartsWith(R"({"response":[[1744,[[1082,[[1026,"pager.op_log.id"]]]]]],"error":{"code":1,)"));
    host.run("ALTER TABLE hidden_operation RENAME TO qor_operation");
    EXPECT_EQ(ask("pager.op_log.id", {}, "").error, "");
}

}  // namespace
}  // namespace QOR::test
