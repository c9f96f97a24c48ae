#include "QORCommon/QORNumbers.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <system_error>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

/// std::from_chars takes a minus sign but no plus sign; this drops one that a digit (or a point) follows.
std::string_view withoutPlus(std::string_view text) {
    if (text.size() > 1 && text[0] == '+' && (isDigitChar(text[1]) || text[1] == '.')) text.remove_prefix(1);
    return text;
}

template <class Integer>
std::optional<Integer> parseInteger(std::string_view text) noexcept {
    text = withoutPlus(text);
    Integer value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

[[noreturn]] void refuse(std::string_view text, const char* type) {
    throw QORException(errBadRequest, quoteText(text) + " is not " + type);
}

/// A well-formed number that from_chars found too large or too small for the type: what is too small is 0, what is too
/// large is no number of the type. The decimal place of the first digit that is not 0 tells them apart.
std::optional<double> roundExtreme(std::string_view text) noexcept {
    const std::size_t e = std::min(text.find_first_of("eE"), text.size());
    const std::string_view mantissa = text.substr(0, e);
    std::int64_t exponent = 0;
    if (e < text.size()) {
        const std::string_view digits = withoutPlus(text.substr(e + 1));
        const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), exponent);
        constexpr std::int64_t beyondAnyText = std::int64_t{1} << 62;
        if (read.ec != std::errc()) exponent = digits.front() == '-' ? -beyondAnyText : beyondAnyText;
    }
    const auto point = static_cast<std::int64_t>(std::min(mantissa.find('.'), mantissa.size()));
    const auto digit = static_cast<std::int64_t>(mantissa.find_first_of("123456789"));
    if (point - digit + exponent > 0) return std::nullopt;
    return text.front() == '-' ? -0.0 : 0.0;
}

}  // namespace

std::optional<std::int32_t> parseInt32(std::string_view text) noexcept {
    return parseInteger<std::int32_t>(text);
}

std::optional<std::int64_t> parseInt64(std::string_view text) noexcept {
    return parseInteger<std::int64_t>(text);
}

std::optional<double> parseDouble(std::string_view text) noexcept {
    text = withoutPlus(text);
    // Words such as "inf" and "nan", which from_chars knows, are no decimal numbers.
    if (text.find_first_not_of("0123456789+-.eE") != std::string_view::npos) return std::nullopt;
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (end != text.data() + text.size() || text.empty()) return std::nullopt;
    if (error == std::errc::result_out_of_range) return roundExtreme(text);
    if (error != std::errc()) return std::nullopt;
    return value;
}

std::int32_t strToInt(std::string_view text) {
    const auto value = parseInt32(text);
    if (!value) refuse(text, "an integer of 32 bits");
    return *value;
}

std::int64_t strToLonglong(std::string_view text) {
    const auto value = parseInt64(text);
    if (!value) refuse(text, "an integer of 64 bits");
    return *value;
}

double strToDouble(std::string_view text) {
    const auto value = parseDouble(text);
    if (!value) refuse(text, "a number");
    return *value;
}

std::uint32_t strToIp(std::string_view text) noexcept {
    std::uint32_t address = 0;
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            if (text.empty() || text.front() != '.') return 0;
            text.remove_prefix(1);
        }
        std::size_t length = 0;
        std::uint32_t value = 0;
        while (length < text.size() && length < 3 && isDigitChar(text[length])) {
            value = value * 10 + static_cast<std::uint32_t>(text[length++] - '0');
        }
        // A leading zero means octal to some readers and nothing to others: such a text is no address.
        if (length == 0 || value > 255 || (length > 1 && text.front() == '0')) return 0;
        address = address << 8 | value;
        text.remove_prefix(length);
    }
    return text.empty() ? address : 0;
}

std::string doubleToStr(double value) {
    // The form without exponent as far as people read it with ease; to_chars alone would write 100000 as 1e+05.
    constexpr double smallestPlain = 1e-4;
    constexpr double largestPlain = 1e16;
    const double size = std::fabs(value);
    const bool plain = value == 0 || (size >= smallestPlain && size < largestPlain);
    char buffer[64];
    const auto result = plain ? std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed)
                              : std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
    return std::string(buffer, result.ptr);
}

}  // namespace QOR
