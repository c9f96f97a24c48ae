#include "agent/api/AgentRoutes.h"

#include <algorithm>
#include <array>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORText.h"
#include "agent/api/AgentAccept.h"
#include "agent/api/AgentDescriptions.h"
#include "agent/api/AgentExplain.h"
#include "agent/api/AgentExport.h"
#include "agent/api/AgentFields.h"
#include "agent/api/AgentFollow.h"
#include "agent/api/AgentHealth.h"
#include "agent/api/AgentIdentities.h"
#include "agent/api/AgentMaintenance.h"
#include "agent/api/AgentMessages.h"
#include "agent/api/AgentOpenApi.h"
#include "agent/api/AgentProblem.h"
#include "agent/api/AgentQuery.h"
#include "agent/api/AgentRecords.h"
#include "agent/api/AgentRows.h"
#include "agent/api/AgentSessions.h"
#include "agent/api/AgentTimeline.h"
#include "agent/api/AgentViews.h"
#include "agent/api/PrometheusText.h"

namespace QOR {
namespace {

constexpr std::array<std::string_view, 1> json{"application/json"};
/// What clients say that were not told what to say is taken too.
constexpr std::array<std::string_view, 2> jsonBody{"application/json", "application/x-www-form-urlencoded"};
constexpr std::array<std::string_view, 6> recordsBody{"application/x-ndjson", "application/ndjson",
                                                      "application/json",     "application/octet-stream",
                                                      "text/plain",           "application/x-www-form-urlencoded"};

constexpr std::array<std::string_view, 1> prometheus{PrometheusText::contentType};

constexpr auto writing = HttpLane::Writing;
constexpr auto full = AgentReach::Full;

constexpr std::array routes{
    AgentRoute{.path = "/v1/messages",
               .method = "POST",
               .summary = "One request in message notation in, its answer out",
               .answer = answerMessage,
               .parameters = messageParameters,
               .types = json,
               .body = jsonBody,
               .streams = streamsMessage,
               .inNotation = true},
    AgentRoute{.path = "/v1/records",
               .method = "POST",
               .reach = AgentReach::Writers,
               .lane = writing,
               .summary = "Records in, a line each",
               .answer = answerRecords,
               .parameters = recordParameters,
               .types = json,
               .body = recordsBody,
               .unpacks = true},
    AgentRoute{.path = "/v1/records",
               .method = "GET",
               .summary = "Records out, a line each, as POST takes them",
               .answer = answerExport,
               .parameters = exportParameters,
               .types = exportTypes,
               .streams = streamsExport},
    AgentRoute{.path = "/v1/collect",
               .method = "POST",
               .reach = AgentReach::Writers,
               .lane = writing,
               .summary = "The collectors run now",
               .answer = answerCollect,
               .types = json},
    AgentRoute{.path = "/v1/check",
               .method = "POST",
               .reach = full,
               .lane = writing,
               .summary = "What is wrong with a part of the database",
               .answer = answerCheck,
               .parameters = checkParameters,
               .types = json},
    AgentRoute{.path = "/v1/prune",
               .method = "POST",
               .reach = full,
               .lane = writing,
               .summary = "Removes a part of what is old",
               .answer = answerPrune,
               .parameters = pruneParameters,
               .types = json},
    AgentRoute{.path = "/v1/views",
               .method = "GET",
               .summary = "All views with their columns",
               .answer = answerViews,
               .types = json},
    AgentRoute{.path = "/v1/views/{view}",
               .method = "GET",
               .summary = "A view: its columns, what they mean, and what it is sorted and filtered by without effort",
               .answer = answerView,
               .types = json},
    AgentRoute{.path = "/v1/views/{view}/rows",
               .method = "GET",
               .summary = "Rows of a view, a page or all of them",
               .answer = answerViewRows,
               .parameters = viewRowsParameters,
               .types = agentFormatTypes,
               .hasFormat = true,
               .streams = streamsRows},
    AgentRoute{.path = "/v1/fields",
               .method = "GET",
               .summary = "The fields of what the agent has at hand",
               .answer = answerFields,
               .types = json},
    AgentRoute{.path = "/v1/rows",
               .method = "GET",
               .summary = "Rows of what the agent has at hand, by its fields",
               .answer = answerSourceRows,
               .parameters = sourceRowsParameters,
               .types = agentFormatTypes,
               .hasFormat = true,
               .streams = streamsRows},
    AgentRoute{.path = "/v1/query",
               .method = "POST",
               .summary = "Rows of a view or of a source, asked for by a body",
               .answer = answerQuery,
               .parameters = queryParameters,
               .types = agentFormatTypes,
               .hasFormat = true,
               .body = jsonBody,
               .members = queryMembers,
               .streams = streamsQuery},
    AgentRoute{.path = "/v1/explain",
               .method = "POST",
               .summary = "What would become of a question that /v1/query takes, which is not run",
               .answer = answerExplain,
               .types = json,
               .body = jsonBody,
               .members = queryMembers},
    AgentRoute{.path = "/v1/timeline",
               .method = "GET",
               .summary = "Operations, events and backups in the order of their time",
               .answer = answerTimeline,
               .parameters = timelineParameters,
               .types = agentFormatTypes,
               .hasFormat = true},
    AgentRoute{.path = "/v1/follow",
               .method = "GET",
               .lane = HttpLane::Following,
               .summary = "What came since, then what comes, as server-sent events",
               .answer = answerFollow,
               .parameters = followParameters,
               .types = followTypes},
    AgentRoute{.path = "/v1/vocabulary",
               .method = "GET",
               .summary = "What the configuration tells plug-ins",
               .answer = answerVocabulary,
               .types = json},
    AgentRoute{.path = "/v1/status",
               .method = "GET",
               .reach = full,
               .summary = "What the database is, and which stored documents cannot be read",
               .answer = answerStatus,
               .types = json},
    AgentRoute{.path = "/v1/session",
               .method = "POST",
               .summary = "Begins a session with the token that is shown: a cookie, and what changes need beside it",
               .answer = answerBeginSession,
               .types = json},
    AgentRoute{.path = "/v1/session",
               .method = "GET",
               .summary = "Whose session it is, until when, and what changes need beside its cookie",
               .answer = answerSession,
               .types = json},
    AgentRoute{.path = "/v1/session",
               .method = "DELETE",
               .summary = "Ends the session",
               .answer = answerEndSession,
               .types = json},
    AgentRoute{.path = "/v1/identities",
               .method = "GET",
               .reach = full,
               .summary = "Who may ask, what each may see, and which tokens there are",
               .answer = answerIdentities,
               .types = json},
    AgentRoute{.path = "/v1/identities/add",
               .method = "POST",
               .reach = full,
               .lane = writing,
               .summary = "An identity more",
               .answer = answerAddIdentity,
               .types = json,
               .body = jsonBody},
    AgentRoute{.path = "/v1/identities/remove",
               .method = "POST",
               .reach = full,
               .lane = writing,
               .summary = "An identity less, and its tokens",
               .answer = answerRemoveIdentity,
               .types = json,
               .body = jsonBody},
    AgentRoute{.path = "/v1/tokens/create",
               .method = "POST",
               .reach = full,
               .lane = writing,
               .summary = "A token, which is told once",
               .answer = answerCreateToken,
               .types = json,
               .body = jsonBody},
    AgentRoute{.path = "/v1/tokens/revoke",
               .method = "POST",
               .reach = full,
               .lane = writing,
               .summary = "One token or all of an identity hold no more",
               .answer = answerRevokeTokens,
               .types = json,
               .body = jsonBody},
    AgentRoute{.path = "/v1/openapi.json",
               .method = "GET",
               .summary = "This description",
               .answer = answerOpenApi,
               .types = json},
    AgentRoute{.path = "/v1/health",
               .method = "GET",
               .summary = "What the agent is made of and how it does",
               .now = healthNow,
               .types = json},
    AgentRoute{.path = "/health/ready",
               .method = "GET",
               .summary = "Whether it answers everything",
               .now = readyNow,
               .types = json},
    AgentRoute{.path = "/health/live",
               .method = "GET",
               .reach = AgentReach::Everybody,
               .summary = "Whether it is there",
               .now = liveNow,
               .types = json},
    AgentRoute{.path = "/metrics",
               .method = "GET",
               .reach = full,
               .summary = "The agent in numbers, in Prometheus's text format",
               .now = metricsNow,
               .types = prometheus},
};

std::string_view takePart(std::string_view& path) noexcept {
    const std::string_view part = path.substr(0, path.find('/', 1));
    path.remove_prefix(part.size());
    return part;
}

bool isPath(std::string_view pattern, std::string_view path, std::vector<std::string_view>& names) {
    if (pattern.find('{') == std::string_view::npos) return pattern == path;
    names.clear();
    while (!pattern.empty() && !path.empty()) {
        const std::string_view wanted = takePart(pattern);
        const std::string_view given = takePart(path);
        if (!wanted.starts_with("/{")) {
            if (wanted != given) return false;
        } else if (given.size() < 2) {
            return false;
        } else {
            names.push_back(given.substr(1));
        }
    }
    return pattern.empty() && path.empty();
}

bool takesFormatOf(const AgentRoute& route, const HttpRequest& request) {
    return route.hasFormat && ("&" + std::string(request.query)).find("&format=") != std::string::npos;
}

}  // namespace

std::span<const AgentRoute> agentRoutes() {
    return routes;
}

AgentRouteMatch findRoute(std::string_view path, std::string_view method) {
    AgentRouteMatch match;
    const std::string_view wanted = method == "HEAD" ? "GET" : method;
    for (const AgentRoute& route : routes) {
        std::vector<std::string_view> names;
        if (!isPath(route.path, path, names)) continue;
        match.allow.append(match.allow.empty() ? "" : ", ").append(route.method);
        if (route.method == "GET") match.allow += ", HEAD";
        if (route.method != wanted) continue;
        match.route = &route;
        match.names = std::move(names);
        return match;
    }
    if (!match.allow.empty()) match.allow += ", OPTIONS";
    return match;
}

std::optional<HttpReply> refusalOfTypes(const AgentRoute& route, const HttpRequest& request) {
    if (!takesFormatOf(route, request) && !acceptedType(request, route.types)) {
        HttpReply reply = problemReply({.status = 406,
                                        .detail = std::string(route.path) + " is answered as " + joinTexts(route.types),
                                        .found = std::string(request.field("Accept")),
                                        .expected = joinTexts(route.types)});
        return reply;
    }
    const std::string_view encoding = request.field("Content-Encoding");
    const bool plain = encoding.data() == nullptr || isSameWord(encoding, "identity");
    if (!plain && !(route.unpacks && isSameWord(encoding, "gzip"))) {
        const std::string expected = route.unpacks ? "gzip" : "none";
        return problemReply({.status = 415,
                             .detail = std::string(route.path) + " takes bodies in the encoding " + expected +
                                       ", not " + quoteText(encoding),
                             .found = std::string(encoding),
                             .expected = expected});
    }
    const std::string_view type = request.field("Content-Type");
    if (route.body.empty() || type.data() == nullptr) return std::nullopt;
    const bool taken = std::any_of(route.body.begin(), route.body.end(),
                                   [&](std::string_view one) { return isSameWord(one, mediaTypeOf(type)); });
    if (taken) return std::nullopt;
    return problemReply(
        {.status = 415,
         .detail = std::string(route.path) + " reads " + std::string(route.body.front()) + ", not " + quoteText(type),
         .found = std::string(type),
         .expected = std::string(route.body.front())});
}

}  // namespace QOR
