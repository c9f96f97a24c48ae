// What a client may not see is no operand of what it wrote: rows on which the engine fails are hidden, and nothing that
// a client asks may tell of them. And what nested selects are compared by.

#include <gtest/gtest.h>

#include "plugins/QORPager/Operators/Pager2/PeopleDatabase.h"

namespace QOR::test {
namespace {

using Rows = std::vector<std::vector<std::string>>;

QORClientContextPtr clientOfA() {
    return restricted({{0, 1, QOREID(QORGUIDBase::parse(guidA).value_or(QORGUIDBase()))}});
}

std::string where(const std::string& condition, const char* view = "vVault", const char* field = "title") {
    return std::string(R"(["select",[["view",")") + view + R"("],["field",")" + field + R"("],["sort",[["field",")" +
           field + R"("]]],["statistics"],["where",[)" + condition + "]]]]";
}

/// As errors name it.
std::string engineName() {
    return QORRdbms::instance().dialect().name;
}

std::string texts(const std::string& answer) {
    const QORResponse response = readResponse(answer);
    if (response.error) return "error: " + response.error->message;
    std::string text;
    for (const auto& row : valuesOf(answer))
        text += (text.empty() ? "" : " ") + row.at(0);
    return text;
}

struct Asked {
    const char* name;
    const char* condition;
    const char* seen;
};

class HiddenRows : public Pager2Test, public ::testing::WithParamInterface<Asked> {};

TEST_P(HiddenRows, AreNotAskedWhatTheClientAsks) {
    EXPECT_EQ(texts(client.ask(where(GetParam().condition), clientOfA())), GetParam().seen);
    EXPECT_EQ(texts(client.ask(where(std::string(R"(["not",[["not",[)") + GetParam().condition + "]]]]"), clientOfA())),
              GetParam().seen);
    // In front of it, behind it, and beside one that is true of nothing.
    const std::string guess = R"(["eq",[["field","title"],["value","secret"]]])";
    EXPECT_EQ(texts(client.ask(where(R"(["and",[)" + guess + "," + GetParam().condition + "]]"), clientOfA())), "");
    EXPECT_EQ(
        texts(client.ask(where(R"(["and",[)" + std::string(GetParam().condition) + "," + guess + "]]"), clientOfA())),
        "");
    EXPECT_EQ(texts(client.ask(where(R"(["or",[)" + guess + "," + GetParam().condition + "]]"), clientOfA())),
              GetParam().seen);
}

constexpr Asked questions[] = {
    {"APatternFromAColumn", R"(["like",[["field","title"],["field","body"]]])", "mine more"},
    {"APatternFromAFunction", R"(["like",[["field","title"],["function",[["name","upper"],["field","body"]]]]])",
     "mine more"},
    {"AColumnThatTheViewComputes", R"(["eq",[["field","word"],["value","x"]]])", "mine"},
    {"AColumnThatTheViewComputesInAList", R"(["in",[["field","word"],["value","x"],["value","y"]]])", "mine more"},
    {"AColumnThatTheViewComputesBetween", R"(["between",[["field","word"],["value","x"],["value","x"]]])", "mine"},
    {"NullOfAColumnThatTheViewComputes", R"(["not",[["is_null",[["field","word"]]]]])", "mine more"},
    {"AColumnThatTheTableComputes", R"(["eq",[["field","part"],["value","2"]]])", "more"},
    {"TwoColumnsThatAreComputed", R"(["ne",[["field","part"],["field","word"]]])", "mine more"},
    {"AColumnInsideAFunction", R"(["eq",[["function",[["name","lower"],["field","word"]]],["value","x"]]])", "mine"},
    {"ANestedSum", R"(["gt",[["field","n"],["value","6"]]])", "more"},
    {"ANestedSelectThatAddsUp",
     R"(["not",[["in",[["field","n"],["select",[["view","vVault"],["field",[["function",[["name","sum"],["field","n"]]]]]]]]]]])",
     "mine more"},
    {"ANestedSelectThatNamesTheRowAroundIt",
     R"(["in",[["field","title"],["select",[["view","vSecure"],["field","title"],["where",[["eq",[["field","vVault.word"],["field","title"]]]]]]]]])",
     ""},
    {"ANestedSelectWithAComputedColumn",
     R"(["in",[["field","word"],["select",[["view","vVault"],["field","word"],["where",[["eq",[["field","part"],["value","1"]]]]]]]]])",
     "mine"},
};

INSTANTIATE_TEST_SUITE_P(Conditions, HiddenRows, ::testing::ValuesIn(questions),
                         [](const auto& tested) { return std::string(tested.param.name); });

class Guarded : public Pager2Test {
protected:
    std::string ask(const std::string& rest, const QORClientContextPtr& as) {
        return client.ask(R"(["select",[["view","vVault"],)" + rest + "]]", as);
    }
};

TEST_F(Guarded, HiddenRowsAreThereForNothingElseEither) {
    const auto as = clientOfA();
    EXPECT_EQ(texts(ask(R"(["field",[["function",[["name","sum"],["field","n"]]]]])", as)), "12");
    EXPECT_EQ(texts(ask(R"(["field",[["function",[["name","sum"],["field","m"]]]]])", as)), "3");
    EXPECT_EQ(texts(ask(R"(["field",[["function",[["name","max"],["field","part"]]]]])", as)), "2");
    EXPECT_EQ(texts(ask(R"(["field","word"],["distinct"],["sort",[["field","word"],["descending"]]])", as)), "y x");
    EXPECT_EQ(
        texts(ask(R"(["field","title"],["sort",[["field","word"]]],["limit",[["size","1"]]],["statistics"])", as)),
        "mine");
    EXPECT_EQ(
        valuesOf(ask(
            R"(["field","word"],["field",[["function",[["name","count"],["field","n"]]]]],["sort",[["field","word"]]])",
            as)),
        (Rows{{"1", "x"}, {"1", "y"}}));
}

TEST_F(Guarded, WhoMaySeeTheRowsIsToldOfTheFailure) {
    EXPECT_EQ(texts(ask(R"(["field",[["function",[["name","sum"],["field","n"]]]]])", fullAccess())),
              "error: a sum is beyond 64 bits of " + engineName());
    EXPECT_THAT(texts(client.ask(where(R"(["eq",[["field","word"],["value","x"]]])"), fullAccess())),
                ::testing::HasSubstr(oneOf("malformed JSON", "invalid input syntax for type json")));
}

TEST_F(Guarded, APatternThatIsTooLongIsRefusedWhateverTheRows) {
    const std::string pattern = R"(["function",[["name","upper"],["function",[["name","lower"],["value",")" +
                                std::string(50001, '%') + R"("]]]]])";
    for (const char* const guess : {"secret", "nobody", "mine"}) {
        const std::string request = where(std::string(R"(["and",[["eq",[["field","title"],["value",")") + guess +
                                          R"("]]],["like",[["field","title"],)" + pattern + "]]]]");
        for (const auto& as : {clientOfA(), fullAccess()}) {
            EXPECT_EQ(texts(client.ask(request, as)),
                      "error: a pattern of LIKE has 50001 bytes; " + engineName() + " takes 50000");
        }
    }
}

TEST_F(Guarded, AStoredPatternThatIsTooLongMatchesNothing) {
    const std::string like = R"(["like",[["field","title"],["field","body"]]])";
    EXPECT_EQ(texts(client.ask(where(like), fullAccess())), "mine more");
    EXPECT_EQ(texts(client.ask(where(R"(["not",[)" + like + "]]"), fullAccess())), "");
}

TEST_F(Guarded, ConditionsAreAsDeepAsThoseOfFullAccess) {
    std::string condition = R"(["like",[["field","title"],["value","m%"]]])";
    for (int level = 0; level < 40; ++level) {
        condition = std::string(R"([")") + (level % 2 ? "and" : "or") + R"(",[["eq",[["field","n"],["value",")" +
                    (level % 2 ? "5" : "99") + R"("]]],)" + condition + "]]";
    }
    EXPECT_EQ(texts(client.ask(where(condition), clientOfA())), "mine");
}

// ---- nested selects
// ---------------------------------------------------------------------------------------------------

struct Nested {
    const char* name;
    const char* function;
    const char* column;
    const char* compared;
    const char* ids;
};

class NestedAggregates : public Pager2Test, public ::testing::WithParamInterface<Nested> {};

TEST_P(NestedAggregates, AreComparedAsValuesOfTheColumn) {
    const auto [name, function, column, compared, ids] = GetParam();
    const std::string nested = std::string(R"(["select",[["view","vNumbers"],["field",[["function",[["name",")") +
                               function + R"("],["field",")" + column + R"("]]]]]]])";
    EXPECT_EQ(texts(client.ask(
                  where(std::string(R"(["in",[["field",")") + compared + R"("],)" + nested + "]]", "vNumbers", "id"),
                  fullAccess())),
              ids);
}

INSTANTIATE_TEST_SUITE_P(
    Columns, NestedAggregates,
    ::testing::Values(
        Nested{"LargestText", "max", "name", "name", "2"}, Nested{"SmallestText", "min", "name", "name", "10"},
        Nested{"LargestDate", "max", "born", "born", "2"}, Nested{"SmallestDate", "MIN", "born", "born", "10"},
        Nested{"LargestGuid", "max", "guid", "guid", "3"}, Nested{"SmallestGuid", "min", "guid", "guid", "1"},
        Nested{"LargestNumber", "max", "id", "id", "10"}, Nested{"SumOfGuids", "sum", "guid", "id", ""},
        Nested{"AverageOfGuids", "average", "guid", "id", ""}, Nested{"SumOfNumbers", "sum", "big", "big", "10"},
        Nested{"SumOfNumbersOfBothSigns", "sum", "small", "small", ""},
        Nested{"AverageOfNumbers", "average", "id", "id", ""}, Nested{"SumOfTexts", "sum", "name", "id", ""},
        Nested{"Count", "count", "guid", "id", "3"}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(Guarded, NestedSumsAndAveragesOfDatesAreSeconds) {
    database.direct.run("insert into people(id, big) select 500, " +
                        oneOf("sum(strftime('%s', born))", "sum(extract(epoch from born))") + " from people");
    const std::string sum =
        R"(["select",[["view","vNumbers"],["field",[["function",[["name","sum"],["field","born"]]]]]]])";
    const std::string answer =
        client.ask(where(R"(["in",[["field","big"],)" + sum + "]]", "vNumbers", "id"), fullAccess());
    database.direct.run("delete from people where id = 500");
    EXPECT_EQ(texts(answer), "500");
}

TEST_F(Guarded, NestedSelectsWithTwoFieldsFailWhenAllElseIsRight) {
    const std::string two =
        R"(["in",[["field","title"],["select",[["view","vSecure"],["field","title"],["field","securableObjId"]]]]])";
    EXPECT_EQ(texts(client.ask(where(two), fullAccess())), "error: a nested select must have one field, it has 2");
    EXPECT_EQ(texts(client.ask(where(R"(["and",[)" + two + R"(,["eq",[["field","title"]]]]])"), fullAccess())),
              "error: incorrect <where> clause");
    EXPECT_EQ(
        texts(client.ask(where(R"(["and",[)" + two + R"(,["eq",[["field","x"],["value","1"]]]]])"), fullAccess())),
        "error: invalid column name \"x\" of view \"vVault\"");
    EXPECT_EQ(
        texts(client.ask(
            where(R"(["in",[["field","title"],["select",[["view","vSecure"],["field","title"],["field","x"]]]]])"),
            fullAccess())),
        "error: invalid column name \"x\" of view \"vSecure\"");
}

TEST_F(Guarded, MessagesShowANameThatHoldsANulWhole) {
    EXPECT_EQ(texts(client.ask(R"(["select",[["view","v\u0000x"],["field","id"]]])")),
              "error: invalid view \"v\\x00x\"");
    EXPECT_EQ(texts(client.ask(R"(["select",[["view","vPeople"],["field","i\u0000d"]]])")),
              "error: invalid column name \"i\\x00d\" of view \"vPeople\"");
    EXPECT_EQ(texts(client.ask(where(R"(["eq",[["field","n"],["value","1\u00002"]]])"))),
              "error: \"1\\x002\" is not an integer of 64 bits");
}

TEST_F(Guarded, ATextAmongNumbersCountsAsNothingInTheirSum) {
    QOR_ONLY_ON(ASEngine::SQLite);
    database.direct.run("insert into vault(title, m, n) values ('odd', 'word', 'word')");
    const std::string one = R"(["where",[["eq",[["field","title"],["value","odd"]]]]])";
    EXPECT_EQ(texts(ask(R"(["field",[["function",[["name","sum"],["field","m"]]]]],)" + one, fullAccess())), "0");
    const std::string some = R"(["where",[["in",[["field","title"],["value","odd"],["value","mine"]]]]])";
    EXPECT_EQ(texts(ask(R"(["field",[["function",[["name","sum"],["field","n"]]]]],)" + some, fullAccess())), "5");
    database.direct.run("update vault set m = 1.5 where title = 'odd'");
    EXPECT_EQ(texts(ask(R"(["field",[["function",[["name","sum"],["field","m"]]]]],)" + one, fullAccess())),
              "error: sum(\"vVault\".\"m\") is 1.5, which is no integer of 32 bits");
    database.direct.run("delete from vault where title = 'odd'");
}

}  // namespace
}  // namespace QOR::test
