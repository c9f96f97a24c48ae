/// \file
/// Checks of the operators that a plug-in brings.
#pragma once

#include <string>
#include <vector>

#include "conformance/CheckReport.h"

namespace QOR {

class QORHost;

/// \param names of operators that the host has
void checkOperators(CheckReport& report, const QORHost& host, const std::vector<std::string>& names);

}  // namespace QOR
