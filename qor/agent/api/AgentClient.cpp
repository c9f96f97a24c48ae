#include "agent/api/AgentClient.h"

#include <exception>
#include <optional>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORMessage/QORNotation.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentCall.h"
#include "agent/api/AgentProblem.h"
#include "agent/api/AgentRoutes.h"
#include "agent/api/AgentTrace.h"

namespace QOR {
namespace {

/// Operators are told that a client has gone only when it is another one, not whenever an environment changes.
bool sameRights(const QORClientContext& a, const QORClientContext& b) {
    const auto own = [](const QORClientContext& context) {
        QOREID eid;
        if (context.token->ownSID()) extractObjIdFromSID(*context.token->ownSID(), eid);
        return eid;
    };
    return a.fullAccess == b.fullAccess && own(a) == own(b) && a.objects() == b.objects();
}

HttpReply replyOf(const AgentCall& call, const AgentProblem& problem, int code) {
    static_cast<AgentTrace*>(call.request.trace)->problem = codeOf(problem);
    if (!call.route.inNotation) return problemReply(problem);
    HttpReply reply;
    reply.status = problem.status;
    writeErrorResponse(code, problem.detail, reply.body);
    return reply;
}

HttpReply answer(AgentCall& call) {
    try {
        std::optional<AgentParameters>& read = static_cast<AgentTrace*>(call.request.trace)->parameters;
        call.parameters =
            read ? *std::exchange(read, {}) : AgentParameters::ofQuery(call.request.query, call.route.parameters);
        return call.route.answer(call);
    } catch (const AgentProblemException& exception) {
        return replyOf(call, exception.problem(), static_cast<int>(exception.problem().status));
    } catch (const QORException& exception) {
        return replyOf(call, problemOf(exception), exception.code());
    } catch (const std::exception& exception) {
        return replyOf(call, failureProblem(exception.what()), errFailure);
    }
}

}  // namespace

const AgentRequester& AgentCall::requester() const noexcept {
    return static_cast<const AgentRequester&>(*request.requester);
}

HttpReply AgentClient::handle(const HttpRequest& request) {
    const QORMemoryScope memory(m_application.newAccount());
    const QORRequestNotesScope notes(&static_cast<AgentTrace*>(request.trace)->notes);
    const auto& requester = static_cast<const AgentRequester&>(*request.requester);
    const AgentAccess::Running running(m_application.access(), requester);
    const AgentRouteMatch match = findRoute(request.path, request.method);
    HttpReply reply;
    try {
        AgentCall call{.request = request,
                       .route = *match.route,
                       .application = m_application,
                       .host = m_application.host(),
                       .session = [&]() -> QORClientSession& { return sessionFor(requester); }};
        for (const std::string_view name : match.names)
            call.names.push_back(percentDecoded(name, "", false));
        reply = answer(call);
    } catch (const AgentProblemException& exception) {
        reply = problemReply(exception.problem());
    }
    logReply(request, reply);
    return reply;
}

QORClientSession& AgentClient::sessionFor(const AgentRequester& requester) {
    QORClientContextPtr context = m_application.access().contextOf(requester);
    if (!m_session || !sameRights(*m_session->context(), *context))
        m_session = m_application.host().newSession(std::move(context));
    return *m_session;
}

}  // namespace QOR
