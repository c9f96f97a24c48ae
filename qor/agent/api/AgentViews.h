/// \file
/// What views the database has. Thread-safe.
#pragma once

#include "agent/api/AgentCall.h"

namespace QOR {

/// `{"views":[{"name":"...","columns":[{"name":"...","type":"...","length":0},...]},...]}`
HttpReply answerViews(AgentCall& call);

}  // namespace QOR
