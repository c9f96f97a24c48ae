/// \file
/// What the filter language does with bytes: case, numbers in texts, patterns, and arithmetic.
/// The value classes and the compiled programs share these, so that there is one definition of each.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORAscii.h"

namespace QOR {

void lowerText(char* begin, char* end) noexcept;
void upperText(char* begin, char* end) noexcept;

/// The C library's atoi, defined for every text: leading white space, a sign and digits are read, what follows is
/// ignored, no digits are 0; beyond 64 bits the number saturates, then its low 32 bits are taken.
std::int32_t readIntegerPrefix(std::string_view text) noexcept;
std::optional<std::int32_t> readIntegerText(std::string_view text) noexcept;

/// Most numbers in rows are a few digits and nothing else; those are read here. \returns -1 for any other text
constexpr std::int32_t readFewDigits(std::string_view text) noexcept {
    constexpr std::size_t most = 9;  // what always fits
    if (text.empty() || text.size() > most) return -1;
    std::int32_t number = 0;
    for (const char ch : text) {
        if (!isDigitChar(ch)) return -1;
        number = number * 10 + (ch - '0');
    }
    return number;
}

inline std::int32_t readInteger(std::string_view text) noexcept {
    const std::int32_t few = readFewDigits(text);
    return few >= 0 ? few : readIntegerPrefix(text);
}

/// The same number when nothing follows it, or when the text is empty (0); otherwise nothing.
inline std::optional<std::int32_t> readWholeInteger(std::string_view text) noexcept {
    const std::int32_t few = readFewDigits(text);
    return few >= 0 ? std::optional<std::int32_t>(few) : readIntegerText(text);
}

/// Whether the subject matches the pattern, in which "%" is a wildcard as the last or the first character and nowhere
/// else. Case-sensitive. An empty pattern matches nothing, "%" and "%%" match everything.
/// \throws std::out_of_range when the pattern has a leading wildcard only and the rest of it is longer than the subject
bool matchLike(std::string_view subject, std::string_view pattern);

/// Integer arithmetic of 32 bits in two's complement: it wraps and never traps. divideIntegers truncates toward zero;
/// its divisor is not 0.
constexpr std::int32_t wrapInteger(std::uint32_t bits) noexcept {
    return static_cast<std::int32_t>(bits);
}
constexpr std::int32_t negateInteger(std::int32_t a) noexcept {
    return wrapInteger(0U - static_cast<std::uint32_t>(a));
}
constexpr std::int32_t addIntegers(std::int32_t a, std::int32_t b) noexcept {
    return wrapInteger(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}
constexpr std::int32_t subtractIntegers(std::int32_t a, std::int32_t b) noexcept {
    return wrapInteger(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}
constexpr std::int32_t multiplyIntegers(std::int32_t a, std::int32_t b) noexcept {
    return wrapInteger(static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b));
}
constexpr std::int32_t divideIntegers(std::int32_t a, std::int32_t b) noexcept {
    return b == -1 ? negateInteger(a) : a / b;
}

/// a to the b-th power by repeated squaring in single precision, truncated toward zero; what does not fit is
/// -2147483648. Results above 2^24 lose precision on purpose.
std::int32_t powerIntegers(std::int32_t a, std::int32_t b) noexcept;

}  // namespace QOR
