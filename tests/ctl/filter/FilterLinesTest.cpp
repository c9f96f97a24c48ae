#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "filter/FilterInspector.h"

namespace QOR {
namespace {

struct Answer {
    int exitCode;
    std::string text;
};

Answer ask(const std::string& questions) {
    std::istringstream in(questions);
    std::ostringstream out;
    const int exitCode = runFilterLines(in, out);
    return {exitCode, out.str()};
}

const std::string none = R"({"code":0,"message":"No errors"})";

TEST(FilterLines, AnAnswerHasEveryMember) {
    const Answer answer = ask(
        R"({"id":7,"text":"a = 1 and S like '%x'","identifiers":[{"name":"A","type":"int","value":1,"special":false},)"
        R"({"name":"s","type":"string","value":"ax","special":true},{"name":"no name","type":"bool","value":true}],)"
        R"("extract":[{"name":"a","type":8},{"name":"S","type":12},{"name":"s","type":12}]})"
        "\n");
    EXPECT_EQ(answer.exitCode, 0);
    EXPECT_EQ(answer.text,
              R"({"id":7,"parse":)" + none + R"(,"postfix":"a 1 = S %x like and ","used":["S","a"],"treeError":)" +
                  none +
                  R"j(,"infix":"(a = 1) and (S like %x)","infixSpecial":"S like %x","infixNotSpecial":"a = 1",)j"
                  R"("onlySpecial":false,"onlyNotSpecial":false,"value":"true","error":)" +
                  none + R"(,"valueSpecial":"true","errorSpecial":)" + none + R"(,"boolean":true,"booleanError":)" +
                  none + R"(,"booleanSpecial":true,"booleanSpecialError":)" + none +
                  R"(,"integer":0,"string":"",)"
                  R"("extract":[{"found":true,"text":"1"},{"found":true,"text":"%x"},{"found":false,"text":""}],)"
                  R"("bound":[true,true,false]})"
                  "\n");
}

TEST(FilterLines, ErrorsAreOfTheirOwnEvaluators) {
    const Answer answer = ask(R"({"id":"e","text":"1 2"})");
    EXPECT_EQ(
        answer.text,
        R"({"id":"e","parse":)" + none +
            R"(,"postfix":"1 2 ","used":[],)"
            R"("treeError":{"code":10,"message":"Operator or function expected"},)"
            R"("infix":"Error","infixSpecial":"Error","infixNotSpecial":"Error","onlySpecial":false,"onlyNotSpecial":false,)"
            R"("value":"Error","error":{"code":12,"message":"Evaluation error"},)"
            R"("valueSpecial":"Error","errorSpecial":{"code":10,"message":"Operator or function expected"},)"
            R"("boolean":null,"booleanError":{"code":12,"message":"Evaluation error"},)"
            R"("booleanSpecial":null,"booleanSpecialError":{"code":10,"message":"Operator or function expected"},)"
            R"("integer":0,"string":"","extract":[],"bound":[]})"
            "\n");
}

TEST(FilterLines, RowsShareAnEvaluatorAndErrorsStick) {
    const Answer answer =
        ask(R"({"id":1,"text":"10 / a = 10","identifiers":[{"name":"a","type":"int","value":1}],"rows":[)"
            R"({},{"set":[["a","2"],["A","1"]]},{"set":[["a","0"]]},{"set":[["a","1"]]},)"
            R"({"text":"a = 'x'"},{"text":"a = '1'","bind":[{"name":"a","type":"string","value":"1"}]}]})");
    EXPECT_THAT(answer.text, testing::HasSubstr(
                                 R"("rows":[{"set":[],"boolean":true,"error":)" + none +
                                 R"(},{"set":[false,true],"boolean":false,"error":)" + none +
                                 R"(},{"set":[false],"boolean":null,"error":{"code":15,"message":"Division by zero"}},)"
                                 R"({"set":[false],"boolean":null,"error":{"code":15,"message":"Division by zero"}},)"
                                 R"({"set":[],"boolean":null,"error":{"code":14,"message":"Invalid type"}},)"
                                 R"({"set":[],"boolean":true,"error":)" +
                                 none + "}]}"));
    EXPECT_THAT(answer.text, testing::HasSubstr(R"("boolean":true,"booleanError":)" + none))
        << "rows bind for themselves";
}

TEST(FilterLines, RowsOfTheSpecialPart) {
    const Answer answer =
        ask(R"({"id":1,"text":"a = 1 and s = 'x'","identifiers":[{"name":"a","type":"int","value":1},)"
            R"({"name":"s","type":"string","value":"x","special":true}],)"
            R"("rowsSpecial":[{"set":[["a","2"]]},{"set":[["s","y"]]},{"text":"a = 2"}],"rows":[{}]})");
    EXPECT_THAT(answer.text, testing::HasSubstr(
                                 R"("rows":[{"set":[],"boolean":true,"error":)" + none +
                                 R"(}],"rowsSpecial":[{"set":[false],"boolean":true,"error":)" + none +
                                 R"(},{"set":[false],"boolean":false,"error":)" + none +
                                 R"(},{"set":[],"boolean":null,"error":{"code":12,"message":"Evaluation error"}}]})"));
}

TEST(FilterLines, AnExceptionThatLeavesTheEvaluatorIsShown) {
    const Answer answer = ask(
        R"({"id":1,"text":"s like '%abc'","identifiers":[{"name":"s","type":"string","value":"ab","special":true}],)"
        R"("rows":[{},{"set":[["s","abc"]]}]})");
    for (const char* member : {"value", "valueSpecial", "boolean", "booleanSpecial", "integer", "string"}) {
        EXPECT_THAT(answer.text, testing::HasSubstr(std::string("\"") + member + R"(":"!out_of_range")"));
    }
    EXPECT_THAT(answer.text, testing::HasSubstr(R"("rows":[{"set":[],"boolean":"!out_of_range","error":)" + none +
                                                R"(},{"set":[false],"boolean":true,"error":)" + none + "}]"));
}

TEST(FilterLines, BytesThatAreNotUtf8TravelAsBase64) {
    const Answer answer = ask(R"({"id":1,"text":{"base64":"J/+AJw=="}})"
                              "\n"
                              R"({"id":2,"text":"'\u0000\u00e4' #"})");
    EXPECT_THAT(answer.text, testing::HasSubstr(R"("postfix":{"base64":"/4Ag"})"));
    EXPECT_THAT(answer.text, testing::HasSubstr(R"("value":{"base64":"/4A="})"));
    EXPECT_THAT(answer.text, testing::HasSubstr("\"postfix\":\"\\u0000\xc3\xa4 \""));
    EXPECT_THAT(answer.text, testing::HasSubstr(R"({"code":3,"message":"Unknown symbol: #"})"));
}

TEST(FilterLines, DatesAreRewritten) {
    const Answer answer = ask(R"({"id":1,"kind":"datetime","text":"pager.op_log.time >= '1970-01-02'"})"
                              "\n"
                              R"({"id":[2],"kind":"datetime","text":"pager.op_log.time >= 5"})"
                              "\n");
    EXPECT_EQ(
        answer.text,
        "{\"id\":1,\"ok\":true,\"text\":\"pager.op_log.time >= 86400\"}\n{\"id\":[2],\"ok\":false,\"text\":null}\n");
    EXPECT_EQ(answer.exitCode, 0);
}

struct InvalidCase {
    std::string line;
    std::string answer;
};

const InvalidCase invalidCases[] = {
    {"nonsense", R"j({"id":null,"invalid":"Invalid value. (at byte 1)"})j"},
    {"[]", R"({"id":null,"invalid":"not a JSON object"})"},
    {R"({"id":1})", R"({"id":1,"invalid":"\"text\" is not a text"})"},
    {R"({"id":1,"text":5})", R"({"id":1,"invalid":"\"text\" is not a text"})"},
    {R"({"id":1,"text":{"base64":"?"}})", R"({"id":1,"invalid":"\"text\" is not a text"})"},
    {R"({"id":1,"text":"1","kind":"else"})", R"({"id":1,"invalid":"\"kind\" is neither \"filter\" nor \"datetime\""})"},
    {R"({"id":1,"text":"1","identifiers":5})", R"({"id":1,"invalid":"\"identifiers\" is not an array"})"},
    {R"({"id":1,"text":"1","identifiers":[5]})", R"({"id":1,"invalid":"an identifier is not an object"})"},
    {R"({"id":1,"text":"1","identifiers":[{"name":"a","type":"date"}]})",
     R"({"id":1,"invalid":"\"type\" is none of \"int\", \"string\" and \"bool\""})"},
    {R"({"id":1,"text":"1","identifiers":[{"name":"a","type":"int","value":1.5}]})",
     R"({"id":1,"invalid":"the \"value\" of an int is not a whole number"})"},
    {R"({"id":1,"text":"1","extract":[{"name":"a"}]})",
     R"({"id":1,"invalid":"the \"type\" of an element of \"extract\" is not a number"})"},
    {R"({"id":1,"text":"1","rows":[{},5]})", R"({"id":1,"invalid":"a row is not an object"})"},
    {R"({"id":1,"text":"1","rows":[{"set":[["a"]]}]})",
     R"({"id":1,"invalid":"an element of \"set\" is not a pair of name and text"})"},
    {std::string(100000, '['), R"({"id":null,"invalid":"nested deeper than 64"})"},
};

TEST(FilterLines, ALineThatIsNoQuestionSaysWhyAndStopsNothing) {
    for (const InvalidCase& test : invalidCases) {
        const Answer answer = ask(test.line + "\n\n" + R"({"id":2,"kind":"datetime","text":""})" + "\n");
        EXPECT_EQ(answer.exitCode, 1);
        EXPECT_EQ(answer.text, test.answer + "\n{\"id\":2,\"ok\":true,\"text\":\"\"}\n");
    }
}

}  // namespace
}  // namespace QOR
