#include "output/JsonPrinter.h"

#include "QORCommon/QORText.h"

namespace QOR {
namespace {

void appendBinary(std::string_view bytes, std::string& out) {
    out += "{\"base64\":\"";
    appendBase64(bytes, out);
    out += "\"}";
}

}  // namespace

void appendJsonText(std::string_view text, std::string& out) {
    if (isUtf8(text))
        appendJsonString(text, out);
    else
        appendBinary(text, out);
}

void JsonPrinter::begin(std::span<const std::string> names) {
    for (const std::string& name : names) {
        std::string member;
        // A member's name is a string in any case; what is not UTF-8 is shown as people see it.
        appendJsonString(isUtf8(name) ? name : quoteText(name), member);
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
