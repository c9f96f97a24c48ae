/// \file
/// What an operator refuses, as a problem: the parameter that it is about, and the place in it where that is certain.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "agent/api/AgentParameters.h"
#include "agent/api/AgentProblem.h"

namespace QOR {

class QORException;

/// \param nearest of the names that there are the one most like a name, empty for none
AgentProblem problemOfOperator(const QORException& error, const AgentParameters& parameters,
                               const std::function<std::string(std::string_view name)>& nearest);

}  // namespace QOR
