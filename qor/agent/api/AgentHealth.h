/// \file
/// How the agent does. Answered on the server's thread: nobody is waited for. Thread-safe.
#pragma once

#include "agent/http/HttpTypes.h"

namespace QOR {

class AgentApplication;

/// `{"status":"live"}`
HttpReply liveNow(const AgentApplication& application, bool fullAccess);
/// `{"status":"ok"}`, or a problem 503 while something fails.
HttpReply readyNow(const AgentApplication& application, bool fullAccess);
/// What the agent is made of, and what fails. \param fullAccess of who asks
HttpReply healthNow(const AgentApplication& application, bool fullAccess);
/// All of it in numbers.
HttpReply metricsNow(const AgentApplication& application, bool fullAccess);

}  // namespace QOR
