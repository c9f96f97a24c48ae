/// \file
/// Internal: the second that a stored time tells, asked of row after row.
#pragma once

struct sqlite3;

namespace QOR {

/// Gives a connection the function qor_second(time): the seconds since the epoch of a text "YYYY-MM-DD HH:MM:SS" as the
/// engine's own functions tell them, which take many times as long; null for a text that `time = datetime(time)` is not
/// true of, and for what is no text.
void addSqliteSecond(sqlite3& connection) noexcept;

}  // namespace QOR
