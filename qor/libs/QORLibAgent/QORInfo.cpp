#include "QORLibAgent/QORInfo.h"

#include <optional>
#include <pugixml.hpp>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORXmlText.h"

namespace QOR {
namespace {

constexpr std::string_view documentElement = "info";
constexpr std::string_view unnamedElement = "param";

bool isBlank(std::string_view text) {
    return text.find_first_not_of(" \t\n\r") == std::string_view::npos;
}

/// \param top the element is the outermost one, which may be the nameless document
std::string_view elementName(const QORInfo& info, bool top) {
    if (top && info.name().empty()) return documentElement;
    return isXmlName(info.name()) ? std::string_view(info.name()) : std::string_view(unnamedElement);
}

void openElement(const QORInfo& info, bool top, std::string& out) {
    out += '<';
    out += elementName(info, top);
    if (!isXmlName(info.name()) && !(top && info.name().empty())) {
        if (isXmlText(info.name())) {
            out += " name=\"";
            appendXmlText(info.name(), QORXmlPlace::Attribute, out);
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
        appendXmlText(info.value(), QORXmlPlace::Element, out);
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
                           QOR_SOURCE_PATH, __LINE__);
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
