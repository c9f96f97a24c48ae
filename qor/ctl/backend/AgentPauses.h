/// \file
/// How an agent that is started again is waited for.
#pragma once

#include <chrono>

namespace QOR {

/// Each pause is twice as long as the one before: 12 seconds in all.
inline constexpr std::chrono::milliseconds firstPause{100};
inline constexpr std::chrono::milliseconds lastPause{6400};

}  // namespace QOR
