/// \file
/// Requests in message notation. Thread-safe.
#pragma once

#include <array>

#include "agent/api/AgentCall.h"

namespace QOR {

inline constexpr std::array<std::string_view, 2> trueOrFalse{"true", "false"};

inline constexpr std::array messageParameters{
    AgentParameter{.name = "stream",
                   .kind = AgentParameter::Kind::Choice,
                   .meaning = "the answer leaves while it is made, of any size",
                   .choices = trueOrFalse,
                   .fallback = "false"},
};

/// The answer to one request in message notation. An operator's errors are part of it (200), a body that is no request
/// is 400.
HttpReply answerMessage(AgentCall& call);

bool streamsMessage(const HttpRequest& head, const AgentParameters& parameters);

}  // namespace QOR
