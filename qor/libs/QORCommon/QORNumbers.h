/// \file
/// Conversions of literals to numbers. Unlike the C library's they never return a silent 0.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// A decimal integer, optionally signed ('+' or '-'), nothing before or after it; empty when the text is not wholly
/// one or does not fit. These never throw.
QOR_API std::optional<std::int32_t> parseInt32(std::string_view text) noexcept;
QOR_API std::optional<std::int64_t> parseInt64(std::string_view text) noexcept;
/// A finite decimal number, optionally signed, with optional fraction and exponent, nothing before or after it.
QOR_API std::optional<double> parseDouble(std::string_view text) noexcept;

/// The same, throwing QORException 400 that names the text and the type, e.g. `"abc" is not an integer of 32 bits`.
QOR_API std::int32_t strToInt(std::string_view text);
QOR_API std::int64_t strToLonglong(std::string_view text);
QOR_API double strToDouble(std::string_view text);

/// Dotted IPv4 ("10.0.0.1") to an unsigned number in host order; 0 when the text is not one.
QOR_API std::uint32_t strToIp(std::string_view text) noexcept;

/// The shortest decimal text that reads back as the same number: "1.5", "2", "1e+30".
QOR_API std::string doubleToStr(double value);

}  // namespace QOR
