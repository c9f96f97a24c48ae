#include "QORLibAgent/QORInfo.h"

#include <random>

#include "QORCommon/QORException.h"

namespace QOR {
namespace {

QORInfo document() {
    QORInfo package("package");
    package.add("name", "curl").add("version", "7.88.1-10");
    QORInfo info;
    info.add("title", "web 1").add(std::move(package)).add("ip", "10.0.0.1").add("ip", "10.0.0.2");
    return info;
}

QORInfo nested(std::size_t depth) {
    QORInfo inner("p", "text");
    for (std::size_t i = 1; i < depth; ++i) {
        QORInfo outer("p");
        outer.add(std::move(inner));
        inner = std::move(outer);
    }
    QORInfo info;
    info.add(std::move(inner));
    return info;
}

TEST(QORInfoTest, ParametersAreFoundByNameAndPath) {
    const QORInfo info = document();
    ASSERT_NE(info.getParameter("title"), nullptr);
    EXPECT_EQ(info.getParameter("title")->toString(), "web 1");
    EXPECT_EQ(info.getParameterByPath("package/version"), "7.88.1-10");
    EXPECT_EQ(info.getParameter("Title"), nullptr);
}

TEST(QORInfoTest, OfRepeatedParametersTheFirstIsFound) {
    EXPECT_EQ(document().getParameterByPath("ip"), "10.0.0.1");
}

TEST(QORInfoTest, WhatIsMissingReadsAsTheEmptyText) {
    const QORInfo info = document();
    for (const char* path : {"", "/", "none", "title/none", "package/", "/title", "package//name"}) {
        EXPECT_EQ(info.getParameterByPath(path), "") << path;
    }
}

TEST(QORInfoTest, AParameterWithChildrenReadsAsXml) {
    EXPECT_EQ(document().getParameterByPath("package"),
              "<package><name>curl</name><version>7.88.1-10</version></package>");
}

TEST(QORInfoTest, ADocumentReadsAsXml) {
    EXPECT_EQ(document().toString(),
              "<info><title>web 1</title><package><name>curl</name><version>7.88.1-10</version></package>"
              "<ip>10.0.0.1</ip><ip>10.0.0.2</ip></info>");
}

TEST(QORInfoTest, AnEmptyDocumentReadsAsTheEmptyTextAndSerializesAsAnElement) {
    EXPECT_EQ(QORInfo().toString(), "");
    EXPECT_EQ(QORInfo().serializeToString(), "<info/>");
}

struct NameCase {
    const char* rule;
    std::string name;
    std::string xml;
};

class QORInfoNames : public ::testing::TestWithParam<NameCase> {};

TEST_P(QORInfoNames, SurviveTheXmlForm) {
    QORInfo info;
    info.add(GetParam().name, "x");
    EXPECT_EQ(info.serializeToString(), "<info>" + GetParam().xml + "</info>");
    QORInfo read;
    ASSERT_EQ(read.deserializeFromString(info.serializeToString()), 0);
    EXPECT_EQ(read, info);
}

INSTANTIATE_TEST_SUITE_P(
    All, QORInfoNames,
    ::testing::Values(NameCase{"Plain", "os-name.v_2", "<os-name.v_2>x</os-name.v_2>"},
                      NameCase{"OfTheFallbackElement", "param", "<param>x</param>"},
                      NameCase{"OfTheDocumentElement", "info", "<info>x</info>"},
                      NameCase{"Empty", "", "<param name=\"\">x</param>"},
                      NameCase{"WithABlank", "1st name", "<param name=\"1st name\">x</param>"},
                      NameCase{"BeginningWithADigit", "9a", "<param name=\"9a\">x</param>"},
                      NameCase{"ReservedByXml", "xMlThing", "<param name=\"xMlThing\">x</param>"},
                      NameCase{"WithAPrefix", "a:b", "<param name=\"a:b\">x</param>"},
                      NameCase{"WithMarkup", "<a&\"'>", "<param name=\"&lt;a&amp;&quot;'&gt;\">x</param>"},
                      NameCase{"WithLineEnds", "a\n\t\rb", "<param name=\"a&#10;&#9;&#13;b\">x</param>"},
                      NameCase{"OfOtherAlphabets", "größe", "<param name=\"größe\">x</param>"},
                      NameCase{"WithControlCharacters", std::string("a\0\x01", 3), "<param name64=\"YQAB\">x</param>"},
                      NameCase{"NotUtf8", "\xFF", "<param name64=\"/w==\">x</param>"}),
    [](const auto& tested) { return tested.param.rule; });

class QORInfoTexts : public ::testing::TestWithParam<std::string> {};

TEST_P(QORInfoTexts, SurviveTheXmlFormInALeafAndBesideChildren) {
    QORInfo leaf;
    leaf.add("p", GetParam());
    QORInfo parent("p", GetParam());
    parent.add("child", GetParam()).add("empty", "");
    QORInfo mixed;
    mixed.add(std::move(parent));
    QORInfo top({}, GetParam());
    for (const QORInfo& info : {leaf, mixed, top}) {
        QORInfo read;
        ASSERT_EQ(read.deserializeFromString(info.serializeToString()), 0) << info.serializeToString();
        EXPECT_EQ(read, info) << info.serializeToString();
    }
}

INSTANTIATE_TEST_SUITE_P(All, QORInfoTexts,
                         ::testing::Values("", "text", " ", "\n", " \t\r\n ", " leading and trailing ", "a\r\nb\rc",
                                           "<a>&amp;</a>", "]]>", "\"'", "größe €", std::string("a\0b", 3), "\x01",
                                           "\xFF\xFE", "\xEF\xBF\xBE", "\xEF\xBF\xBF", "YQ==", "\xF0\x9F\x98\x80"));

/// Names and texts of any bytes.
QORInfo randomTree(std::mt19937& random) {
    const auto text = [&] {
        std::string bytes(random() % 6, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(random() % 4 == 0 ? random() : 'a' + random() % 26);
        return bytes;
    };
    std::vector<QORInfo> pool;
    for (int i = 0; i < 20; ++i) {
        QORInfo node(text(), text());
        while (!pool.empty() && random() % 3 != 0) {
            node.add(std::move(pool.back()));
            pool.pop_back();
        }
        pool.push_back(std::move(node));
    }
    QORInfo info;
    for (QORInfo& node : pool)
        info.add(std::move(node));
    return info;
}

TEST(QORInfoTest, RandomTreesSurviveTheXmlForm) {
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        const QORInfo info = randomTree(random);
        QORInfo read;
        ASSERT_EQ(read.deserializeFromString(info.serializeToString()), 0);
        ASSERT_EQ(read, info) << info.serializeToString();
    }
}

TEST(QORInfoTest, IndentationBesideElementsIsNotText) {
    QORInfo read;
    ASSERT_EQ(read.deserializeFromString("<?xml version=\"1.0\"?>\n<any>\n  <title>web 1</title>\n</any>\n"), 0);
    QORInfo expected;
    expected.add("title", "web 1");
    EXPECT_EQ(read, expected);
}

TEST(QORInfoTest, WhatIsNoDocumentIsRefusedAndChangesNothing) {
    for (const char* text : {"", "text", "<a>", "<a></b>", "<a b=></a>", "<a encoding=\"base64\">*</a>",
                             "<a><param name64=\"?\"/></a>", "<?xml version=\"1.0\"?>"}) {
        QORInfo info = document();
        EXPECT_NE(info.deserializeFromString(text), 0) << text;
        EXPECT_EQ(info, document()) << text;
    }
}

TEST(QORInfoTest, EntitiesOfADocumentTypeAreNotExpanded) {
    QORInfo info;
    const int result = info.deserializeFromString("<!DOCTYPE a [<!ENTITY b \"expanded\">]><a><p>&b;</p></a>");
    if (result == 0) {
        EXPECT_EQ(info.getParameterByPath("p"), "&b;");
    }
}

TEST(QORInfoTest, DepthIsBoundedWhenBuilding) {
    EXPECT_EQ(nested(QORInfo::maxDepth).depth(), QORInfo::maxDepth);
    EXPECT_THROW(nested(QORInfo::maxDepth + 1), QORException);
}

TEST(QORInfoTest, DepthIsBoundedWhenReading) {
    const QORInfo deepest = nested(QORInfo::maxDepth);
    QORInfo read;
    EXPECT_EQ(read.deserializeFromString(deepest.serializeToString()), 0);
    EXPECT_EQ(read, deepest);
    std::string hostile;
    for (int i = 0; i < 100000; ++i)
        hostile += "<p>";
    for (int i = 0; i < 100000; ++i)
        hostile += "</p>";
    EXPECT_NE(read.deserializeFromString(hostile), 0);
    EXPECT_EQ(read, deepest);
}

TEST(QORInfoTest, MovingTakesTheTreeAlong) {
    QORInfo info = document();
    const QORInfo* package = info.getParameter("package");
    const QORInfo moved = std::move(info);
    EXPECT_EQ(moved.getParameter("package"), package);
}

TEST(QORInfoTest, ADocumentEndsBehindItsRootElement) {
    using namespace std::string_literals;
    const std::pair<std::string, std::optional<std::size_t>> cases[] = {
        {"<info/>", 7},
        {"<info></info>", 13},
        {"<info/>x", 7},
        {"<info/>\0</info>"s, 7},
        {"<info/><info/>", 7},
        {"<info/> \n<!-- a --><?b?>", 24},
        {"<info/> x", 7},
        {"<info/> <!-- a", 7},
        {"<?xml version='1.0'?><!-- <info/> --> <a:b\xC3\xA9/>", 46},
        {"\xEF\xBB\xBF<info/>", 10},
        {"<info a=\"/>\" b='>'></info >!", 27},
        {"<info><![CDATA[</info>]]><!--</info>--><?p </info>?></info>", 59},
        {"<info><a>x</a><a/></info>", 25},
        {"", std::nullopt},
        {"x<info/>", std::nullopt},
        {"<", std::nullopt},
        {"<info", std::nullopt},
        {"<info>", std::nullopt},
        {"<info/", std::nullopt},
        {"<info></inf", std::nullopt},
        {"<info></info", std::nullopt},
        {"<info></other>", std::nullopt},
        {"<info><a></info></a>", std::nullopt},
        {"<info a=\"></info>", std::nullopt},
        {"<info><!-- </info>", std::nullopt},
        {"</info>", std::nullopt},
        {"<info <a/></info>", std::nullopt},
        {"\0<info/>"s, std::nullopt},
    };
    for (const auto& [text, length] : cases)
        EXPECT_EQ(QORInfo::documentLength(text), length) << text;
}

TEST(QORInfoTest, ADocumentDeeperThanAnyHasNoLength) {
    for (const std::size_t depth : {QORInfo::maxDepth, QORInfo::maxDepth + 1}) {
        std::string text = "<info>";
        for (std::size_t i = 0; i < depth; ++i)
            text += "<p>";
        for (std::size_t i = 0; i < depth; ++i)
            text += "</p>";
        text += "</info>";
        EXPECT_EQ(QORInfo::documentLength(text).has_value(), depth == QORInfo::maxDepth);
        EXPECT_EQ(QORInfo().deserializeFromString(text) == 0, depth == QORInfo::maxDepth);
    }
}

TEST(QORInfoTest, ADocumentIsFoundInFrontOfAnythingAndNeverInAPartOfItself) {
    std::mt19937 random(20240601);
    using namespace std::string_literals;
    const std::string bytes = "\0<>/ainfo\xC3 \"'!-?[]"s;
    for (int round = 0; round < 300; ++round) {
        const std::string text = randomTree(random).serializeToString();
        std::string behind(random() % 20, '\0');
        for (char& c : behind)
            c = bytes[random() % bytes.size()];
        const auto length = QORInfo::documentLength(text + behind);
        ASSERT_TRUE(length.has_value()) << text + behind;
        EXPECT_TRUE(*length == text.size() || *length == text.size() + behind.size()) << text + behind;
        for (std::size_t cut = 0; cut < text.size(); ++cut)
            ASSERT_EQ(QORInfo::documentLength(std::string_view(text).substr(0, cut)), std::nullopt)
                << text << ' ' << cut;
    }
}

}  // namespace
}  // namespace QOR
