/// \file
/// Times as the host writes them. All times are UTC, seconds since 1970-01-01T00:00:00; leap seconds do not exist.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

inline constexpr std::int64_t secondsOfDay = 86400;

/// The time now, by the system's clock.
QOR_API std::int64_t currentTime() noexcept;

/// "YYYY-MM-DDTHH:MM:SS+0000". Years below 0 or beyond 9999 are written with as many characters as they need.
QOR_API std::string time2str(std::int64_t seconds);

/// "YYYY-MM-DD HH:MM:SS", the form in which the database keeps times; 19 characters for years 0 to 9999.
QOR_API std::string time2dbstr(std::int64_t seconds);

/// The times that have 19 characters there, which is what the database orders by: "0000-01-01 00:00:00" to
/// "9999-12-31 23:59:59".
inline constexpr std::int64_t firstDbSecond = -62167219200;
inline constexpr std::int64_t lastDbSecond = 253402300799;

/// Reads a date "YYYY-MM-DD", or a date and a time separated by 'T' or one space: "HH:MM" or "HH:MM:SS", an optional
/// fraction of a second after '.' (read and ignored), then optionally 'Z' or an offset "+HH:MM", "+HHMM" or "+HH"
/// (or with '-'). Without an offset the time is UTC. The calendar is checked.
/// \returns seconds since the epoch, negative before it; nothing when the text is anything else
QOR_API std::optional<std::int64_t> parseTime(std::string_view text);

/// The same with -1 for a text that is no time. It cannot be told from the second before the epoch: for orders in which
/// such texts have a place, and for callers that refuse times before the epoch anyway.
QOR_API std::int64_t str2time(std::string_view text);

}  // namespace QOR
