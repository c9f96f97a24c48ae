#include "QORCommon/QORPasswords.h"

#include <algorithm>
#include <cstring>

#include "QORCommon/QORAscii.h"

namespace QOR {
namespace {

struct Span {
    std::size_t begin = std::string_view::npos;  ///< npos: there is none
    std::size_t end = 0;
};

constexpr std::string_view names[] = {"pwd", "password", "passwd", "sslpassword"};

bool isNameChar(char letter) {
    return letter == '_' || (letter >= '0' && letter <= '9') || ((letter | 32) >= 'a' && (letter | 32) <= 'z');
}

/// Whether the name in front of an equals sign is that of a password.
bool namesPassword(std::string_view text, std::size_t equals) {
    std::size_t end = equals;
    while (end > 0 && text[end - 1] == ' ')
        --end;
    std::size_t begin = end;
    while (begin > 0 && isNameChar(text[begin - 1]))
        --begin;
    const std::string_view name = text.substr(begin, end - begin);
    return std::any_of(std::begin(names), std::end(names), [&](std::string_view one) { return isSameWord(name, one); });
}

/// Where a value ends: in braces or quotes where they end, else at the next semicolon.
std::size_t endOf(std::string_view text, std::size_t begin) {
    if (begin < text.size() && (text[begin] == '{' || text[begin] == '\'')) {
        const char closing = text[begin] == '{' ? '}' : '\'';
        for (std::size_t at = begin + 1; at < text.size(); ++at) {
            if (text[at] == '\\') {
                ++at;
            } else if (text[at] == closing) {
                if (at + 1 == text.size() || text[at + 1] != closing) return at + 1;
                ++at;
            }
        }
        return text.size();
    }
    return std::min(text.find(';', begin), text.size());
}

Span nextPassword(std::string_view text, std::size_t from) {
    for (std::size_t equals = text.find('=', from); equals != std::string_view::npos;
         equals = text.find('=', equals + 1)) {
        if (!namesPassword(text, equals)) continue;
        const std::size_t begin = std::min(text.find_first_not_of(' ', equals + 1), text.size());
        return {begin, endOf(text, begin)};
    }
    return {};
}

}  // namespace

std::string withoutPasswords(std::string_view text) {
    std::string shown;
    std::size_t at = 0;
    for (Span found = nextPassword(text, 0); found.begin != std::string_view::npos; found = nextPassword(text, at)) {
        shown.append(text, at, found.begin - at) += "***";
        at = found.end;
    }
    return shown.append(text, at);
}

void hidePasswords(int count, char** arguments) noexcept {
    for (int i = 1; i < count; ++i) {
        const std::string_view text(arguments[i]);
        for (Span found = nextPassword(text, 0); found.begin != std::string_view::npos;
             found = nextPassword(text, found.end))
            std::memset(arguments[i] + found.begin, '*', found.end - found.begin);
    }
}

}  // namespace QOR
