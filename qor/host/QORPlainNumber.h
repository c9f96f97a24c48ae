/// \file
/// Numbers that people type: on command lines, in parameters of requests.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace QOR {

/// From `least` to `most`, both included.
struct QORNumberRange {
    std::uint64_t least = 0;
    std::uint64_t most = 0;
};

/// The largest number that is a signed one of 64 bits too.
constexpr std::uint64_t mostNumber = std::numeric_limits<std::int64_t>::max();

/// Reads decimal digits and nothing else: no sign, no blank, no leading zero (which other programs take for octal), no
/// fraction, no exponent. \returns nothing for any other text, and for a number beyond the range
inline std::optional<std::uint64_t> readPlainNumber(std::string_view text, QORNumberRange range) noexcept {
    if (text.empty() || (text.size() > 1 && text.front() == '0')) return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    if (value < range.least || value > range.most) return std::nullopt;
    return value;
}

/// `--limit must lie between 0 and 100, in plain digits; "010" does not`
inline std::string describeBadNumber(const std::string& name, std::string_view text, QORNumberRange range) {
    return name + " must lie between " + std::to_string(range.least) + " and " + std::to_string(range.most) +
           ", in plain digits; \"" + std::string(text) + "\" does not";
}

}  // namespace QOR
