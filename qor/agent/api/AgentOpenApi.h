/// \file
/// What the routes are, for programs that write clients: OpenAPI 3.1, made of the tables that requests are checked by.
/// Thread-safe.
#pragma once

#include "agent/api/AgentCall.h"

namespace QOR {

/// GET /v1/openapi.json
HttpReply answerOpenApi(AgentCall& call);

}  // namespace QOR
