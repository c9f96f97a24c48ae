#include "agent/settings/SettingsSources.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "agent/settings/SettingTable.h"
#include "agent/settings/SettingsFile.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;

/// A folder, unless the variable holds none.
fs::path folderIn(const char* variable) {
    const char* const value = std::getenv(variable);
    return value != nullptr && *value == '/' ? fs::path(value) : fs::path();
}

/// `*.toml` of a folder, by name; none where there is no such folder.
std::vector<fs::path> fragmentsIn(const fs::path& folder) {
    std::error_code error;
    if (!fs::exists(folder, error)) return {};
    std::vector<fs::path> files;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        const fs::path& file = entry->path();
        if (file.extension() == ".toml" && !file.filename().string().starts_with('.')) files.push_back(file);
    }
    if (error) {
        throw QORException(errBadRequest, "the settings: cannot read " + folder.string() + ": " + error.message(),
                           QOR_SOURCE_PATH);
    }
    std::sort(files.begin(), files.end());
    return files;
}

GivenSettings environmentSettings() {
    GivenSettings given;
    for (const Setting& setting : settingTable()) {
        const std::string variable(setting.variable);
        const char* const value = variable.empty() ? nullptr : std::getenv(variable.c_str());
        if (value != nullptr && *value != '\0') given.give(setting, {{value}, variable, std::string(setting.name)});
    }
    return given;
}

}  // namespace

SettingsSources::SettingsSources(fs::path file, GivenSettings commandLine)
    : m_named(!file.empty()),
      m_file(m_named ? fs::absolute(file) : defaultSettingsFile()),
      m_commandLine(std::move(commandLine)) {}

void SettingsSources::findFiles() {
    m_files.clear();
    if (m_file.empty()) return;
    std::error_code ignored;
    if (m_named || fs::exists(m_file, ignored)) m_files.push_back(m_file);
    for (fs::path& fragment : fragmentsIn(m_file.parent_path() / "conf.d"))
        m_files.push_back(std::move(fragment));
}

GivenSettings SettingsSources::read() {
    findFiles();
    GivenSettings given;
    for (const fs::path& file : m_files)
        given.give(readSettingsFile(file));
    given.give(environmentSettings());
    given.give(m_commandLine);
    return given;
}

fs::path defaultSettingsFile() {
    if (::geteuid() == 0) return "/etc/qor/agent.toml";
    const fs::path config = folderIn("XDG_CONFIG_HOME");
    if (!config.empty()) return config / "qor" / "agent.toml";
    const fs::path home = folderIn("HOME");
    return home.empty() ? home : home / ".config" / "qor" / "agent.toml";
}

}  // namespace QOR
