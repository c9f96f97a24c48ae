#include "doctor/MachineChecks.h"

#include <sql.h>
#include <sqlext.h>
#include <sys/statvfs.h>
#include <sys/timex.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>
#include <system_error>
#include <vector>

#include "QORCommon/QORText.h"
#include "host/QORHostPaths.h"
#include "output/PersonSize.h"
#include "process/ProgramOutput.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;
using Level = Finding::Level;

/// Of the disk, less than which is little: a log of SQLite's and a compaction need some.
constexpr std::uintmax_t littleRoom = std::uintmax_t{1} << 30;
constexpr double littleShare = 0.05;

std::vector<std::string> driverNames() {
    std::vector<std::string> names;
    SQLHENV environment = SQL_NULL_HENV;
    if (!SQL_SUCCEEDED(::SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &environment))) return names;
    ::SQLSetEnvAttr(environment, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
    std::array<SQLCHAR, 256> name{};
    std::array<SQLCHAR, 1024> attributes{};
    SQLUSMALLINT direction = SQL_FETCH_FIRST;
    while (SQL_SUCCEEDED(::SQLDrivers(environment, direction, name.data(), name.size(), nullptr, attributes.data(),
                                      attributes.size(), nullptr))) {
        names.emplace_back(reinterpret_cast<const char*>(name.data()));
        direction = SQL_FETCH_NEXT;
    }
    ::SQLFreeHandle(SQL_HANDLE_ENV, environment);
    return names;
}

}  // namespace

Finding checkSettings() {
    const fs::path agent = executableDirectory() / "qor-agent";
    std::error_code unseen;
    if (!fs::exists(agent, unseen)) return {Level::Advice, "settings", "there is no qor-agent beside this program", {}};
    const ProgramOutput checked = runProgram({agent.string(), "--check-config"});
    if (checked.status == 0) return {Level::Fine, "settings", "this user's agent takes them"};
    return {Level::Fault, "settings", firstLineOf(checked.text), "mend that line; qor-agent --check-config names all"};
}

Finding checkDrivers() {
    const std::vector<std::string> names = driverNames();
    const std::string found = joinTexts(names);
    if (std::find(names.begin(), names.end(), "SQLite3") != names.end()) return {Level::Fine, "drivers", found};
    return {Level::Fault, "drivers", "ODBC has no driver SQLite3" + (found.empty() ? "" : ", but " + found),
            "apt install libsqliteodbc"};
}

Finding checkPlugIns(const fs::path& given) {
    const fs::path folder = given.empty() ? defaultPlugInDirectory() : given;
    std::set<std::string> found;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error); entry != fs::directory_iterator(); entry.increment(error))
        if (entry->path().extension() == ".so") found.insert(entry->path().stem().string());
    if (!found.empty()) return {Level::Fine, "plug-ins", joinTexts(found)};
    return {Level::Fault, "plug-ins", "there is none in " + folder.string(),
            "install the package again, or name their folder with --plugins"};
}

Finding checkClock() {
    timex state{};
    const int told = ::adjtimex(&state);
    if (told < 0) return {Level::Advice, "clock", "nobody tells here whether it is kept right", "timedatectl status"};
    if (told != TIME_ERROR) return {Level::Fine, "clock", "is kept right"};
    return {Level::Advice, "clock", "nothing keeps it right; times of several machines may not fit together",
            "timedatectl set-ntp true"};
}

Finding checkDisk(const fs::path& file) {
    struct statvfs disk {};
    if (::statvfs(file.c_str(), &disk) != 0)
        return {Level::Advice,
                "disk",
                "cannot be asked about " + file.string() + ": " + std::generic_category().message(errno),
                {}};
    const std::uintmax_t free = std::uintmax_t{disk.f_bavail} * disk.f_frsize;
    const bool isLittle =
        free < littleRoom || static_cast<double>(disk.f_bavail) < littleShare * static_cast<double>(disk.f_blocks);
    const std::string found = showSize(free) + " are free at " + file.string();
    if (!isLittle) return {Level::Fine, "disk", found};
    return {Level::Advice, "disk", found, "qorctl prune --before 90d --compact, or give it more room"};
}

}  // namespace QOR
