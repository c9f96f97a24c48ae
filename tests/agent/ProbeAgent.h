// Agents with the plug-in that does what it is told: wait, throw, tell who asks.
#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/AgentProcess.h"

namespace QOR::test {

/// \param more further options of the agent
inline AgentSettings withProbe(std::vector<std::string> more = {}) {
    AgentSettings settings;
    settings.plugIns = std::filesystem::path(QOR_TEST_PLUGIN_DIR) / "probe";
    settings.more = std::move(more);
    return settings;
}

}  // namespace QOR::test
