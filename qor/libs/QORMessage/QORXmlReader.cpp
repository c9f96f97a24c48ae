#include <charconv>
#include <optional>
#include <pugixml.hpp>
#include <string>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORXml.h"

namespace QOR {
namespace {

[[noreturn]] void refuseAt(std::size_t offset, const std::string& text) {
    throw QORException(errBadRequest, "invalid XML at byte " + std::to_string(offset) + ": " + text, QOR_SOURCE_PATH);
}

[[noreturn]] void refuseDepth(std::size_t offset, const QORMessageLimits& limits) {
    refuseAt(offset, "elements are nested deeper than " + std::to_string(limits.depth) + " levels");
}

[[noreturn]] void refuseCount(std::size_t offset, const QORMessageLimits& limits) {
    refuseAt(offset, "there are more than " + std::to_string(limits.nodes) + " elements");
}

bool isXmlCharacter(std::uint32_t c) {
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
           (c >= 0x10000 && c <= 0x10FFFF);
}

/// Looks through the text before it is parsed, for what the parser lets pass (references to entities that nobody
/// declared, characters that XML does not have) and for the limits, which have to hold before memory is spent on a
/// document tree. What is well-formed is the parser's to say.
class Inspector {
public:
    Inspector(std::string_view xml, const QORMessageLimits& limits, std::size_t nodesLeft)
        : m_xml(xml), m_limits(limits), m_nodesLeft(nodesLeft) {}

    void run() {
        if (const std::size_t good = utf8Prefix(m_xml); good < m_xml.size()) refuseAt(good, "the text is not UTF-8");
        while (m_at < m_xml.size()) {
            const char c = m_xml[m_at];
            if (c == '<') {
                skipMarkup();
            } else {
                checkCharacter();
            }
        }
    }

private:
    bool startsWith(std::string_view prefix) const { return m_xml.substr(m_at, prefix.size()) == prefix; }

    /// Behind the next `end`; refuses the text when there is none.
    void skipPast(std::string_view end) {
        const std::size_t found = m_xml.find(end, m_at);
        if (found == std::string_view::npos) refuseAt(m_at, "this has no end");
        const std::size_t stop = found + end.size();
        while (m_at < stop)
            checkPlain();
    }

    void skipMarkup() {
        if (startsWith("<!--")) return skipPast("-->");
        if (startsWith("<![CDATA[")) return skipPast("]]>");
        if (startsWith("<?")) return skipPast("?>");
        if (startsWith("<!")) refuseAt(m_at, "document types are not accepted");
        if (startsWith("</")) {
            if (m_depth > 0) --m_depth;
            return skipPast(">");
        }
        skipStartTag();
    }

    void skipStartTag() {
        const std::size_t start = m_at++;
        if (++m_depth > m_limits.depth) refuseDepth(start, m_limits);
        if (m_nodesLeft-- == 0) refuseCount(start, m_limits);
        char quote = 0;
        while (m_at < m_xml.size()) {
            const char c = m_xml[m_at];
            if (quote == 0 && c == '>') {
                if (m_xml[m_at - 1] == '/') --m_depth;
                ++m_at;
                return;
            }
            if (quote == 0 && (c == '"' || c == '\'')) {
                quote = c;
            } else if (c == quote) {
                quote = 0;
            }
            checkCharacter();
        }
    }

    /// One character outside of comments and the like; a reference counts as one.
    void checkCharacter() { m_xml[m_at] == '&' ? checkReference() : checkPlain(); }

    void checkPlain() {
        const auto byte = static_cast<unsigned char>(m_xml[m_at]);
        // U+FFFE and U+FFFF begin with 0xEF; all other code points that are UTF-8 and not controls are XML's too.
        if ((byte < 0x20 && !isXmlCharacter(byte)) ||
            (byte == 0xEF && (startsWith("\xEF\xBF\xBE") || startsWith("\xEF\xBF\xBF")))) {
            refuseAt(m_at, "this character is not allowed in XML");
        }
        ++m_at;
    }

    void checkReference() {
        constexpr std::size_t longest = 12;
        const std::size_t length = m_xml.substr(m_at, longest).find(';');
        if (length == std::string_view::npos) refuseAt(m_at, "a reference has no end; write &amp; for &");
        const std::string_view name = m_xml.substr(m_at + 1, length - 1);
        const bool known = name == "lt" || name == "gt" || name == "amp" || name == "quot" || name == "apos";
        if (!known && !isCharacterNumber(name)) refuseAt(m_at, "unknown entity " + quoteText(name));
        m_at += length + 1;
    }

    static bool isCharacterNumber(std::string_view name) {
        if (name.empty() || name.front() != '#') return false;
        name.remove_prefix(1);
        const bool hex = !name.empty() && name.front() == 'x';
        if (hex) name.remove_prefix(1);
        std::uint32_t number = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number, hex ? 16 : 10);
        return error == std::errc() && end == name.data() + name.size() && isXmlCharacter(number);
    }

    const std::string_view m_xml;
    const QORMessageLimits& m_limits;
    std::size_t m_nodesLeft;
    std::size_t m_at = 0;
    std::uint32_t m_depth = 0;
};

bool isBlank(std::string_view text) {
    return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

bool isText(const pugi::xml_node& node) {
    return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
}

pugi::xml_node firstElement(pugi::xml_node node) {
    while (node && node.type() != pugi::node_element)
        node = node.next_sibling();
    return node;
}

std::size_t offsetOf(const pugi::xml_node& node) {
    return static_cast<std::size_t>(node.offset_debug());
}

/// Turns the parser's document into elements.
class ElementBuilder {
public:
    ElementBuilder(std::string_view xml, QORMessage& out) : m_xml(xml), m_message(out), m_at(out.root()) {}

    void build(const pugi::xml_node& top) {
        pugi::xml_node node = top;
        for (;;) {
            open(node);
            const pugi::xml_node child = firstElement(node.first_child());
            if (child) {
                node = child;
                continue;
            }
            pugi::xml_node next;
            m_at.seekUp();
            while (node != top && !(next = firstElement(node.next_sibling()))) {
                node = node.parent();
                m_at.seekUp();
            }
            if (node == top) return;
            node = next;
        }
    }

private:
    struct Attributes {
        std::optional<QORTag> id;
        bool base64 = false;
    };

    void open(const pugi::xml_node& node) {
        const Attributes attributes = readAttributes(node);
        if (m_at.addChild(tagOf(node, attributes)) != 0) refuseNode(node);
        const bool hasElements = static_cast<bool>(firstElement(node.first_child()));
        std::string text;
        for (const pugi::xml_node& child : node.children()) {
            if (!isText(child)) continue;
            if (hasElements && !isBlank(child.value())) refuseAt(offsetOf(child), "a text stands between elements");
            text += child.value();
        }
        if (hasElements) {
            if (attributes.base64) refuseAt(offsetOf(node), "an element with elements in it has no encoding");
            return;
        }
        if (attributes.base64) {
            putBinary(node, text);
        } else if (!text.empty() || !isClosedAtOnce(node)) {
            if (m_at.putValue(text) != 0) refuseBytes(node);
        }
    }

    static Attributes readAttributes(const pugi::xml_node& node) {
        Attributes result;
        for (const pugi::xml_attribute& attribute : node.attributes()) {
            const std::string_view name = attribute.name();
            const std::string_view value = attribute.value();
            if (name == "id" && node.name() == std::string_view("tag") && !result.id) {
                QORTag id = 0;
                const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), id);
                if (error != std::errc() || end != value.data() + value.size() || id == 0) {
                    refuseAt(offsetOf(node), quoteText(value) + " is not a whole number from 1 to 4294967295");
                }
                result.id = id;
            } else if (name == "encoding" && value == "base64" && !result.base64) {
                result.base64 = true;
            } else {
                refuseAt(offsetOf(node), "attribute " + quoteText(name) + " has no place here");
            }
        }
        return result;
    }

    static QORTag tagOf(const pugi::xml_node& node, const Attributes& attributes) {
        if (attributes.id) return *attributes.id;
        const auto id = QORTagDictionary::instance().find(node.name());
        if (!id) refuseAt(offsetOf(node), "unknown element " + quoteText(node.name()));
        return *id;
    }

    void putBinary(const pugi::xml_node& node, std::string& text) {
        std::erase_if(text, [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
        const auto bytes = parseBase64(text);
        if (!bytes) refuseAt(offsetOf(node), "the text is not base64");
        if (m_at.putBinary(bytes->data(), bytes->size()) != 0) refuseBytes(node);
    }

    /// True for `<name/>`, which has no value, where `<name></name>` has the empty text. The document does not tell
    /// them apart, the text does.
    bool isClosedAtOnce(const pugi::xml_node& node) const {
        char quote = 0;
        for (std::size_t at = offsetOf(node); at < m_xml.size(); ++at) {
            const char c = m_xml[at];
            if (quote == 0 && c == '>') return m_xml[at - 1] == '/';
            if (quote == 0 && (c == '"' || c == '\'')) {
                quote = c;
            } else if (c == quote) {
                quote = 0;
            }
        }
        return false;
    }

    [[noreturn]] void refuseNode(const pugi::xml_node& node) const {
        if (m_at.node()->depth >= m_message.limits().depth) refuseDepth(offsetOf(node), m_message.limits());
        refuseMemory(node);
        refuseCount(offsetOf(node), m_message.limits());
    }

    void refuseMemory(const pugi::xml_node& node) const {
        if (!m_message.refusal().empty()) refuseAt(offsetOf(node), m_message.refusal());
    }

    [[noreturn]] void refuseBytes(const pugi::xml_node& node) const {
        refuseMemory(node);
        refuseAt(offsetOf(node),
                 "the values are larger than " + std::to_string(m_message.limits().bytes) + " bytes together");
    }

    const std::string_view m_xml;
    QORMessage& m_message;
    QORBinaryIterator m_at;
};

/// The one element of the document; refuses texts and elements beside it.
pugi::xml_node topElement(const pugi::xml_document& document, std::size_t size) {
    pugi::xml_node top;
    for (const pugi::xml_node& node : document.children()) {
        if (isText(node) && !isBlank(node.value())) refuseAt(offsetOf(node), "a text stands outside of the element");
        if (node.type() != pugi::node_element) continue;
        if (top) refuseAt(offsetOf(node), "there is more than one element");
        top = node;
    }
    if (!top) refuseAt(size, "there is no element");
    return top;
}

}  // namespace

void readXml(std::string_view xml, QORMessage& out) {
    Inspector(xml, out.limits(), out.limits().nodes - out.nodeCount()).run();
    pugi::xml_document document;
    constexpr unsigned flags = pugi::parse_cdata | pugi::parse_escapes | pugi::parse_eol | pugi::parse_ws_pcdata |
                               pugi::parse_fragment | pugi::parse_wconv_attribute;
    const pugi::xml_parse_result result = document.load_buffer(xml.data(), xml.size(), flags, pugi::encoding_utf8);
    if (!result) refuseAt(static_cast<std::size_t>(result.offset), result.description());
    QORBinaryIterator root = out.root();
    const auto* const mark = root.mark();
    try {
        ElementBuilder(xml, out).build(topElement(document, xml.size()));
    } catch (...) {
        root.dropChildrenAfter(mark);
        throw;
    }
}

}  // namespace QOR
