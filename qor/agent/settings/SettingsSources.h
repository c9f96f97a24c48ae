/// \file
/// Where the agent's settings come from, and what goes before what.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "agent/settings/GivenSettings.h"

namespace QOR {

/// Files first: the main one, then `conf.d/*.toml` beside it in the order of their names; then variables of the
/// environment; then the command line. What comes later replaces what came before, of a list all of it. Not
/// thread-safe.
class SettingsSources {
public:
    /// \param file empty: defaultSettingsFile(), which need not be there
    SettingsSources(std::filesystem::path file, GivenSettings commandLine);

    /// As all of it is now. \throws QORException errBadRequest naming what is wrong, and where
    GivenSettings read();
    /// Those that read() has read last, in their order.
    const std::vector<std::filesystem::path>& files() const noexcept { return m_files; }

private:
    void findFiles();

    const bool m_named;  ///< the file must be there
    const std::filesystem::path m_file;
    const GivenSettings m_commandLine;
    std::vector<std::filesystem::path> m_files;
};

/// /etc/qor/agent.toml for root, else $XDG_CONFIG_HOME/qor/agent.toml or ~/.config/qor/agent.toml; empty for who has
/// no home.
std::filesystem::path defaultSettingsFile();

}  // namespace QOR
