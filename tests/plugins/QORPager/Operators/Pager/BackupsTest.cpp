// Backups as a source of rows.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "plugins/QORPager/Operators/Pager/PagerHost.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char* storage = "dddddddd-0000-4000-8000-000000000004";

/// Backups b1 to b4, an hour apart. Names Web-1 to Web-4, hosts node1 to node4, veid 101 to 104, two addresses each;
/// b1 and b2 on the storage; b1 and b3 of eidA, b2 of eidB, b4 of nobody and without an info document.
std::string backups() {
    std::string lines;
    for (int number = 1; number <= 4; ++number) {
        const std::string n = std::to_string(number);
        lines += R"({"kind":"backup","id":"b)" + n + R"(","time":)" + std::to_string(1700000000 + 3600 * number) +
                 R"(,"size":)" + std::to_string(10000000000 * number) + R"(,"type":)" + n + R"(,"description":"d)" + n +
                 R"(","name":"Web-)" + n + R"(","hostname":"node)" + n + "\"";
        if (number <= 2) lines += std::string(R"(,"storage_eid":")") + storage + "\"";
        if (number == 1 || number == 3) lines += std::string(R"(,"eid":")") + eidA + "\"";
        if (number == 2) lines += std::string(R"(,"eid":")") + eidB + "\"";
        if (number != 4) {
            lines += R"(,"info":{"veid":"10)" + n + R"(","ip":"10.0.0.)" + n + "/24 192.168.0." + n +
                     R"(","title":"Title )" + n + "\"}";
        }
        lines += "}\n";
    }
    return lines;
}

class Backups : public ::testing::Test {
protected:
    void SetUp() override {
        host.useShippedVocabulary();
        host.import(backups());
        client.emplace();
    }
    Answer ask(const std::string& where, const QORClientContextPtr& as = fullAccess(), const std::string& more = {}) {
        return readAnswer(client->ask(Ask{{"pager.backup.id"}, where, more + counts}.body(), as));
    }
    std::string found(const std::string& where, const QORClientContextPtr& as = fullAccess()) {
        const Answer answer = ask(where, as);
        EXPECT_EQ(answer.error, "") << where;
        const auto count = static_cast<std::int64_t>(answer.rows.size());
        EXPECT_EQ(answer.counts, (std::pair(count, count))) << where;
        return firstCells(answer);
    }
    PagerHost host;
    std::optional<PagerClient> client;
};

TEST_F(Backups, AreFoundByTheFirstConditionThatTheSourceKnows) {
    const std::string name = "pager.backup.info.name like ";
    const std::string host_ = "pager.backup.info.hostname like ";
    const std::string veid = "pager.backup.info.veid = ";
    const std::string ip = "pager.backup.info.ip like ";
    const std::string times = "pager.backup.time <= '2023-11-15T01:13:20' and pager.backup.time >= 1700003600";
    const std::vector<std::pair<std::string, std::string>> rows{
        {name + "'Web-%'", "b4 b3 b2 b1"},
        {name + "'web-1'", "b1"},
        {name + "'WEB-_'", "b4 b3 b2 b1"},
        {name + "'Web'", ""},
        {"lower(pager.backup.info.name) like 'web-2'", "b2"},
        {name + "'%flower%'", ""},
        {"'Web-3' like pager.backup.info.name", "b3"},
        {host_ + "'node%'", "b4 b3 b2 b1"},
        {host_ + "'%3'", "b3"},
        {veid + "'102'", "b2"},
        {veid + "102", "b2"},
        {veid + "'10'", ""},
        {veid + "''", ""},
        {ip + "'%192.168.0.3%'", "b3"},
        {ip + "'10.0.0.1'", "b1"},
        {ip + "'%1%0%.0.0%.2%'", "b2"},
        {ip + "'%'", "b3 b2 b1"},
        {times, "b3 b2 b1"},
        {"pager.backup.time >= 1700007200 and pager.backup.time <= 1700007200", "b2"},
        {"pager.backup.time >= '2023-11-15' and pager.backup.time <= '2023-11-16'", "b4 b3 b2"},
        {"pager.backup.time >= 0 and pager.backup.time <= 99999999999", "b4 b3 b2 b1"},
        {"pager.backup.time >= '1969-12-31 23:59:59' and pager.backup.time <= '2100-01-01'", "b4 b3 b2 b1"},
        // The first that is there counts, in the source's order and not in the filter's.
        {times + " and " + name + "'Web-4'", "b4"},
        {ip + "'10.0.0.1' and " + host_ + "'node2'", "b2"},
        {ip + "'10.0.0.1' and " + veid + "'103'", "b3"},
        {times + " and " + ip + "'10.0.0.1'", "b1"},
        {name + "'nothing' and " + host_ + "'node2'", ""},
        // What the source does not know finds nothing.
        {"pager.backup.id = 'b1'", ""},
        {"pager.backup.time >= 0", ""},
        {"pager.backup.time <= 'never' and pager.backup.time >= 0", ""},
        {"pager.backup.info.name = 'Web-1'", ""},
        {"not (" + name + "'Web-1')", ""},
        {"LOWER(pager.backup.info.name) like 'web-2'", ""},
        // The storage narrows what is found.
        {name + "'Web-%' and pager.backup.storage_eid = '" + storage + "'", "b2 b1"},
        {ip + "'10.0.0' and pager.backup.storage_eid = '" + storage + "'", "b2 b1"},
        {times + " and pager.backup.storage_eid = '" + storage + "'", "b2 b1"},
        {name + "'Web-%' and pager.backup.storage_eid = '" + eidC + "'", ""},
        {name + "'Web-%' and pager.backup.storage_eid = 'no GUID'", ""},
        // The nil GUID is no storage in particular.
        {name + "'Web-%' and pager.backup.storage_eid = '00000000-0000-0000-0000-000000000000'", "b4 b3 b2 b1"},
        {"pager.backup.storage_eid = '" + std::string(storage) + "'", ""},
        {"pager.backup.anything = 'x' or " + veid + "101", "b1"},
    };
    for (const auto& [where, ids] : rows)
        EXPECT_EQ(found(where), ids) << where;
}

TEST_F(Backups, ShowTheValuesThatTheyHave) {
    const std::vector<std::pair<std::string, std::string>> expected{
        {"pager.backup.id", "b2"},
        {"pager.backup.type", "2"},
        {"pager.backup.size", "20000000000"},
        {"pager.backup.description", "d2"},
        {"pager.backup.eid", eidB},
        {"pager.backup.info.title", "Title 2"},
        {"pager.backup.time", "2023-11-15T00:13:20+0000"},
        {"pager.backup.storage_eid", ""},
        {"pager.backup.info.name", ""},
        {"pager.backup.info.veid", ""},
        {"pager.backup.no.such.thing", ""},
        {"pager.env.title", ""},
        {"pager.env.config.ip", ""},
    };
    Ask ask{{}, "pager.backup.info.veid = 102"};
    std::vector<std::string> values;
    for (const auto& [name, value] : expected) {
        ask.fields.push_back(name);
        values.push_back(value);
    }
    EXPECT_THAT(readAnswer(client->ask(ask.body())).rows, ElementsAre(values));
    ask.where = "pager.backup.info.name like 'Web-4'";
    EXPECT_THAT(readAnswer(client->ask(ask.body())).rows,
                ElementsAre(ElementsAre("b4", "4", "40000000000", "d4", "", "", "2023-11-15T02:13:20+0000", "", "", "",
                                        "", "", "")));
}

TEST_F(Backups, ATimeByPrefixAloneIsNoTime) {
    host.setVocabulary({});
    QORVocReader reader;
    reader.readText(R"(<vocabulary><category name="pager_caches"><parameter id="backups"><source>vBackupInfo</source>
        <info_prefix>pager.backup.</info_prefix></parameter></category></vocabulary>)",
                    "bare.xml");
    host.setVocabulary(reader.vocabulary());
    client.emplace();
    EXPECT_THAT(
        readAnswer(
            client->ask(Ask{{"pager.backup.id", "pager.backup.time"}, "pager.backup.info.name like 'web-1'"}.body()))
            .rows,
        ElementsAre(ElementsAre("b1", "")));
}

TEST_F(Backups, IgnoreTheLimit) {
    EXPECT_EQ(firstCells(ask("pager.backup.info.name like '%'", fullAccess(), limit(1, 2))), "b4 b3 b2 b1");
}

TEST_F(Backups, NeedAFilterThatReadsWithoutTheWordLower) {
    EXPECT_EQ(client->errorOf(Ask{{"pager.backup.id"}}.body()), "3151 Pager parsing error: Empty expression");
    EXPECT_EQ(client->errorOf(Ask{{"pager.backup.id"}, "pager.backup.flower = 1"}.body()),
              "3151 Pager parsing error: Undeclared identifier: pager.backup.f");
    EXPECT_EQ(found("pager.backup.info.name like 'lowerWeb-1'"), "b1");
    EXPECT_EQ(found("pager.backup.info.name like 'lolowerwerWeb-1'"), "") << "one pass: lowerWeb-1 is left";
}

TEST_F(Backups, AnErrorOfTheFilterLeavesNoRowSet) {
    EXPECT_THAT(client->ask(Ask{{"pager.backup.id"}}.body()), HasSubstr(R"("response":[])"));
}

TEST_F(Backups, AClientWithoutFullAccessFindsItsOwn) {
    const auto asA = restricted({QORLocalSID(0, 1, eid(eidA))});
    EXPECT_EQ(found("pager.backup.info.name like '%'", asA), "b3 b1");
    EXPECT_EQ(found("pager.backup.info.veid = 102", asA), "");
    EXPECT_EQ(found("pager.backup.info.ip like '10'", asA), "b3 b1");
    EXPECT_EQ(found("pager.backup.time >= 0 and pager.backup.time <= 1700007200", asA), "b1");
    EXPECT_EQ(found("pager.backup.info.name like '%'",
                    restricted({QORLocalSID(0, 1, eid(eidA)), QORLocalSID(0, 1, eid(eidB))})),
              "b3 b2 b1");
    EXPECT_EQ(found("pager.backup.info.name like '%'", restricted({})), "");
}

TEST_F(Backups, ADatabaseThatFailsFindsNothingAndIsNoError) {
    QOR_NOT_WITH_SERVERS("servers are asked for their own tables");
    host.run("DROP VIEW \"vBackupInfo\"");
    EXPECT_EQ(found("pager.backup.info.name like '%'"), "");
    EXPECT_EQ(found("pager.backup.info.ip like '%'"), "");
}

TEST_F(Backups, WorksWithEnvironmentsInTheFilter) {
    host.import(std::string(R"({"kind":"environment","eid":")") + eidA + R"(","state":6,"title":"t"})");
    EXPECT_EQ(found("pager.env.state = 7 and pager.backup.info.name like '%1'"), "b1");
    EXPECT_EQ(ask("pager.env.state and pager.backup.info.name like '%1'").error,
              "3152 Pager evaluating error: Invalid type");
}

}  // namespace
}  // namespace QOR::test
