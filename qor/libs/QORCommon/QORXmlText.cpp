#include "QORCommon/QORXmlText.h"

#include <algorithm>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

std::string_view escapeOf(char c) {
    switch (c) {
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '&':
            return "&amp;";
        case '"':
            return "&quot;";
        case '\n':
            return "&#10;";
        case '\t':
            return "&#9;";
        default:
            return "&#13;";
    }
}

}  // namespace

bool isXmlName(std::string_view name) noexcept {
    if (name.empty() || !(isAlphaChar(name.front()) || name.front() == '_')) return false;
    if (isSameWord(name.substr(0, 3), "xml")) return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return isWordChar(c) || c == '-' || c == '.'; });
}

bool isXmlText(std::string_view text) noexcept {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 && c != '\t' && c != '\n' && c != '\r') return false;
    }
    return isUtf8(text) && text.find("\xEF\xBF\xBE") == std::string_view::npos &&
           text.find("\xEF\xBF\xBF") == std::string_view::npos;
}

void appendXmlText(std::string_view text, QORXmlPlace place, std::string& out) {
    // Readers turn bare carriage returns into line feeds, and all white space of attributes into blanks.
    const char* const escaped = place == QORXmlPlace::Attribute ? "<>&\r\"\n\t" : "<>&\r";
    for (;;) {
        const std::size_t plain = std::min(text.find_first_of(escaped), text.size());
        out.append(text, 0, plain);
        if (plain == text.size()) return;
        out += escapeOf(text[plain]);
        text.remove_prefix(plain + 1);
    }
}

}  // namespace QOR
