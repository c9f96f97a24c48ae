#include "QORPager/QORExpressionText.h"

#include <cstring>
#include <limits>
#include <stdexcept>

namespace QOR {
namespace {

/// A number read from the beginning of a text as strtol reads it in base 10.
struct Prefix {
    std::int64_t value = 0;
    std::size_t length = 0;  ///< bytes read; 0 when there are no digits
};

Prefix readPrefix(std::string_view text) noexcept {
    constexpr auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    std::size_t at = 0;
    while (at < text.size() && isSpaceChar(text[at]))
        ++at;
    bool negative = false;
    if (at < text.size() && (text[at] == '-' || text[at] == '+')) negative = text[at++] == '-';
    const std::size_t firstDigit = at;
    const std::uint64_t limit = most + (negative ? 1 : 0);
    std::uint64_t magnitude = 0;
    for (; at < text.size() && isDigitChar(text[at]); ++at) {
        const auto digit = static_cast<std::uint64_t>(text[at] - '0');
        magnitude = magnitude > (limit - digit) / 10 ? limit : magnitude * 10 + digit;
    }
    if (at == firstDigit) return {};
    return {static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude), at};
}

constexpr std::int32_t lowBits(std::int64_t value) noexcept {
    return wrapInteger(static_cast<std::uint32_t>(static_cast<std::uint64_t>(value)));
}

bool contains(std::string_view subject, std::string_view part) noexcept {
    if (subject.size() < part.size()) return false;
    // memmem stays linear on texts that are made to be searched badly, std::string_view::find does not.
    return memmem(subject.data(), subject.size(), part.data(), part.size()) != nullptr;
}

}  // namespace

void lowerText(char* begin, char* end) noexcept {
    for (; begin != end; ++begin)
        *begin = toLowerChar(*begin);
}

void upperText(char* begin, char* end) noexcept {
    for (; begin != end; ++begin)
        *begin = toUpperChar(*begin);
}

std::int32_t readIntegerPrefix(std::string_view text) noexcept {
    return lowBits(readPrefix(text).value);
}

std::optional<std::int32_t> readIntegerText(std::string_view text) noexcept {
    const Prefix prefix = readPrefix(text);
    if (prefix.length != text.size()) return std::nullopt;
    return lowBits(prefix.value);
}

bool matchLike(std::string_view subject, std::string_view pattern) {
    if (pattern.empty()) return false;
    const bool trailing = pattern.back() == '%';
    if (trailing) pattern.remove_suffix(1);
    const bool leading = !pattern.empty() && pattern.front() == '%';
    if (leading) pattern.remove_prefix(1);
    if (pattern.empty()) return true;
    if (leading && trailing) return contains(subject, pattern);
    if (trailing) return subject.starts_with(pattern);
    if (!leading) return subject == pattern;
    if (subject.size() < pattern.size()) {
        throw std::out_of_range("like: the subject is shorter than the pattern behind its leading wildcard");
    }
    return subject.ends_with(pattern);
}

std::int32_t powerIntegers(std::int32_t a, std::int32_t b) noexcept {
    auto base = static_cast<float>(a);
    auto exponent = static_cast<std::uint32_t>(b < 0 ? negateInteger(b) : b);
    float power = (exponent & 1U) != 0 ? base : 1.0F;
    while ((exponent >>= 1U) != 0) {
        base *= base;
        if ((exponent & 1U) != 0) power *= base;
    }
    if (b < 0) power = 1.0F / power;
    // Written so that a value that is not a number does not fit either.
    if (power > -2147483648.0F && power < 2147483648.0F) return static_cast<std::int32_t>(power);
    return std::numeric_limits<std::int32_t>::min();
}

}  // namespace QOR
