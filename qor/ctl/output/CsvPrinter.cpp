#include "output/CsvPrinter.h"

#include <algorithm>

#include "QORCommon/QORText.h"

namespace QOR {
namespace {

constexpr std::string_view lineEnd = "\r\n";

/// An empty text is quoted, since an empty field is a null.
void appendField(std::string_view text, std::string& out) {
    if (!text.empty() && text.find_first_of(",\"\r\n") == std::string_view::npos) {
        out += text;
        return;
    }
    out += '"';
    for (std::size_t at = 0;;) {
        const std::size_t quote = text.find('"', at);
        out += text.substr(at, quote - at);
        if (quote == std::string_view::npos) break;
        out += "\"\"";
        at = quote + 1;
    }
    out += '"';
}

void appendEscaped(std::string_view text, std::string& out) {
    constexpr std::string_view special = "\\\t\n\r";
    constexpr std::string_view letters = "\\tnr";
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t next = std::min(text.find_first_of(special, at), text.size());
        out += text.substr(at, next - at);
        if (next < text.size()) {
            out += '\\';
            out += letters[special.find(text[next])];
        }
        at = next + 1;
    }
}

}  // namespace

void CsvPrinter::begin(std::span<const std::string> names) {
    if (!m_header) return;
    std::string& buffer = m_out.buffer();
    for (std::size_t at = 0; at < names.size(); ++at) {
        if (at > 0) buffer += ',';
        appendField(names[at], buffer);
    }
    buffer += lineEnd;
}

void CsvPrinter::row(std::span<const Cell> cells) {
    std::string& buffer = m_out.buffer();
    for (std::size_t at = 0; at < cells.size(); ++at) {
        if (at > 0) buffer += ',';
        if (cells[at].kind == Cell::Kind::Text)
            appendField(cells[at].bytes, buffer);
        else if (cells[at].kind == Cell::Kind::Binary && cells[at].bytes.empty())
            buffer += "\"\"";
        else
            appendBase64(cells[at].bytes, buffer);  // of a null: nothing
    }
    buffer += lineEnd;
    m_out.settle();
}

void CsvPrinter::end(const std::optional<RowCounts>&) {}

void TsvPrinter::begin(std::span<const std::string> names) {
    if (!m_header) return;
    std::string& buffer = m_out.buffer();
    for (std::size_t at = 0; at < names.size(); ++at) {
        if (at > 0) buffer += '\t';
        appendEscaped(names[at], buffer);
    }
    buffer += '\n';
}

void TsvPrinter::row(std::span<const Cell> cells) {
    std::string& buffer = m_out.buffer();
    for (std::size_t at = 0; at < cells.size(); ++at) {
        if (at > 0) buffer += '\t';
        if (cells[at].kind == Cell::Kind::Null)
            buffer += "\\N";
        else if (cells[at].kind == Cell::Kind::Binary)
            appendBase64(cells[at].bytes, buffer);
        else
            appendEscaped(cells[at].bytes, buffer);
    }
    buffer += '\n';
    m_out.settle();
}

}  // namespace QOR
