/// \file
/// What is kept of one request from its plan on: for its answer, for the numbers and for the audit.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "agent/api/AgentParameters.h"
#include "agent/http/HttpTypes.h"
#include "host/QORRequestNotes.h"

namespace QOR {

/// Made in plan(), when it is known who asks and for what; the notes are the handler's.
struct AgentTrace final : HttpTrace {
    std::string_view
        method{};              ///< of static storage, as is the route: nothing that a client makes up is kept as a name
    std::string_view route{};  ///< its pattern; empty: there is no such path
    std::string who{};         ///< the identity's name; empty: none
    std::string as{};          ///< the identity that was asked as
    QORRequestNotes notes{};
    std::string_view problem{};  ///< the code of what its handling ended with, of static storage; empty: nothing
    /// Of the target, where the plan depends on them and none of them is at fault; the handler takes them.
    std::optional<AgentParameters> parameters{};
};

/// A method that the agent knows, else "other".
std::string_view knownMethod(std::string_view method) noexcept;

}  // namespace QOR
