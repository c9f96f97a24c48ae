/// \file
/// Sizes as people read them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

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

/// What one of a column's numbers is in bytes: of its name the part behind the last point, of an aggregate that of its
/// column. 0 for a column that holds no sizes.
inline std::uint64_t bytesOfOne(std::string_view column) {
    constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;
    const std::size_t open = column.find('(');
    if (open != std::string_view::npos) {
        if (column.substr(0, open) == "count" || !column.ends_with(')')) return 0;
        column = column.substr(open + 1, column.size() - open - 2);
    }
    column.remove_prefix(column.rfind('.') + 1);  // none: its beginning
    if (column == "size") return 1;
    return column == "memory" ? mebibyte : 0;
}

}  // namespace QOR
