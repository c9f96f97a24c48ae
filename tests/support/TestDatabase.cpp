#include "support/TestDatabase.h"

#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace QOR::test {

ASEngine testEngine() {
    const char* const name = std::getenv("QOR_TEST_ENGINE");
    if (name == nullptr || std::string_view(name) == "SQLite") return ASEngine::SQLite;
    if (std::string_view(name) == "PostgreSQL") return ASEngine::PostgreSQL;
    throw std::logic_error("QOR_TEST_ENGINE names no engine: " + std::string(name));
}

TestDatabase::TestDatabase() {
    if (testEngine() == ASEngine::PostgreSQL) m_postgres = std::make_unique<PostgresDatabase>();
}

std::string TestDatabase::connectionString() const {
    return m_postgres ? m_postgres->connectionString() : "Driver=SQLite3;Database=" + file().string();
}

std::filesystem::path TestDatabase::file() const {
    if (m_postgres) throw std::logic_error("the test's database is no file");
    return m_folder / "agent.db";
}

std::string TestDatabase::conninfo() const {
    if (!m_postgres) throw std::logic_error("the test's database has no server");
    return m_postgres->conninfo();
}

}  // namespace QOR::test
