// Trees made by chance, through every form and back.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORXml.h"
#include "Trees.h"

namespace {

using QOR::QORBinaryIterator;
using QOR::QORMessage;
using QOR::test::notationOf;
using QOR::test::picture;

class RandomTree {
public:
    explicit RandomTree(unsigned seed) : m_random(seed) {}

    QORMessage make() {
        QORMessage message;
        QORBinaryIterator it = message.root();
        it.addChild(someTag());
        for (std::size_t steps = pick(200); steps > 0; --steps) {
            switch (pick(6)) {
                case 0:
                    it.addChild(someTag());
                    break;
                case 1:
                    it.putValue(someText(), someTag());
                    break;
                case 2:
                    it.putInt64(static_cast<std::int64_t>(m_random()), someTag());
                    break;
                case 3: {
                    const std::string bytes = someBytes(pick(20));
                    it.putBinary(bytes.data(), bytes.size(), someTag());
                    break;
                }
                case 4:
                    it.addChild(someTag());
                    it.seekUp();
                    break;
                default:
                    if (it.node()->depth > 1) it.seekUp();
            }
        }
        return message;
    }

private:
    std::size_t pick(std::size_t count) { return static_cast<std::size_t>(m_random()) % count; }

    QOR::QORTag someTag() {
        constexpr QOR::QORTag tags[] = {1, 1018, 1739, 1744, 2233, 999999, 1000001, 4294967295};
        return tags[pick(std::size(tags))];
    }

    std::string someBytes(std::size_t size) {
        std::string bytes(size, '\0');
        for (char& c : bytes)
            c = static_cast<char>(m_random());
        return bytes;
    }

    /// Well-formed UTF-8, so that the text stays a text.
    std::string someText() {
        constexpr const char* pieces[] = {"a",
                                          "web1",
                                          "\"",
                                          "\\",
                                          "/",
                                          "\n",
                                          "\r",
                                          "\t",
                                          "<&>",
                                          "]]>",
                                          "  ",
                                          "\x7F",
                                          "M\xC3\xBCnchen",
                                          "\xE2\x82\xAC",
                                          "\xF0\x9F\x98\x80"};
        std::string text;
        for (std::size_t count = pick(12); count > 0; --count)
            text += pieces[pick(std::size(pieces))];
        if (pick(10) == 0) text += std::string(pick(3000), 'x');
        return text;
    }

    std::mt19937_64 m_random;
};

TEST(RandomTrees, SurviveNotation) {
    for (unsigned seed = 0; seed < 500; ++seed) {
        const QORMessage message = RandomTree(seed).make();
        const std::string text = notationOf(message);
        const QORMessage copy = QOR::test::treeOf(text);
        ASSERT_EQ(picture(copy), picture(message)) << seed;
        ASSERT_EQ(notationOf(copy), text) << seed;
    }
}

TEST(RandomTrees, SurviveXml) {
    for (unsigned seed = 0; seed < 500; ++seed) {
        const QORMessage message = RandomTree(seed).make();
        for (const bool indent : {false, true}) {
            std::string xml;
            writeXml(*message.rootNode(), xml, {.declaration = indent, .indent = indent});
            QORMessage copy;
            readXml(xml, copy);
            ASSERT_EQ(picture(copy), picture(message)) << seed << "\n" << xml;
        }
    }
}

TEST(RandomTrees, SurviveAnEnvelope) {
    for (unsigned seed = 0; seed < 100; ++seed) {
        QOR::QORRequestEnvelope request{"pager2", "select", RandomTree(seed).make(), std::nullopt};
        std::string text;
        writeRequest(request, text);
        ASSERT_EQ(picture(QOR::readRequest(text).body), picture(request.body)) << seed;
    }
}

}  // namespace
