/// \file
/// The host's tables as the database itself tells them: for whoever handles all records alike, whatever they are.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

class ASSession;

/// What a column holds, in whichever engine.
enum class QORSchemaColumnKind {
    Integer,       ///< of 64 bits
    SmallInteger,  ///< of 32 bits
    Text,
    Guid,  ///< lower case, with hyphens
    Time,  ///< "YYYY-MM-DD HH:MM:SS"
    Bytes,
    Mixed,  ///< a number where the text looks like one, else the text
};

struct QORSchemaColumn {
    std::string name;
    QORSchemaColumnKind kind;
};

struct QORSchemaTable {
    std::string name;
    std::vector<QORSchemaColumn> columns;  ///< those that are stored; SQLite's rowid where nothing else is the arrival
    std::vector<std::size_t> key;          ///< indexes of the columns that identify a row, in their order
};

/// The tables that hold records and what is kept about them, those that others refer to before the others. Without
/// those that a database has for itself: its version, its identity, its servers, what triggers note down for a moment
/// or for who follows its changes. \throws QORException 1 for a column of a type that no step of the schema gives;
/// AException
QOR_API std::vector<QORSchemaTable> readTables(ASSession& session);

}  // namespace QOR
