/// \file
/// The names that a filter may hold, as an agent declares them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "QORPager/QORExpressionEvaluation.h"

namespace QOR {

/// Declares the built-in fields with empty values, environment fields as special, and every name of the text that
/// falls under a prefix that an agent registers.
void declareNames(TExpressionEvaluation& evaluator, std::string_view text);

/// "String, environments" for a name that is declared, however it is spelled; "" for any other.
std::string describeName(std::string_view name);

/// The declared names that one could have meant by an undeclared one, the nearest first, at most three.
std::vector<std::string_view> nearestNames(std::string_view name);

}  // namespace QOR
