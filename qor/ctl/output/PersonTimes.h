/// \file
/// Times as people read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace QOR {

enum class TimeForm : std::uint8_t {
    Answered,  ///< as the answer has it: "2024-05-01T10:15:00+0000"
    Full,      ///< the same in the process's zone: "2024-05-01T12:15:00+0200"
    Short,     ///< in the process's zone, without it: "2024-05-01 12:15:00"
    Relative,  ///< "3 h ago", "in 2 d"
};

/// Makes a zone that of the process, for Full and Short. \param name "local" for that of the machine, "UTC", or one of
/// the machine's database of zones, "Europe/Paris". Before any other thread runs. \throws CtlError BadUsage for others
void useZone(const std::string& name);

/// "2024-05-01 12:15:00 (3 h ago)" in the process's zone.
std::string showTimeAndAge(std::int64_t seconds, std::int64_t now);

/// In the largest two units of which there are some: "3 d 4 h".
std::string showDuration(std::uint64_t seconds);

/// \param text a time as answers have it, of aggregates in seconds since the epoch; any other comes back as it is
/// \param now seconds since the epoch
std::string showTime(std::string_view text, TimeForm form, std::int64_t now);

}  // namespace QOR
