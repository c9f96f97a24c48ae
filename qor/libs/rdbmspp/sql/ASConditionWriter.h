/// \file
/// Internal: writes a condition so that the engine's parser takes it.
#pragma once

#include "rdbmspp/sql/ASComparison.h"

namespace QOR {

class ASSqlBuilder;

/// Chains of one operator stand flat, in groups where they are long; a not of a not is gone. Conditions stand in the
/// order in which they were asked for while that costs the parser little. Deep ones are turned: the deepest part of
/// a chain comes first, and a not is carried down to the comparisons, neither of which changes what a row is worth.
/// \throws AException for what the engine cannot take even so
void writeCondition(ASSqlBuilder& builder, const ASComparison::Node& root);

}  // namespace QOR
