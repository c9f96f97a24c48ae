/// \file
/// Checks of a plug-in's file, of which nothing is run.
#pragma once

#include <filesystem>
#include <vector>

#include "conformance/CheckReport.h"
#include "conformance/QORPlugInCheck.h"

namespace QOR {

/// \returns whether there is any use in loading it
bool checkFile(const std::filesystem::path& file, std::vector<QORPlugInFinding>& findings);

/// Whether everything is there that it needs of other libraries; these are loaded, the file is not.
CheckOutcome checkSymbols(const std::filesystem::path& file);

}  // namespace QOR
