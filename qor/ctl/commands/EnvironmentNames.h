/// \file
/// What people call environments.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "backend/Backend.h"

namespace QOR {

/// The host names of environments, or else their titles, by their identifiers, as the asker may see them; without those
/// that have none, and empty where there is nobody who knows.
/// \param client as SelectOptions::client
std::map<std::string, std::string> environmentNames(Backend& backend, const std::set<std::string>& eids,
                                                    const std::vector<std::string>& client);

}  // namespace QOR
