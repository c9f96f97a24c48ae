/// \file
/// How far the collectors of a machine have read, kept beside the records.
#pragma once

#include <string>
#include <string_view>

#include "QORCommon/QORGuid.h"

namespace QOR {

/// \returns "" where nothing has been kept \throws AException
std::string readCollectorPosition(const QOREID& machine, std::string_view collector);
/// \throws AException
void storeCollectorPosition(const QOREID& machine, std::string_view collector, std::string_view position);

}  // namespace QOR
