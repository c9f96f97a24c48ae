/// \file
/// One host at a time keeps a database.
#pragma once

#include <filesystem>
#include <string>

namespace QOR {

/// Held by a host that keeps its records in a database file, for as long as it does: two that were started on one file
/// were started by mistake, and each would remove old records by its own rules. Programs that only read, or bring
/// records and end, do without. The lock is one on the file "<database>.lock", which stays behind; the system lets go
/// of it when its holder ends, however it ends.
class QORDatabaseLock {
public:
    /// \param connectionString whose database is locked; nothing is done for one that is no file
    /// \throws QORException errFailure naming the database and who has it
    explicit QORDatabaseLock(const std::string& connectionString);
    ~QORDatabaseLock();
    QORDatabaseLock(const QORDatabaseLock&) = delete;
    QORDatabaseLock& operator=(const QORDatabaseLock&) = delete;

private:
    int m_file = -1;
};

}  // namespace QOR
