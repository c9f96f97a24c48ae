/// \file
/// What a host knows of its database, for whoever looks after it.
#pragma once

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

/// Found without reading the records. Names and numbers only, but of all records: not for clients without full access.
struct QORDatabaseStatus {
    std::string name;  ///< as in messages, never a password
    std::string engine;
    int schemaVersion = 0;  ///< 0 for another program's database
    bool readOnly = false;
    /// Which stored documents cannot be read. Absent where nobody has looked: another program's database, or one of an
    /// older version that is only read.
    std::optional<std::vector<QORUnreadableDocuments>> unreadable;
    std::vector<QORServerStatus> servers;  ///< whose unreadable documents are among those above
};

/// Of the process's database, which must be configured, and its servers. \throws AException
QORDatabaseStatus readDatabaseStatus();

}  // namespace QOR
