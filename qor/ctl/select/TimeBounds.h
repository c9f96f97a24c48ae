/// \file
/// From when to when rows are asked for, as people type it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace QOR {

/// Times as readTime() takes them; both are included.
struct TimeBounds {
    std::optional<std::string> since{};
    std::optional<std::string> until{};

    bool any() const noexcept { return since.has_value() || until.has_value(); }
};

/// A time as people type it: `2024-05-01`, `2024-05-01 10:15:00`, `10:15` of today or with a word for the day before
/// it, `yesterday`, `-7d`, `7d` or `7d ago`. What has no offset is meant in the zone of the process, as people read
/// times. \param now seconds since the epoch, what times are told from \returns seconds since the epoch; nothing for
/// what is no time
std::optional<std::int64_t> readTime(std::string_view text, std::int64_t now);

/// Seconds since the epoch; nothing for nothing. \param option that says it \param now what times are told from
/// \throws CtlError BadUsage for what is no time
std::optional<std::int64_t> secondsOf(const char* option, const std::optional<std::string>& written, std::int64_t now);

/// A condition, of both languages that rows are asked for in, that a column or field of times lies between them.
/// \param now seconds since the epoch, what times are told from
/// \throws CtlError BadUsage for what is no time
std::string conditionOf(const TimeBounds& bounds, std::string_view name, std::int64_t now);

/// Both conditions; either may be empty.
std::string joinConditions(std::string_view written, std::string_view further);

}  // namespace QOR
