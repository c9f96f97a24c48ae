/// \file
/// What an operator refuses, as a problem: the parameter that it is about, and the place in it where that is certain.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "agent/api/AgentParameters.h"
#include "agent/api/AgentProblem.h"

namespace QOR {

class QORException;

/// \param place in the filter that cannot be read, bytes before it, where the operator has told it
/// \param nearest of the names that there are the one most like a name, empty for none
AgentProblem problemOfOperator(const QORException& error, const AgentParameters& parameters,
                               std::optional<std::int64_t> place,
                               const std::function<std::string(std::string_view name)>& nearest);

}  // namespace QOR
