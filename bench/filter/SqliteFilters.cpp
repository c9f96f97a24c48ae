#include "filter/SqliteFilters.h"

#include <sqlite3.h>

#include <stdexcept>

namespace QOR::bench {
namespace {

void check(sqlite3* database, int result, int expected = SQLITE_OK) {
    if (result != expected) throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(database));
}

void execute(sqlite3* database, const char* sql) {
    check(database, sqlite3_exec(database, sql, nullptr, nullptr, nullptr));
}

void bindText(sqlite3_stmt* statement, int parameter, std::string_view text) {
    check(sqlite3_db_handle(statement),
          sqlite3_bind_text(statement, parameter, text.data(), static_cast<int>(text.size()), SQLITE_STATIC));
}

}  // namespace

void SqliteCloser::operator()(sqlite3* database) const noexcept {
    sqlite3_close(database);
}
void SqliteCloser::operator()(sqlite3_stmt* statement) const noexcept {
    sqlite3_finalize(statement);
}

SqliteStatement prepare(sqlite3* database, const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    check(database, sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr));
    return SqliteStatement(statement);
}

SqliteDatabase openRows(const FilterRows& rows) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open(":memory:", &opened);
    SqliteDatabase database(opened);
    check(opened, result);
    execute(opened, "pragma case_sensitive_like = on");
    execute(opened, "create table rows (hostname text, os text, state integer, memory integer)");
    execute(opened, "begin");
    const SqliteStatement insert = prepare(opened, "insert into rows values (?, ?, ?, ?)");
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const TypedRow& row = rows.typed(i);
        bindText(insert.get(), 1, row.hostname);
        bindText(insert.get(), 2, row.os);
        sqlite3_bind_int(insert.get(), 3, row.state);
        sqlite3_bind_int(insert.get(), 4, row.memory);
        check(opened, sqlite3_step(insert.get()), SQLITE_DONE);
        sqlite3_reset(insert.get());
    }
    execute(opened, "commit");
    return database;
}

SqliteScan::SqliteScan(sqlite3* database, const Filter& filter)
    : m_count(prepare(database, std::string("select count(*) from rows where ") + filter.sql)),
      m_rows(prepare(database, std::string("select rowid from rows where ") + filter.sql + " order by rowid")) {}

std::size_t SqliteScan::count() {
    check(sqlite3_db_handle(m_count.get()), sqlite3_step(m_count.get()), SQLITE_ROW);
    const auto count = static_cast<std::size_t>(sqlite3_column_int64(m_count.get(), 0));
    sqlite3_reset(m_count.get());
    return count;
}

Selection SqliteScan::select() {
    Selection selection;
    while (sqlite3_step(m_rows.get()) == SQLITE_ROW) {
        selection.add(static_cast<std::size_t>(sqlite3_column_int64(m_rows.get(), 0)) - 1);
    }
    sqlite3_reset(m_rows.get());
    return selection;
}

SqliteRow::SqliteRow(sqlite3* database, const Filter& filter)
    : m_statement(prepare(database, std::string("select ") + filter.parameters)) {
    for (int parameter = 1; parameter <= sqlite3_bind_parameter_count(m_statement.get()); ++parameter) {
        const std::string_view name = sqlite3_bind_parameter_name(m_statement.get(), parameter);
        m_columns.push_back(name == ":hostname" ? Column::Hostname
                            : name == ":os"     ? Column::Os
                            : name == ":state"  ? Column::State
                                                : Column::Memory);
    }
}

bool SqliteRow::matches(const TypedRow& row) {
    sqlite3_stmt* const statement = m_statement.get();
    int parameter = 0;
    for (const Column column : m_columns) {
        ++parameter;
        switch (column) {
            case Column::Hostname:
                bindText(statement, parameter, row.hostname);
                break;
            case Column::Os:
                bindText(statement, parameter, row.os);
                break;
            case Column::State:
                sqlite3_bind_int(statement, parameter, row.state);
                break;
            case Column::Memory:
                sqlite3_bind_int(statement, parameter, row.memory);
                break;
        }
    }
    check(sqlite3_db_handle(statement), sqlite3_step(statement), SQLITE_ROW);
    const bool result = sqlite3_column_int(statement, 0) != 0;
    sqlite3_reset(statement);
    return result;
}

}  // namespace QOR::bench
