/// \file
/// The filters evaluated by SQLite.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "filter/FilterRows.h"

struct sqlite3;
struct sqlite3_stmt;

namespace QOR::bench {

struct SqliteCloser {
    void operator()(sqlite3* database) const noexcept;
    void operator()(sqlite3_stmt* statement) const noexcept;
};
using SqliteDatabase = std::unique_ptr<sqlite3, SqliteCloser>;
using SqliteStatement = std::unique_ptr<sqlite3_stmt, SqliteCloser>;

/// A database in memory whose table `rows` holds the rows. like minds case there, as the filter language does.
SqliteDatabase openRows(const FilterRows& rows);
SqliteStatement prepare(sqlite3* database, const std::string& sql);

/// A scan of the table: `select count(*) from rows where ...`.
class SqliteScan {
public:
    SqliteScan(sqlite3* database, const Filter& filter);
    std::size_t count();
    Selection select();

private:
    SqliteStatement m_count;
    SqliteStatement m_rows;
};

/// The condition alone, evaluated for one row at a time with the row's values bound.
class SqliteRow {
public:
    SqliteRow(sqlite3* database, const Filter& filter);
    bool matches(const TypedRow& row);

private:
    enum class Column { Hostname, Os, State, Memory };
    SqliteStatement m_statement;
    std::vector<Column> m_columns;  ///< by parameter number, from 1
};

}  // namespace QOR::bench
