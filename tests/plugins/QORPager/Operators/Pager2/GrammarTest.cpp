// The grammar of a select: what each malformed request is answered, and in which order things are checked.

#include <gtest/gtest.h>

#include "plugins/QORPager/Operators/Pager2/PeopleDatabase.h"

namespace QOR::test {
namespace {

struct Complaint {
    const char* name;
    const char* body;
    int code;
    const char* message;
};

class GrammarComplaints : public Pager2Test, public ::testing::WithParamInterface<Complaint> {};

TEST_P(GrammarComplaints, IsAnsweredWithOneErrorAndNoResult) {
    const QORResponse answer = readResponse(client.ask(GetParam().body));
    ASSERT_TRUE(answer.error.has_value());
    EXPECT_EQ(answer.error->message, GetParam().message);
    EXPECT_EQ(answer.error->code, GetParam().code);
    EXPECT_TRUE(answer.response.empty());
}

constexpr Complaint complaints[] = {
    {"NotASelect", R"(["where",[["view","vPeople"]]])", 400, "select is absent"},
    {"LimitWithoutSize", R"(["select",[["limit",[["offset","1"]]],["view","vPeople"],["field","id"]]])", 400,
     "limit/size is absent"},
    {"LimitIsCheckedBeforeView", R"(["select",[["limit"]]])", 400, "limit/size is absent"},
    {"SizeWithoutText", R"(["select",[["limit",[["size"]]],["view","vPeople"],["field","id"]]])", 400,
     "limit/size is absent"},
    {"SizeThatIsNotWhollyANumber", R"(["select",[["limit",[["size","10x"]]],["view","vPeople"],["field","id"]]])", 400,
     "limit/size is absent"},
    {"SizeBeyond32Bits", R"(["select",[["limit",[["size","2147483648"]]],["view","vPeople"],["field","id"]]])", 400,
     "limit/size is absent"},
    {"NoView", R"(["select",[["field","id"]]])", 400, "view name (list) is absent"},
    {"UnreadableViewGoesOnWithoutAName", R"(["select",[["view"],["field","id"]]])", 1, "invalid view \"\""},
    {"ViewWithChildrenGoesOnWithoutAName", R"(["select",[["view",[["name","x"]]],["field","id"]]])", 1,
     "invalid view \"\""},
    {"UnknownView", R"(["select",[["view","vNobody"],["field","id"]]])", 1, "invalid view \"vNobody\""},
    {"ViewIsCheckedBeforeFields", R"(["select",[["view","vNobody"]]])", 1, "invalid view \"vNobody\""},
    {"TableThatIsNoView", R"(["select",[["view","people"],["field","id"]]])", 1, "invalid view \"people\""},
    {"NoFields", R"(["select",[["view","vPeople"]]])", 400, "fields list is absent"},
    {"FieldNameWithoutText", R"(["select",[["view","vPeople"],["field",[["name"]]]]])", 400, "invalid field name"},
    {"FieldNameIsCheckedBeforeFunction", R"(["select",[["view","vPeople"],["field",[["name"],["function"]]]]])", 400,
     "invalid field name"},
    {"FunctionWithoutName", R"(["select",[["view","vPeople"],["field",[["function",[["field","id"]]]]]]])", 400,
     "'name' tag is absent in function"},
    {"FunctionWhoseNameHasNoText",
     R"(["select",[["view","vPeople"],["field",[["function",[["name"],["field","id"]]]]]]])", 400,
     "invalid aggregating function name"},
    {"FunctionWithoutField", R"(["select",[["view","vPeople"],["field",[["function",[["name","count"]]]]]]])", 400,
     "'field' tag is absent in function"},
    {"FunctionWithoutFieldBesideAName",
     R"(["select",[["view","vPeople"],["field",[["name","id"],["function",[["name","count"]]]]]]])", 400,
     "'field' tag is absent in function"},
    {"FunctionWhoseFieldHasNoText",
     R"(["select",[["view","vPeople"],["field",[["name","id"],["function",[["name","count"],["field"]]]]]]])", 400,
     "invalid field for the aggregation"},
    {"FieldWithoutText", R"(["select",[["view","vPeople"],["field"]]])", 400, "invalid simple field"},
    {"EmptyFieldName", R"(["select",[["view","vPeople"],["field",[["name",""]]]]])", 400, "invalid simple field"},
    {"UnknownColumn", R"(["select",[["view","vPeople"],["field","nothing"]]])", 1,
     "invalid column name \"nothing\" of view \"vPeople\""},
    {"ColumnOfAnotherCase", R"(["select",[["view","VPEOPLE"],["field","ID"]]])", 1,
     "invalid column name \"ID\" of view \"VPEOPLE\""},
    {"EmptyColumn", R"(["select",[["view","vPeople"],["field",""]]])", 1,
     "invalid column name \"\" of view \"vPeople\""},
    {"UnknownFunction",
     R"(["select",[["view","vPeople"],["field",[["function",[["name","Median"],["field","id"]]]]]]])", 1,
     "invalid aggregating function name \"Median\""},
    {"SecondFieldOfTheSameKeyIsStillChecked",
     R"(["select",[["view","vPeople"],["field","id"],["field",[["name","id"],["function",[["name","no"],["field","id"]]]]]]])",
     1, "invalid aggregating function name \"no\""},
    {"SortWithoutField", R"(["select",[["view","vPeople"],["field","id"],["sort",[["descending"]]]]])", 400,
     "sort/field is absent"},
    {"SortFieldWithoutText", R"(["select",[["view","vPeople"],["field","id"],["sort",[["field"]]]]])", 400,
     "sort/field is absent"},
    {"SortByUnknownColumn", R"(["select",[["view","vPeople"],["field","id"],["sort",[["field","x"]]]]])", 1,
     "invalid column name \"x\" of view \"vPeople\""},
    {"SortIsCheckedBeforeWhere", R"(["select",[["view","vPeople"],["where"],["field","id"],["sort",[["field","x"]]]]])",
     1, "invalid column name \"x\" of view \"vPeople\""},
    {"WhereWithoutChild", R"(["select",[["view","vPeople"],["field","id"],["where"]]])", 400,
     "incorrect <where> clause"},
    {"WhereWithText", R"(["select",[["view","vPeople"],["field","id"],["where","id = 1"]]])", 400,
     "incorrect <where> clause"},
};

INSTANTIATE_TEST_SUITE_P(Requests, GrammarComplaints, ::testing::ValuesIn(complaints),
                         [](const auto& tested) { return std::string(tested.param.name); });

struct Answer {
    const char* name;
    const char* body;
    const char* answer;
};

class GrammarAnswers : public Pager2Test, public ::testing::WithParamInterface<Answer> {};

TEST_P(GrammarAnswers, IsAsExpected) {
    EXPECT_EQ(normalized(client.ask(GetParam().body)), normalized(GetParam().answer));
}

constexpr Answer answers[] = {
    {"ColumnsRunInOrderOfTheirNames",
     R"(["select",[["view","vPeople"],["field","name"],["field","id"],["limit",[["size","1"]]],["sort",[["field","id"]]]]])",
     R"({"response":[["row_set",[["name","id"],["name","name"],["row",[["value","1"],["value","Ann"]]]]]]})"},
    {"CapitalsOrderBeforeSmallLetters",
     R"(["select",[["view","vSecure"],["field","title"],["field","securableObjId"],["limit",[["size","1"]]],["sort",[["field","title"]]]]])",
     R"({"response":[["row_set",[["name","securableObjId"],["name","title"],["row",[["value"],["value","nobody"]]]]]]})"},
    {"ViewNameInAnyCase",
     R"(["select",[["view","VPEOPLE"],["field","id"],["limit",[["size","1"]]],["sort",[["field","id"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","1"]]]]]]})"},
    {"NamedFieldIsThatColumn",
     R"(["select",[["view","vPeople"],["field",[["name","id"]]],["limit",[["size","1"]]],["sort",[["field","id"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","1"]]]]]]})"},
    {"NameBesideAFunctionReplacesItsField",
     R"(["select",[["view","vPeople"],["field",[["name","id"],["function",[["name","max"],["field","nothing"]]]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","10"]]]]]]})"},
    {"FunctionNameInAnyCase",
     R"(["select",[["view","vPeople"],["field",[["function",[["name","COUNT"],["field","score"]]]]]]])",
     R"({"response":[["row_set",[["name","score"],["row",[["value","3"]]]]]]})"},
    {"FirstFieldOfAKeyWins",
     R"(["select",[["view","vPeople"],["field",[["function",[["name","min"],["field","id"]]]]],["field","id"]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","1"]]]]]]})"},
    {"EmptyFunctionNameIsAPlainColumn",
     R"(["select",[["view","vPeople"],["field",[["function",[["name",""],["field","id"]]]]],["sort",[["field","id"]]],["limit",[["size","1"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","1"]]]]]]})"},
    {"NoLimitGivesEveryRow", R"(["select",[["view","vPeople"],["field","id"],["sort",[["field","id"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","1"]]],["row",[["value","2"]]],["row",[["value","3"]]],["row",[["value","10"]]]]]]})"},
    {"SizeZeroMeansNoLimitAndNoOffset",
     R"(["select",[["view","vPeople"],["field","id"],["sort",[["field","id"]]],["limit",[["size","0"],["offset","2"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","1"]]],["row",[["value","2"]]],["row",[["value","3"]]],["row",[["value","10"]]]]]]})"},
    {"NegativeSizeMeansNoLimit",
     R"(["select",[["view","vNames"],["field","id"],["sort",[["field","id"],["descending"]]],["limit",[["size","-3"],["offset","3"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","10"]]],["row",[["value","3"]]],["row",[["value","2"]]],["row",[["value","1"]]]]]]})"},
    {"OffsetThatIsNoNumberIsAbsent",
     R"(["select",[["view","vPeople"],["field","id"],["sort",[["field","id"]]],["limit",[["size","1"],["offset","2.0"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","1"]]]]]]})"},
    {"NegativeOffsetCountsAsZero",
     R"(["select",[["view","vPeople"],["field","id"],["sort",[["field","id"]]],["limit",[["size","1"],["offset","-2"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","1"]]]]]]})"},
    {"PageInTheMiddle",
     R"(["select",[["view","vPeople"],["field","id"],["sort",[["field","id"]]],["limit",[["size","2"],["offset","1"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","2"]]],["row",[["value","3"]]]]]]})"},
    {"CountsIgnoreLimitAndOrder",
     R"(["select",[["statistics"],["view","vPeople"],["field","id"],["sort",[["field","id"]]],["limit",[["size","2"],["offset","3"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","10"]]],["statistics","1"],["total","4"]]]]})"},
    {"OffsetBeyondTheEndIsAnEmptyPage",
     R"(["select",[["statistics"],["view","vPeople"],["field","id"],["limit",[["size","2"],["offset","9"]]]]])",
     R"({"response":[["row_set",[["name","id"],["statistics","0"],["total","4"]]]]})"},
    {"CountsAfterDistinctAreOfAllRows",
     R"(["select",[["statistics"],["distinct"],["view","vPeople"],["field","flag"],["sort",[["field","flag"]]]]])",
     R"({"response":[["row_set",[["name","flag"],["row",[["value"]]],["row",[["value","0"]]],["row",[["value","1"]]],["statistics","3"],["total","4"]]]]})"},
    {"CountsBesideAnAggregateAreOfAllRows",
     R"(["select",[["statistics"],["view","vPeople"],["field",[["function",[["name","sum"],["field","id"]]]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","16"]]],["statistics","1"],["total","4"]]]]})"},
    {"AggregatesAreGroupedByThePlainColumns",
     R"(["select",[["view","vPeople"],["field","flag"],["field",[["function",[["name","count"],["field","id"]]]]],["sort",[["field","flag"]]]]])",
     R"({"response":[["row_set",[["name","flag"],["name","id"],["row",[["value"],["value","1"]]],["row",[["value","0"],["value","1"]]],["row",[["value","1"],["value","2"]]]]]]})"},
    {"SortByAnAggregateOutput",
     R"(["select",[["view","vPeople"],["field","flag"],["field",[["function",[["name","max"],["field","id"]]]]],["sort",[["field","id"],["descending"]]]]])",
     R"({"response":[["row_set",[["name","flag"],["name","id"],["row",[["value","1"],["value","10"]]],["row",[["value"],["value","3"]]],["row",[["value","0"],["value","2"]]]]]]})"},
    {"SortByAColumnThatIsNotSelected",
     R"(["select",[["view","vPeople"],["field","name"],["sort",[["field","id"],["descending"]]],["limit",[["size","1"]]]]])",
     R"({"response":[["row_set",[["name","name"],["row",[["value","50%_of\\it's"]]]]]]})"},
    {"SortKeysRunInOrderOfTheirNames",
     R"(["select",[["view","vPeople"],["field","id"],["sort",[["field","id"],["descending"]]],["sort",[["field","flag"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","3"]]],["row",[["value","2"]]],["row",[["value","10"]]],["row",[["value","1"]]]]]]})"},
    {"FirstSortOfAColumnWins",
     R"(["select",[["view","vPeople"],["field","id"],["sort",[["field","id"],["descending"]]],["sort",[["field","id"]]],["limit",[["size","1"]]]]])",
     R"({"response":[["row_set",[["name","id"],["row",[["value","10"]]]]]]})"},
    {"TextsSortByBytes", R"(["select",[["view","vPeople"],["field","name"],["sort",[["field","name"]]]]])",
     R"({"response":[["row_set",[["name","name"],["row",[["value","50%_of\\it's"]]],["row",[["value","Ann"]]],["row",[["value","Cid"]]],["row",[["value","bob"]]]]]]})"},
    {"NoRows", R"(["select",[["view","vPeople"],["field","id"],["where",[["eq",[["field","id"],["value","99"]]]]]]])",
     R"({"response":[["row_set",[["name","id"]]]]})"},
};

INSTANTIATE_TEST_SUITE_P(Requests, GrammarAnswers, ::testing::ValuesIn(answers),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace QOR::test
