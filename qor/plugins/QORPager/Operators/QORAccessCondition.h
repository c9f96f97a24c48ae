/// \file
/// What a client may see, as a condition of the database.
#pragma once

#include <vector>

#include "QORLibAgent/QORSecurity.h"
#include "rdbmspp/sql/ASAttribute.h"
#include "rdbmspp/sql/ASComparison.h"

namespace QOR {

/// The condition that a row belongs to an environment whose records the client may see; empty when it may see all, and
/// "1 = 0" when it stands for no environment, or no column says whose a row is.
/// \param owners the columns that name the environments that a row belongs to
ASComparison accessCondition(const QORRowAccess& access, const std::vector<ASAttribute>& owners);

}  // namespace QOR
