/// \file
/// Internal: whether a GUID is one of some, asked of row after row.
#pragma once

struct sqlite3;

namespace QOR {

/// The name of a function of SQL, (value, guids).
constexpr const char* sqliteAmong = "qor_among";

/// Gives a connection the function: 1 when the value is a text and one of the GUIDs,
/// which stand behind each other in one text, 36 bytes each; else 0, for null too. What `+column IN (...)` would ask in
/// twice to three times the time: the engine keeps the items of a list in a table, in which it searches for each row.
void addSqliteAmong(sqlite3& connection) noexcept;

}  // namespace QOR
