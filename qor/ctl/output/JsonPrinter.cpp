#include "output/JsonPrinter.h"

#include "QORCommon/QORText.h"

namespace QOR {
namespace {

void appendBinary(std::string_view bytes, std::string& out) {
    out += "{\"base64\":\"";
    appendBase64(bytes, out);
    out += "\"}";
}

void appendEscaped(char c, std::string& out) {
    switch (c) {
        case '"':
            out += "\\\"";
            return;
        case '\\':
            out += "\\\\";
            return;
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            break;
    }
    constexpr std::string_view digits = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    out += "\\u00";
    out += digits[byte >> 4U];
    out += digits[byte & 15U];
}

constexpr bool isPlain(char c) {
    return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\';
}

/// \pre UTF-8
void appendString(std::string_view text, std::string& out) {
    out += '"';
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = at;
        while (end < text.size() && isPlain(text[end]))
            ++end;
        out.append(text, at, end - at);
        if (end < text.size()) appendEscaped(text[end++], out);
        at = end;
    }
    out += '"';
}

}  // namespace

void appendJsonText(std::string_view text, std::string& out) {
    if (isUtf8(text))
        appendString(text, out);
    else
        appendBinary(text, out);
}

void JsonPrinter::begin(std::span<const std::string> names) {
    for (const std::string& name : names) {
        std::string member;
        // A member's name is a string in any case; what is not UTF-8 is shown as people see it.
        appendString(isUtf8(name) ? name : quoteText(name), member);
        m_members.push_back(member + ":");
    }
    m_out << (m_withCounts ? "{\"rows\":[" : "[");
}

void JsonPrinter::row(std::span<const Cell> cells) {
    std::string& buffer = m_out.buffer();
    buffer += m_any ? ",\n{" : "\n{";
    m_any = true;
    for (std::size_t at = 0; at < cells.size(); ++at) {
        if (at > 0) buffer += ',';
        buffer += m_members[at];
        if (cells[at].kind == Cell::Kind::Null)
            buffer += "null";
        else if (cells[at].kind == Cell::Kind::Binary)
            appendBinary(cells[at].bytes, buffer);
        else
            appendJsonText(cells[at].bytes, buffer);
    }
    buffer += '}';
    m_out.settle();
}

void JsonPrinter::end(const std::optional<RowCounts>& counts) {
    m_out << (m_any ? "\n]" : "]");
    if (m_withCounts) {
        const RowCounts known = counts.value_or(RowCounts{});
        m_out << ",\"count\":" << std::to_string(known.rows) << ",\"total\":" << std::to_string(known.total) << "}";
    }
    m_out << "\n";
}

}  // namespace QOR
