/// \file
/// Texts as parts of addresses.
#pragma once

#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// Letters, digits and what else is plain as they are, all other bytes as "%2F": RFC 3986, section 2.1.
QOR_API std::string percentEscaped(std::string_view text, std::string_view plain = "/-_.~");

}  // namespace QOR
