/// \file
/// Following records over HTTP, as server-sent events: what came since a position, then what comes.
#pragma once

#include <array>
#include <string_view>

#include "agent/api/AgentCall.h"
#include "agent/api/AgentSelect.h"

namespace QOR {

inline constexpr std::array<std::string_view, 1> followTypes{"text/event-stream"};
inline constexpr std::array followParameters{
    AgentParameter{.name = "source",
                   .kind = AgentParameter::Kind::List,
                   .meaning = "what is followed: operations, events, backups, environments",
                   .fallback = "operations,events"},
    AgentParameter{.name = "fields",
                   .kind = AgentParameter::Kind::List,
                   .meaning = "columns of the records, which each source must have. Without it all columns but bytes "
                              "and those of row security"},
    AgentParameter{.name = "where",
                   .meaning = "the condition on records, as for rows of views; its columns must be in each source"},
    AgentParameter{.name = "after",
                   .meaning = "the id of the last event that was taken, or `beginning` for everything that there is; "
                              "the field Last-Event-ID says it too, and goes before"},
};

/// GET /v1/follow. Holds its worker until the client leaves, may no longer see what it sees, or the agent stops.
HttpReply answerFollow(AgentCall& call);

}  // namespace QOR
