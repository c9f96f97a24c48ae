/// \file
/// What requests and those who follow are given.
#pragma once

#include <chrono>
#include <cstddef>

namespace QOR {

/// How much memory requests may hold, in bytes. What has no room is refused with an error that names the setting.
struct AgentMemory {
    std::size_t oneRequest = std::size_t{256} << 20;
    std::size_t allRequests = std::size_t{1} << 30;
    std::size_t unpackedBody = std::size_t{64} << 20;  ///< of a body that came packed
};

/// How the agent treats those who follow.
struct AgentFollowSettings {
    std::chrono::milliseconds heartbeat = std::chrono::seconds(15);  ///< the longest silence
    std::chrono::milliseconds patience = std::chrono::seconds(15);   ///< for a client to take what it is sent
};

}  // namespace QOR
