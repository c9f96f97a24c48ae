/// \file
/// The agent's command line.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "agent/settings/GivenSettings.h"

namespace QOR {

/// What somebody wants who starts the agent.
struct SettingsCommandLine {
    enum class Wish : std::uint8_t { Serve, CheckConfig, PrintSettings, PrintTable };

    Wish wish = Wish::Serve;
    std::filesystem::path file{};  ///< of settings; empty: not named
    GivenSettings given{};
};

/// Reads it. What is wrong is told on standard error, without passwords; help goes to standard output.
/// \param arguments without the program's name \param status how the program is to end, where nothing is returned: 0
/// for help, 2 for what is wrong
std::optional<SettingsCommandLine> readCommandLine(const std::vector<std::string>& arguments, int& status);

/// Its options as entries of man(7), a group a heading. The same on every machine.
std::string commandLineManual();

}  // namespace QOR
