#include "QORLibAgent/QORInfo.h"

#include <optional>
#include <pugixml.hpp>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

constexpr std::string_view documentElement = "info";
constexpr std::string_view unnamedElement = "param";
constexpr const char* sourcePath = "qor/libs/QORLibAgent/QORInfo";

bool isNameStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool isNameByte(char c) {
    return isNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

/// Whether an element can bear the name. ASCII only: what more XML allows is not worth its table. Names that begin
/// with "xml" are XML's own.
bool isElementName(std::string_view name) {
    if (name.empty() || !isNameStart(name.front())) return false;
    for (const char c : name) {
        if (!isNameByte(c)) return false;
    }
    return name.size() < 3 || (name[0] | 0x20) != 'x' || (name[1] | 0x20) != 'm' || (name[2] | 0x20) != 'l';
}

/// Whether XML 1.0 can carry the text: UTF-8 without control characters and without U+FFFE and U+FFFF.
bool isXmlText(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r') return false;
        if (byte == 0xEF && text.size() - i >= 3 && text[i + 1] == '\xBF' &&
            (text[i + 2] == '\xBE' || text[i + 2] == '\xBF')) {
            return false;
        }
    }
    return isUtf8(text);
}

bool isBlank(std::string_view text) {
    return text.find_first_not_of(" \t\n\r") == std::string_view::npos;
}

void appendEscaped(std::string_view text, bool attribute, std::string& out) {
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            // Readers turn bare carriage returns into line feeds, and all white space of attributes into blanks.
            case '\r':
                out += "&#13;";
                break;
            case '"':
                out += attribute ? "&quot;" : "\"";
                break;
            case '\n':
                out += attribute ? "&#10;" : "\n";
                break;
            case '\t':
                out += attribute ? "&#9;" : "\t";
                break;
            default:
                out += c;
        }
    }
}

/// \param top the element is the outermost one, which may be the nameless document
std::string_view elementName(const QORInfo& info, bool top) {
    if (top && info.name().empty()) return documentElement;
    return isElementName(info.name()) ? std::string_view(info.name()) : std::string_view(unnamedElement);
}

void openElement(const QORInfo& info, bool top, std::string& out) {
    out += '<';
    out += elementName(info, top);
    if (!isElementName(info.name()) && !(top && info.name().empty())) {
        if (isXmlText(info.name())) {
            out += " name=\"";
            appendEscaped(info.name(), true, out);
        } else {
            out += " name64=\"";
            appendBase64(info.name(), out);
        }
        out += '"';
    }
    if (info.empty()) {
        out += "/>";
        return;
    }
    // Blank texts beside children would be taken for indentation.
    const bool plain = isXmlText(info.value()) && (info.children().empty() || !isBlank(info.value()));
    if (info.value().empty() || plain) {
        out += '>';
        appendEscaped(info.value(), false, out);
    } else {
        out += " encoding=\"base64\">";
        appendBase64(info.value(), out);
    }
}

void closeElement(const QORInfo& info, bool top, std::string& out) {
    if (info.empty()) return;
    out += "</";
    out += elementName(info, top);
    out += '>';
}

/// The text children of an element, joined.
std::string joinedText(const pugi::xml_node& element) {
    std::string text;
    for (const pugi::xml_node child : element.children()) {
        if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) text += child.value();
    }
    return text;
}

bool hasElements(const pugi::xml_node& element) {
    for (const pugi::xml_node child : element.children()) {
        if (child.type() == pugi::node_element) return true;
    }
    return false;
}

std::optional<std::string> nameOf(const pugi::xml_node& element) {
    if (std::string_view(element.name()) == unnamedElement) {
        if (const auto name = element.attribute("name")) return name.value();
        if (const auto name = element.attribute("name64")) return parseBase64(name.value());
    }
    return element.name();
}

/// Name and text of an element, its children left out.
std::optional<QORInfo> readElement(const pugi::xml_node& element) {
    auto name = nameOf(element);
    if (!name) return std::nullopt;
    std::string text = joinedText(element);
    if (std::string_view(element.attribute("encoding").value()) == "base64") {
        auto bytes = parseBase64(text);
        if (!bytes) return std::nullopt;
        text = std::move(*bytes);
    } else if (hasElements(element) && isBlank(text)) {
        text.clear();
    }
    return QORInfo(std::move(*name), std::move(text));
}

/// Walks the elements with a stack of its own, so that a deep document costs no stack of the thread.
std::optional<QORInfo> readTree(const pugi::xml_node& root) {
    struct Frame {
        QORInfo info;
        pugi::xml_node next;
    };
    std::vector<Frame> open;
    auto document = readElement(root);
    if (!document) return std::nullopt;
    document->setName({});
    open.push_back({std::move(*document), root.first_child()});
    for (;;) {
        pugi::xml_node& next = open.back().next;
        if (!next) {
            QORInfo done = std::move(open.back().info);
            open.pop_back();
            if (open.empty()) return done;
            open.back().info.add(std::move(done));
            continue;
        }
        const pugi::xml_node element = next;
        next = next.next_sibling();
        if (element.type() != pugi::node_element) continue;
        if (open.size() > QORInfo::maxDepth) return std::nullopt;
        auto info = readElement(element);
        if (!info) return std::nullopt;
        open.push_back({std::move(*info), element.first_child()});
    }
}

}  // namespace

QORInfo::QORInfo(std::string name, std::string value) : m_name(std::move(name)), m_value(std::move(value)) {}

QORInfo& QORInfo::add(QORInfo child) {
    if (child.m_depth >= maxDepth) {
        throw QORException(errBadRequest, "an info document is deeper than " + std::to_string(maxDepth) + " levels",
                           sourcePath, __LINE__);
    }
    if (child.m_depth >= m_depth) m_depth = child.m_depth + 1;
    m_children.push_back(std::move(child));
    return *this;
}

const QORInfo* QORInfo::getParameter(std::string_view name) const noexcept {
    for (const QORInfo& child : m_children) {
        if (child.m_name == name) return &child;
    }
    return nullptr;
}

const QORInfo* QORInfo::findByPath(std::string_view path) const noexcept {
    if (path.empty()) return nullptr;
    const QORInfo* at = this;
    for (;;) {
        const std::size_t slash = path.find('/');
        at = at->getParameter(path.substr(0, slash));
        if (at == nullptr || slash == std::string_view::npos) return at;
        path.remove_prefix(slash + 1);
    }
}

std::string QORInfo::getParameterByPath(std::string_view path) const {
    const QORInfo* parameter = findByPath(path);
    return parameter == nullptr ? std::string() : parameter->toString();
}

std::string QORInfo::toString() const {
    if (!m_children.empty()) return serializeToString();
    if (m_name.empty() && !m_value.empty()) return serializeToString();
    return m_value;
}

std::string QORInfo::serializeToString() const {
    struct Frame {
        const QORInfo* info;
        std::size_t next;
    };
    std::string out;
    std::vector<Frame> open;
    openElement(*this, true, out);
    open.push_back({this, 0});
    while (!open.empty()) {
        Frame& top = open.back();
        if (top.next == top.info->m_children.size()) {
            closeElement(*top.info, open.size() == 1, out);
            open.pop_back();
            continue;
        }
        const QORInfo& child = top.info->m_children[top.next++];
        openElement(child, false, out);
        open.push_back({&child, 0});
    }
    return out;
}

int QORInfo::deserializeFromString(std::string_view xml) {
    constexpr unsigned options =
        pugi::parse_escapes | pugi::parse_eol | pugi::parse_wconv_attribute | pugi::parse_cdata | pugi::parse_ws_pcdata;
    pugi::xml_document parsed;
    if (!parsed.load_buffer(xml.data(), xml.size(), options, pugi::encoding_utf8)) return -1;
    auto read = readTree(parsed.document_element());
    if (!read) return -1;
    *this = std::move(*read);
    return 0;
}

}  // namespace QOR
