/// \file
/// One connection of the agent: where requests are answered.
#pragma once

#include <memory>

#include "agent/http/HttpTypes.h"
#include "host/QORClientSession.h"

namespace QOR {

class AgentApplication;
struct AgentCall;
struct AgentRequester;

/// A connection is one client: it has its own operators for as long as it lasts, or until other rights come over it.
class AgentClient final : public HttpClientHandler {
public:
    /// \param application must outlive the client
    explicit AgentClient(AgentApplication& application) : m_application(application) {}

    /// \pre the route of the request is there and its requester may use it, see AgentApplication::plan()
    HttpReply handle(const HttpRequest& request) override;

private:
    QORClientSession& sessionFor(const AgentRequester& requester);

    AgentApplication& m_application;
    std::unique_ptr<QORClientSession> m_session;
};

}  // namespace QOR
