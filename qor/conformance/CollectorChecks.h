/// \file
/// Checks of the collectors that a plug-in brings.
#pragma once

#include <filesystem>
#include <vector>

#include "conformance/CheckReport.h"

namespace QOR {

class QORCollector;

/// The database that records go to is open.
/// \param root a tree with what they read; empty: none
/// \param folder an empty one for trees that are made
void checkCollectors(CheckReport& report, const std::vector<QORCollector*>& collectors,
                     const std::filesystem::path& root, const std::filesystem::path& folder);

}  // namespace QOR
