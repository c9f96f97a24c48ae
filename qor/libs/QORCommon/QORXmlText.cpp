#include "QORCommon/QORXmlText.h"

#include <algorithm>
#include <array>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORUtf8.h"

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

constexpr std::array<std::string_view, 2> nonCharacters{"\xEF\xBF\xBE", "\xEF\xBF\xBF"};

bool isControl(char c) noexcept {
    return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
}

}  // namespace

bool isXmlName(std::string_view name) noexcept {
    if (name.empty() || !(isAlphaChar(name.front()) || name.front() == '_')) return false;
    if (isSameWord(name.substr(0, 3), "xml")) return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return isWordChar(c) || c == '-' || c == '.'; });
}

bool isXmlText(std::string_view text) noexcept {
    return std::none_of(text.begin(), text.end(), isControl) && isUtf8(text) &&
           text.find(nonCharacters[0]) == std::string_view::npos &&
           text.find(nonCharacters[1]) == std::string_view::npos;
}

std::string toXmlText(std::string_view text) {
    if (isXmlText(text)) return std::string(text);
    constexpr std::string_view hexDigits = "0123456789abcdef";
    std::string good;
    const std::string utf8 = toUtf8(text);
    for (std::string_view rest = utf8; !rest.empty();) {
        std::size_t taken = 1;
        if (isControl(rest.front())) {
            const auto byte = static_cast<unsigned char>(rest.front());
            good.append("\\x").append(1, hexDigits[byte >> 4]).append(1, hexDigits[byte & 15]);
        } else if (rest.starts_with(nonCharacters[0]) || rest.starts_with(nonCharacters[1])) {
            good += "\xEF\xBF\xBD";
            taken = nonCharacters[0].size();
        } else {
            good += rest.front();
        }
        rest.remove_prefix(taken);
    }
    return good;
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
