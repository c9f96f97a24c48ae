/// \file
/// What "pager2" knows of the database's views: their columns and types, and which of them are securable.
///
/// Learned once per process, by the first request that asks (SelectStmnt::getMetaTablesMap), and never refreshed: views
/// made later are unknown until the process restarts.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "QORDBSchema/QORStoredColumns.h"
#include "QORLibAgent/QORRecordChanges.h"
#include "rdbmspp/sql/ASAttribute.h"

namespace QOR {

/// The column that holds the object of a row, or with a number behind it, one of its objects.
inline constexpr const char* securableObjectColumn = "securableObjId";

/// Types of view columns; the numbers are those of the database layer.
using ColumnType = ASType;

/// One column: its type, and its declared length in characters (texts only, else 0; 0 also when none is declared).
struct MetaColumn {
    ColumnType type = ColumnType::VarChar;
    std::uint32_t length = 0;
    bool isNeverNull = false;  ///< as far as is known
};

/// One view.
struct MetaColumnsMap {
    std::map<std::string, MetaColumn, std::less<>> columns;  ///< by exact name
    int securityOperationId = 0;                             ///< 0: the view is not securable
    std::string viewName;                                    ///< as the database spells it
    QORStoredColumns reading;                                ///< what is known of reading it
    ASStorages storages;                                     ///< of columns whose type does not say all
    std::string key;  ///< a column that tells its rows apart and is never null; "" where none is known to
    std::optional<QORChangeKind> records{};  ///< what the sequence of changes tells of its rows; none: nothing
};

/// All views, by lower-cased name.
using MetaTablesMap = std::map<std::string, MetaColumnsMap, std::less<>>;

/// The column type behind a database's type name in lower case; empty for a name that is not known.
std::optional<ColumnType> columnTypeFromName(std::string_view typeName);

namespace test {
/// Forgets what was learned, as if the process had just started. Only while no request runs.
void forgetMetadata();
}  // namespace test

}  // namespace QOR
