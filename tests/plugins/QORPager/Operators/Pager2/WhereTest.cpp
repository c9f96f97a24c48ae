// Where trees: complaints, and the rows that each kind of condition lets through, beside SQL written by hand.

#include <gtest/gtest.h>

#include "plugins/QORPager/Operators/Pager2/PeopleDatabase.h"

namespace QOR::test {
namespace {

std::string selectWhere(const std::string& condition, const std::string& view = "vPeople") {
    return R"(["select",[["view",")" + view + R"("],["field","id"],["sort",[["field","id"]]],["where",[)" + condition +
           "]]]]";
}

std::string idsOf(const std::vector<std::vector<std::string>>& rows) {
    std::string ids;
    for (const auto& row : rows)
        ids += (ids.empty() ? "" : " ") + row.at(0);
    return ids;
}

struct WhereComplaint {
    const char* name;
    const char* condition;
    int code;
    const char* message;
};

class WhereComplaints : public Pager2Test, public ::testing::WithParamInterface<WhereComplaint> {};

TEST_P(WhereComplaints, IsAnsweredWithOneError) {
    const QORResponse answer = readResponse(client.ask(selectWhere(GetParam().condition)));
    ASSERT_TRUE(answer.error.has_value());
    EXPECT_EQ(answer.error->message, GetParam().message);
    EXPECT_EQ(answer.error->code, GetParam().code);
    EXPECT_TRUE(answer.response.empty());
}

constexpr const char* incorrect = "incorrect <where> clause";

constexpr WhereComplaint whereComplaints[] = {
    {"UnknownElement", R"(["limit",[["size","1"]]])", 400, incorrect},
    {"FieldInPlaceOfACondition", R"(["field","id"])", 400, incorrect},
    {"AndWithoutChildren", R"(["and"])", 400, incorrect},
    {"OrWithoutChildren", R"(["or"])", 400, incorrect},
    {"NotWithoutChild", R"(["not"])", 400, incorrect},
    {"ConditionInsideAnd", R"(["and",[["eq",[["field","id"],["value","1"]]],["value","1"]]])", 400, incorrect},
    {"EqualWithoutOperands", R"(["eq"])", 400, incorrect},
    {"EqualWithOneOperand", R"(["eq",[["field","id"]]])", 400, incorrect},
    {"EqualWithThreeOperands", R"(["eq",[["field","id"],["value","1"],["value","2"]]])", 400,
     "more than two arguments detected"},
    {"ThirdOperandIsNotRead", R"(["lt",[["field","id"],["value","1"],["limit"]]])", 400,
     "more than two arguments detected"},
    {"LikeWithOneOperand", R"(["like",[["field","name"]]])", 400, incorrect},
    {"LikeWhoseThirdChildIsAValue", R"(["like",[["field","name"],["value","a"],["value","b"]]])", 400,
     "escape character is expected"},
    {"LikeWithFourChildren", R"(["like",[["field","name"],["value","a"],["escape","!"],["value","b"]]])", 400,
     "more than three arguments detected"},
    {"EscapeWithoutText", R"(["like",[["field","name"],["value","a"],["escape"]]])", 400,
     "cannot read escape character"},
    {"EscapeOfNoCharacter", R"(["like",[["field","name"],["value","a"],["escape",""]]])", 400,
     "cannot read escape character"},
    {"EscapeOfTwoCharacters", R"(["like",[["field","name"],["value","a"],["escape","!!"]]])", 400,
     "cannot read escape character"},
    {"EscapeBeyondAscii", R"(["like",[["field","name"],["value","a"],["escape","\u00e4"]]])", 400,
     "cannot read escape character"},
    {"EscapeOfOneByteBeyondAscii", R"(["like",[["field","name"],["value","a"],["escape",{"base64":"5A=="}]]])", 400,
     "cannot read escape character"},
    {"EscapeIsReadBeforeAFourthChild", R"(["like",[["field","name"],["value","a"],["escape","!!"],["value","b"]]])",
     400, "cannot read escape character"},
    {"BetweenWithTwoOperands", R"(["between",[["field","id"],["value","1"]]])", 400, incorrect},
    {"BetweenWithFourOperands", R"(["between",[["field","id"],["value","1"],["value","2"],["value","3"]]])", 400,
     "more than three arguments detected"},
    {"IsNullWithoutOperand", R"(["is_null"])", 400, incorrect},
    {"IsNullWithTwoOperands", R"(["is_null",[["field","id"],["field","id"]]])", 400, "more than one argument detected"},
    {"InWithoutOperand", R"(["in"])", 400, incorrect},
    {"InWithoutItems", R"(["in",[["field","id"]]])", 400, "no arguments of IN operator"},
    {"InOfASelectElementInFront", R"(["in",[["select"],["value","1"]]])", 400, "incorrect value type"},
    {"OperandOfAnotherTag", R"(["eq",[["name","id"],["value","1"]]])", 400, "incorrect value type"},
    {"SelectAsOperandOfEqual", R"(["eq",[["field","id"],["select",[["view","vPeople"],["field","id"]]]]])", 400,
     "incorrect value type"},
    {"FieldWithoutText", R"(["eq",[["field"],["value","1"]]])", 400, "cannot get field name"},
    {"FieldWithChildren", R"(["eq",[["field",[["name","id"]]],["value","1"]]])", 400, "cannot get field name"},
    {"TextColumnIsABlob", R"(["eq",[["field","note"],["value","x"]]])", 400, "BLOB field can not be in <where> clause"},
    {"ImageColumnIsABlob", R"(["is_null",[["field","picture"]]])", 400, "BLOB field can not be in <where> clause"},
    {"BlobInsideAFunction", R"(["eq",[["function",[["name","upper"],["field","note"]]],["value","x"]]])", 400,
     "BLOB field can not be in <where> clause"},
    {"ValueWithoutText", R"(["eq",[["field","id"],["value"]]])", 400, "cannot get value"},
    {"FunctionWithoutChildren", R"(["eq",[["function"],["value","1"]]])", 400, "function name is not specified"},
    {"FunctionThatBeginsWithItsOperand", R"(["eq",[["function",[["field","name"],["name","upper"]]],["value","1"]]])",
     400, "function name is not specified"},
    {"FunctionNameWithoutText", R"(["eq",[["function",[["name"],["field","name"]]],["value","1"]]])", 400,
     "function name is not specified"},
    {"FunctionWithoutOperand", R"(["eq",[["function",[["name","upper"]]],["value","1"]]])", 400, incorrect},
    {"FunctionWithTwoOperands",
     R"(["eq",[["function",[["name","nosuch"],["field","name"],["field","name"]]],["value","1"]]])", 400,
     "more than one arguments are not allowed"},
    {"UnsupportedFunction", R"(["eq",[["function",[["name","length"],["field","name"]]],["value","1"]]])", 400,
     "unsupported function"},
    {"UnknownColumn", R"(["eq",[["field","nothing"],["value","1"]]])", 1,
     "invalid column name \"nothing\" of view \"vPeople\""},
    {"UnknownView", R"(["eq",[["field","vNobody.id"],["value","1"]]])", 1, "invalid view \"vNobody\""},
    {"ViewThatIsNotSelectedFrom", R"(["eq",[["field","vNames.id"],["value","1"]]])", 1, "invalid view \"vNames\""},
    {"UnknownColumnOfTheView", R"(["eq",[["field","vpeople.a.b"],["value","1"]]])", 1,
     "invalid column name \"a.b\" of view \"vPeople\""},
    {"WordForAnInt", R"(["eq",[["field","id"],["value","one"]]])", 400, "\"one\" is not an integer of 32 bits"},
    {"NestedSelectWithoutView", R"(["in",[["field","id"],["select",[["field","id"]]]]])", 400,
     "view name (list) is absent"},
    {"NestedSelectWithTwoFields",
     R"(["in",[["field","id"],["select",[["view","vNames"],["field","id"],["field","name"]]]]])", 1,
     "a nested select must have one field, it has 2"},
    {"NestedSelectsComplaintNamesItsOwnView", R"(["in",[["field","id"],["select",[["view","vNames"],["field","x"]]]]])",
     1, "invalid column name \"x\" of view \"vNames\""},
};

INSTANTIATE_TEST_SUITE_P(Trees, WhereComplaints, ::testing::ValuesIn(whereComplaints),
                         [](const auto& tested) { return std::string(tested.param.name); });

struct Literal {
    const char* column;
    const char* text;
};

class WhereLiterals : public Pager2Test, public ::testing::WithParamInterface<Literal> {};

TEST_P(WhereLiterals, ThatIsNoValueOfTheColumnsTypeIsRefusedByName) {
    const auto [column, text] = GetParam();
    const QORResponse answer = readResponse(
        client.ask(selectWhere(std::string(R"(["eq",[["field",")") + column + R"("],["value",")" + text + R"("]]])")));
    ASSERT_TRUE(answer.error.has_value());
    EXPECT_EQ(answer.error->code, 400);
    EXPECT_THAT(answer.error->message, ::testing::HasSubstr(std::string("\"") + text + "\""));
}

INSTANTIATE_TEST_SUITE_P(Types, WhereLiterals,
                         ::testing::Values(Literal{"id", "one"}, Literal{"id", ""}, Literal{"id", "1.0"},
                                           Literal{"id", " 1"}, Literal{"id", "2147483648"}, Literal{"small", "0x10"},
                                           Literal{"big", "9223372036854775808"}, Literal{"score", "1,5"},
                                           Literal{"ratio", ""}, Literal{"guid", "1234"},
                                           Literal{"guid", "{aaaaaaaa-0000-0000-0000-000000000001"},
                                           Literal{"born", "2024-02-30"}, Literal{"born", "now"}));

struct Condition {
    const char* name;
    const char* condition;
    const char* sql;
    const char* ids;
};

class WhereConditions : public Pager2Test, public ::testing::WithParamInterface<Condition> {};

TEST_P(WhereConditions, LetsTheSameRowsThroughAsSqlWrittenByHand) {
    const std::string ids = idsOf(valuesOf(client.ask(selectWhere(GetParam().condition))));
    EXPECT_EQ(ids, GetParam().ids);
    // What PostgreSQL makes of these words is another matter: there case counts, and types do not meet.
    if (testEngine() != ASEngine::SQLite) return;
    EXPECT_EQ(ids, idsOf(database.direct.rows(std::string("select id from people p where ") + GetParam().sql +
                                              " order by id")));
}

constexpr Condition conditions[] = {
    {"Equal", R"(["eq",[["field","id"],["value","2"]]])", "id = 2", "2"},
    {"NotEqual", R"(["ne",[["field","id"],["value","2"]]])", "id <> 2", "1 3 10"},
    {"Greater", R"(["gt",[["field","id"],["value","2"]]])", "id > 2", "3 10"},
    {"GreaterOrEqual", R"(["ge",[["field","id"],["value","2"]]])", "id >= 2", "2 3 10"},
    {"Less", R"(["lt",[["field","id"],["value","3"]]])", "id < 3", "1 2"},
    {"LessOrEqual", R"(["le",[["field","id"],["value","3"]]])", "id <= 3", "1 2 3"},
    {"ValueLessThanColumnIsMirrored", R"(["lt",[["value","2"],["field","id"]]])", "id > 2", "3 10"},
    {"ValueLessOrEqualIsMirrored", R"(["le",[["value","2"],["field","id"]]])", "id >= 2", "2 3 10"},
    {"ValueGreaterIsMirrored", R"(["gt",[["value","2"],["field","id"]]])", "id < 2", "1"},
    {"ValueGreaterOrEqualIsMirrored", R"(["ge",[["value","2"],["field","id"]]])", "id <= 2", "1 2"},
    {"ValueEqualsColumn", R"(["eq",[["value","2"],["field","id"]]])", "id = 2", "2"},
    {"ValueDiffersFromColumn", R"(["ne",[["value","2"],["field","id"]]])", "id <> 2", "1 3 10"},
    {"TwoValuesCompareAsTexts", R"(["lt",[["value","10"],["value","9"]]])", "'10' < '9'", "1 2 3 10"},
    {"TwoEqualValues", R"(["eq",[["value","it's"],["value","it's"]]])", "1", "1 2 3 10"},
    {"TwoValuesThatDiffer", R"(["ge",[["value","10"],["value","9"]]])", "'10' >= '9'", ""},
    {"TwoColumns", R"(["eq",[["field","id"],["field","small"]]])", "id = small", "1 2"},
    {"TwoColumnsGreater", R"(["gt",[["field","id"],["field","small"]]])", "id > small", "10"},
    {"IntsCompareByNumber", R"(["lt",[["field","id"],["value","9"]]])", "id < 9", "1 2 3"},
    {"SignedLiteral", R"(["eq",[["field","small"],["value","-7"]]])", "small = -7", "10"},
    {"BigIntBeyond32Bits", R"(["eq",[["field","big"],["value","5000000000"]]])", "big = 5000000000", "1"},
    {"NegativeBigInt", R"(["lt",[["field","big"],["value","-4999999999"]]])", "big < -4999999999", "2"},
    {"Double", R"(["eq",[["field","score"],["value","1.5"]]])", "score = 1.5", "1"},
    {"DoubleWithExponent", R"(["ge",[["field","ratio"],["value","1e300"]]])", "ratio >= 1e300", "2"},
    {"DoubleLiteralOfAWholeNumber", R"(["eq",[["field","score"],["value","2"]]])", "score = 2", "2"},
    {"TextEqualityMindsCase", R"(["eq",[["field","name"],["value","ann"]]])", "name = 'ann'", ""},
    {"TextEquality", R"(["eq",[["field","name"],["value","Ann"]]])", "name = 'Ann'", "1"},
    {"TextOrderIsByBytes", R"(["gt",[["field","name"],["value","Z"]]])", "name > 'Z'", "2"},
    {"TextWithQuote", R"(["eq",[["field","name"],["value","50%_of\\it's"]]])", "name = '50%_of\\it''s'", "10"},
    {"CharColumn", R"(["eq",[["field","code"],["value","bb"]]])", "code = 'bb'", "2"},
    {"UnknownTypeIsAText", R"(["eq",[["field","price"],["value","cheap"]]])", "price = 'cheap'", "1"},
    {"NullEqualsNothing", R"(["ne",[["field","big"],["value","0"]]])", "big <> 0", "1 2 10"},
    {"BitColumn", R"(["eq",[["field","flag"],["value","1"]]])", "flag = 1", "1 10"},
    {"Guid", R"(["eq",[["field","guid"],["value","aaaaaaaa-0000-0000-0000-000000000001"]]])",
     "guid = 'aaaaaaaa-0000-0000-0000-000000000001'", "1"},
    {"GuidInCapitalsAndBraces", R"(["eq",[["field","guid"],["value","{AAAAAAAA-0000-0000-0000-000000000001}"]]])",
     "guid = 'aaaaaaaa-0000-0000-0000-000000000001'", "1"},
    {"GuidOrder", R"(["gt",[["field","guid"],["value","bbbbbbbb-0000-0000-0000-000000000002"]]])",
     "guid > 'bbbbbbbb-0000-0000-0000-000000000002'", "3"},
    {"DateEquals", R"(["eq",[["field","born"],["value","2024-01-01"]]])", "born = '2024-01-01 00:00:00'", "1"},
    {"DateWithZone", R"(["eq",[["field","born"],["value","2024-06-30T14:00:00+02:00"]]])",
     "born = '2024-06-30 12:00:00'", "2"},
    {"DateRange", R"(["ge",[["field","born"],["value","2024-01-01T00:00:01Z"]]])", "born > '2024-01-01 00:00:00'", "2"},
    {"DateBeforeTheEpoch", R"(["lt",[["field","born"],["value","1970-01-01"]]])", "born < '1970-01-01'", "10"},
    {"LikePrefix", R"(["like",[["field","name"],["value","A%"]]])", "name like 'A%'", "1"},
    {"LikeIgnoresCaseOfAsciiLetters", R"(["like",[["field","name"],["value","a%"]]])", "name like 'a%'", "1"},
    {"LikeOneCharacter", R"(["like",[["field","name"],["value","_o_"]]])", "name like '_o_'", "2"},
    {"LikeWithoutWildcard", R"(["like",[["field","name"],["value","BOB"]]])", "name like 'BOB'", "2"},
    {"LikeEscape", R"(["like",[["field","name"],["value","50!%!_of%"],["escape","!"]]])",
     "name like '50!%!_of%' escape '!'", "10"},
    {"LikeBackslashIsNoEscapeByItself", R"(["like",[["field","name"],["value","50\\%%"]]])", "name like '50\\%%'", ""},
    {"LikeBackslashAsEscape", R"(["like",[["field","name"],["value","50\\%%"],["escape","\\"]]])",
     "name like '50\\%%' escape '\\'", "10"},
    {"LikeQuoteAsEscape", R"(["like",[["field","name"],["value","50'%%"],["escape","'"]]])",
     "name like '50''%%' escape ''''", "10"},
    {"LikeOfAnIntColumn", R"(["like",[["field","id"],["value","1%"]]])", "id like '1%'", "1 10"},
    {"LikeOfADate", R"(["like",[["field","born"],["value","2024-%"]]])", "born like '2024-%'", "1 2"},
    {"LikeWithColumnAsPattern", R"(["like",[["field","code"],["field","code"]]])", "code like code", "1 2 3 10"},
    {"LikeWithFunctionAsPattern", R"(["like",[["field","code"],["function",[["name","upper"],["field","code"]]]]])",
     "code like upper(code)", "1 2 3 10"},
    {"LikeOfAValue", R"(["like",[["value","abc"],["value","A%"]]])", "'abc' like 'A%'", "1 2 3 10"},
    {"LikeOfAValueAndColumn", R"(["like",[["value","aa"],["field","code"]]])", "'aa' like code", "1"},
    {"Between", R"(["between",[["field","id"],["value","2"],["value","9"]]])", "id between 2 and 9", "2 3"},
    {"BetweenOfTexts", R"(["between",[["field","code"],["value","aa"],["value","bb"]]])", "code between 'aa' and 'bb'",
     "1 2"},
    {"BetweenColumns", R"(["between",[["value","1"],["field","small"],["field","id"]]])", "'1' between small and id",
     "1 10"},
    {"IsNull", R"(["is_null",[["field","guid"]]])", "guid is null", "10"},
    {"IsNullOfAValue", R"(["is_null",[["value",""]]])", "'' is null", ""},
    {"IsNullOfAFunction", R"(["is_null",[["function",[["name","lower"],["field","free"]]]]])", "lower(free) is null",
     "10"},
    {"InOfTexts", R"(["in",[["field","name"],["value","Ann"],["value","Cid"],["value","ann"]]])",
     "name in ('Ann','Cid','ann')", "1 3"},
    {"InOfInts", R"(["in",[["field","id"],["value","1"],["value","10"]]])", "id in (1,10)", "1 10"},
    {"InItemOfAGuidIsNotConverted", R"(["in",[["field","guid"],["value","AAAAAAAA-0000-0000-0000-000000000001"]]])",
     "guid in ('AAAAAAAA-0000-0000-0000-000000000001')", ""},
    {"InItemWithQuote", R"(["in",[["field","name"],["value","50%_of\\it's"]]])", "name in ('50%_of\\it''s')", "10"},
    {"InItemThatIsNoIntIsNoError", R"(["in",[["field","id"],["value","x"],["value","2"]]])", "id in ('x','2')", "2"},
    {"InOfColumns", R"(["in",[["field","id"],["field","small"],["value","10"]]])", "id in (small,'10')", "1 2 10"},
    {"InOfAFunction", R"(["in",[["value","AA"],["function",[["name","upper"],["field","code"]]]]])",
     "'AA' in (upper(code))", "1"},
    {"Upper", R"(["eq",[["function",[["name","UPPER"],["field","name"]]],["value","ANN"]]])", "upper(name) = 'ANN'",
     "1"},
    {"Lower", R"(["eq",[["value","cid"],["function",[["name","lower"],["field","name"]]]]])", "lower(name) = 'cid'",
     "3"},
    {"FunctionOfAFunction",
     R"(["eq",[["function",[["name","lower"],["function",[["name","upper"],["field","name"]]]]],["value","bob"]]])",
     "lower(upper(name)) = 'bob'", "2"},
    {"FunctionOfAValue", R"(["eq",[["field","name"],["function",[["name","lower"],["value","BOB"]]]]])",
     "name = lower('BOB')", "2"},
    {"SingleConditionUnderAnd", R"(["and",[["eq",[["field","id"],["value","1"]]]]])", "id = 1", "1"},
    {"SingleConditionUnderOr", R"(["or",[["eq",[["field","id"],["value","1"]]]]])", "id = 1", "1"},
    {"And", R"(["and",[["gt",[["field","id"],["value","1"]]],["lt",[["field","id"],["value","10"]]]]])",
     "id > 1 and id < 10", "2 3"},
    {"Or", R"(["or",[["eq",[["field","id"],["value","1"]]],["eq",[["field","id"],["value","3"]]]]])",
     "id = 1 or id = 3", "1 3"},
    {"OrInsideAnd",
     R"(["and",[["or",[["eq",[["field","id"],["value","1"]]],["eq",[["field","id"],["value","3"]]]]],["eq",[["field","flag"],["value","1"]]]]])",
     "(id = 1 or id = 3) and flag = 1", "1"},
    {"AndInsideOr",
     R"(["or",[["and",[["eq",[["field","id"],["value","1"]]],["eq",[["field","flag"],["value","0"]]]]],["eq",[["field","id"],["value","3"]]]]])",
     "id = 1 and flag = 0 or id = 3", "3"},
    {"Not", R"(["not",[["eq",[["field","id"],["value","1"]]]]])", "not id = 1", "2 3 10"},
    {"NotReadsItsFirstChildOnly", R"(["not",[["eq",[["field","id"],["value","1"]]],["limit"]]])", "not id = 1",
     "2 3 10"},
    {"NotOfNot", R"(["not",[["not",[["eq",[["field","big"],["value","7"]]]]]]])", "not not big = 7", "10"},
    {"NotOfUnknownIsUnknown", R"(["not",[["eq",[["field","big"],["value","7"]]]]])", "not big = 7", "1 2"},
    {"NotOfOr", R"(["not",[["or",[["eq",[["field","id"],["value","1"]]],["eq",[["field","id"],["value","3"]]]]]]])",
     "not (id = 1 or id = 3)", "2 10"},
    {"QualifiedColumn", R"(["eq",[["field","VPEOPLE.id"],["value","1"]]])", "p.id = 1", "1"},
    {"EmptyViewNameIsTheOwnView", R"(["eq",[["field",".id"],["value","1"]]])", "id = 1", "1"},
    {"NestedSelect",
     R"(["in",[["field","id"],["select",[["view","vNames"],["field","id"],["where",[["like",[["field","name"],["value","%b%"]]]]]]]]])",
     "id in (select id from people where name like '%b%')", "2"},
    {"NestedSelectBesideItems",
     R"(["in",[["field","id"],["value","1"],["select",[["view","vNames"],["field","id"],["where",[["eq",[["field","name"],["value","bob"]]]]]]],["value","10"]]])",
     "id in (select id from people where name = 'bob') or id in (1,10)", "1 2 10"},
    {"NotInANestedSelectBesideItems",
     R"(["not",[["in",[["field","id"],["select",[["view","vNames"],["field","id"],["where",[["eq",[["field","name"],["value","bob"]]]]]]],["value","10"]]]]])",
     "not (id in (select id from people where name = 'bob') or id in (10))", "1 3"},
    {"NestedSelectWithOrderAndLimit",
     R"(["in",[["field","id"],["select",[["view","vNames"],["field","id"],["sort",[["field","id"],["descending"]]],["limit",[["size","2"],["offset","1"]]]]]]])",
     "id in (select id from people order by id desc limit 2 offset 1)", "2 3"},
    {"NestedAggregate",
     R"(["in",[["field","id"],["select",[["view","vNames"],["field",[["function",[["name","max"],["field","id"]]]]]]]]])",
     "id in (select max(id) from people)", "10"},
    {"CorrelatedSelect",
     R"(["in",[["field","id"],["select",[["view","vNames"],["field","id"],["where",[["and",[["eq",[["field","id"],["field","vPeople.small"]]],["gt",[["field","vPeople.id"],["value","1"]]]]]]]]]]])",
     "id in (select n.id from people n where n.id = p.small and p.id > 1)", "2"},
    {"InnermostViewOfANameWins",
     R"(["in",[["field","id"],["select",[["view","vpeople"],["field","id"],["where",[["eq",[["field","vPeople.id"],["value","3"]]]]]]]]])",
     "id in (select n.id from people n where n.id = 3)", "3"},
    {"SelectInsideASelect",
     R"(["in",[["field","id"],["select",[["view","vNames"],["field","id"],["where",[["in",[["field","name"],["select",[["view","vPeople"],["field","name"],["where",[["lt",[["field","id"],["field","vNames.id"]]]]]]],["value","Cid"]]]]]]]]])",
     "id in (select n.id from people n where n.name in (select x.name from people x where x.id < n.id) or n.name in "
     "('Cid'))",
     "3"},
};

INSTANTIATE_TEST_SUITE_P(Trees, WhereConditions, ::testing::ValuesIn(conditions),
                         [](const auto& tested) { return std::string(tested.param.name); });

// ---- shapes that an engine's own limits would refuse ----------------------------------------------------------------

class WhereShapes : public Pager2Test {
protected:
    std::string idsWhere(const std::string& condition) { return idsOf(valuesOf(client.ask(selectWhere(condition)))); }
    static std::string eqId(const std::string& id) { return R"(["eq",[["field","id"],["value",")" + id + R"("]]])"; }
};

TEST_F(WhereShapes, ChainsOfAThousandSiblingsWork) {
    for (const char* const operation : {"or", "and"}) {
        std::string chain;
        for (int index = 0; index < 1000; ++index) {
            if (index != 0) chain += ",";
            chain += operation == std::string("or")
                         ? eqId(std::to_string(index + 3))
                         : R"(["ne",[["field","id"],["value",")" + std::to_string(index + 3) + R"("]]])";
        }
        EXPECT_EQ(idsWhere(std::string("[\"") + operation + "\",[" + chain + "]]"),
                  operation == std::string("or") ? "3 10" : "1 2");
    }
}

TEST_F(WhereShapes, NotsFortyDeepFoldToTheirParity) {
    std::string condition = eqId("1");
    for (int depth = 0; depth < 40; ++depth)
        condition = "[\"not\",[" + condition + "]]";
    EXPECT_EQ(idsWhere(condition), "1");
    EXPECT_EQ(idsWhere("[\"not\",[" + condition + "]]"), "2 3 10");
}

TEST_F(WhereShapes, TreesFortyLevelsDeepWorkWhicheverSideIsDeep) {
    for (const bool deepFirst : {true, false}) {
        for (const bool withNots : {true, false}) {
            std::string condition = eqId("1");
            bool expected = true;  // whether row 1 passes; the terms beside it are chosen so that only it decides
            for (int depth = 0; depth < 40; ++depth) {
                if (withNots && depth % 2 == 1) {
                    condition = "[\"not\",[" + condition + "]]";
                    expected = !expected;
                    continue;
                }
                const bool conjunction = depth % 4 == 0;
                const std::string beside = conjunction ? R"(["gt",[["field","id"],["value","0"]]])" : eqId("99");
                const std::string pair = deepFirst ? condition + "," + beside : beside + "," + condition;
                condition = std::string("[\"") + (conjunction ? "and" : "or") + "\",[" + pair + "]]";
            }
            const std::string ids = idsWhere(condition);
            EXPECT_EQ(ids, expected ? "1" : "2 3 10") << deepFirst << withNots;
        }
    }
}

TEST_F(WhereShapes, NestedSelectsGoAsDeepAsAMessageMay) {
    std::string condition = eqId("2");
    // Each level of nesting takes five levels of the message: select, where, in, select.
    for (int depth = 0; depth < 12; ++depth) {
        condition = R"(["in",[["field","id"],["select",[["view",")" + std::string(depth % 2 ? "vNames" : "vPeople") +
                    R"("],["field","id"],["where",[)" + condition + "]]]]]]";
    }
    const QORResponse answer = readResponse(client.ask(selectWhere(condition)));
    if (answer.error) {
        EXPECT_THAT(answer.error->message, ::testing::Not(::testing::HasSubstr("parser")));
    } else {
        EXPECT_EQ(idsWhere(condition), "2");
    }
}

TEST_F(WhereShapes, PatternLongerThanTheEngineTakesIsRefusedByUs) {
    const std::string condition = R"(["like",[["field","name"],["value",")" + std::string(60000, 'a') + R"("]]])";
    const QORResponse answer = readResponse(client.ask(selectWhere(condition)));
    ASSERT_TRUE(answer.error.has_value());
    EXPECT_THAT(answer.error->message, ::testing::HasSubstr("50000"));
}

// ---- hostile texts in every position of the grammar -----------------------------------------------------------------

class HostileTexts : public Pager2Test, public ::testing::WithParamInterface<const char*> {};

TEST_P(HostileTexts, GiveAnErrorOrNoRowsAndChangeNothing) {
    std::string text;  // as a JSON string
    writeNotationText(GetParam(), text);
    const std::string where = R"(["select",[["view","vPeople"],["field","id"],["where",[)";
    const std::string requests[] = {
        R"(["select",[["view",)" + text + R"(],["field","id"]]])",
        R"(["select",[["view","vPeople"],["field",)" + text + "]]]",
        R"(["select",[["view","vPeople"],["field",[["name",)" + text + "]]]]]",
        R"(["select",[["view","vPeople"],["field",[["function",[["name",)" + text + R"(],["field","id"]]]]]]])",
        R"(["select",[["view","vPeople"],["field",[["function",[["name","max"],["field",)" + text + "]]]]]]]",
        R"(["select",[["view","vPeople"],["field","id"],["sort",[["field",)" + text + "]]]]]",
        R"(["select",[["view","vPeople"],["field","id"],["limit",[["size",)" + text + "]]]]]",
        where + R"(["eq",[["field",)" + text + R"(],["value","1"]]]]]]])",
        where + R"(["eq",[["field","id"],["value",)" + text + "]]]]]]]",
        where + R"(["eq",[["field","name"],["value",)" + text + "]]]]]]]",
        where + R"(["eq",[["field","guid"],["value",)" + text + "]]]]]]]",
        where + R"(["eq",[["field","born"],["value",)" + text + "]]]]]]]",
        where + R"(["like",[["field","name"],["value",)" + text + "]]]]]]]",
        where + R"(["like",[["field","name"],["value","x"],["escape",)" + text + "]]]]]]]",
        where + R"(["in",[["field","name"],["value",)" + text + "]]]]]]]",
        where + R"(["between",[["field","name"],["value",)" + text + R"(],["value",)" + text + "]]]]]]]",
        where + R"(["eq",[["function",[["name","upper"],["value",)" + text + R"(]]],["value",")" + "-" + R"("]]]]]]])",
        where + R"(["eq",[["function",[["name",)" + text + R"(],["field","name"]]],["value","x"]]]]]]])",
        where + R"(["in",[["field","name"],["select",[["view",)" + text + R"(],["field","name"]]]]]]]]])",
        where +
            R"(["in",[["field","name"],["select",[["view","vNames"],["field","name"],["where",[["eq",[["field","name"],["value",)" +
            text + "]]]]]]]]]]]]]",
    };
    const auto before = database.state();
    for (const std::string& request : requests) {
        const QORResponse answer = readResponse(client.ask(request));
        if (!answer.error) {
            EXPECT_TRUE(valuesOf(client.ask(request)).empty()) << request;
        }
    }
    EXPECT_EQ(database.state(), before);
}

INSTANTIATE_TEST_SUITE_P(Texts, HostileTexts,
                         ::testing::Values("'", "\"", "''", "' or '1'='1", "\" or \"1\"=\"1",
                                           "x'; drop table people; --", "x\"; drop table people; --", "id) --",
                                           "1 or 1=1", "?", "{fn now()}", "\\'", "--", "/*",
                                           "';delete from people where ''='", "%s%n", "[id]", "`id`", "\xff\xfe",
                                           "id\"||\"", "$1", ":x", "@x", "\n\r\t"));

TEST_F(WhereShapes, NulBytesGiveAnErrorOrNoRows) {
    for (const char* const condition : {
             R"(["eq",[["field","name"],["value","A\u0000nn"]]])",
             R"(["in",[["field","name"],["value","Ann\u0000"]]])",
             R"(["like",[["field","name"],["value","Ann\u0000%"]]])",
             R"(["between",[["field","name"],["value","A\u0000"],["value","z"]]])",
         }) {
        const QORResponse answer = readResponse(client.ask(selectWhere(condition)));
        if (!answer.error) {
            EXPECT_EQ(idsWhere(condition), "") << condition;
        }
    }
}

}  // namespace
}  // namespace QOR::test
