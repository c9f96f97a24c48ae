/// \file
/// How far the collectors of a machine have read, kept beside the records.
#pragma once

#include <string>
#include <string_view>

#include "QORCommon/QORGuid.h"

namespace QOR {

class ASSession;

/// \returns "" where nothing has been kept \throws AException
std::string readCollectorPosition(const QOREID& machine, std::string_view collector);
/// In the caller's transaction. \throws AException
void storeCollectorPosition(ASSession& session, const QOREID& machine, std::string_view collector,
                            std::string_view position);

}  // namespace QOR
