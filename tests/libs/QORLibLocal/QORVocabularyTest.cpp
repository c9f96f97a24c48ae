#include "QORLibLocal/QORVocabulary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "QORMessage/QORTags.h"
#include "QORPager/QORPagerVocabulary.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// A reader that knows what operator "pager" reads.
class PagerReader : public QORVocReader {
public:
    PagerReader() : QORVocReader({pagerVocabulary().begin(), pagerVocabulary().end()}) {}
};

std::vector<std::string> mistakesOf(const std::string& xml) {
    PagerReader reader;
    reader.readText(xml, "f.xml");
    reader.checkTogether();
    std::vector<std::string> texts;
    for (const QORVocMistake& mistake : reader.mistakes())
        texts.push_back(mistake.text());
    return texts;
}

std::string inFields(const std::string& parameters) {
    return "<vocabulary><category name=\"pager_fields\">\n" + parameters + "</category></vocabulary>";
}

TEST(VocabularyTest, ParametersAreReadInTheirOrder) {
    QORVocReader reader;
    ASSERT_TRUE(reader.readText(inFields("<parameter id=\"b\" multi=\"\"><source> env/title </source>"
                                         "<type>int</type></parameter>\n<parameter id=\"a\"><source>x</source>"
                                         "</parameter>"),
                                "f.xml"));
    QORVocIterator at;
    const auto vocabulary = reader.vocabulary();
    ASSERT_EQ(vocabulary->readCategory("pager_fields", at), 0);
    ASSERT_EQ(at.firstParameter(), 0);
    std::string text;
    EXPECT_EQ(at.getID(text), 0);
    EXPECT_EQ(text, "b");
    EXPECT_EQ(at.getValue(text, tag::source), 0);
    EXPECT_EQ(text, "env/title") << "blanks around a value do not count";
    EXPECT_EQ(at.getValue(text, tag::type), 0);
    EXPECT_EQ(text, "int");
    EXPECT_NE(at.getValue(text, tag::cache), 0);
    EXPECT_EQ(text, "int") << "a value that is not there changes nothing";
    EXPECT_TRUE(at.hasAttribute("multi"));
    EXPECT_FALSE(at.hasAttribute("base64"));
    ASSERT_EQ(at.nextParameter(), 0);
    EXPECT_EQ(at.getID(text), 0);
    EXPECT_EQ(text, "a");
    EXPECT_NE(at.nextParameter(), 0);
}

TEST(VocabularyTest, ACategoryMayBeAbsentOrEmpty) {
    QORVocReader reader;
    ASSERT_TRUE(reader.readText("<vocabulary><category name=\"pager_caches\"/></vocabulary>", "f.xml"));
    const auto vocabulary = reader.vocabulary();
    QORVocIterator at;
    EXPECT_NE(vocabulary->readCategory("pager_fields", at), 0);
    ASSERT_EQ(vocabulary->readCategory("pager_caches", at), 0);
    EXPECT_NE(at.firstParameter(), 0);
}

TEST(VocabularyTest, NumbersAreReadAsSuch) {
    QORVocReader reader;
    ASSERT_TRUE(
        reader.readText("<vocabulary><category name=\"pager_caches\"><parameter id=\"c\"><source>s</source>"
                        "<sync_timeout>30</sync_timeout></parameter></category></vocabulary>",
                        "f.xml"));
    const auto vocabulary = reader.vocabulary();
    QORVocIterator at;
    vocabulary->readCategory("pager_caches", at);
    int number = -1;
    EXPECT_EQ(at.getInt("sync_timeout", number), 0);
    EXPECT_EQ(number, 30);
    EXPECT_NE(at.getInt("security_operation", number), 0);
    EXPECT_NE(at.getInt("source", number), 0) << "a text that is no number";
    EXPECT_EQ(number, 30);
}

TEST(VocabularyTest, ALaterFileReplacesAndAdds) {
    QORVocReader reader;
    ASSERT_TRUE(reader.readText(inFields("<parameter id=\"a\"><source>1</source></parameter>"
                                         "<parameter id=\"b\"><source>2</source></parameter>"),
                                "one"));
    ASSERT_TRUE(reader.readText(inFields("<parameter id=\"c\"><source>3</source></parameter>"
                                         "<parameter id=\"a\"><source>4</source></parameter>"),
                                "two"));
    const auto vocabulary = reader.vocabulary();
    QORVocIterator at;
    vocabulary->readCategory("pager_fields", at);
    std::vector<std::string> found;
    for (int more = at.firstParameter(); more == 0; more = at.nextParameter()) {
        std::string id;
        std::string source;
        at.getID(id);
        at.getValue(source, tag::source);
        found.push_back(id + source);
    }
    EXPECT_THAT(found, ElementsAre("a4", "b2", "c3"));
}

TEST(VocabularyTest, WithoutRulesWhatCategoriesHoldIsTakenAsItIs) {
    QORVocReader reader;
    EXPECT_TRUE(
        reader.readText("<vocabulary><category name=\"colours\"><parameter id=\"sky\" deep=\"\"><blue>1</blue>"
                        "</parameter></category></vocabulary>",
                        "f.xml"));
    reader.checkTogether();
    EXPECT_THAT(reader.mistakes(), IsEmpty());
    QORVocIterator at;
    EXPECT_EQ(reader.vocabulary()->readCategory("colours", at), 0);
}

TEST(VocabularyTest, OneCategorysRulesAreNotAnothers) {
    static constexpr QORVocValueRule values[] = {
        {.key = "shade", .kind = QORVocValueRule::Kind::Integer, .required = true},
        {.key = "like", .kind = QORVocValueRule::Kind::Reference, .refersTo = "colours"},
    };
    static constexpr std::string_view marks[] = {"deep"};
    QORVocReader reader({{"colours", values, marks}});
    reader.readText(
        "<vocabulary><category name=\"colours\">\n<parameter id=\"sky\" deep=\"\"><shade>x</shade></parameter>\n"
        "<parameter id=\"sea\"><like>land</like></parameter></category>\n"
        "<category name=\"pager_fields\"/></vocabulary>",
        "f.xml");
    reader.checkTogether();
    std::vector<std::string> texts;
    for (const QORVocMistake& mistake : reader.mistakes())
        texts.push_back(mistake.text());
    EXPECT_THAT(texts, ElementsAre("f.xml:2: <shade> of \"sky\": \"x\" is not an integer of 32 bits",
                                   "f.xml:3: \"sea\" has no <shade>; it is passed over",
                                   "f.xml:4: unknown category \"pager_fields\"; known are colours",
                                   "f.xml:3: <like> of \"sea\": \"land\" is not among colours"));
}

TEST(VocabularyTest, MistakesAreNamedWithTheirLine) {
    EXPECT_THAT(mistakesOf(inFields("<parameter id=\"a\"><source>x</source></parameter>")), IsEmpty());
    EXPECT_THAT(mistakesOf(inFields("\n<parameter id=\"a\"/>")),
                ElementsAre("f.xml:3: \"a\" has no <source>; it is passed over"));
    EXPECT_THAT(mistakesOf(inFields("<parameter><source>x</source></parameter>")),
                ElementsAre("f.xml:2: a parameter needs an id; this one is passed over"));
    EXPECT_THAT(mistakesOf(inFields("<parameter id=\"a\" many=\"1\"><source>x</source></parameter>")),
                ElementsAre("f.xml:2: <parameter> knows no attribute \"many\""));
    EXPECT_THAT(mistakesOf(inFields("<parameter id=\"a\"><source>x</source>\n<type>Int</type></parameter>")),
                ElementsAre(HasSubstr("f.xml:3: <type> of \"a\": unknown type \"Int\"")));
    EXPECT_THAT(mistakesOf(inFields("<parameter id=\"a\"><source>x</source>\n<path>y</path></parameter>")),
                ElementsAre(HasSubstr("f.xml:3: <path> of \"a\": pager_fields has no such value")));
    EXPECT_THAT(mistakesOf(inFields("<parameter id=\"a\"><source>x</source></parameter>\n"
                                    "<parameter id=\"a\"><source>x</source></parameter>")),
                ElementsAre("f.xml:3: parameter \"a\" is there twice"));
    EXPECT_THAT(mistakesOf(inFields("<parameter id=\"a\"><source>x</source><cache>c</cache></parameter>")),
                ElementsAre("f.xml:2: <cache> of \"a\": \"c\" is not among pager_caches"));
    EXPECT_THAT(mistakesOf("<vocabulary>\n<category name=\"pager_field\"/></vocabulary>"),
                ElementsAre(HasSubstr("f.xml:2: unknown category \"pager_field\"")));
    EXPECT_THAT(mistakesOf("<vocabulary><category name=\"pager_caches\">\n<parameter id=\"a\"><source>x</source>"
                           "<sync_timeout>soon</sync_timeout></parameter></category></vocabulary>"),
                ElementsAre("f.xml:2: <sync_timeout> of \"a\": \"soon\" is not an integer of 32 bits"));
}

TEST(VocabularyTest, AFileThatCannotBeUsedLeavesTheVocabularyAsItWas) {
    QORVocReader reader;
    ASSERT_TRUE(reader.readText(inFields("<parameter id=\"a\"><source>1</source></parameter>"), "one"));
    for (const char* xml : {"", "<vocabulary>\n</vocabular>", "<voc/>", "no XML"}) {
        EXPECT_FALSE(reader.readText(xml, "two")) << xml;
    }
    EXPECT_EQ(reader.vocabulary()->categories().size(), 1U);
    ASSERT_EQ(reader.mistakes().size(), 4U);
    EXPECT_TRUE(reader.mistakes().front().fatal);
    EXPECT_EQ(reader.mistakes()[1].line, 2U);
}

TEST(VocabularyTest, FilesThatCannotBeReadAreNamed) {
    TemporaryDirectory folder;
    QORVocReader reader;
    EXPECT_FALSE(reader.readFile(folder / "none.xml"));
    EXPECT_FALSE(reader.readFile(folder.path()));
    ASSERT_EQ(reader.mistakes().size(), 2U);
    EXPECT_THAT(reader.mistakes()[0].text(), HasSubstr("none.xml: cannot be read: No such file"));
    EXPECT_THAT(reader.mistakes()[1].text(), HasSubstr("this is a folder"));
}

/// Many fields, a line each, with a mistake in every fourth.
std::string manyFields(int count) {
    std::string fields;
    for (int i = 0; i < count; ++i) {
        const std::string id = "pager.env.some.field." + std::to_string(1000000 + i);
        fields += "<parameter id=\"" + id + "\"><source>env/config/a</source>" + (i % 4 == 0 ? "<type>x</type>" : "") +
                  "</parameter>\n";
    }
    return inFields(fields);
}

TEST(VocabularyTest, ReadingTakesWorkInProportionToTheFields) {
    const auto steps = [](int count) {
        PagerReader reader;
        EXPECT_TRUE(reader.readText(manyFields(count), "one"));
        EXPECT_TRUE(reader.readText(manyFields(count), "two"));
        reader.checkTogether();
        EXPECT_EQ(reader.mistakes().size(), static_cast<std::size_t>(count) / 2);
        EXPECT_EQ(reader.vocabulary()->categories().begin()->second.size(), static_cast<std::size_t>(count));
        return reader.steps();
    };
    const std::uint64_t few = steps(1000);
    const std::uint64_t many = steps(16000);
    EXPECT_GT(few, 1000U);
    EXPECT_LE(many, 16 * few * 3 / 2);  // a line is found by halving
}

TEST(VocabularyTest, MistakesInLargeFilesAreInTheirLines) {
    PagerReader reader;
    ASSERT_TRUE(reader.readText(manyFields(100), "one"));
    ASSERT_EQ(reader.mistakes().size(), 25U);
    const std::size_t first = reader.mistakes().front().line;
    for (std::size_t i = 0; i < reader.mistakes().size(); ++i)
        EXPECT_EQ(reader.mistakes()[i].line, first + 4 * i);
}

TEST(VocabularyTest, AFileBeyondAnySenseIsRefused) {
    QORVocReader reader;
    const std::string comment = "<!--" + std::string(QORVocReader::maxBytes, 'x') + "-->";
    EXPECT_FALSE(reader.readText("<vocabulary>" + comment + "</vocabulary>", "large"));
    ASSERT_EQ(reader.mistakes().size(), 1U);
    EXPECT_EQ(reader.mistakes().front().text(), "large: longer than 16777216 bytes");
    TemporaryDirectory folder;
    std::ofstream(folder / "large.xml") << "<vocabulary>" << comment << "</vocabulary>";
    EXPECT_FALSE(reader.readFile(folder / "large.xml"));
    EXPECT_THAT(reader.mistakes().back().text(), HasSubstr("large.xml: longer than 16777216 bytes"));
}

TEST(VocabularyTest, ValuesBeyondAnySenseArePassedOver) {
    std::string values = "<source>1</source>";
    for (int i = 0; i < 100; ++i)
        values += "<v" + std::to_string(i) + "/>";
    QORVocReader reader;
    ASSERT_TRUE(reader.readText(inFields("<parameter id=\"a\">" + values + "</parameter>"), "one"));
    EXPECT_EQ(reader.vocabulary()->categories().begin()->second.front().values.size(), QORVocReader::maxValues);
    EXPECT_THAT(reader.mistakes().front().text(), HasSubstr("holds more than 64 values; what follows is passed over"));
}

TEST(VocabularyTest, TheShippedFileHasNoMistakes) {
    QORVocReader reader;
    ASSERT_TRUE(reader.readFile(QOR_PROJECT_DIR "/packaging/vocabulary.xml"));
    reader.checkTogether();
    for (const QORVocMistake& mistake : reader.mistakes())
        ADD_FAILURE() << mistake.text();
    QORVocIterator at;
    const auto vocabulary = reader.vocabulary();
    ASSERT_EQ(vocabulary->readCategory("pager_caches", at), 0);
    std::string prefix;
    ASSERT_EQ(at.getString("info_prefix", prefix), 0);
    EXPECT_EQ(prefix, "pager.backup.");
}

}  // namespace
}  // namespace QOR::test
