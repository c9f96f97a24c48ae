/// \file
/// Texts on their way through interfaces that end a text at its first NUL.
#pragma once

#include <string>

#include "QORCommon/QORExport.h"

namespace QOR {

/// The text with each NUL as the four characters `\x00`, so that a message that quotes a name stays whole wherever it
/// goes. Any other byte stays as it is.
QOR_API std::string withoutNuls(std::string text);

}  // namespace QOR
