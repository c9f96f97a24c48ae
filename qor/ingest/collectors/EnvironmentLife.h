/// \file
/// The states of environments that a host has below it: its domains and containers.
#pragma once

#include <cstdint>

namespace QOR {

/// As they are stored. Contract: never renumbered.
enum class EnvironmentLife : std::int32_t {
    Unknown = 0,
    Gone = 1,  ///< it is defined no more
    Off = 3,
    Saved = 4,  ///< off, with its memory on disk
    Paused = 5,
    Running = 6,
    Crashed = 7,  ///< it is kept as it was then
    Asleep = 8,   ///< by itself
};

constexpr std::int32_t numberOf(EnvironmentLife life) noexcept {
    return static_cast<std::int32_t>(life);
}

}  // namespace QOR
