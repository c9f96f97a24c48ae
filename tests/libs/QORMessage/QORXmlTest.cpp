#include "QORMessage/QORXml.h"

#include <gtest/gtest.h>

#include <string>

#include "QORCommon/QORException.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORMessageRead.h"
#include "Trees.h"

namespace {

using QOR::QORException;
using QOR::QORMessage;
using QOR::readXml;
using QOR::test::notationOf;
using QOR::test::picture;
using QOR::test::treeOf;
namespace tag = QOR::tag;

std::string xmlOf(const QORMessage& message, QOR::QORXmlOptions options = {}) {
    std::string out;
    writeXml(*message.rootNode(), out, options);
    return out;
}

QORMessage fromXml(std::string_view xml) {
    QORMessage message;
    readXml(xml, message);
    return message;
}

TEST(Xml, IsWrittenAndReadBack) {
    const struct {
        const char* notation;
        const char* xml;
    } cases[] = {
        {"[1740]", "<select/>"},
        {"[1018,\"\"]", "<value></value>"},
        {"[1018,\"web1\"]", "<value>web1</value>"},
        {"[1018,\" a \"]", "<value> a </value>"},
        {"[1018,\" \"]", "<value> </value>"},
        {"[1018,\"a\\nb\\tc\"]", "<value>a\nb\tc</value>"},
        {"[1018,\"a\\r\\nb\"]", "<value>a&#13;\nb</value>"},
        {"[1018,\"<a href=\\\"x\\\">&amp;]]>\"]", "<value>&lt;a href=\"x\"&gt;&amp;amp;]]&gt;</value>"},
        {"[1018,\"M\xC3\xBCnchen\"]", "<value>M\xC3\xBCnchen</value>"},
        {"[1018,{\"base64\":\"AAH/\"}]", "<value encoding=\"base64\">AAH/</value>"},
        {"[1018,{\"base64\":\"\"}]", "<value encoding=\"base64\"></value>"},
        {"[4000000000,\"x\"]", "<tag id=\"4000000000\">x</tag>"},
        {"[7,[[8]]]", "<tag id=\"7\"><tag id=\"8\"/></tag>"},
        {"[1744,[[1026,\"a\"],[1739,[[1018,\"x\"],[1018]]],[1040,\"1\"]]]",
         "<row_set><name>a</name><row><value>x</value><value/></row><total>1</total></row_set>"},
    };
    for (const auto& c : cases) {
        const QORMessage message = treeOf(c.notation);
        EXPECT_EQ(xmlOf(message), c.xml);
        EXPECT_EQ(picture(fromXml(c.xml)), picture(message)) << c.xml;
    }
}

TEST(Xml, WhatItCannotCarryIsBase64) {
    for (const std::string& value : {std::string("\xFF"), std::string("a\0b", 3), std::string("\x1B[m"),
                                     std::string("\xEF\xBF\xBE"), std::string("x\xEF\xBF\xBF")}) {
        QORMessage message;
        message.root().putValue(value, tag::value);
        const std::string xml = xmlOf(message);
        EXPECT_EQ(xml.substr(0, 25), "<value encoding=\"base64\">") << xml;
        std::string back;
        fromXml(xml).root().getValue(back, tag::value);
        EXPECT_EQ(back, value);
    }
}

TEST(Xml, NamesThatItDoesNotTakeAreNumbers) {
    for (const char* name : {"1st", "-x", "a b", "a:b", "xmlThing", "XML", "a<b", "M\xC3\xBCnchen", "tag name"}) {
        const QOR::QORTag id = QOR::QORTagDictionary::instance().intern(name);
        QORMessage message;
        message.root().putValue("v", id);
        EXPECT_EQ(xmlOf(message), "<tag id=\"" + std::to_string(id) + "\">v</tag>") << name;
        EXPECT_EQ(picture(fromXml(xmlOf(message))), picture(message));
    }
}

TEST(Xml, NamesOfDataAreWrittenByTheirMessage) {
    QORMessage message;
    QOR::QORBinaryIterator it = message.root();
    it.addNamed("unheard_of");
    it.addNamed("not an XML name");
    it.putValue("v");
    std::string text;
    ASSERT_EQ(QOR::serializeMessage(message.root(), text), 0);
    EXPECT_EQ(text, "<unheard_of><tag id=\"" + std::to_string(it.curID()) + "\">v</tag></unheard_of>");
    EXPECT_EQ(xmlOf(message).substr(0, 8), "<tag id=") << "without the message's names";
}

TEST(Xml, AnElementNamedTagIsToldFromANumber) {
    const QOR::QORTag id = QOR::QORTagDictionary::instance().intern("tag");
    QORMessage message;
    message.root().putValue("v", id);
    EXPECT_EQ(xmlOf(message), "<tag>v</tag>");
    EXPECT_EQ(picture(fromXml("<tag>v</tag>")), picture(message));
}

TEST(Xml, DeclarationAndIndentation) {
    const QORMessage message = treeOf("[1744,[[1739,[[1018,\"a\\nb\"],[1018]]],[1739]]]");
    QOR::QORXmlOptions options;
    options.declaration = true;
    EXPECT_EQ(xmlOf(message, options), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>" + xmlOf(message));
    options.indent = true;
    const std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<row_set>\n  <row>\n    <value>a\nb</value>\n    <value/>\n  "
        "</row>\n"
        "  <row/>\n</row_set>\n";
    EXPECT_EQ(xmlOf(message, options), text);
    EXPECT_EQ(picture(fromXml(text)), picture(message));
}

TEST(Xml, AnElementInsideAMessageIsWrittenByItself) {
    QORMessage message = treeOf("[1744,[[1739,[[1018,\"a\"]]],[1739]]]");
    auto it = message.root();
    it.seekPath("row_set/row");
    std::string out;
    writeXml(*it.node(), out, {.declaration = false, .indent = true});
    EXPECT_EQ(out, "<row>\n  <value>a</value>\n</row>\n");
}

TEST(Xml, ReadInOtherSpellings) {
    const struct {
        const char* xml;
        const char* notation;
    } cases[] = {
        {" <select />\n", "[1740]"},
        {"<!-- before --><select/><!-- behind -->", "[1740]"},
        {"<?xml version=\"1.0\"?><?other thing?><select/>", "[1740]"},
        {"<select><!-- in --></select>", "[1740,\"\"]"},
        {"<select>\n <view>v</view>\n</select>", "[1740,[[1009,\"v\"]]]"},
        {"<value><![CDATA[<&]]></value>", "[1018,\"<&\"]"},
        {"<value>a<![CDATA[b]]>c<!-- x -->d</value>", "[1018,\"abcd\"]"},
        {"<value>&lt;&gt;&amp;&quot;&apos;&#65;&#x42;&#x1F600;</value>", "[1018,\"<>&\\\"'AB\xF0\x9F\x98\x80\"]"},
        {"<value>a\r\nb\rc</value>", "[1018,\"a\\nb\\nc\"]"},
        {"<value encoding='base64'>\n AA\n ==\n</value>", "[1018,{\"base64\":\"AA==\"}]"},
        {"<tag id='1018'>x</tag>", "[1018,\"x\"]"},
        {"<tag id='1018' encoding='base64'>AA==</tag>", "[1018,{\"base64\":\"AA==\"}]"},
        {"<value encoding=\"base64\"/>", "[1018,{\"base64\":\"\"}]"},
        {"\xEF\xBB\xBF<select/>", "[1740]"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(picture(fromXml(c.xml)), picture(treeOf(c.notation))) << c.xml;
}

TEST(Xml, RefusedWithReasonAndPlace) {
    const struct {
        const char* xml;
        const char* message;
    } cases[] = {
        {"", "invalid XML at byte 0: "},
        {"  ", "invalid XML at byte 2: there is no element"},
        {"<!-- only -->", "there is no element"},
        {"text", "a text stands outside of the element"},
        {"<select/>text", "invalid XML at byte 9: a text stands outside of the element"},
        {"text<select/>", "invalid XML at byte 0: a text stands outside of the element"},
        {"<select/><select/>", "invalid XML at byte 10: there is more than one element"},
        {"<select>", "invalid XML at byte "},
        {"<select></view>", "invalid XML at byte "},
        {"<nonsense/>", "invalid XML at byte 1: unknown element \"nonsense\""},
        {"<select><nonsense/></select>", "invalid XML at byte 9: unknown element \"nonsense\""},
        {"<1740/>", "invalid XML at byte "},
        {"<select>text<view/></select>", "invalid XML at byte 8: a text stands between elements"},
        {"<select><view/>text</select>", "invalid XML at byte 15: a text stands between elements"},
        {"<select id='1'/>", "invalid XML at byte 1: attribute \"id\" has no place here"},
        {"<select x='1'/>", "attribute \"x\" has no place here"},
        {"<select encoding='hex'/>", "attribute \"encoding\" has no place here"},
        {"<value encoding='base64' encoding='base64'/>", "attribute \"encoding\" has no place here"},
        {"<tag id='1' id='2'/>", "attribute \"id\" has no place here"},
        {"<tag id='0'/>", "\"0\" is not a whole number from 1 to 4294967295"},
        {"<tag id='4294967296'/>", "is not a whole number from 1 to 4294967295"},
        {"<tag id='-1'/>", "is not a whole number from 1 to 4294967295"},
        {"<tag id=''/>", "is not a whole number from 1 to 4294967295"},
        {"<value encoding='base64'>x</value>", "the text is not base64"},
        {"<select encoding='base64'><view/></select>", "an element with elements in it has no encoding"},
        {"<!DOCTYPE select><select/>", "invalid XML at byte 0: document types are not accepted"},
        {"<!DOCTYPE x [<!ENTITY a \"b\">]><select>&a;</select>", "document types are not accepted"},
        {"<value>&nbsp;</value>", "invalid XML at byte 7: unknown entity \"nbsp\""},
        {"<value>a & b</value>", "invalid XML at byte 9: a reference has no end; write &amp; for &"},
        {"<value>&#0;</value>", "invalid XML at byte 7: unknown entity \"#0\""},
        {"<value>&#xD800;</value>", "unknown entity"},
        {"<value>&#x110000;</value>", "unknown entity"},
        {"<value>&#xFFFE;</value>", "unknown entity"},
        {"<value>&#;</value>", "unknown entity"},
        {"<value>&#x;</value>", "unknown entity"},
        {"<value>&#-5;</value>", "unknown entity"},
        {"<tag id='&foo;'/>", "unknown entity \"foo\""},
        {"<value>\x01</value>", "invalid XML at byte 7: this character is not allowed in XML"},
        {"<value>\xEF\xBF\xBF</value>", "this character is not allowed in XML"},
        {"<!-- \x01 --><select/>", "this character is not allowed in XML"},
        {"<value>\xFF</value>", "invalid XML at byte 7: the text is not UTF-8"},
        {"<!-- no end", "invalid XML at byte 0: this has no end"},
        {"<select><![CDATA[ no end</select>", "this has no end"},
    };
    for (const auto& c : cases) {
        QORMessage message = treeOf("[9]");
        try {
            readXml(c.xml, message);
            ADD_FAILURE() << "accepted: " << c.xml;
        } catch (const QORException& error) {
            EXPECT_EQ(error.code(), 400);
            EXPECT_NE(error.message().find(c.message), std::string::npos) << c.xml << "\n" << error.message();
        }
        EXPECT_EQ(notationOf(message), "[9]") << "the message is as it was";
    }
    QORMessage message;
    EXPECT_THROW(readXml(std::string_view("<select/>\0", 10), message), QORException);
}

TEST(Xml, LimitsAreNamed) {
    const auto refusalBy = [](std::uint32_t depth, std::size_t nodes, std::size_t bytes, std::string_view xml) {
        QOR::QORMessageLimits limits;
        limits.depth = depth;
        limits.nodes = nodes;
        limits.bytes = bytes;
        QORMessage message(limits);
        try {
            readXml(xml, message);
        } catch (const QORException& error) {
            return error.message();
        }
        return std::string("accepted");
    };
    EXPECT_EQ(refusalBy(2, 3, 4, "<row><value>ab</value><value>cd</value></row>"), "accepted");
    EXPECT_EQ(refusalBy(2, 9, 9, "<row><row><row/></row></row>"),
              "invalid XML at byte 10: elements are nested deeper than 2 levels");
    EXPECT_EQ(refusalBy(2, 3, 9, "<row><row/><row/><row/></row>"),
              "invalid XML at byte 17: there are more than 3 elements");
    EXPECT_EQ(refusalBy(2, 9, 3, "<row><value>ab</value><value>cd</value></row>"),
              "invalid XML at byte 23: the values are larger than 3 bytes together");
}

TEST(Xml, DeepMessagesAreWrittenAndReadWithoutRecursion) {
    QOR::QORMessageLimits limits;
    limits.depth = 60000;
    QORMessage message(limits);
    auto it = message.root();
    while (it.addChild(tag::row) == 0) {
    }
    QORMessage copy(limits);
    readXml(xmlOf(message), copy);
    EXPECT_EQ(copy.nodeCount(), 60000U);
    EXPECT_EQ(xmlOf(copy), xmlOf(message));
}

}  // namespace
