/// \file
/// The engine's own connection to a test's database, past the layer that is tested.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/SqliteFile.h"
#include "support/TestDatabase.h"

namespace QOR::test {

/// Used by one thread at a time. What one engine writes in its own way is given to oneOf().
class DirectDatabase {
public:
    explicit DirectDatabase(const TestDatabase& database) {
        if (testEngine() == ASEngine::SQLite) {
            m_sqlite = std::make_unique<SqliteFile>(database.file());
        } else {
            m_postgres = std::make_unique<PostgresConnection>(database.conninfo());
        }
    }

    /// Runs statements. \throws std::runtime_error when one is not taken
    void run(const std::string& sql) { m_sqlite ? m_sqlite->run(sql) : m_postgres->run(sql); }
    /// Rows of a select as texts, nulls as "<null>". \throws std::runtime_error
    std::vector<std::vector<std::string>> rows(const std::string& sql) {
        return m_sqlite ? m_sqlite->rows(sql) : m_postgres->rows(sql);
    }
    /// The only cell of a select of one row.
    std::string cell(const std::string& sql) { return rows(sql).at(0).at(0); }

private:
    std::unique_ptr<SqliteFile> m_sqlite;
    std::unique_ptr<PostgresConnection> m_postgres;
};

/// What the tests' engine is told, of two ways to say it.
inline std::string oneOf(const char* sqlite, const char* postgres) {
    return testEngine() == ASEngine::SQLite ? sqlite : postgres;
}

}  // namespace QOR::test
