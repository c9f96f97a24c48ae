/// \file
/// The rule by which a page is cut from the records that a source holds.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

namespace QOR {

/// Records begin to end - 1. An offset past the last record leaves end below begin, and the count negative.
struct QORPage {
    std::int64_t begin = 0;
    std::int64_t end = 0;
    std::int64_t count() const noexcept { return end - begin; }

    /// \param size rows of the page; 0 or less: no bound \param offset of its first row; below 0: the first record
    static QORPage of(int size, int offset, std::int64_t records) noexcept {
        QORPage page;
        page.begin = std::max(offset, 0);
        page.end = size > 0 ? page.begin + size : std::int64_t{std::numeric_limits<std::int32_t>::max()};
        page.end = std::min(page.end, records);
        return page;
    }
};

}  // namespace QOR
