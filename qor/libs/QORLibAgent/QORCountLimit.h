/// \file
/// How far rows are counted beside a page, as requests say it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// A value.
struct QOR_API QORCountLimit {
    enum class Kind { Nothing, Capped, Exact, Timed };

    Kind kind = Kind::Exact;
    std::chrono::milliseconds time{0};  ///< of Timed

    static constexpr std::uint64_t cap = 10'000;
    /// "none", "capped", "exact" or "<N>ms", at least 1 and at most an hour. \returns nothing for another text
    static std::optional<QORCountLimit> read(std::string_view text);
};

}  // namespace QOR
