#include "output/YamlPrinter.h"

#include <algorithm>
#include <array>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORText.h"
#include "output/JsonPrinter.h"

namespace QOR {
namespace {

/// Words that mean something else than themselves, to one version of YAML or another.
constexpr std::array<std::string_view, 11> reserved{"null", "true", "false", "yes", "no", "on",
                                                    "off",  "y",    "n",     "nan", "inf"};

/// Whether a text may stand without quotes: words of letters, digits and some signs that begin with a letter.
bool isPlain(std::string_view text) {
    const auto belongs = [](char c) { return isAlphaChar(c) || isDigitChar(c) || c == '_' || c == '-' || c == '.'; };
    if (text.empty() || !isAlphaChar(text.front()) || !std::all_of(text.begin(), text.end(), belongs)) return false;
    return std::none_of(reserved.begin(), reserved.end(),
                        [&](std::string_view word) { return isSameWord(word, text); });
}

/// A JSON text is one of YAML; DEL and NEL may not stand in YAML as they are, and JSON has them so.
void appendQuoted(std::string_view text, std::string& out) {
    std::string quoted;
    appendJsonString(text, quoted);
    for (std::size_t at = 0; at < quoted.size(); ++at) {
        if (quoted[at] == '\x7f') {
            out += "\\x7F";
        } else if (quoted[at] == '\xC2' && static_cast<unsigned char>(quoted[at + 1]) < 0xA0) {
            constexpr std::string_view digits = "0123456789ABCDEF";
            const auto code = static_cast<unsigned char>(quoted[++at]);
            out += "\\x";
            out += digits[code >> 4U];
            out += digits[code & 15U];
        } else {
            out += quoted[at];
        }
    }
}

void appendText(std::string_view text, std::string& out) {
    if (isPlain(text))
        out += text;
    else
        appendQuoted(text, out);
}

}  // namespace

void YamlPrinter::begin(std::span<const std::string> names) {
    m_kindOf = kindsOf(names, m_kinds);
    for (const std::string& name : names) {
        std::string key;
        appendText(isUtf8(name) ? name : quoteText(name), key);
        m_keys.push_back(key + ": ");
    }
}

void YamlPrinter::appendValue(const Cell& cell, QORColumnKind kind, std::string& out) const {
    const bool isText = cell.kind == Cell::Kind::Text;
    if (cell.kind == Cell::Kind::Binary || (isText && !isUtf8(cell.bytes))) {
        out += "!!binary \"";
        appendBase64(cell.bytes, out);
        out += '"';
    } else if (isText && kind != QORColumnKind::Integer && kind != QORColumnKind::Number) {
        appendText(cell.bytes, out);
    } else {
        appendJsonValue(cell, kind, out);
    }
}

void YamlPrinter::row(std::span<const Cell> cells) {
    std::string& buffer = m_out.buffer();
    m_any = true;
    for (std::size_t at = 0; at < cells.size(); ++at) {
        buffer += at == 0 ? "- " : "  ";
        buffer += m_keys[at];
        appendValue(cells[at], m_kindOf[at], buffer);
        buffer += '\n';
    }
    m_out.settle();
}

void YamlPrinter::end(const std::optional<RowCounts>&) {
    if (!m_any) m_out << "[]\n";
}

}  // namespace QOR
