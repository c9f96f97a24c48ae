// Inputs that mean harm: they are refused, and cost no more than their length.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>

#include "QORCommon/QORException.h"
#include "QORMessage/QORNotation.h"
#include "QORMessage/QORXml.h"
#include "Trees.h"
#include "support/LongTexts.h"

namespace {

using QOR::QORException;
using QOR::QORMessage;
using QOR::readRequest;
using QOR::readResponse;
using QOR::readXml;
using QOR::test::repeated;
using QOR::test::treeOf;

constexpr const char* wholeRequest =
    R"({"operator":"pager2","request":"select","body":[1740,[[1009,"v\u00fc\ud83d\ude00"],["field",{"base64":"AA=="}],[1259]]],)"
    R"("client":{"fullAccess":false,"sids":[{"principalId":0,"principalType":1,"eid":null}]}})";
constexpr const char* response = R"({"response":[[1744,[[1739,[[1018,"x"]]]]]],"error":{"code":-1,"message":"m"}})";
constexpr const char* xml =
    "<?xml version=\"1.0\"?><select><!-- c --><view>a&amp;b&#x41;</view><tag id=\"5\" encoding=\"base64\">AA==</tag>"
    "<field><![CDATA[<>]]></field></select>";

TEST(Hostile, NestedBracketsAreRefusedAtTheDepthLimit) {
    constexpr std::size_t count = 100000;
    for (const std::string& text : {repeated("[", count), repeated("[1,", count), repeated("[1,[", count),
                                    repeated("[1,[", count) + repeated("]]", count), repeated("{", count),
                                    repeated("{\"body\":", count), "{\"body\":" + repeated("[1,[", count),
                                    "{\"client\":" + repeated("[", count), "{\"response\":" + repeated("[", count)}) {
        EXPECT_THROW(treeOf(text), QORException);
        EXPECT_THROW(readRequest(text), QORException);
        EXPECT_THROW(readResponse(text), QORException);
    }
    try {
        treeOf(repeated("[1,[", count));
    } catch (const QORException& error) {
        EXPECT_EQ(error.message(), "invalid message at byte 257: elements are nested deeper than 64 levels");
    }
}

TEST(Hostile, NestedElementsOfXmlAreRefusedAtTheDepthLimit) {
    constexpr std::size_t count = 100000;
    for (const std::string& text :
         {repeated("<row>", count), repeated("<row>", count) + repeated("</row>", count), repeated("<", count)}) {
        QORMessage message;
        EXPECT_THROW(readXml(text, message), QORException);
        EXPECT_TRUE(message.empty());
    }
}

TEST(Hostile, ManyElementsAreRefusedAtTheLimit) {
    QOR::QORMessageLimits limits;
    limits.nodes = 1000;
    const std::string rows = repeated(",[1739]", 100000);
    QORMessage message(limits);
    EXPECT_THROW(readElement("[1744,[[1739]" + rows + "]]", message), QORException);
    EXPECT_THROW(readXml("<row_set>" + repeated("<row/>", 100000) + "</row_set>", message), QORException);
    EXPECT_TRUE(message.empty());
}

/// Reads every beginning of the text; only the whole is accepted.
void expectTruncationsRefused(std::string_view text, const std::function<void(std::string_view)>& read) {
    for (std::size_t size = 0; size < text.size(); ++size) {
        EXPECT_THROW(read(text.substr(0, size)), QORException) << text.substr(0, size);
    }
    EXPECT_NO_THROW(read(text));
}

TEST(Hostile, TextsCutAtAnyByteAreRefused) {
    expectTruncationsRefused(wholeRequest, [](std::string_view text) { readRequest(text); });
    expectTruncationsRefused(response, [](std::string_view text) { readResponse(text); });
    expectTruncationsRefused(xml, [](std::string_view text) {
        QORMessage message;
        readXml(text, message);
    });
}

TEST(Hostile, ChangedBytesAreReadOrRefusedButNeverHarm) {
    std::mt19937 random(5);
    const auto pick = [&random](std::size_t count) { return static_cast<std::size_t>(random()) % count; };
    int refused = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string text = round % 2 == 0 ? wholeRequest : xml;
        for (std::size_t changes = 1 + pick(3); changes > 0; --changes) {
            const std::size_t at = pick(text.size());
            if (pick(3) == 0) {
                text.erase(at, 1 + pick(4));
            } else {
                text[at] = static_cast<char>(random());
            }
            if (text.empty()) text = "x";
        }
        try {
            if (round % 2 == 0) {
                readRequest(text);
            } else {
                QORMessage message;
                readXml(text, message);
            }
        } catch (const QORException& error) {
            EXPECT_EQ(error.code(), 400);
            EXPECT_LT(error.message().size(), 400U);
            ++refused;
        }
    }
    EXPECT_GT(refused, 1000);
}

TEST(Hostile, EachByteValueAtEachPlaceOfATextIsReadOrRefused) {
    const std::string base = "[1,\"abc\"]";
    for (std::size_t at = 0; at < base.size(); ++at) {
        for (int byte = 0; byte < 256; ++byte) {
            std::string text = base;
            text[at] = static_cast<char>(byte);
            try {
                treeOf(text);
                // Inside of the text everything from 0x20 to 0x7F may stand, but a quote and most backslashes.
                const bool escape = byte == '\\' && at == 4;  // before the b
                const bool allowed = escape || (byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\');
                EXPECT_TRUE(allowed || at < 4 || at > 6) << byte;
            } catch (const QORException&) {
            }
        }
    }
}

TEST(Hostile, HugeNumbersAreRefused) {
    const std::string digits(100000, '9');
    for (const std::string& text :
         {"[" + digits + "]", "[-" + digits + "]", "[1e" + digits + "]", "[1." + digits + "]", "[1," + digits + "]"}) {
        EXPECT_THROW(treeOf(text), QORException);
    }
    EXPECT_THROW(readRequest("{\"client\":{\"sids\":[{\"principalId\":" + digits + "}]}}"), QORException);
}

TEST(Hostile, LongNamesAreCutInTheMessage) {
    try {
        treeOf("[\"" + std::string(1000000, 'x') + "\"]");
        FAIL();
    } catch (const QORException& error) {
        EXPECT_LT(error.message().size(), 200U);
    }
}

TEST(Hostile, NamesFromOutsideDoNotGrowTheDictionary) {
    EXPECT_THROW(treeOf("[\"some.hostile.name\"]"), QORException);
    EXPECT_EQ(QOR::QORTagDictionary::instance().find("some.hostile.name"), std::nullopt);
    QORMessage message;
    EXPECT_THROW(readXml("<some.hostile.name/>", message), QORException);
    EXPECT_NE(message.root().seekPath("some.hostile.name"), 0);
    EXPECT_EQ(QOR::QORTagDictionary::instance().find("some.hostile.name"), std::nullopt);
}

}  // namespace
