/// \file
/// What "pager2" knows of the database's views: their columns and types, and which of them are securable.
///
/// Learned once per process, by the first request that asks, and never refreshed: views made later are unknown until
/// the process restarts. Thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "rdbmspp/sql/ASAttribute.h"
#include "rdbmspp/sql/ASData.h"

namespace QOR {

/// Types of view columns; the numbers are those of the database layer.
using ColumnType = ASType;

/// One column: its type, and its declared length in characters (texts only, else 0; 0 also when none is declared).
struct MetaColumn {
    ColumnType type = ColumnType::VarChar;
    std::uint32_t length = 0;
};

/// One view.
struct MetaColumnsMap {
    std::map<std::string, MetaColumn, std::less<>> columns;  ///< by exact name
    int securityOperationId = 0;                             ///< 0: the view is not securable
    std::string viewName;                                    ///< as the database spells it
};

/// All views, by lower-cased name.
using MetaTablesMap = std::map<std::string, MetaColumnsMap, std::less<>>;

/// The column type behind a database's type name in lower case; empty for a name that is not known.
std::optional<ColumnType> columnTypeFromName(std::string_view typeName);

/// ASCII letters in lower case.
std::string toLowerAscii(std::string_view text);

/// The views of the database, loaded on first use. When the client whose request loads them lacks full access, the
/// securable views are told apart; else none is. \throws AException when the database cannot be read; the next call
/// tries again
std::shared_ptr<const MetaTablesMap> getMetaTablesMap();

/// Sets each view's security operation identifier, or clears it with a log line that says why.
void validateSecurableViews(MetaTablesMap& views);

/// True when the client that the calling thread serves lacks full access.
bool isSecurityNeeded();

/// The shared domain of a view. \param view its name as the database spells it: names of requests are looked up
/// first, so that the cache holds at most one domain a view
ASDomainPtr getDomain(const std::string& view);

/// The type in which a column is summed, or its minimum or maximum taken.
ColumnType clipNumericType(ColumnType type);

/// A data object of the column type's class: empty without a text, else set from it. \param type 0 counts as VarChar
/// \param length of text columns, in characters
/// \throws QORException 400 for a text that is not wholly a value of the type, 1 for a type outside the enumeration
ASDataPtr interpret(ColumnType type, const std::string* text, std::size_t length);

namespace testing {
/// Forgets what was learned, as if the process had just started. Only while no request runs.
void forgetMetadata();
}  // namespace testing

}  // namespace QOR
