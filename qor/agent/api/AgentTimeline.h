/// \file
/// Operations, events and backups in one order, that of their time. Thread-safe.
#pragma once

#include <array>

#include "agent/api/AgentBounds.h"
#include "agent/api/AgentCall.h"
#include "agent/api/AgentSelect.h"

namespace QOR {

inline constexpr std::array timelineParameters{
    fromParameter,
    toParameter,
    environmentParameter,
    limitParameter,
    AgentParameter{.name = "after",
                   .meaning = "the token `next` of the page before; all else as for that page but limit "
                              "and format"},
    formatParameter,
};

/// GET /v1/timeline: the newest first.
HttpReply answerTimeline(AgentCall& call);

}  // namespace QOR
