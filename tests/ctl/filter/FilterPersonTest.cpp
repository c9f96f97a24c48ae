#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "filter/FilterInspector.h"
#include "filter/FilterNames.h"

namespace QOR {
namespace {

using testing::HasSubstr;

struct Description {
    int exitCode;
    std::string out;
    std::string err;
};

Description describe(std::string_view text) {
    std::ostringstream out;
    std::ostringstream err;
    const int exitCode = runFilterPerson(text, FilterNames(), out, err);
    return {exitCode, out.str(), err.str()};
}

TEST(FilterPerson, AFilterIsDescribed) {
    const Description answer = describe(
        "pager.op_log.time >= '1970-01-02' and not (lower(pager.env.title) like 'it''s%' or pager.op_log.status < -3)");
    EXPECT_EQ(answer.exitCode, 0);
    EXPECT_EQ(answer.err, "");
    EXPECT_EQ(
        answer.out,
        R"(Dates as seconds: pager.op_log.time >= 86400 and not (lower(pager.env.title) like 'it''s%' or pager.op_log.status < -3)

and
├─ >=
│  ├─ pager.op_log.time  (time, operation log)
│  └─ 86400
└─ not
   └─ or
      ├─ like
      │  ├─ lower()
      │  │  └─ pager.env.title  (text, environments)
      │  └─ 'it''s%'
      └─ <
         ├─ pager.op_log.status  (integer, operation log)
         └─ -
            └─ 3

Read as
  (pager.op_log.time >= 86400) and (not ((lower(pager.env.title) like it's%) or (pager.op_log.status < -3)))
  of environments: not (lower(pager.env.title) like it's%)
  of other rows: (pager.op_log.time >= 86400) and (not (pager.op_log.status < -3))

Fields used
  pager.env.title      text, environments
  pager.op_log.status  integer, operation log
  pager.op_log.time    time, operation log

Constants that each data source takes from it
  environments   none
  operation log  earliest time: pager.op_log.time >= 86400
  event log      none
  backups        none
)");
}

struct ConstantCase {
    const char* text;
    const char* line;
};

const ConstantCase constantCases[] = {
    {"pager.env.eid in (unit 'X', recursive)",
     "environments   unit that the environments belong to: pager.env.eid.InPlaceholder in X\n"},
    {"pager.op_log.parameter.env.eid = 'E'", "operation log  environment: pager.op_log.parameter.env.eid = E\n"},
    {"pager.op_log.time <= '1970-01-02'", "operation log  latest time: pager.op_log.time <= 86400\n"},
    {"pager.event_log.parameter.env.eid = 'E'", "event log      environment: pager.event_log.parameter.env.eid = E\n"},
    {"pager.event_log.category='env_status'", "event log      category: pager.event_log.category='env_status'\n"},
    {"pager.event_log.category='resource_alert'",
     "event log      category: pager.event_log.category='resource_alert'\n"},
    {"pager.event_log.category = 'env_status'", "event log      none\n"},
    {"pager.backup.info.name like lower('a%')", "backups        name: pager.backup.info.name like a%\n"},
    {"pager.backup.storage_eid = 'S'", "backups        storage: pager.backup.storage_eid = S\n"},
    {"lower (true) = true", "backups        none\n"},
    {"'lower' = 'x' and upper(lower('a')) = 'A'", "backups        none\n"},
};

TEST(FilterPerson, EachDataSourceShowsTheConstantsItTakes) {
    for (const ConstantCase& test : constantCases)
        EXPECT_THAT(describe(test.text).out, HasSubstr(test.line)) << test.text;
}

struct ErrorCase {
    const char* text;
    const char* err;
};

const ErrorCase errorCases[] = {
    {"", "Empty expression at character 1\n  \n  ^\n"},
    {"pager.env.staet = 6",
     "Undeclared identifier: pager.env.staet at character 1\n  pager.env.staet = 6\n  ^\ndid you mean "
     "pager.env.state\n"},
    {"1 = 1 and hostname = 'x'",
     "Undeclared identifier: hostname at character 11\n  1 = 1 and hostname = 'x'\n            ^\n"
     "did you mean pager.env.config.hostname\n          or pager.env.vconfig.hostname\n"},
    {"qqqqqqqqqqqq",
     "Undeclared identifier: qqqqqqqqqqqq at character 1\n  qqqqqqqqqqqq\n  ^\n"
     "a text stands in quotes: 'qqqqqqqqqqqq'\n"},
    {"(1 = 1) ^ 2", "Unknown symbol: ^ 2 at character 9\n  (1 = 1) ^ 2\n          ^\n"},
    {"true and (1 = 1", "Unexpected left bracket at character 10\n  true and (1 = 1\n           ^\n"},
    {"true true", "Operator or function expected: an operator is missing at character 6\n  true true\n       ^\n"},
    {"true (true)", "Unknown function: true at character 1\n  true (true)\n  ^\n"},
    {"1 + and",
     "Operator or function expected: an operand is missing before \"and\" at character 5\n  1 + and\n      ^\n"},
    {"1 +", "Operator or function expected: an operand is missing at character 4\n  1 +\n     ^\n"},
    {"3 - -2",
     "Operator or function expected: an operand is missing before \"-\"; a minus is a sign only behind a bracket or a "
     "comparison: 3 - (-2) at character 5\n  3 - -2\n      ^\n"},
    {"not not true",
     "Operator or function expected: an operator follows another of the same rank; put its operand in brackets, as in: "
     "not (not x) at character 1\n  not not true\n  ^\n"},
    {"1 = unit",
     "Operator or function expected: \"unit\" stands only in: pager.env.eid in (unit '...', recursive) at character 5\n"
     "  1 = unit\n      ^\n"},
    {"pager.op_log.time = 5",
     "a time of a log is compared with what is no date in quotes, such as '2024-05-01 12:00'\n"},
};

TEST(FilterPerson, AMistakeIsShownWithItsPlace) {
    for (const ErrorCase& test : errorCases) {
        const Description answer = describe(test.text);
        EXPECT_EQ(answer.exitCode, 1) << test.text;
        EXPECT_EQ(answer.err, test.err) << test.text;
        EXPECT_EQ(answer.out, "") << test.text;
    }
}

TEST(FilterPerson, ResultsThatAreNoBooleanAreNoted) {
    const char* const note = "The result is not a boolean";
    for (const char* text : {"1 + 2", "'x'", "upper('x')", "pager.env.title", "-1"})
        EXPECT_THAT(describe(text).out, HasSubstr(note));
    for (const char* text : {"1 = 2", "true", "not true", "pager.op_log.latest", "pager.env.title like 'x'",
                             "pager.env.eid in (unit 'X', recursive)"}) {
        EXPECT_THAT(describe(text).out, testing::Not(HasSubstr(note)));
    }
}

TEST(FilterPerson, TextsAreHarmlessForATerminal) {
    const Description answer = describe("'\x1b[31m\xff' = 'x'");
    EXPECT_EQ(answer.exitCode, 0);
    EXPECT_EQ(answer.out.find('\x1b'), std::string::npos);
    EXPECT_EQ(answer.out.find('\xff'), std::string::npos);
    EXPECT_EQ(describe("\x1b[31m").err.find('\x1b'), std::string::npos);
}

TEST(FilterPerson, DeepTreesAreCutWhereTheyLeaveTheScreen) {
    std::string text = "true";
    for (int i = 0; i < 20000; ++i)
        text = "not (" + text + ")";
    const Description answer = describe(text);
    EXPECT_EQ(answer.exitCode, 0);
    EXPECT_THAT(answer.out, HasSubstr("... (19977 more)"));
}

TEST(FilterPerson, NearestNamesForgiveTyping) {
    using Names = std::vector<std::string_view>;
    const FilterNames names;
    EXPECT_EQ(names.nearest("pager.env.eid2"), (Names{"pager.env.eid"}));
    EXPECT_EQ(names.nearest("PAGER.OP_LOG.STATSU"), (Names{"pager.op_log.status"}));
    EXPECT_EQ(names.nearest("tru"), (Names{"true"}));
    EXPECT_EQ(names.nearest(std::string(100000, 'x')), Names{});
}

}  // namespace
}  // namespace QOR
