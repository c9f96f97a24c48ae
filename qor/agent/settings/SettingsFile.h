/// \file
/// Settings in a file, in TOML: `name = value`, one a line.
#pragma once

#include <filesystem>
#include <string>

#include "agent/settings/GivenSettings.h"

namespace QOR {

/// \throws QORException errBadRequest naming all mistakes, a line each, with file, line and column: what is no TOML, a
/// name that no setting has (with the nearest that one has), a value that the setting does not take. Also for a file
/// that cannot be read, is no file, or may be written by others than its owner and his group: it decides which code
/// the agent loads.
GivenSettings readSettingsFile(const std::filesystem::path& file);

/// A text as files hold it, quoted.
std::string settingsFileText(const std::string& text);

}  // namespace QOR
