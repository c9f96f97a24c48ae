/// \file
/// What clients may have of a server, and what it has done and is doing, in numbers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/http/HttpTypes.h"

namespace QOR {

struct HttpServerOptions;

/// What a client may meet an end of. Each has the name of its setting.
enum class HttpLimit : std::uint8_t {
    Connections,
    UserConnections,
    Waiting,  ///< requests in all that wait for their turn
    UserWaiting,
    Streams,
    Followers,
    UserFollowers,
    Deadline,    ///< a request waited for its turn as long as it may take
    BodyMemory,  ///< a body waited too long for memory, or grew where there was none
    BodyLimit,
    HeaderBytes,
    HandshakeTime,
    HeaderTime,
    BodyRate,
    IdleTime,
    WriteTime,  ///< nobody took the answer
};
constexpr std::size_t httpLimitCount = 16;

/// "user-connections", as the option is called.
std::string_view nameOf(HttpLimit limit) noexcept;
/// How a client is told: 429 where it is its own doing, 503 where it is everybody's; with the setting and what helps.
struct HttpLimitAnswer {
    unsigned status = 503;
    std::string message{};
};
HttpLimitAnswer answerTo(HttpLimit limit, const HttpServerOptions& options);
/// "reading", "writing" ...
std::string_view nameOf(HttpLane lane) noexcept;

/// A value.
struct HttpCounts {
    struct Listener {
        std::string address;
        std::size_t open = 0;
        std::uint64_t accepted = 0;
    };
    struct Lane {
        std::size_t most = 0;  ///< requests at once
        std::size_t running = 0;
        std::size_t waiting = 0;
    };

    std::vector<Listener> listeners{};
    std::array<Lane, httpLaneCount> lanes{};
    std::size_t idle = 0;                                ///< connections that wait for a request
    std::size_t bodyMemory = 0;                          ///< bytes that large bodies hold
    std::size_t bodiesWaiting = 0;                       ///< for such memory
    std::uint64_t useless = 0;                           ///< clients that spoke another language
    std::array<std::uint64_t, httpLimitCount> limits{};  ///< how often each was met

    std::uint64_t& met(HttpLimit limit) noexcept { return limits[static_cast<std::size_t>(limit)]; }
};

}  // namespace QOR
