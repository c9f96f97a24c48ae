#include "QORDBSchema/QORDatabaseFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string_view>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "rdbmspp/engine/OdbcConnectionString.h"

namespace QOR {
namespace {

/// What SQLite keeps beside the database. The first is the database itself.
constexpr const char* fileSuffixes[] = {"", "-wal", "-shm", "-journal"};

bool isSqlite(std::string_view driver) {
    return toLowerText(driver).find("sqlite") != std::string::npos;
}

}  // namespace

QORDatabaseFile::QORDatabaseFile(const std::string& connectionString) {
    const OdbcConnectionString parts(connectionString);
    const std::string database = parts.get("Database");
    const bool isFile = !database.empty() && database.front() != ':' && !database.starts_with("file:");
    if (!isFile || !isSqlite(parts.get("Driver"))) return;
    if (database.find(';') != std::string::npos) {
        throw QORException(errFailure,
                           "database " + quoteText(database, 1024) +
                               ": the name of its file holds a semicolon, which no connection string can hold",
                           QOR_SOURCE_PATH, __LINE__);
    }
    m_path = database;
}

bool QORDatabaseFile::exists() const {
    std::error_code error;
    return m_path.empty() || std::filesystem::exists(m_path, error);
}

void QORDatabaseFile::check() const {
    if (m_path.empty()) return;
    for (const char* suffix : fileSuffixes)
        checkOwnFile(m_path + suffix);
}

void QORDatabaseFile::create() const {
    if (exists()) return;
    // Without its folder the engine has the say.
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::path(m_path).parent_path();
    if (!folder.empty() && !std::filesystem::is_directory(folder, error)) return;
    openOwnFile(m_path, O_RDWR | O_CREAT, S_IRUSR | S_IWUSR);
}

void QORDatabaseFile::narrow() const {
    if (m_path.empty()) return;
    for (const char* suffix : fileSuffixes) {
        const std::optional<mode_t> before = narrowOwnFile(m_path + suffix);
        if (!before) continue;
        logMessage(1, "QORDBSchema", QOR_SOURCE_PATH, __func__,
                   "%s%s had mode %04o, so that others could read it; it is %04o now", m_path.c_str(), suffix, *before,
                   *before & S_IRWXU);
    }
}

}  // namespace QOR
