/// \file
/// The host's general error table: codes to printf formats.
#pragma once

#include <map>

#include "QORCommon/QORException.h"
#include "QORCommon/QORExport.h"

namespace QOR {

/// An error table: code to printf format. Tables are built before the first request and only read afterwards.
using QORErrorTable = std::map<int, const char*>;

/// Codes of QORErrorCode. 1, 400 and 408 take one text, which is the whole message; 420 takes nothing.
QOR_API extern QORErrorTable QORErrors;

}  // namespace QOR
