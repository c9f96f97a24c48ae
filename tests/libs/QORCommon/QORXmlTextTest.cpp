#include "QORCommon/QORXmlText.h"

#include <gtest/gtest.h>

#include <pugixml.hpp>
#include <string>

namespace QOR {
namespace {

TEST(XmlText, NamesOfElementsAreAsciiAndNotXmlsOwn) {
    for (const char* name : {"a", "_", "os_name", "A1.b-c", "xm", "x", "axml"})
        EXPECT_TRUE(isXmlName(name)) << name;
    for (const char* name : {"", "1a", "-a", ".a", "a b", "a:b", "xml", "XmL", "xmlns", "\xC3\xBC", "a\n"})
        EXPECT_FALSE(isXmlName(name)) << name;
}

TEST(XmlText, ControlCharactersNoncharactersAndBrokenBytesCannotBeCarried) {
    for (const char* text : {"", "\t\n\r plain <>&\"'", "\xC3\xBC", "\xEF\xBF\xBD", "\x7F"})
        EXPECT_TRUE(isXmlText(text)) << text;
    for (const char* text : {"\x01", "a\x1F", "\xFF", "\xC3", "\xEF\xBF\xBE", "a\xEF\xBF\xBF", "\xED\xA0\x80"})
        EXPECT_FALSE(isXmlText(text)) << text;
    EXPECT_FALSE(isXmlText(std::string_view("a\0", 2)));
}

TEST(XmlText, AnyBytesCanBeShownAsTextThatIsCarried) {
    for (const char* const text : {"", "a\tb\nc\rd", "caf\xc3\xa9 \\x1b", "\xef\xbf\xbd"})
        EXPECT_EQ(toXmlText(text), text) << "it is one already";
    EXPECT_EQ(toXmlText("\x1b[31mred\x1b[0m \x07"), "\\x1b[31mred\\x1b[0m \\x07");
    EXPECT_EQ(toXmlText(std::string_view("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(toXmlText("caf\xe9\x01"), "caf\xef\xbf\xbd\\x01");
    EXPECT_EQ(toXmlText("\xef\xbf\xbe|\xef\xbf\xbf"), "\xef\xbf\xbd|\xef\xbf\xbd");
}

TEST(XmlText, AReaderGetsBackWhatWasWritten) {
    std::string text = "\r\n \t \r <a & b> \"c\" 'd' ]]> \xC3\xBC \r";
    std::string document = "<e a=\"";
    appendXmlText(text, QORXmlPlace::Attribute, document);
    document += "\">";
    appendXmlText(text, QORXmlPlace::Element, document);
    document += "</e>";
    pugi::xml_document read;
    ASSERT_TRUE(read.load_buffer(document.data(), document.size())) << document;
    EXPECT_EQ(read.child("e").attribute("a").value(), text);
    EXPECT_EQ(read.child("e").child_value(), text);
}

TEST(XmlText, ElementsKeepQuotesTabsAndLineFeeds) {
    std::string out = "x";
    appendXmlText("\"a\"\t\n", QORXmlPlace::Element, out);
    EXPECT_EQ(out, "x\"a\"\t\n");
    out.clear();
    appendXmlText("\"a\"\t\n", QORXmlPlace::Attribute, out);
    EXPECT_EQ(out, "&quot;a&quot;&#9;&#10;");
}

}  // namespace
}  // namespace QOR
