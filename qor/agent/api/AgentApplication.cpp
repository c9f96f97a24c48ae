#include "agent/api/AgentApplication.h"

#include <unistd.h>

#include <utility>

#include "QORCommon/QORLogger.h"
#include "agent/api/AgentClient.h"
#include "agent/api/AgentProblem.h"
#include "agent/api/AgentRoutes.h"
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

/// Why a request is not taken; nothing when it is.
std::optional<HttpReply> refusal(const AgentRouteMatch& match, const HttpRequest& request, bool fullAccess) {
    if (match.allow.empty())
        return problemReply({.status = 404, .detail = "there is nothing at " + std::string(request.path)});
    if (match.route == nullptr) {
        HttpReply reply = problemReply({.status = 405,
                                        .detail = std::string(request.path) + " takes " + match.allow + " only",
                                        .found = std::string(request.method),
                                        .expected = match.allow});
        reply.allow = match.allow;
        return reply;
    }
    if (match.route->reach == AgentReach::Full && !fullAccess)
        return problemReply(
            {.status = 403, .detail = std::string(match.route->path) + " is for connections with full access"});
    return refusalOfTypes(*match.route, request);
}

/// What is answered without a worker.
HttpReply answerNow(const AgentApplication& application, const AgentRoute& route, const HttpRequest& request,
                    bool fullAccess) {
    try {
        AgentParameters::ofQuery(request.query, route.parameters);
        return route.now(application, fullAccess);
    } catch (const AgentProblemException& exception) {
        return problemReply(exception.problem());
    }
}

/// Of parameters that are none the worker tells.
HttpLane laneOf(const AgentRoute& route, const HttpRequest& head) {
    if (route.streams == nullptr) return route.lane;
    try {
        const bool streams = route.streams(head, AgentParameters::ofQuery(head.query, route.parameters));
        return streams ? HttpLane::Streaming : route.lane;
    } catch (const AgentProblemException&) {
        return route.lane;
    }
}

}  // namespace

AgentApplication::AgentApplication(QORHost& host, const AgentMemory& memory)
    : m_host(host),
      m_access(!QORRdbms::instance().options().readOnly),
      m_requestMemory(memory.oneRequest),
      m_memory(memory.allRequests, "all requests together (--memory)") {}

AgentApplication::~AgentApplication() = default;

QORMemoryAccountPtr AgentApplication::newAccount() {
    return std::make_shared<QORMemoryAccount>(m_memory, m_requestMemory, "one request (--request-memory)");
}

HttpIdentity AgentApplication::identify(const HttpPeer& peer) {
    const bool root = peer.credentials && (peer.credentials->uid == 0 || peer.credentials->uid == ::geteuid());
    return {HttpApplication::identify(peer).key, root};
}

HttpPlan AgentApplication::plan(const HttpRequest& head, const HttpPeer& peer) {
    const AgentRouteMatch match = findRoute(head.path, head.method);
    HttpPlan plan;
    bool fullAccess = false;
    if (match.route == nullptr || match.route->reach != AgentReach::Everybody) {
        AgentAccess::Decision decision = m_access.decide(head, peer);
        if (!decision.requester) {
            plan.reply = notLetIn(decision);
            plan.delay = decision.delay;
            logReply(head, *plan.reply);
            return plan;
        }
        fullAccess = decision.requester->fullAccess;
        plan.requester = std::move(decision.requester);
    }
    plan.reply = refusal(match, head, fullAccess);
    if (!plan.reply && match.route->answer == nullptr) plan.reply = answerNow(*this, *match.route, head, fullAccess);
    if (plan.reply) {
        logReply(head, *plan.reply);
    } else {
        plan.lane = laneOf(*match.route, head);
    }
    return plan;
}

std::unique_ptr<HttpClientHandler> AgentApplication::connect(const HttpPeer&) {
    return std::make_unique<AgentClient>(*this);
}

HttpReply AgentApplication::errorReply(unsigned status, std::string_view message) {
    return problemReply({.status = status, .detail = std::string(message)});
}

void logReply(const HttpRequest& request, const HttpReply& reply) {
    logMessage(4, "QORAgent", "qor/agent/api/AgentApplication", "handle", "%.*s %.*s %u, %zu bytes",
               static_cast<int>(request.method.size()), request.method.data(), static_cast<int>(request.path.size()),
               request.path.data(), reply.status, reply.body.size());
}

}  // namespace QOR
