/// \file
/// Classes of characters and the case of letters as ASCII has them, whatever the process's locale is. Bytes above 127
/// are in no class and have no case, so that texts of UTF-8 stay whole.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace QOR {

constexpr bool isSpaceChar(char ch) noexcept {
    return ch == ' ' || (ch >= '\t' && ch <= '\r');
}
constexpr bool isDigitChar(char ch) noexcept {
    return ch >= '0' && ch <= '9';
}
constexpr bool isUpperChar(char ch) noexcept {
    return ch >= 'A' && ch <= 'Z';
}
constexpr bool isLowerChar(char ch) noexcept {
    return ch >= 'a' && ch <= 'z';
}
constexpr bool isAlphaChar(char ch) noexcept {
    return isUpperChar(ch) || isLowerChar(ch);
}
/// A letter, a digit or '_'.
constexpr bool isWordChar(char ch) noexcept {
    return isAlphaChar(ch) || isDigitChar(ch) || ch == '_';
}
constexpr char toLowerChar(char ch) noexcept {
    return isUpperChar(ch) ? static_cast<char>(ch + ('a' - 'A')) : ch;
}
constexpr char toUpperChar(char ch) noexcept {
    return isLowerChar(ch) ? static_cast<char>(ch - ('a' - 'A')) : ch;
}

inline std::string toLowerText(std::string_view text) {
    std::string lowered(text);
    for (char& ch : lowered)
        ch = toLowerChar(ch);
    return lowered;
}

/// Whether the texts differ in the case of letters at most.
constexpr bool isSameWord(std::string_view a, std::string_view b) noexcept {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return toLowerChar(x) == toLowerChar(y); });
}

}  // namespace QOR
