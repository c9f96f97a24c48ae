/// \file
/// Texts of whatever bytes as UTF-8.
#pragma once

#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// The text itself where it is UTF-8; else each byte that is in the way becomes U+FFFD, the replacement character.
QOR_API std::string toUtf8(std::string_view text);

}  // namespace QOR
