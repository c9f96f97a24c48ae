/// \file
/// Another program run to its end.
#pragma once

#include <string>
#include <vector>

namespace QOR {

struct ProgramOutput {
    int status = -1;   ///< its exit status; -1 for one that could not be started or that a signal ended
    std::string text;  ///< both of its outputs, as far as 64 KiB
};

/// Waits for it, however long that takes. It reads nothing. Thread-safe. \param command the path of the program and its
/// arguments
ProgramOutput runProgram(const std::vector<std::string>& command);

}  // namespace QOR
