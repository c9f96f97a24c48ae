#include "QORMessage/QORNotation.h"

#include <gtest/gtest.h>

#include <string>

#include "QORCommon/QORException.h"
#include "Trees.h"

namespace {

using QOR::QORException;
using QOR::QORMessage;
using QOR::QORMessageLimits;
using QOR::readElement;
using QOR::readRequest;
using QOR::readResponse;
using QOR::test::notationOf;
using QOR::test::treeOf;
namespace tag = QOR::tag;

template <class Call>
std::string refusal(Call call) {
    try {
        call();
    } catch (const QORException& error) {
        EXPECT_EQ(error.code(), 400);
        return error.message();
    }
    return "accepted";
}

std::string elementRefusal(std::string_view text) {
    return refusal([text] { treeOf(text); });
}

std::string requestRefusal(std::string_view text) {
    return refusal([text] { readRequest(text); });
}

TEST(Element, WrittenAsItIsRead) {
    for (const char* text :
         {"[1740]", "[1,\"\"]", "[4294967295,\"x\"]", "[1740,[[1009,\"vEnvironment\"],[1741,\"hostname\"],[1259]]]",
          "[1,[[2,[[3,[[4]]],[5,\"x\"]]],[6]]]", "[1,{\"base64\":\"\"}]", "[1,{\"base64\":\"AAEC/w==\"}]",
          "[1,\"a\\\"b\\\\c/\\b\\f\\n\\r\\t\\u0000\\u001f\x7F\"]", "[1,\"M\xC3\xBCnchen \xF0\x9F\x98\x80\"]"}) {
        EXPECT_EQ(notationOf(treeOf(text)), text);
    }
}

TEST(Element, ReadInOtherSpellings) {
    const struct {
        const char* text;
        const char* same;
    } cases[] = {
        {"[1740,[]]", "[1740]"},
        {" [ 1740 ,\n\t[ [ 1009 , \"v\" ] ] ]\r\n", "[1740,[[1009,\"v\"]]]"},
        {"[\"select\",[[\"view\",\"v\"],[\"is_null\"]]]", "[1740,[[1009,\"v\"],[2233]]]"},
        {"[1,\"\\u0041\\/\\u00fc\\ud83d\\ude00\"]", "[1,\"A/\xC3\xBC\xF0\x9F\x98\x80\"]"},
        {"[1,\"\\u000a\"]", "[1,\"\\n\"]"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(notationOf(treeOf(c.text)), c.same) << c.text;
}

TEST(Element, CarriesNulBytes) {
    QORMessage message = treeOf("[1,\"a\\u0000b\"]");
    std::string value;
    message.root().getValue(value, 1);
    EXPECT_EQ(value, std::string("a\0b", 3));
}

TEST(Element, ATextThatIsNotUtf8IsWrittenAsBase64) {
    QORMessage message;
    message.root().putValue("\xFF", 1);
    message.root().putValue(std::string(5000, 'x') + "\xC3", 1);
    const std::string text = notationOf(message);
    EXPECT_EQ(text.substr(0, 24), "[1,{\"base64\":\"/w==\"}],[1");
    EXPECT_EQ(text.find('x'), std::string::npos);
    QORMessage copy;
    readElement(text.substr(text.find("],[") + 2), copy);
    std::string value;
    copy.root().getValue(value, 1);
    EXPECT_EQ(value, std::string(5000, 'x') + "\xC3");
}

TEST(Element, EscapesStandWhereTheyBelong) {
    const auto expectKept = [](std::size_t size, std::size_t place, std::string_view special) {
        std::string value(size, 'x');
        for (std::size_t i = 0; i < size; ++i)
            value[i] = static_cast<char>('a' + i % 26);
        value.replace(place, 1, special);
        QORMessage message;
        message.root().putValue(value, 1);
        std::string back;
        treeOf(notationOf(message)).root().getValue(back, 1);
        ASSERT_EQ(back, value) << size << " " << place;
    };
    constexpr const char* specials[] = {"\"", "\\", "\n", "\x01", "\xC3\xBC", " "};
    for (const char* special : specials) {
        for (std::size_t size = 1; size <= 26; ++size) {
            for (std::size_t place = 0; place < size; ++place)
                expectKept(size, place, special);
        }
        // Around the sizes at which writing goes by pieces.
        for (const std::size_t size : {1023U, 1024U, 1025U, 2048U, 70000U}) {
            for (const std::size_t place : {std::size_t{0}, size / 2, size - 1})
                expectKept(size, place, special);
        }
    }
}

TEST(Element, ReadingAppendsBelowTheRoot) {
    QORMessage message = treeOf("[1,\"a\"]");
    readElement("[2]", message);
    EXPECT_EQ(notationOf(message), "[1,\"a\"],[2]");
}

TEST(Element, AFailedReadLeavesTheMessageAlone) {
    QORMessage message = treeOf("[1,\"a\"]");
    EXPECT_THROW(readElement("[2,[[3,\"b\"],[4", message), QORException);
    EXPECT_EQ(notationOf(message), "[1,\"a\"]");
    QORMessage empty;
    EXPECT_THROW(readElement("[2,[[3,\"b\"],[4]]", empty), QORException);
    EXPECT_TRUE(empty.empty());
    readElement("[5]", message);
    EXPECT_EQ(notationOf(message), "[1,\"a\"],[5]");
}

TEST(Element, RefusedWithReasonAndPlace) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"", "invalid message at byte 0: The document is empty."},
        {"  ", "invalid message at byte 2: The document is empty."},
        {"[1] [2]", "invalid message at byte 4: The document root must not be followed by other values."},
        {"[1]x", "invalid message at byte 3: The document root must not be followed by other values."},
        {"1740", "invalid message at byte 0: an element, [tag, ...], is expected"},
        {"{\"select\":1}", "invalid message at byte 0: an element, [tag, ...], is expected"},
        {"[]", "invalid message at byte 1: an element begins with its tag"},
        {"[[1]]", "invalid message at byte 1: a tag is a name or a whole number from 1 to 4294967295"},
        {"[null]", "invalid message at byte 1: a tag is a name or a whole number from 1 to 4294967295"},
        {"[0]", "invalid message at byte 1: a tag is a name or a whole number from 1 to 4294967295"},
        {"[-1]", "invalid message at byte 1: a tag is a name or a whole number from 1 to 4294967295"},
        {"[ 4294967296]", "invalid message at byte 2: a tag is a name or a whole number from 1 to 4294967295"},
        {"[18446744073709551615]", "invalid message at byte 1: a tag is a name or a whole number from 1 to 4294967295"},
        {"[99999999999999999999999]",
         "invalid message at byte 1: a tag is a name or a whole number from 1 to 4294967295"},
        {"[1740.0]", "invalid message at byte 1: a tag is a name or a whole number from 1 to 4294967295"},
        {"[1e3]", "invalid message at byte 1: a tag is a name or a whole number from 1 to 4294967295"},
        {"[1,[[\"nonsense\",\"x\"]]]", "invalid message at byte 5: unknown element \"nonsense\""},
        {"[\"1740\"]", "invalid message at byte 1: unknown element \"1740\""},
        {"[\"\"]", "invalid message at byte 1: unknown element \"\""},
        {"[\"a\\\"b\",1]", "invalid message at byte 1: unknown element \"a\\\"b\""},
        {"[1,20]", "invalid message at byte 3: values are texts: a number is written in quotes"},
        {"[1,-2.5]", "invalid message at byte 3: values are texts: a number is written in quotes"},
        {"[1,true]", "invalid message at byte 3: values are texts: true, false and null are none"},
        {"[1, null]", "invalid message at byte 4: values are texts: true, false and null are none"},
        {"[1,\"a\",\"b\"]", "invalid message at byte 7: an element holds a tag and one value, nothing more"},
        {"[1,[],[]]", "invalid message at byte 6: an element holds a tag and one value, nothing more"},
        {"[1,[2]]", "invalid message at byte 4: an element, [tag, ...], is expected"},
        {"[1,[\"a\",\"b\"]]", "invalid message at byte 4: an element, [tag, ...], is expected"},
        {"[1,{}]", "invalid message at byte 4: a binary value is {\"base64\": \"...\"}"},
        {"[1,{\"text\":\"a\"}]", "invalid message at byte 4: a binary value is {\"base64\": \"...\"}"},
        {"[1,{\"base64\":\"a\"}]", "invalid message at byte 13: the member \"base64\" is not a base64 text"},
        {"[1,{\"base64\":1}]", "invalid message at byte 13: the member \"base64\" is not a base64 text"},
        {"[1,{\"base64\":\"AA==\",\"base64\":\"AA==\"}]",
         "invalid message at byte 20: a binary value has the member \"base64\" alone"},
        {"[1,\"\\ud800\"]", "invalid message at byte 4: The surrogate pair in string is invalid."},
        {"[1,\"\\udc00\"]", "invalid message at byte 3: an escape is one half of a surrogate pair"},
        {"[1,\"\\ud800\\u0041\"]", "invalid message at byte 4: The surrogate pair in string is invalid."},
        {"[1,\"\xFF\"]", "invalid message at byte 4: the text is not UTF-8"},
        {"[1,\"\xED\xA0\x80\"]", "invalid message at byte 4: the text is not UTF-8"},
        {"[1,\"a\nb\"]", "invalid message at byte 5: Invalid escape character in string."},
        {"[1,'a']", "invalid message at byte 3: Invalid value."},
        {"[1,]", "invalid message at byte 3: Invalid value."},
        {"[1 // c\n]", "invalid message at byte 3: Missing a comma or ']' after an array element."},
    };
    for (const auto& c : cases)
        EXPECT_EQ(elementRefusal(c.text), c.message) << c.text;
    EXPECT_NE(elementRefusal(std::string_view("[1]\0[2]", 7)), "accepted");
    EXPECT_NE(elementRefusal(std::string_view("[1]\0", 4)), "accepted");
}

TEST(Element, LimitsAreNamed) {
    const auto refusalBy = [](QORMessageLimits limits, std::string_view text) {
        return refusal([&] {
            QORMessage message(limits);
            readElement(text, message);
        });
    };
    QORMessageLimits limits;
    limits.depth = 2;
    limits.nodes = 3;
    limits.bytes = 4;
    EXPECT_EQ(refusalBy(limits, "[1,[[2,[]],[3,\"abcd\"]]]"), "accepted");
    EXPECT_EQ(refusalBy(limits, "[1,[[2,[[3]]]]]"),
              "invalid message at byte 9: elements are nested deeper than 2 levels");
    EXPECT_EQ(refusalBy(limits, "[1,[[2],[3],[4]]]"), "invalid message at byte 13: there are more than 3 elements");
    EXPECT_EQ(refusalBy(limits, "[1,[[2,\"ab\"],[3,\"cde\"]]]"),
              "invalid message at byte 16: the values are larger than 4 bytes together");
    EXPECT_EQ(refusalBy(limits, "[1,{\"base64\":\"AAAAAAA=\"}]"),
              "invalid message at byte 13: the values are larger than 4 bytes together");
}

TEST(Request, WrittenAsItIsRead) {
    for (
        const char* text :
        {R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEnvironment"],[1741,"hostname"],[1377,[[1024,"20"],[1087,"40"]]],[1259]]]})",
         R"({"operator":"","request":"","body":[1]})",
         R"({"operator":"pager2","request":"select","body":[1740],"client":{"fullAccess":true,"sids":[]}})",
         R"({"operator":"p","request":"s","body":[1740],"client":{"fullAccess":false,"sids":[{"principalId":0,"principalType":1,"eid":"6ba7b810-9dad-11d1-80b4-00c04fd430c8"},{"principalId":-5,"principalType":2,"eid":""}]}})"}) {
        std::string out;
        writeRequest(readRequest(text), out);
        EXPECT_EQ(out, text);
    }
}

TEST(Request, MembersComeInAnyOrder) {
    const auto request = readRequest(
        R"({"client":{"sids":[{"eid":"{6BA7B810-9DAD-11D1-80B4-00C04FD430C8}","principalType":1}],"fullAccess":false},
            "body":["select",[["view","v"]]],"request":"select","operator":"pager2"})");
    EXPECT_EQ(request.operatorName, "pager2");
    EXPECT_EQ(request.requestName, "select");
    EXPECT_EQ(notationOf(request.body), "[1740,[[1009,\"v\"]]]");
    ASSERT_TRUE(request.client.has_value());
    EXPECT_FALSE(request.client->fullAccess);
    ASSERT_EQ(request.client->sids.size(), 1U);
    EXPECT_EQ(request.client->sids[0].principalId, 0);
    EXPECT_EQ(request.client->sids[0].principalType, 1);
    EXPECT_EQ(request.client->sids[0].eid.toString(), "6ba7b810-9dad-11d1-80b4-00c04fd430c8");
}

TEST(Request, WithoutClientHasNone) {
    EXPECT_FALSE(readRequest(R"({"operator":"a","request":"b","body":[1]})").client.has_value());
    const auto empty = readRequest(R"({"operator":"a","request":"b","body":[1],"client":{}})").client;
    ASSERT_TRUE(empty.has_value());
    EXPECT_FALSE(empty->fullAccess);
    EXPECT_TRUE(empty->sids.empty());
}

TEST(Request, AnEidMayBeMissing) {
    for (const char* sid :
         {R"({})", R"({"eid":null})", R"({"eid":""})", R"({"eid":"00000000-0000-0000-0000-000000000000"})"}) {
        const auto request =
            readRequest(std::string(R"({"operator":"a","request":"b","body":[1],"client":{"sids":[)") + sid + "]}}");
        ASSERT_EQ(request.client->sids.size(), 1U);
        EXPECT_FALSE(request.client->sids[0].eid.isValid()) << sid;
    }
}

TEST(Request, RefusedWithReasonAndPlace) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"[]", "invalid message at byte 0: a request is not an object"},
        {"null", "invalid message at byte 0: a request is not an object"},
        {"{}", "invalid message at byte 1: member \"operator\" is missing"},
        {R"({"operator":"a"})", "invalid message at byte 15: member \"request\" is missing"},
        {R"({"operator":"a","request":"b"})", "invalid message at byte 29: member \"body\" is missing"},
        {R"({"operator":"a","operator":"a"})", "invalid message at byte 16: member \"operator\" is given twice"},
        {R"({"body":[1],"body":[1]})", "invalid message at byte 12: member \"body\" is given twice"},
        {R"({"Operator":"a"})", "invalid message at byte 1: unknown member \"Operator\""},
        {R"({"operator":1})", "invalid message at byte 12: member \"operator\" is not a text"},
        {R"({"request":null})", "invalid message at byte 11: member \"request\" is not a text"},
        {R"({"body":null})", "invalid message at byte 8: an element, [tag, ...], is expected"},
        {R"({"body":["nonsense"]})", "invalid message at byte 9: unknown element \"nonsense\""},
        {R"({"client":null})", "invalid message at byte 10: member \"client\" is not an object"},
        {R"({"client":{"fullAccess":1}})",
         "invalid message at byte 24: member \"fullAccess\" is neither true nor false"},
        {R"({"client":{"fullAccess":"true"}})",
         "invalid message at byte 24: member \"fullAccess\" is neither true nor false"},
        {R"({"client":{"fullAccess":true,"fullAccess":true}})",
         "invalid message at byte 29: member \"fullAccess\" is given twice"},
        {R"({"client":{"admin":true}})", "invalid message at byte 11: unknown member \"admin\""},
        {R"({"client":{"sids":{}}})", "invalid message at byte 18: member \"sids\" is not a list"},
        {R"({"client":{"sids":[1]}})", "invalid message at byte 19: an identity of \"sids\" is not an object"},
        {R"({"client":{"sids":[{"uid":1}]}})", "invalid message at byte 20: unknown member \"uid\""},
        {R"({"client":{"sids":[{"principalId":"1"}]}})",
         "invalid message at byte 34: member \"principalId\" is not an integer of 32 bits"},
        {R"({"client":{"sids":[{"principalType":2147483648}]}})",
         "invalid message at byte 36: member \"principalType\" is not an integer of 32 bits"},
        {R"({"client":{"sids":[{"principalType":1.5}]}})",
         "invalid message at byte 36: member \"principalType\" is not an integer of 32 bits"},
        {R"({"client":{"sids":[{"eid":"x"}]}})", "invalid message at byte 26: member \"eid\": \"x\" is not a GUID"},
        {R"({"client":{"sids":[{"eid":1}]}})", "invalid message at byte 26: member \"eid\" is not a text"},
        {R"({"client":{"sids":[{"eid":null,"eid":null}]}})",
         "invalid message at byte 31: member \"eid\" is given twice"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(requestRefusal(c.text), c.message) << c.text;
}

TEST(Request, LimitsHoldForTheBody) {
    QORMessageLimits limits;
    limits.depth = 1;
    EXPECT_EQ(refusal([&] { readRequest(R"({"operator":"a","request":"b","body":[1,[[2]]]})", limits); }),
              "invalid message at byte 42: elements are nested deeper than 1 levels");
    EXPECT_EQ(readRequest(R"({"operator":"a","request":"b","body":[1]})", limits).body.limits().depth, 1U);
}

std::string responseOf(const QORMessage& message) {
    std::string out;
    writeResponse(message, out);
    return out;
}

TEST(Response, HoldsTheElements) {
    QORMessage message;
    EXPECT_EQ(responseOf(message), R"({"response":[]})");
    readElement(R"([1744,[[1026,"hostname"],[1739,[[1018,"web1"]]],[1259,"20"],[1040,"400"]]])", message);
    EXPECT_EQ(responseOf(message),
              R"({"response":[[1744,[[1026,"hostname"],[1739,[[1018,"web1"]]],[1259,"20"],[1040,"400"]]]]})");
    readElement("[1]", message);
    EXPECT_EQ(responseOf(message),
              R"({"response":[[1744,[[1026,"hostname"],[1739,[[1018,"web1"]]],[1259,"20"],[1040,"400"]]],[1]]})");
}

TEST(Response, ErrorEntriesAreLiftedOut) {
    const struct {
        const char* element;
        const char* text;
    } cases[] = {
        {R"(["error",[["code","400"],["message","limit/size is absent"]]])",
         R"({"response":[],"error":{"code":400,"message":"limit/size is absent"}})"},
        {R"(["reply",[["error",[["message","m"],["code","1"]]]]])",
         R"({"response":[[1738]],"error":{"code":1,"message":"m"}})"},
        {R"(["row_set",[["name","a"],["error",[["code","3152"],["message","x"]]],["row"]]])",
         R"({"response":[[1744,[[1026,"a"],[1739]]]],"error":{"code":3152,"message":"x"}})"},
        {R"(["row",[["error",[["code","5"],["message","first"]]],["error",[["code","6"],["message","second"]]]]])",
         R"({"response":[[1739]],"error":{"code":5,"message":"first"}})"},
        {R"(["error",[["code","x"]]])", R"({"response":[],"error":{"code":1,"message":""}})"},
        {R"(["error",[["code","-3"],["message",{"base64":"/w=="}]]])",
         R"({"response":[],"error":{"code":-3,"message":{"base64":"/w=="}}})"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(responseOf(treeOf(c.element)), c.text) << c.element;
}

TEST(Response, AnElementThatIsOnlyNamedErrorStays) {
    EXPECT_EQ(responseOf(treeOf(R"(["row",[["error","disk full"]]])")),
              R"({"response":[[1739,[[1000000,"disk full"]]]]})");
    EXPECT_EQ(responseOf(treeOf(R"(["row",[["error",[["message","x"]]]]])")),
              R"({"response":[[1739,[[1000000,[[1224,"x"]]]]]]})");
}

TEST(Response, AnElementIsWrittenWithItsErrorEntries) {
    EXPECT_EQ(notationOf(treeOf(R"(["error",[["code","5"]]])")), R"([1000000,[[1000001,"5"]]])");
}

TEST(Response, LaterSiblingsStandBehindALiftedEntry) {
    QORMessage message = treeOf(R"([1,[[2]]])");
    readElement(R"(["error",[["code","5"],["message","m"]]])", message);
    readElement(R"([3])", message);
    EXPECT_EQ(responseOf(message), R"({"response":[[1,[[2]]],[3]],"error":{"code":5,"message":"m"}})");
}

TEST(Response, IsReadBack) {
    for (const char* text : {R"({"response":[]})", R"({"response":[[1744,[[1026,"hostname"]]],[1]]})",
                             R"({"response":[],"error":{"code":400,"message":"a \"quoted\" name"}})",
                             R"({"response":[[1744]],"error":{"code":-1,"message":{"base64":"/w=="}}})"}) {
        const auto response = readResponse(text);
        QORMessage message = treeOf("[9]");
        message.clear();
        std::string elements;
        writeElement(*response.response.rootNode(), elements);
        std::string again = "{\"response\":[" + elements + "]";
        if (response.error) {
            std::string quoted;
            QOR::writeNotationText(response.error->message, quoted);
            again += ",\"error\":{\"code\":" + std::to_string(response.error->code) + ",\"message\":" + quoted + "}";
        }
        EXPECT_EQ(again + "}", text);
    }
}

TEST(Response, RefusedWithReasonAndPlace) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"[]", "invalid message at byte 0: an answer is not an object"},
        {"{}", "invalid message at byte 1: member \"response\" is missing"},
        {R"({"response":{}})", "invalid message at byte 12: a list of elements is expected"},
        {R"({"response":[1]})", "invalid message at byte 13: an element, [tag, ...], is expected"},
        {R"({"response":[],"response":[]})", "invalid message at byte 15: member \"response\" is given twice"},
        {R"({"response":[],"rows":[]})", "invalid message at byte 15: unknown member \"rows\""},
        {R"({"response":[],"error":{"code":1}})", "invalid message at byte 32: member \"message\" is missing"},
        {R"({"response":[],"error":{"code":"1"}})",
         "invalid message at byte 31: member \"code\" is not an integer of 32 bits"},
        {R"({"response":[],"error":{"message":1}})", "invalid message at byte 34: member \"message\" is not a text"},
        {R"({"response":[],"error":{"message":{"x":1}}})",
         "invalid message at byte 35: member \"message\" is not a text"},
        {R"({"response":[],"error":{"message":{"base64":"x"}}})",
         "invalid message at byte 44: the member \"base64\" is not a base64 text"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(refusal([&] { readResponse(c.text); }), c.message) << c.text;
    }
}

TEST(Response, OfARequestThatReachedNoOperator) {
    std::string out = "x";
    QOR::writeErrorResponse(400, "no such operator: \"y\"", out);
    EXPECT_EQ(out, R"(x{"response":[],"error":{"code":400,"message":"no such operator: \"y\""}})");
}

TEST(Response, InBlocksIsTheSameText) {
    QORMessage message;
    QOR::QORBinaryIterator it = message.root();
    it.addChild(tag::rowSet);
    for (int i = 0; i < 20000; ++i)
        it.putValue("value \"" + std::to_string(i) + "\"", tag::value);
    it.putValue(std::string(500000, '\n'), tag::value);
    it.putBinary(std::string(500000, '\xFF').data(), 500000, tag::value);
    std::string blocks;
    std::size_t count = 0;
    std::size_t largest = 0;
    writeResponse(message, [&](std::string_view block) {
        EXPECT_FALSE(block.empty());
        ++count;
        largest = std::max(largest, block.size());
        blocks += block;
    });
    EXPECT_EQ(blocks, responseOf(message));
    EXPECT_GT(count, 20U);
    EXPECT_LE(largest, 65536U);
}

TEST(Text, IsWrittenAsNotationDoes) {
    std::string out;
    QOR::writeNotationText("a\"\x01", out);
    QOR::writeNotationText("\xFF", out);
    QOR::writeNotationText("", out);
    EXPECT_EQ(out, R"("a\"\u0001"{"base64":"/w=="}"")");
}

}  // namespace
