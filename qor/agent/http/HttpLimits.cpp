#include "agent/http/HttpLimits.h"

#include <utility>

#include "agent/http/HttpServer.h"

namespace QOR {
namespace {

constexpr unsigned tooMany = 429;
constexpr unsigned unavailable = 503;

std::string_view whatHelps(HttpLimit limit) {
    switch (limit) {
        case HttpLimit::Connections:
            return "; come again later";
        case HttpLimit::UserConnections:
            return "; use one for several requests, or come again later";
        case HttpLimit::Waiting:
        case HttpLimit::UserWaiting:
            return "; ask again later";
        case HttpLimit::Streams:
            return "; ask for pages, or again later";
        case HttpLimit::Followers:
        case HttpLimit::UserFollowers:
            return "; end another one, or come again later";
        case HttpLimit::Deadline:
            return "; it was not run, ask again later";
        case HttpLimit::BodyMemory:
            return "; send less at once, or again later";
        default:
            return {};
    }
}

/// What there is too much of.
std::string whatIsWrong(HttpLimit limit, const HttpServerOptions& options) {
    switch (limit) {
        case HttpLimit::Connections:
            return "all " + std::to_string(options.maxConnections) + " connections are in use";
        case HttpLimit::UserConnections:
            return "this user has " + std::to_string(options.connectionsPerIdentity) +
                   " connections, and all of them are busy";
        case HttpLimit::Waiting:
            return "too many requests wait for their turn";
        case HttpLimit::UserWaiting:
            return "too many requests of this user wait for their turn";
        case HttpLimit::Streams:
            return "as many answers are streamed as may be at once";
        case HttpLimit::Followers:
            return "as many follow as may at once";
        case HttpLimit::UserFollowers:
            return "as many of this user's requests follow as may at once";
        case HttpLimit::Deadline:
            return "the request waited too long for its turn";
        case HttpLimit::BodyMemory:
            return "no memory for the body became free in time";
        default:
            return "a limit was met";
    }
}

bool isOfOneUser(HttpLimit limit) {
    return limit == HttpLimit::UserConnections || limit == HttpLimit::UserWaiting || limit == HttpLimit::UserFollowers;
}

}  // namespace

std::string_view nameOf(HttpLimit limit) noexcept {
    static constexpr std::array<std::string_view, httpLimitCount> names{
        "connections",    "user-connections", "waiting",     "user-waiting", "streams",      "followers",
        "user-followers", "deadline",         "body-memory", "body-limit",   "header-bytes", "handshake-time",
        "header-time",    "body-rate",        "idle-time",   "write-time"};
    return names[static_cast<std::size_t>(limit)];
}

HttpLimitAnswer answerTo(HttpLimit limit, const HttpServerOptions& options) {
    return {isOfOneUser(limit) ? tooMany : unavailable,
            whatIsWrong(limit, options) + " (--" + std::string(nameOf(limit)) + ")" + std::string(whatHelps(limit))};
}

std::string_view nameOf(HttpLane lane) noexcept {
    static constexpr std::array<std::string_view, httpLaneCount> names{"reading", "writing", "streaming", "following"};
    return names[static_cast<std::size_t>(lane)];
}

}  // namespace QOR
