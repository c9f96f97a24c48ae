/// \file
/// Sizes as people read them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace QOR {

/// In the largest unit of which there is one, cut to a tenth: "980 bytes", "12.3 GiB".
inline std::string showSize(std::uint64_t bytes) {
    constexpr std::array<const char*, 4> units{" KiB", " MiB", " GiB", " TiB"};
    constexpr std::uint64_t step = 1024;
    if (bytes < step) return std::to_string(bytes) + " bytes";
    std::size_t unit = 0;
    std::uint64_t one = step;
    for (; unit + 1 < units.size() && bytes / one >= step; ++unit)
        one *= step;
    // Of a rest below the unit, so that ten times as much fits.
    return std::to_string(bytes / one) + '.' + std::to_string(bytes % one * 10 / one) + units.at(unit);
}

}  // namespace QOR
