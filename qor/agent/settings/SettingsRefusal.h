/// \file
/// How settings are refused.
#pragma once

#include <string>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"

namespace QOR {

/// \throws QORException errBadRequest, always
[[noreturn]] inline void refuseSettings(const std::string& reason) {
    throw QORException(errBadRequest, reason, QOR_SOURCE_PATH);
}

}  // namespace QOR
