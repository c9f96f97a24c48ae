/// \file
/// Questions as bodies, for those that are long. Thread-safe.
#pragma once

#include <array>

#include "agent/api/AgentCall.h"
#include "agent/api/AgentSelect.h"

namespace QOR {

/// Members of the body: those of both kinds of questions, and which it is.
inline constexpr std::array queryMembers{
    AgentParameter{.name = "view", .meaning = "the view that is asked, by condition on its columns"},
    AgentParameter{.name = "source",
                   .meaning = "in place of a view: environments, operations, events or backups, by their fields"},
    fieldsParameter,
    AgentParameter{.name = "where", .meaning = "the condition, or for a source the filter"},
    sortParameter,
    limitParameter,
    offsetParameter,
    afterParameter,
    countParameter,
    distinctParameter,
};

inline constexpr std::array queryParameters{formatParameter};

/// The members of a question. \throws AgentProblemException for a body that is none, or asks about nothing or two
/// things
AgentParameters readQuestion(const AgentCall& call);

/// POST /v1/query
HttpReply answerQuery(AgentCall& call);
bool streamsQuery(const HttpRequest& head, const AgentParameters& parameters);

}  // namespace QOR
