/// \file
/// How the agent does. Answered on the server's thread: nobody is waited for. Thread-safe.
#pragma once

#include <string_view>

#include "agent/http/HttpTypes.h"

namespace QOR {

class AgentApplication;

/// `{"status":"live"}`
HttpReply liveNow(const AgentApplication& application, std::string_view access);
/// `{"status":"ok"}`, or a problem 503 while something fails.
HttpReply readyNow(const AgentApplication& application, std::string_view access);
/// What the agent is made of, and what fails. \param access of who asks: "full", "environments" or "none"
HttpReply healthNow(const AgentApplication& application, std::string_view access);
/// All of it in numbers.
HttpReply metricsNow(const AgentApplication& application, std::string_view access);

}  // namespace QOR
