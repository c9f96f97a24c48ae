#include "output/JsonPrinter.h"

#include "QORCommon/QORJsonNumber.h"
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

void appendJsonValue(const Cell& cell, QORColumnKind kind, std::string& out) {
    const bool mayBeNumber = kind == QORColumnKind::Integer || kind == QORColumnKind::Number;
    if (cell.kind == Cell::Kind::Null)
        out += "null";
    else if (cell.kind == Cell::Kind::Binary)
        appendBinary(cell.bytes, out);
    else if (mayBeNumber && isJsonNumber(cell.bytes))
        out += cell.bytes;
    else
        appendJsonText(cell.bytes, out);
}

void JsonObjects::begin(std::span<const std::string> names, const ColumnKinds& kinds) {
    m_kinds = kindsOf(names, kinds);
    for (const std::string& name : names) {
        std::string member;
        // A member's name is a string in any case; what is not UTF-8 is shown as people see it.
        appendJsonString(isUtf8(name) ? name : quoteText(name), member);
        m_members.push_back(member + ":");
    }
}

void JsonObjects::append(std::span<const Cell> cells, std::string& out) const {
    out += '{';
    for (std::size_t at = 0; at < cells.size(); ++at) {
        if (at > 0) out += ',';
        out += m_members[at];
        appendJsonValue(cells[at], m_kinds[at], out);
    }
    out += '}';
}

void JsonPrinter::begin(std::span<const std::string> names) {
    m_objects.begin(names, m_kinds);
    m_out << (m_withCounts ? "{\"rows\":[" : "[");
}

void JsonPrinter::row(std::span<const Cell> cells) {
    m_out.buffer() += m_any ? ",\n" : "\n";
    m_any = true;
    m_objects.append(cells, m_out.buffer());
    m_out.settle();
}

void NdjsonPrinter::row(std::span<const Cell> cells) {
    m_objects.append(cells, m_out.buffer());
    m_out.buffer() += '\n';
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
