#include <vector>

#include "QORCommon/QORAscii.h"
#include "QORLibAgent/QORInfo.h"

namespace QOR {
namespace {

/// Finds the end of a root element by its tags. Each step moves past something whole or fails for good.
class TagScanner {
public:
    explicit TagScanner(std::string_view text) : m_text(text) {}

    std::optional<std::size_t> run() {
        if (m_text.substr(0, byteOrderMark.size()) == byteOrderMark) m_at = byteOrderMark.size();
        while (m_open.empty() && !m_rootEnded) {
            if (!passOutside()) return std::nullopt;
        }
        while (!m_rootEnded) {
            if (!passInside()) return std::nullopt;
        }
        const std::size_t end = m_at;
        while (m_at < m_text.size()) {
            if (!passBlank() && !passMarkup("<!--", "-->") && !passMarkup("<?", "?>")) return end;
        }
        return m_text.size();
    }

private:
    static constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

    bool at(std::string_view what) const { return m_text.substr(m_at, what.size()) == what; }
    static bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

    bool passBlank() {
        if (m_at == m_text.size() || !isBlank(m_text[m_at])) return false;
        ++m_at;
        return true;
    }

    /// What stands between two marks.
    bool passMarkup(std::string_view from, std::string_view to) {
        if (!at(from)) return false;
        const std::size_t end = m_text.find(to, m_at + from.size());
        if (end == std::string_view::npos) return false;
        m_at = end + to.size();
        return true;
    }

    /// Before the root element.
    bool passOutside() {
        return passBlank() || passMarkup("<!--", "-->") || passMarkup("<?", "?>") || passOpeningTag();
    }

    /// Within the root element: up to the next tag, and past it.
    bool passInside() {
        const std::size_t tag = m_text.find('<', m_at);
        if (tag == std::string_view::npos) return false;
        m_at = tag;
        if (at("<!--")) return passMarkup("<!--", "-->");
        if (at("<![CDATA[")) return passMarkup("<![CDATA[", "]]>");
        if (at("<?")) return passMarkup("<?", "?>");
        return at("</") ? passClosingTag() : passOpeningTag();
    }

    std::string_view passName() {
        const std::size_t from = m_at;
        while (m_at < m_text.size() && isNamePart(m_text[m_at]))
            ++m_at;
        return m_text.substr(from, m_at - from);
    }
    static bool isNamePart(char c) {
        return isWordChar(c) || c == '-' || c == '.' || c == ':' || static_cast<unsigned char>(c) >= 0x80;
    }

    /// Quoted values may hold what ends a tag.
    bool passOpeningTag() {
        if (!at("<") || m_open.size() > QORInfo::maxDepth) return false;
        ++m_at;
        const std::string_view name = passName();
        if (name.empty()) return false;
        while (m_at < m_text.size()) {
            const char c = m_text[m_at];
            if (c == '>' || c == '/') return endOpeningTag(name);
            if (c == '<') return false;
            if (c != '"' && c != '\'') {
                ++m_at;
                continue;
            }
            const std::size_t end = m_text.find(c, m_at + 1);
            if (end == std::string_view::npos) return false;
            m_at = end + 1;
        }
        return false;
    }

    bool endOpeningTag(std::string_view name) {
        const bool empty = m_text[m_at] == '/';
        if (empty && !at("/>")) return false;
        m_at += empty ? 2 : 1;
        if (!empty) m_open.push_back(name);
        m_rootEnded = m_open.empty();
        return true;
    }

    bool passClosingTag() {
        m_at += 2;
        if (passName() != m_open.back()) return false;
        while (passBlank()) {
        }
        if (!at(">")) return false;
        ++m_at;
        m_open.pop_back();
        m_rootEnded = m_open.empty();
        return true;
    }

    std::string_view m_text;
    std::size_t m_at = 0;
    bool m_rootEnded = false;
    std::vector<std::string_view> m_open;  // at most as deep as a document may be
};

}  // namespace

std::optional<std::size_t> QORInfo::documentLength(std::string_view text) {
    return TagScanner(text).run();
}

}  // namespace QOR
