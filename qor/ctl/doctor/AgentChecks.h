/// \file
/// Checks of who answers: the agent, its database, and what the asker may see there.
#pragma once

#include <filesystem>
#include <vector>

#include "backend/Backend.h"
#include "doctor/Finding.h"

namespace QOR {

struct AgentDiagnosis {
    std::vector<Finding> findings;
    std::filesystem::path databaseFile;  ///< on this machine; empty where it is not known, or elsewhere
};

/// What cannot be asked is a finding, not an exception. Waits for as long as the connection's options let it; changes
/// nothing. \param version of this program
AgentDiagnosis checkAgent(const ConnectionOptions& connection, const std::string& version);

}  // namespace QOR
