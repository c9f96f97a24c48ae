// Traps in conditions: which are told of, where, and what is suggested. That a condition which is called false has no
// rows is tried against databases in the tests of "pager2".
#include "QORQuery/QORConditionLint.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QORCommon/QORAscii.h"
#include "QORMessage/QORMessage.h"
#include "QORMessage/QORNotation.h"
#include "QORQuery/QORQueryError.h"
#include "support/LongTexts.h"

namespace QOR {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::size_t lintLevels = 62;
constexpr std::int64_t lintTime = 1714557600;  // 2024-05-01 10:00:00

std::string lintType(std::string_view view, std::string_view column) {
    if (!isSameWord(view, "v") && !isSameWord(view, "w")) return {};
    const std::vector<std::pair<std::string_view, std::string>> types{
        {"n", "int"},      {"b", "bigint"},           {"d", "float"},
        {"x", "decimal"},  {"s", "nvarchar(20)"},     {"op", "nvarchar(128)"},
        {"t", "datetime"}, {"g", "uniqueidentifier"}, {"p", "image"}};
    for (const auto& [name, type] : types)
        if (name == column) return type;
    return {};
}

QORConditionFacts facts() {
    QORConditionFacts facts;
    facts.view = "v";
    facts.types = lintType;
    facts.values = [](std::string_view, std::string_view column) {
        return column == "op" ? std::vector<std::string>{"install", "remove"} : std::vector<std::string>();
    };
    facts.rows = manyRows;
    return facts;
}

std::string told(const std::vector<QORConditionWarning>& warnings) {
    std::string text;
    for (const QORConditionWarning& warning : warnings) {
        if (!text.empty()) text += ' ';
        text.append(warning.code).append("@");
        text += warning.offset ? std::to_string(*warning.offset) : "-";
        if (!warning.suggestion.empty()) text += "->" + warning.suggestion;
    }
    return text;
}

std::vector<QORConditionWarning> lint(std::string_view text, const QORConditionFacts& known = facts()) {
    return lintCondition(
        text, {.view = "v", .levels = lintLevels, .types = lintType, .now = lintTime, .currentEid = "ffff"}, known);
}

struct LintCase {
    const char* rule;
    const char* text;
    const char* warnings;
};

class ConditionLint : public testing::TestWithParam<LintCase> {};

TEST_P(ConditionLint, TellsOfTheTrap) {
    EXPECT_EQ(told(lint(GetParam().text)), GetParam().warnings) << GetParam().rule << ": " << GetParam().text;
}

constexpr LintCase lintCases[] = {
    // What never holds.
    {"two values", "n = 1 and n = 2", "always_false@10"},
    {"of a bigger integer", "b = 1 and n = 1 and b = 2", "always_false@20"},
    {"the constant in front", "1 = n and 2 = n", "always_false@10"},
    {"empty range", "n > 5 and n < 3", "always_false@10"},
    {"the constant in front of a range", "5 < n and 3 > n", "always_false@10"},
    {"range without its ends", "n > 5 and n <= 5", "always_false@10"},
    {"nothing lies between", "n between 5 and 3", "always_false@0"},
    {"value outside of a range", "n = 7 and n < 7", "always_false@10"},
    {"value that is excluded", "n = 7 and n <> 7", "always_false@10"},
    {"lists without a common item", "n in (1, 2) and n in (3)", "always_false@16"},
    {"all of a list excluded", "n in (1, 2) and not n in (2, 1)", "always_false@20"},
    {"null and a value", "n is null and n = 1", "always_false@14"},
    {"null and not null", "n is null and n is not null", "always_false@14"},
    {"null and like", "s is null and s not like 'a%'", "always_false@14"},
    {"null and a list", "n is null and n not in (1)", "always_false@14"},
    {"null beside another column", "n is null and n < b", "always_false@14"},
    {"itself", "n <> n", "always_false@0"},
    {"less than itself", "n < v.n", "always_false@0"},
    {"not equal, spelled as not", "not (n = n)", "always_false@5"},
    {"two literals", "1 = 2", "always_false@0"},
    {"one literal that is none", "1 <> 1", "always_false@0"},
    {"texts that differ by more than case", "s = 'a' and s = 'b'", "always_false@12"},
    {"times", "t >= '2024-05-02 00:00:00' and t < '2024-05-01 00:00:00'", "always_false@31"},
    {"times that are spelled in two ways", "t = '2024-05-02 00:00:00' and t = '2024-05-02T10:00:00Z'",
     "always_false@30 other_form@34->2024-05-02 10:00:00"},
    {"GUIDs", "g = '0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10' and g = '1b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10'",
     "always_false@47"},
    {"numbers of floating point", "d > 1.5 and d < 1.25", "always_false@12"},
    {"upper case without upper case", "upper(s) = 'abc'", "always_false@0"},
    {"lower case without lower case", "lower(s) in ('ABC', 'D')", "always_false@0"},
    {"both sides of or", "n = 1 and n = 2 or s = 'a' and s = 'b'", "always_false@10 always_false@31"},
    {"what or becomes within not", "not (n <> 1 or n = 1)", "always_false@15"},
    {"one side of or", "n = 1 and n = 2 or s = 'a'", "never_true@10"},
    {"a part deep within", "s = 'x' and (d = 1 or (n > 5 and n < 3))", "never_true@33"},
    {"a part that makes all false", "s = 'x' and (n > 5 and n < 3)", "always_false@23"},
    {"a nested select's own", "n in (select n from w where n = 1 and n = 2)", "never_true@38"},
    // What may hold.
    {"one value twice", "n = 1 and n = 1", ""},
    {"two columns", "n = 1 and b = 2", ""},
    {"one of two", "n = 1 or n = 2", ""},
    {"a range of one", "n >= 5 and n <= 5", ""},
    {"a fraction may be stored", "n > 5 and n < 6", ""},
    {"texts that some engines take for one", "s = 'a' and s = 'A'", ""},
    {"blanks at the end", "s = 'a' and s = 'a  '", ""},
    {"texts that may be compared as numbers", "s = '1' and s = '1.0'", ""},
    {"the order of texts is the engine's", "s > 'b' and s < 'a'", ""},
    {"decimal numbers that floating point cannot tell apart", "x > 123456789012345678.25 and x < 123456789012345678.26",
     ""},
    {"views that are named differently", "v.n = 1 and w.n = 2", ""},
    {"nothing is known of the column", "zz = 1 and zz = 2", ""},
    {"null is no member of no list", "n is null and n not in (select n from w)", ""},
    {"not of a between", "n between 5 and 3 or n not between 5 and 3", "never_true@0"},
    {"upper case with upper case", "upper(s) = 'ABC' and lower(s) = 'abc'", ""},
    {"like says little", "s like 'a%' and s = 'b'", ""},
    // Null as a text.
    {"equals null", "s = 'null'", "compares_null@4->is null"},
    {"differs from null", "n = 1 and s <> 'NULL'", "compares_null@15->is not null"},
    {"null in a list", "s in ('a', 'null')", "compares_null@11->is null"},
    // Literals in another form.
    {"GUID in braces", "g = '{0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10}'",
     "other_form@4->0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10"},
    {"GUID in upper case in a list", "g in ('0B9F6A52-33A0-4C55-9D0C-0D4A3C1F2E10')",
     "other_form@6->0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10"},
    {"GUID beside a text", "s = '{0B9F6A52-33a0-4c55-9d0c-0d4a3c1f2e10}'",
     "other_form@4->0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10"},
    {"a date", "t >= '2024-05-01'", "other_form@5->2024-05-01 00:00:00"},
    {"a date within a function is a text", "lower(t) >= '2024-05-01'", ""},
    {"a time told from now", "t > '-7d' and t > now() - 1d and t <> 'yesterday'", ""},
    {"a number in another form is a number", "n = 007 or d = 1.50", ""},
    {"a number as a text", "n = '007'", "other_form@4->7"},
    {"a text as a number", "s < 10", "number_as_text@4->'10'"},
    {"another case", "op in ('Install', 'remove', 'other')", "other_case@7->install"},
    {"another case of a column that is qualified", "v.op <> 'REMOVE'", "other_case@8->remove"},
    {"who asks", "g = current_eid()", ""},
    // Patterns.
    {"leading wildcard", "s like '%x'", "leading_wildcard@7"},
    {"leading any character", "n = 1 and upper(s) not like '_X'", "leading_wildcard@28"},
    {"an escaped one", "s like '%%x' escape '%'", ""},
    {"wildcard behind the text", "s like 'x%'", ""},
    {"another view's rows are not known", "n in (select n from w where s like '%x')", ""},
    {"no pattern", "s like op", ""},
};
INSTANTIATE_TEST_SUITE_P(Cases, ConditionLint, testing::ValuesIn(lintCases));

TEST(ConditionLintText, OfAnEmptyTextNothingIsTold) {
    EXPECT_THAT(lint(""), IsEmpty());
}

TEST(ConditionLintText, AMistakeIsThrownAsByTheReader) {
    EXPECT_THROW(lint("n = "), QORQueryError);
}

TEST(ConditionLintText, WarningsSayWhatIsThere) {
    const auto warnings = lint("t = '2024-05-01'");
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_EQ(warnings[0].found, "2024-05-01");
    EXPECT_EQ(warnings[0].parameter, "where");
    EXPECT_EQ(warnings[0].message, R"("2024-05-01" is taken for "2024-05-01 00:00:00")");
}

TEST(ConditionLintText, ASmallViewMayBeLookedThrough) {
    QORConditionFacts small = facts();
    small.rows = manyRows - 1;
    EXPECT_THAT(lint("s like '%x'", small), IsEmpty());
    small.rows.reset();
    EXPECT_THAT(lint("s like '%x'", small), IsEmpty());
}

TEST(ConditionLintText, WhatIsNotKnownIsNotToldOf) {
    QORConditionFacts nothing;
    nothing.view = "v";
    EXPECT_EQ(told(lint("n = 1 and n = 2 and op = 'INSTALL' and g = '{a}' and s like '%x'", nothing)), "");
    EXPECT_EQ(told(lint("n is null and n = 1", nothing)), "always_false@14") << "that needs no type";
}

struct SortCase {
    const char* rule;
    const char* where;
    std::vector<std::string> sort;
    bool warns;
};

TEST(ConditionLintSort, AnOrderThatNoIndexHasIsToldOf) {
    QORConditionFacts known = facts();
    known.indexes = {{{"t"}, {"g", "t"}, {"n", "s", "t"}}};
    for (const SortCase& one : std::vector<SortCase>{
             {"no order", "", {}, false},
             {"an index begins with it", "", {"t", "s"}, false},
             {"no index does", "", {"s"}, true},
             {"one does when what stands before it is one value", "n = 1", {"s"}, false},
             {"from either side", "1 = n", {"s"}, false},
             {"and two", "n = 1 and s = 'a'", {"t"}, false},
             {"not of several values", "n in (1, 2)", {"s"}, true},
             {"nor under or", "n = 1 or n = 2", {"s"}, true},
             {"nor under not", "not n = 1", {"s"}, true},
             {"nor of another column", "n = b", {"s"}, true},
             {"one value needs no order", "s = 'a'", {"s"}, false},
         }) {
        known.sort = one.sort;
        const auto warnings = lint(one.where, known);
        EXPECT_EQ(warnings.size(), one.warns ? 1U : 0U) << one.rule;
        if (warnings.size() != 1) continue;
        EXPECT_EQ(warnings[0].code, "sorts_all");
        EXPECT_EQ(warnings[0].parameter, "sort");
        EXPECT_EQ(warnings[0].found, "s");
        EXPECT_THAT(warnings[0].message, HasSubstr("there is one for \"t\""));
    }
    known.indexes.reset();
    EXPECT_THAT(lint("", known), IsEmpty()) << "of indexes nothing is known";
}

TEST(ConditionLintText, ManyWarningsAreCut) {
    std::string items;
    for (int i = 0; i < 1000; ++i)
        items += "'null', ";
    EXPECT_EQ(lint("s in (" + items + "'a')").size(), mostWarnings);
}

TEST(ConditionLintText, LongListsAndChainsTakeNoTime) {
    std::string list = "n in (1";
    std::string chain = "n > 1";
    for (int i = 0; i < 5'000; ++i) {
        list += ", 1";
        chain += " and n > 1 and n < 5 and n <> 7 and n in (2, 3)";
    }
    EXPECT_THAT(lint(list + ") and " + list + ")"), IsEmpty());
    EXPECT_THAT(lint(chain), IsEmpty());
}

// ---- trees ----------------------------------------------------------------------------------------------------------

std::string toldOfTree(const std::string& notation) {
    QORMessage message;
    readElement(notation, message);
    return told(lintCondition(message.rootNode()->firstChild, facts()));
}

TEST(ConditionLintTree, HasNoPlacesAndListsAreComparedAsTheyAreSpelled) {
    EXPECT_EQ(toldOfTree(R"(["and",[["eq",[["field","n"],["value","1"]]],["eq",[["field","n"],["value","2"]]]]])"),
              "always_false@-");
    EXPECT_EQ(toldOfTree(R"(["in",[["field","g"],["value","{0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10}"]]])"),
              "other_form@-->0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10");
    EXPECT_EQ(toldOfTree(R"(["and",[["in",[["field","n"],["value","01"]]],["in",[["field","n"],["value","2"]]]]])"),
              "other_form@-->1")
        << "what is compared as it is spelled is no number that anything is known of";
}

TEST(ConditionLintTree, WhatIsNoConditionIsPassedOver) {
    for (const char* const tree :
         {R"(["and"])", R"(["not"])", R"(["eq"])", R"(["eq",[["value","1"]]])", R"(["in"])", R"(["between"])",
          R"(["between",[["field","n"]]])", R"(["between",[["field","n"],["value","5"]]])", R"(["like"])",
          R"(["like",[["field","s"]]])", R"(["is_null"])", R"(["eq",[["function"],["function"]]])",
          R"(["eq",[["function",[["name","upper"]]],["value","a"]]])", R"(["in",[["field","n"],["select"]]])",
          R"(["eq",[["select"],["select"]]])", R"(["limit",[["size","1"]]])", R"(["value","x"])",
          R"(["or",[["value","x"],["eq",[["field","p"],["value","1"]]]]])",
          R"(["like",[["value","a"],["value","%"]]])"})
        EXPECT_EQ(toldOfTree(tree), "") << tree;
}

}  // namespace
}  // namespace QOR
