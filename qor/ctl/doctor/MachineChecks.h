/// \file
/// Checks of what an agent needs of its machine. None of them asks anybody.
#pragma once

#include <filesystem>

#include "doctor/Finding.h"

namespace QOR {

/// Whether the agent that belongs to this program takes its settings and its vocabulary.
Finding checkSettings();
/// Whether ODBC knows drivers of the engines.
Finding checkDrivers();
/// Whether the plug-ins are where the program looks for them. \param folder empty: its own
Finding checkPlugIns(const std::filesystem::path& folder);
/// Whether something keeps the clock right.
Finding checkClock();
/// Whether there is room where the file lies.
Finding checkDisk(const std::filesystem::path& file);

}  // namespace QOR
