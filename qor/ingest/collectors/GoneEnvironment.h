/// \file
/// Environments of which a source tells no more.
#pragma once

#include <optional>

#include "ingest/QORRecords.h"

namespace QOR {

/// The environment as it is stored, but gone: what it was last stays known. Nothing where it is not stored, or another
/// machine has told of it since. \throws AException
std::optional<QOREnvironmentRecord> goneEnvironment(const QOREID& eid, const QOREID& machine);

}  // namespace QOR
