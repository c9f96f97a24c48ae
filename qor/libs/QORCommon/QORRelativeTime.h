/// \file
/// Durations, and times that are told from another one, as people type them.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// Seconds of a duration: whole numbers with a unit each, the largest unit first: "90s", "45m", "12h", "30d", "8w",
/// "1d12h". Numbers have no sign, no leading zero and no fraction; a day has 24 hours.
/// \returns nothing for any other text, and for more than 10,000 years
QOR_API std::optional<std::int64_t> parseDuration(std::string_view text) noexcept;

/// A time told from `now`: one of the words now, today, yesterday, tomorrow (in any case; but for the first they mean
/// the day's beginning in UTC), or nothing for now, then any number of durations behind '+' or '-', blanks around them:
/// "-7d", "yesterday", "today - 1w + 12h".
/// \returns seconds since the epoch; nothing for any other text, times without reference among them (parseTime()), and
/// for a time that the database cannot have
QOR_API std::optional<std::int64_t> parseRelativeTime(std::string_view text, std::int64_t now) noexcept;

}  // namespace QOR
