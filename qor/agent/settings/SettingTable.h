/// \file
/// Every setting that the agent has. What reads command lines, files and the environment, prints settings, documents
/// them and takes them up anew goes by this table.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "agent/settings/Setting.h"

namespace QOR {

/// In the order in which people are shown them; those of a group follow each other.
std::span<const Setting> settingTable() noexcept;

/// Null for none.
const Setting* findSetting(std::string_view name) noexcept;

/// " (did you mean a or b?)" of settings with names like it; empty for none.
std::string adviseOnSetting(std::string_view name);

}  // namespace QOR
