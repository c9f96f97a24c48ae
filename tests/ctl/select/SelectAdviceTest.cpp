// What people are told whose request for rows of a view was refused.
#include "select/SelectAdvice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace QOR::test {
namespace {

using testing::HasSubstr;

const std::vector<QORViewColumn> views{{"vLog", "op", "nvarchar", 16},
                                       {"vLog", "status", "int", 0},
                                       {"vLog", "time", "datetime", 0},
                                       {"vHost", "eid", "uniqueidentifier", 0}};

SelectOptions asking(std::vector<std::string> fields, std::optional<std::string> where = std::nullopt) {
    SelectOptions options;
    options.view = "vLog";
    options.fields = std::move(fields);
    options.where = std::move(where);
    return options;
}

std::string adviceOn(const SelectOptions& options) {
    return adviseOnSelect(options, views, 0);
}

TEST(SelectAdvice, NamesTheNearestOrAllWhereTheyAreFew) {
    const std::vector<std::string_view> few{"one", "two"};
    EXPECT_EQ(adviseOnNames("onne", few), "did you mean one?");
    EXPECT_EQ(adviseOnNames("something", few), "there are one and two");
    EXPECT_EQ(adviseOnNames("something", std::vector<std::string_view>{"one"}), "there is one");
    EXPECT_EQ(adviseOnNames("something", std::vector<std::string_view>(17, "one")), "");
    EXPECT_EQ(adviseOnNames("something", {}), "");
}

TEST(SelectAdvice, KnowsViewsColumnsAndSortKeys) {
    SelectOptions otherView = asking({"op"});
    otherView.view = "vLgo";
    EXPECT_EQ(adviceOn(otherView), "did you mean vLog?");
    EXPECT_EQ(adviceOn(asking({"statsu", "count(tme)"})), "did you mean status?\ndid you mean time?");
    SelectOptions sorted = asking({"op"});
    sorted.sort = {"-statsu", "op"};
    EXPECT_EQ(adviceOn(sorted), "did you mean status?");
}

TEST(SelectAdvice, SaysNothingOfWhatIsRight) {
    SelectOptions right =
        asking({"op", "\"status\"", "count(op)", "average(status)", "*"}, "time > '2024-05-01' and op = 'a'");
    right.sort = {"-time"};
    EXPECT_EQ(adviceOn(right), "");
}

TEST(SelectAdvice, KnowsAggregates) {
    EXPECT_EQ(adviceOn(asking({"count(op"})), "the bracket is not closed: count(op)");
    EXPECT_EQ(adviceOn(asking({"cuont(op)"})), "\"cuont\" is no aggregate; did you mean count?");
    EXPECT_EQ(adviceOn(asking({"product(op)"})), "\"product\" is no aggregate; there are count, sum, avg, min and max");
}

TEST(SelectAdvice, KnowsDirectionsBehindSortKeys) {
    SelectOptions options = asking({"op"});
    options.sort = {"time", "desc"};
    EXPECT_EQ(adviceOn(options), "a sort key descends behind '-' and ascends without: --sort=-time");
    options.sort = {"status ASC"};
    EXPECT_EQ(adviceOn(options), "a sort key descends behind '-' and ascends without: --sort=status");
}

TEST(SelectAdvice, ShowsTheNameInAConditionThatNothingHas) {
    EXPECT_EQ(
        adviceOn(asking({"op"}, "statsu = 0")),
        "--where: view \"vLog\" has no column \"statsu\" at character 1\n  statsu = 0\n  ^\ndid you mean status?");
    EXPECT_THAT(adviceOn(asking({"op"}, "op in (select eid from vHots)")), HasSubstr("did you mean vHost?"));
    EXPECT_THAT(adviceOn(asking({"op"}, "something is null")), testing::EndsWith("\n  ^"));
}

TEST(SelectAdvice, KnowsTextsWithoutTheirQuotes) {
    for (const char* where :
         {"op = install", "op = \"install\"", "op in (install)", "op like install", "op <> install"})
        EXPECT_THAT(adviceOn(asking({"op"}, where)), HasSubstr("a text stands in single quotes: 'install'")) << where;
}

TEST(SelectAdvice, KnowsDatesThatAreWrittenOtherwise) {
    EXPECT_EQ(adviseOnTimes("time > '2024-5-1'"), "a time is written '2024-05-01' or '2024-05-01 10:15:00'");
    EXPECT_EQ(adviseOnTimes("time > 2024-05-01"), "a time is written '2024-05-01' or '2024-05-01 10:15:00'");
    EXPECT_EQ(adviseOnTimes("time > '2024/05/1' or time < '2024.05.01'"),
              "a time is written '2024-05-01' or '2024-05-01 10:15:00'");
    for (const char* right : {"time > '2024-05-01'", "time > '2024-05-01T10:15:00Z'", "size > 2024 - 5", "'2024-13-1'",
                              "2024-5-", "'20245-1-1'", "version = '1.2.3'", "id = '2024-5-111'", "a2024-5-1"})
        EXPECT_EQ(adviseOnTimes(right), "") << right;
}

}  // namespace
}  // namespace QOR::test
