/// \file
/// What an exact request need not read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "QORCommon/QORTime.h"
#include "QORPager/Operators/Pager/QORExactFilter.h"
#include "QORPager/QORSources.h"

namespace QOR {

/// What every record that satisfies a filter has, as far as its source can look for that.
struct QORNarrowing {
    bool nothing = false;  ///< no record satisfies it
    std::int64_t from = firstDbSecond;
    std::int64_t to = lastDbSecond;
    std::optional<QOREID> environment{};
    std::optional<QOREID> storage{};
    std::optional<std::string> category{};
    /// A record that has all this satisfies the filter: it need not be asked.
    bool isAll = true;
    std::vector<std::size_t> left{};  ///< which of the filter's conjuncts are not in it

    static QORNarrowing of(const QORExactFilter& filter, const QORSource& source);
};

}  // namespace QOR
