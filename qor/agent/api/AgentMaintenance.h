/// \file
/// Routes that look after the database: checking it, and removing what is old. Thread-safe.
#pragma once

#include <array>

#include "agent/api/AgentCall.h"

namespace QOR {

inline constexpr std::array<std::string_view, 2> noOrYes{"0", "1"};

inline constexpr std::array checkParameters{
    AgentParameter{.name = "part",
                   .meaning = "of the database: integrity, schema, foreign-keys, documents or counters"},
    AgentParameter{.name = "mend",
                   .kind = AgentParameter::Kind::Choice,
                   .meaning = "1: what can be mended is",
                   .choices = noOrYes,
                   .fallback = "0"},
};
inline constexpr std::array pruneParameters{
    AgentParameter{.name = "what", .meaning = "operations, events, backups, space or compact"},
    AgentParameter{.name = "before", .meaning = "seconds since the epoch: records that are older go"},
    AgentParameter{.name = "unsent",
                   .kind = AgentParameter::Kind::Choice,
                   .meaning = "1: also what waits for being sent to another agent",
                   .choices = noOrYes,
                   .fallback = "0"},
};

/// `{"findings":[{"text":"...","mended":false},...]}` \throws QORException, AException
HttpReply answerCheck(AgentCall& call);

/// `{"done":500,"more":true,"waiting":0,"stranded":0}`: records removed or bytes given back, whether to ask again,
/// records that wait for being sent on, and bytes that cannot be given back \throws QORException, AException
HttpReply answerPrune(AgentCall& call);

}  // namespace QOR
