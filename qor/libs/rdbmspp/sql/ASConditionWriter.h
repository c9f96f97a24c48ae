/// \file
/// Internal: writes a condition so that the engine's parser takes it.
#pragma once

#include "rdbmspp/sql/ASComparison.h"

namespace QOR {

class ASSqlBuilder;
struct ASDialect;

/// Chains of one operator stand flat, in groups where they are long; a not of a not is gone. Conditions stand in the
/// order in which they were asked for while that costs the parser little. Deep ones are turned: the deepest part of
/// a chain comes first, and a not is carried down to the comparisons, neither of which changes what a row is worth.
/// \throws AException for what the engine cannot take even so
void writeCondition(ASSqlBuilder& builder, const ASComparison::Node& root);

/// Refuses what writeCondition() does, without writing. Some room of the parser is left for a restriction in either
/// case, so that what is refused does not depend on there being one.
void checkCondition(const ASDialect& dialect, const ASComparison::Node& root);

}  // namespace QOR
