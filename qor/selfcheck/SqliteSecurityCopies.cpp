#include "selfcheck/SqliteSecurityCopies.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "host/QORHostPaths.h"

namespace QOR {
namespace {

[[noreturn]] void fail(sqlite3* database, const std::string& what) {
    throw QORException(errFailure, what + ": " + sqlite3_errmsg(database), QOR_SOURCE_PATH, __LINE__);
}

std::string typeOf(const std::string& declared) {
    std::string type = declared.substr(0, declared.find('('));
    while (!type.empty() && type.back() == ' ')
        type.pop_back();
    return toLowerText(type);
}

/// The engine makes files as the process's mask says; this one is there before, for its owner alone.
void createPrivate(const std::filesystem::path& file) {
    constexpr mode_t ownerOnly = 0600;
    const int descriptor = ::open(file.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, ownerOnly);
    if (descriptor < 0) {
        throw QORException(errFailure, "cannot create " + file.string() + ": " + std::strerror(errno), QOR_SOURCE_PATH,
                           __LINE__);
    }
    ::close(descriptor);
}

std::string declaredColumns(const QORCheckedView& view) {
    std::string list;
    for (const QORCheckedColumn& column : view.columns) {
        if (!list.empty()) list += ", ";
        list += quotedName(column.name);
        if (!column.declared.empty()) list += ' ' + column.declared;
    }
    return list;
}

/// The host's tables with what keeps their counters, empty, then the records of the environments: so that everything
/// which is kept beside them is that of a host which never knew others.
void copyRecords(SqliteCheckedDatabase& target, const std::set<std::string>& eids) {
    for (const auto& part :
         target.values("SELECT sql FROM whole.sqlite_master WHERE substr(tbl_name, 1, 4) = 'qor_' AND "
                       "type <> 'view' AND sql IS NOT NULL ORDER BY CASE type WHEN 'table' THEN 0 "
                       "WHEN 'index' THEN 1 ELSE 2 END"))
        target.run(part);
    for (const QORRecordTable& table : checkedTables) {
        std::string columns;
        for (const auto& column : target.values("SELECT name FROM pragma_table_info(" + quotedText(table.name) + ")"))
            columns += (columns.empty() ? "" : ", ") + quotedName(column);
        std::string copying("INSERT INTO main.");
        copying.append(table.name).append(" (").append(columns).append(") SELECT ").append(columns);
        copying.append(" FROM whole.").append(table.name).append(" WHERE ").append(table.owner);
        target.run(copying.append(" IN (").append(quotedList(eids)).append(")"));
    }
}

ASDatabaseOptions readingOf(const std::filesystem::path& file) {
    return {.connectionString = sqliteConnectionString(file), .readOnly = true};
}

}  // namespace

// ---- a file ---------------------------------------------------------------------------------------------------------

SqliteCheckedDatabase::SqliteCheckedDatabase(const std::filesystem::path& file, bool readOnly) {
    const int flags = readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    if (sqlite3_open_v2(file.c_str(), &m_database, flags, nullptr) != SQLITE_OK) {
        const std::string reason = sqlite3_errmsg(m_database);
        sqlite3_close(m_database);
        throw QORException(errFailure, "cannot open database " + file.string() + ": " + reason, QOR_SOURCE_PATH,
                           __LINE__);
    }
    constexpr int patienceMs = 10000;
    sqlite3_busy_timeout(m_database, patienceMs);
}

SqliteCheckedDatabase::~SqliteCheckedDatabase() {
    sqlite3_close(m_database);
}

void SqliteCheckedDatabase::run(const std::string& sql) {
    if (sqlite3_exec(m_database, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) fail(m_database, sql);
}

SqliteCheckedDatabase::Rows SqliteCheckedDatabase::rows(const std::string& sql, std::size_t most) {
    Rows result;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(m_database, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) fail(m_database, sql);
    int step = SQLITE_ROW;
    while (result.size() < most && (step = sqlite3_step(statement)) == SQLITE_ROW) {
        auto& row = result.emplace_back();
        for (int column = 0; column < sqlite3_column_count(statement); ++column) {
            const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
            const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
            row.push_back(text == nullptr ? std::string() : std::string(text, size));
        }
    }
    sqlite3_finalize(statement);
    if (step != SQLITE_ROW && step != SQLITE_DONE) fail(m_database, sql);
    return result;
}

std::vector<std::string> SqliteCheckedDatabase::select(const std::string& sql, std::size_t most) {
    std::vector<std::string> found;
    for (auto& row : rows(sql, most))
        found.push_back(std::move(row.front()));
    return found;
}

std::vector<QORCheckedView> SqliteCheckedDatabase::listViews() {
    std::vector<QORCheckedView> views;
    for (auto& name :
         values("SELECT name FROM sqlite_master WHERE type = 'view' AND lower(name) <> 'schematable' ORDER BY name")) {
        QORCheckedView view;
        view.name = std::move(name);
        try {
            for (const auto& column :
                 rows("SELECT name, type FROM pragma_table_info(" + quotedText(view.name) + ") ORDER BY cid", SIZE_MAX))
                view.columns.push_back({column[0], typeOf(column[1]), column[1], {}});
        } catch (const QORException&) {
            continue;  // selects from what is gone; the operators leave it out as well
        }
        views.push_back(std::move(view));
    }
    return views;
}

bool SqliteCheckedDatabase::isHostDatabase() {
    return std::all_of(checkedTables.begin(), checkedTables.end(), [&](const QORRecordTable& table) {
        return !values("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = " + quotedText(table.name)).empty();
    });
}

void SqliteCheckedDatabase::copyTo(SqliteCheckedDatabase& target) {
    sqlite3_backup* const backup = sqlite3_backup_init(target.m_database, "main", m_database, "main");
    if (backup == nullptr) fail(target.m_database, "the database cannot be copied");
    const int step = sqlite3_backup_step(backup, -1);
    sqlite3_backup_finish(backup);
    if (step != SQLITE_DONE) fail(target.m_database, "the database cannot be copied");
}

// ---- copies ---------------------------------------------------------------------------------------------------------

SqliteSecurityCopies::SqliteSecurityCopies(const std::filesystem::path& file) {
    SqliteCheckedDatabase source(file, true);
    createPrivate(wholeFile());
    SqliteCheckedDatabase target(wholeFile(), false);
    source.copyTo(target);
    // A copy is read and never written again; without a write-ahead log nothing lies beside it.
    target.run("PRAGMA journal_mode = DELETE");
    m_whole = std::make_unique<SqliteCheckedDatabase>(wholeFile(), true);
}

std::filesystem::path SqliteSecurityCopies::wholeFile() const {
    return folder() / "whole.db";
}

ASDatabaseOptions SqliteSecurityCopies::wholeOptions() const {
    return readingOf(wholeFile());
}

QORVisiblePart SqliteSecurityCopies::makePart(const std::vector<QORCheckedView>& views,
                                              const std::set<std::string>& eids) {
    const auto file = [this](unsigned number) { return folder() / ("part" + std::to_string(number) + ".db"); };
    std::filesystem::remove(file(m_parts));
    QORVisiblePart part{readingOf(file(++m_parts)), {}};
    createPrivate(file(m_parts));
    SqliteCheckedDatabase target(file(m_parts), false);
    target.run("PRAGMA synchronous = OFF; PRAGMA journal_mode = OFF; ATTACH " + quotedText(wholeFile().string()) +
               " AS whole; BEGIN");
    for (const QORCheckedView& view : views) {
        const std::string table = rowsOf(view);
        // The declared types keep what the columns' values are compared by.
        target.run("CREATE TABLE " + table + " (" + declaredColumns(view) + ")");
        try {
            target.run("INSERT INTO " + table + " SELECT " + columnsOf(view) + " FROM whole." + quotedName(view.name) +
                       " WHERE " + view.access(eids));
        } catch (const QORException&) {
            continue;  // a view that fails on what the client may see fails for full access too
        }
        target.run("CREATE VIEW " + quotedName(view.name) + " AS SELECT * FROM " + table);
        part.sizes[view.name] = std::stoul(target.values("SELECT count(*) FROM " + table).front());
    }
    if (m_whole->isHostDatabase()) copyRecords(target, eids);
    target.run("COMMIT; DETACH whole");
    return part;
}

}  // namespace QOR
