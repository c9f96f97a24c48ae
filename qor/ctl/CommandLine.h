/// \file
/// The command line of qorctl.
#pragma once

#include <string>
#include <vector>

namespace QOR {

/// Reads the command line, runs the command and tells the person what went wrong.
/// \param arguments without the program's name
/// \returns the exit status, one of CtlExit
int runCommandLine(const std::vector<std::string>& arguments);

}  // namespace QOR
