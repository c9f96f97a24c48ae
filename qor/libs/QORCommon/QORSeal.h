/// \file
/// Bytes that a stranger keeps for us: he can neither read nor change them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// Encrypts and signs (AES-256-GCM), 32 bytes longer than what is sealed, and another text each time. Each has a key of
/// its own, derived from `secret` and 128 random bits, so that a secret lasts for as many as there will ever be.
/// Any thread. \throws QORException errFailure where the system's library cannot
QOR_API std::string sealBytes(std::string_view secret, std::string_view bytes);
/// Nothing for what was not sealed with this secret, or has changed since. Any thread. \throws as sealBytes()
QOR_API std::optional<std::string> openBytes(std::string_view secret, std::string_view sealed);

}  // namespace QOR
