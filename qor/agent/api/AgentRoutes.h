/// \file
/// The routes of the agent, which are all that it answers over HTTP: one table that finds, checks and describes them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent/api/AgentParameters.h"
#include "agent/http/HttpTypes.h"

namespace QOR {

class AgentApplication;
struct AgentCall;

enum class AgentReach : std::uint8_t {
    Everybody,  ///< also who comes over TCP and does not say who he is
    Anybody,
    Writers,  ///< who may store records, about some environments or all
    Full,     ///< who has full access
};

/// Of static storage.
struct AgentRoute {
    std::string_view path;  ///< names in braces stand for one part of it each: "/v1/views/{view}"
    std::string_view method;
    AgentReach reach = AgentReach::Anybody;
    HttpLane lane = HttpLane::Reading;
    std::string_view summary{};
    /// May throw AgentProblemException, QORException and whatever else; what it takes of the request's query has been
    /// checked.
    HttpReply (*answer)(AgentCall& call) = nullptr;
    /// In place of it: known at once, on the server's thread.
    HttpReply (*now)(const AgentApplication& application, std::string_view access) = nullptr;
    std::span<const AgentParameter> parameters{};
    std::span<const std::string_view> types{};  ///< of its answers, the first where the client does not say
    /// How a client asks for another of the types than Accept says: with the parameter `format`.
    bool hasFormat = false;
    std::span<const std::string_view> body{};   ///< types of the body that it reads, the first is the usual one
    bool unpacks = false;                       ///< it reads bodies that gzip has packed too
    std::span<const AgentParameter> members{};  ///< of the body, where it is an object that is read by them
    /// Whether an answer may be of any size, so that it needs a worker of those for streams. None: never.
    bool (*streams)(const HttpRequest& head, const AgentParameters& parameters) = nullptr;
    bool inNotation = false;  ///< errors of its own are answers in message notation
};

std::span<const AgentRoute> agentRoutes();

/// A path is looked up before its method, so that a method that it lacks can be told from a path that there is not.
struct AgentRouteMatch {
    const AgentRoute* route = nullptr;      ///< null: the path has no such method, or there is no such path
    std::string allow{};                    ///< methods of the path; empty: there is no such path
    std::vector<std::string_view> names{};  ///< as they stand in the path, not decoded
};
AgentRouteMatch findRoute(std::string_view path, std::string_view method);

/// Why a request is refused by what its head says of types: 406, 415.
std::optional<HttpReply> refusalOfTypes(const AgentRoute& route, const HttpRequest& request);

}  // namespace QOR
