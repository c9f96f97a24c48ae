/// \file
/// Records out again, as the lines that POST takes. Thread-safe.
#pragma once

#include <array>
#include <string_view>

#include "agent/api/AgentBounds.h"
#include "agent/api/AgentCall.h"

namespace QOR {

inline constexpr std::array<std::string_view, 1> exportTypes{"application/x-ndjson"};
inline constexpr std::array exportParameters{
    AgentParameter{.name = "source",
                   .kind = AgentParameter::Kind::List,
                   .meaning = "what is exported",
                   .fallback = "environments,operations,events,backups"},
    fromParameter,
    toParameter,
    environmentParameter,
    AgentParameter{.name = "after",
                   .meaning = "the object behind the last `position` that was taken: what comes behind it, of what was "
                              "asked for then; alone"},
};
bool streamsExport(const HttpRequest& head, const AgentParameters& parameters);

/// GET /v1/records: records that the requester sees, see QORRecordExport. A failure behind the first line breaks the
/// connection.
HttpReply answerExport(AgentCall& call);

}  // namespace QOR
