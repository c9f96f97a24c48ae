/// \file
/// Which records are asked for by time and environment, wherever they are asked for by these alone. Thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "QORCommon/QORGuid.h"
#include "agent/api/AgentParameters.h"

namespace QOR {

inline constexpr AgentParameter fromParameter{
    .name = "from", .meaning = "the earliest time, also one told from now: 2024-05-01, yesterday, -7d"};
inline constexpr AgentParameter toParameter{.name = "to", .meaning = "the latest time"};
inline constexpr AgentParameter environmentParameter{
    .name = "env", .meaning = "the environment that the records belong to, by its identifier"};

/// Seconds since the epoch; nothing where the parameter was not given. \param now what times may be told from
/// \throws AgentProblemException for a text that is no time
std::optional<std::int64_t> timeOf(const AgentParameters& parameters, std::string_view name, std::int64_t now);

/// Invalid where the parameter `env` was not given. \throws AgentProblemException for a text that is no identifier
QOREID environmentOf(const AgentParameters& parameters);

}  // namespace QOR
