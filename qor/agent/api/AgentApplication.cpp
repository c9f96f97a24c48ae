#include "agent/api/AgentApplication.h"

#include <unistd.h>

#include <utility>

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "agent/api/AgentAudit.h"
#include "agent/api/AgentClient.h"
#include "agent/api/AgentProblem.h"
#include "agent/api/AgentRoutes.h"
#include "agent/api/AgentTrace.h"
#include "host/QORHost.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

/// Also for paths that there are not, so that nobody learns which there are.
HttpReply notLetIn(const AgentAccess::Decision& decision) {
    HttpReply reply = problemReply({.status = decision.status, .detail = decision.message});
    if (decision.status == 401) reply.authenticate = "Bearer realm=\"qor-agent\"";
    return reply;
}

/// What may be asked of a path, or of all that there are.
HttpReply optionsOf(std::string_view methods) {
    HttpReply reply{204, {}};
    reply.allow = methods;
    return reply;
}

/// Why somebody may not use a route; empty when he may. \param requester null for who has not said who he is
std::string_view objection(AgentReach reach, const AgentRequester* requester) {
    if (reach == AgentReach::Everybody || reach == AgentReach::Anybody) return {};
    if (requester != nullptr && requester->fullAccess) return {};
    if (reach == AgentReach::Full) return " is for connections with full access";
    const bool writes = requester != nullptr && requester->identity && !writeScopeOf(*requester->identity).empty();
    return writes ? std::string_view() : " needs full access, or the right to write about environments";
}

/// Why a request is not taken; nothing when it is.
std::optional<HttpReply> refusal(const AgentRouteMatch& match, const HttpRequest& request,
                                 const AgentRequester* requester) {
    const bool asksWhat = request.method == "OPTIONS";
    if (asksWhat && request.path == "*") return optionsOf("GET, HEAD, POST, DELETE, OPTIONS");
    if (match.allow.empty())
        return problemReply({.status = 404, .detail = "there is nothing at " + std::string(request.path)});
    if (asksWhat) return optionsOf(match.allow);
    if (match.route == nullptr) {
        HttpReply reply = problemReply({.status = 405,
                                        .detail = std::string(request.path) + " takes " + match.allow + " only",
                                        .found = std::string(request.method),
                                        .expected = match.allow});
        reply.allow = match.allow;
        return reply;
    }
    if (const std::string_view why = objection(match.route->reach, requester); !why.empty())
        return problemReply({.status = 403, .detail = std::string(match.route->path).append(why)});
    return refusalOfTypes(*match.route, request);
}

/// \param requester null for who needs to be nobody
std::string_view accessOf(const AgentRequester* requester) {
    if (requester == nullptr) return "none";
    if (requester->fullAccess) return "full";
    return requester->identity && !requester->identity->environments.empty() ? "environments" : "none";
}

/// What is answered without a worker.
HttpReply answerNow(const AgentApplication& application, const AgentRoute& route, const HttpRequest& request,
                    const AgentRequester* requester) {
    try {
        AgentParameters::ofQuery(request.query, route.parameters);
        return route.now(application, accessOf(requester));
    } catch (const AgentProblemException& exception) {
        return problemReply(exception.problem());
    }
}

/// Of parameters that are none the worker tells.
HttpLane laneOf(const AgentRoute& route, const HttpRequest& head, AgentTrace& trace) {
    if (route.streams == nullptr) return route.lane;
    try {
        trace.parameters = AgentParameters::ofQuery(head.query, route.parameters);
        return route.streams(head, *trace.parameters) ? HttpLane::Streaming : route.lane;
    } catch (const AgentProblemException&) {
        return route.lane;
    }
}

}  // namespace

AgentApplication::AgentApplication(QORHost& host, QORCollectorSchedule& collectors, const AgentMemory& memory)
    : m_host(host),
      m_collectors(collectors),
      m_access(!QORRdbms::instance().options().readOnly),
      m_requestMemory(memory.oneRequest),
      m_bodyLimit(memory.unpackedBody),
      m_memory(memory.allRequests, "all requests together (--memory)") {}

AgentApplication::~AgentApplication() = default;

QORMemoryAccountPtr AgentApplication::newAccount() {
    return std::make_shared<QORMemoryAccount>(m_memory, m_requestMemory.load(std::memory_order_relaxed),
                                              "one request (--request-memory)");
}

void AgentApplication::setMemory(const AgentMemory& memory) noexcept {
    m_requestMemory.store(memory.oneRequest, std::memory_order_relaxed);
    m_bodyLimit.store(memory.unpackedBody, std::memory_order_relaxed);
}

void AgentApplication::setFollowing(const AgentFollowSettings& settings) {
    const std::lock_guard lock(m_mutex);
    m_following = settings;
}

AgentFollowSettings AgentApplication::followSettings() const {
    const std::lock_guard lock(m_mutex);
    return m_following;
}

void AgentApplication::setAudit(std::shared_ptr<AgentAudit> audit) {
    const std::lock_guard lock(m_mutex);
    m_audit.swap(audit);
}

std::shared_ptr<AgentAudit> AgentApplication::audit() const {
    const std::lock_guard lock(m_mutex);
    return m_audit;
}

HttpIdentity AgentApplication::identify(const HttpPeer& peer) {
    const bool root = peer.credentials && (peer.credentials->uid == 0 || peer.credentials->uid == ::geteuid());
    return {HttpApplication::identify(peer).key, root};
}

HttpPlan AgentApplication::plan(const HttpRequest& head, const HttpPeer& peer) {
    auto trace = std::make_shared<AgentTrace>();
    trace->method = knownMethod(head.method);
    if (const auto auditing = audit()) {
        trace->notes.conditions =
            auditing->showsLiterals() ? QORRequestNotes::Conditions::Whole : QORRequestNotes::Conditions::Masked;
    }
    HttpPlan plan = planned(head, peer, *trace);
    plan.trace = std::move(trace);
    return plan;
}

HttpPlan AgentApplication::planned(const HttpRequest& head, const HttpPeer& peer, AgentTrace& trace) {
    const AgentRouteMatch match = findRoute(head.path, head.method);
    if (match.route != nullptr) trace.route = match.route->path;
    HttpPlan plan;
    if (match.route == nullptr || match.route->reach != AgentReach::Everybody) {
        AgentAccess::Decision decision = m_access.decide(head, peer);
        if (!decision.requester) {
            plan.reply = notLetIn(decision);
            plan.delay = decision.delay;
            logReply(head, *plan.reply);
            return plan;
        }
        trace.who = decision.requester->name;
        trace.as = decision.requester->as;
        if (!trace.who.empty() && (peer.overTcp || !decision.requester->digest.empty()))
            plan.account = "identity:" + trace.who;
        plan.requester = std::move(decision.requester);
    }
    const auto* const requester = static_cast<const AgentRequester*>(plan.requester.get());
    plan.reply = refusal(match, head, requester);
    if (!plan.reply && match.route->answer == nullptr) plan.reply = answerNow(*this, *match.route, head, requester);
    if (plan.reply) {
        logReply(head, *plan.reply);
    } else {
        plan.lane = laneOf(*match.route, head, trace);
    }
    return plan;
}

std::unique_ptr<HttpClientHandler> AgentApplication::connect(const HttpPeer&) {
    return std::make_unique<AgentClient>(*this);
}

HttpReply AgentApplication::errorReply(unsigned status, std::string_view message) {
    return problemReply({.status = status, .detail = std::string(message)});
}

void AgentApplication::ended(const HttpEnd& end, const HttpPeer& peer, HttpTrace* trace) {
    const auto* const known = static_cast<const AgentTrace*>(trace);
    m_metrics.count(end, known);
    if (const auto auditing = audit()) auditing->add(auditLine(end, peer, known, auditing->showsLiterals()));
}

void logReply(const HttpRequest& request, const HttpReply& reply) {
    logMessage(4, "QORAgent", QOR_SOURCE_PATH, "handle", "%.*s %.*s %u, %zu bytes",
               static_cast<int>(request.method.size()), request.method.data(), static_cast<int>(request.path.size()),
               request.path.data(), reply.status, reply.body.size());
}

}  // namespace QOR
