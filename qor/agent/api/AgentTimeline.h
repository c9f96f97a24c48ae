/// \file
/// Operations, events and backups in one order, that of their time. Thread-safe.
#pragma once

#include <array>

#include "agent/api/AgentCall.h"
#include "agent/api/AgentSelect.h"

namespace QOR {

inline constexpr std::array timelineParameters{
    AgentParameter{.name = "from", .meaning = "the earliest time, also one told from now: 2024-05-01, yesterday, -7d"},
    AgentParameter{.name = "to", .meaning = "the latest time"},
    AgentParameter{.name = "env", .meaning = "the environment that the records belong to, by its identifier"},
    limitParameter,
    AgentParameter{.name = "after",
                   .meaning = "the token `next` of the page before; all else as for that page but limit "
                              "and format"},
    formatParameter,
};

/// GET /v1/timeline: the newest first.
HttpReply answerTimeline(AgentCall& call);

}  // namespace QOR
