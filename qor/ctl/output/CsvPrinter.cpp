#include "output/CsvPrinter.h"

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

}  // namespace

void CsvPrinter::begin(std::span<const std::string> names) {
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

}  // namespace QOR
