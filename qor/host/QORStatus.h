/// \file
/// What a host knows of its database, for whoever looks after it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QORDBSchema/QORStoredDocuments.h"

namespace QOR {

/// What a host knows of a server that keeps records of its database.
struct QORServerStatus {
    std::string name;
    int schemaVersion = 0;
    std::string failure;  ///< why nothing more is known; empty where it was asked
};

/// How many records a view shows to who sees all of them.
struct QORViewRecords {
    std::string view;
    std::uint64_t records = 0;
};

/// Found without reading the records' contents. Names and numbers only, but of all records: not for clients without
/// full access.
struct QORDatabaseStatus {
    std::string name;  ///< as in messages, never a password
    std::string engine;
    int schemaVersion = 0;  ///< 0 for another program's database
    bool readOnly = false;
    /// Which stored documents cannot be read. Absent where nobody has looked: another program's database, or one of an
    /// older version that is only read.
    std::optional<std::vector<QORUnreadableDocuments>> unreadable;
    std::vector<QORServerStatus> servers;  ///< whose unreadable documents, records and bytes are among the others
    std::uint64_t bytes = 0;               ///< that the database uses
    /// Absent where they are not known: another program's database, an older version that is only read, a server that
    /// cannot be asked.
    std::optional<std::vector<QORViewRecords>> records{};
};

/// Of the process's database, which must be configured, and its servers. \throws AException
QORDatabaseStatus readDatabaseStatus();

}  // namespace QOR
