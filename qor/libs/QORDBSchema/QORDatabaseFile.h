/// \file
/// The files of an SQLite database, seen as files: whose they are, and who may read them.
#pragma once

#include <string>

#include "QORCommon/QORExport.h"

namespace QOR {

/// The files behind a connection string. A database that is no file (another engine's, or one that the string names
/// by a data source) has none, and every call does nothing.
class QOR_API QORDatabaseFile {
public:
    /// \throws QORException 1 for a name that the driver would cut at its semicolon
    explicit QORDatabaseFile(const std::string& connectionString);

    const std::string& path() const noexcept { return m_path; }

    /// Whether there is one; true for a database that is no file.
    bool exists() const;
    /// Makes sure, before the engine opens them by name, that neither the file nor those beside it (log, journal) are
    /// another user's, or were reached through another user's link. \throws QORException as openOwnFile()
    void check() const;
    /// Makes an empty file that only its user can read, so that nobody else can be first. Nothing when there is one.
    /// \throws QORException as openOwnFile()
    void create() const;
    /// Takes the rights of group and others away, and says so in the log. Files of another user stay as they are.
    void narrow() const;

private:
    std::string m_path;
};

}  // namespace QOR
