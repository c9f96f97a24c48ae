/// \file
/// A database file as another program has it open: plain SQL through the engine itself, without a driver.
#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace QOR::test {

/// One connection, used by one thread at a time; a lock of somebody else's is waited for, up to five seconds. What it
/// writes need not survive a power cut.
class SqliteFile {
public:
    explicit SqliteFile(const std::filesystem::path& file) {
        const int result = sqlite3_open(file.c_str(), &m_database);
        if (result != SQLITE_OK) {
            sqlite3_close(m_database);
            throw std::runtime_error("cannot open " + file.string());
        }
        sqlite3_busy_timeout(m_database, 5000);
        sqlite3_exec(m_database, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
    }
    ~SqliteFile() { sqlite3_close(m_database); }
    SqliteFile(const SqliteFile&) = delete;
    SqliteFile& operator=(const SqliteFile&) = delete;

    /// Runs statements. \returns false when one was not taken, which complaint() tells about
    bool tries(const std::string& sql) {
        const bool taken = sqlite3_exec(m_database, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
        if (!taken) m_complaint = sqlite3_errmsg(m_database);
        return taken;
    }
    const std::string& complaint() const { return m_complaint; }

    /// Runs statements. \throws std::runtime_error when one is not taken
    void run(const std::string& sql) {
        if (!tries(sql)) throw std::runtime_error(m_complaint + " in " + sql);
    }

    /// Rows of a select as texts, nulls as "<null>".
    std::vector<std::vector<std::string>> rows(const std::string& sql) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(m_database, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            throw std::runtime_error(sqlite3_errmsg(m_database) + (" in " + sql));
        }
        std::vector<std::vector<std::string>> all;
        int step = SQLITE_DONE;
        while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
            std::vector<std::string>& row = all.emplace_back();
            for (int column = 0; column < sqlite3_column_count(statement); ++column) {
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
                const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
                row.push_back(text != nullptr ? std::string(text, size) : "<null>");
            }
        }
        sqlite3_finalize(statement);
        if (step != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(m_database) + (" in " + sql));
        return all;
    }

    /// The only cell of a select of one row.
    std::string cell(const std::string& sql) { return rows(sql).at(0).at(0); }

private:
    sqlite3* m_database = nullptr;
    std::string m_complaint;
};

}  // namespace QOR::test
