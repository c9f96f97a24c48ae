/// \file
/// What the answer to a request is made from.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "agent/api/AgentParameters.h"
#include "agent/http/HttpTypes.h"
#include "host/QORHost.h"

namespace QOR {

class AgentApplication;
struct AgentRequester;
struct AgentRoute;

/// One request on its way to the function that answers it; gone when that returns. Used by the thread that serves it.
struct AgentCall {
    const HttpRequest& request;
    const AgentRoute& route;
    std::vector<std::string> names{};  ///< what stands in the places of the path's names, decoded
    AgentParameters parameters{};      ///< of the query
    AgentApplication& application;
    QORHost& host;
    /// The client's operators, with the rights that this request has.
    std::function<QORClientSession&()> session;

    const AgentRequester& requester() const noexcept;
};

}  // namespace QOR
