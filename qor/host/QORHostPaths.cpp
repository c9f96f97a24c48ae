#include "host/QORHostPaths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <initializer_list>
#include <system_error>

namespace QOR {
namespace {

namespace fs = std::filesystem;

/// An absolute path from the environment; empty when there is none. Relative ones do not count: they would mean
/// another place after each change of folder.
fs::path pathFromEnvironment(const char* name) {
    const char* const text = std::getenv(name);
    if (text == nullptr || *text != '/') return {};
    return text;
}

fs::path homeDirectory() {
    if (fs::path home = pathFromEnvironment("HOME"); !home.empty()) return home;
    const passwd* const user = ::getpwuid(::geteuid());
    return user != nullptr && user->pw_dir != nullptr ? fs::path(user->pw_dir) : fs::path("/");
}

const fs::path& machineSocketPath() {
    static const fs::path path = "/run/qor/agent.sock";
    return path;
}

}  // namespace

fs::path executableDirectory() {
    std::error_code error;
    const fs::path executable = fs::read_symlink("/proc/self/exe", error);
    return error ? fs::current_path() : executable.parent_path();
}

fs::path defaultPlugInDirectory() {
    const fs::path prefix = executableDirectory().parent_path();
    const fs::path first = prefix / "lib" / "qor" / "plugins";
    const fs::path second = prefix / QOR_PLUGIN_SUBDIRECTORY;
    std::error_code error;
    return fs::is_directory(second, error) && !fs::is_directory(first, error) ? second : first;
}

fs::path defaultVocabularyFile() {
    const fs::path prefix = executableDirectory().parent_path();
    const fs::path first = prefix / "share" / "qor" / "vocabulary.xml";
    const fs::path second = prefix / QOR_DATA_SUBDIRECTORY / "vocabulary.xml";
    std::error_code error;
    return fs::exists(second, error) && !fs::exists(first, error) ? second : first;
}

fs::path defaultStateDirectory() {
    if (::geteuid() == 0) return "/var/lib/qor";
    if (const fs::path state = pathFromEnvironment("XDG_STATE_HOME"); !state.empty()) return state / "qor";
    return homeDirectory() / ".local" / "state" / "qor";
}

std::string sqliteConnectionString(const fs::path& file) {
    const std::string name = file.string();
    return "Driver=SQLite3;Database=" + (name.find(';') == std::string::npos ? name : "{" + name + "}");
}

std::string connectionStringOf(const std::string& database) {
    const std::size_t equals = database.find('=');
    const bool isPath = equals == std::string::npos || database.find('/') < equals;
    return database.empty() || !isPath ? database : sqliteConnectionString(database);
}

std::string defaultConnectionString() {
    return sqliteConnectionString(defaultStateDirectory() / "agent.db");
}

fs::path defaultSocketPath() {
    if (::geteuid() == 0) return machineSocketPath();
    if (const fs::path runtime = pathFromEnvironment("XDG_RUNTIME_DIR"); !runtime.empty()) {
        return runtime / "qor" / "agent.sock";
    }
    return defaultStateDirectory() / "agent.sock";
}

fs::path defaultClientSocketPath() {
    fs::path own = defaultSocketPath();
    std::error_code error;
    return fs::exists(own, error) || !fs::exists(machineSocketPath(), error) ? own : machineSocketPath();
}

}  // namespace QOR
