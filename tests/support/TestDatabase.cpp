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

bool hasTestServers() {
    const char* const servers = std::getenv("QOR_TEST_SERVERS");
    return servers != nullptr && *servers != '\0';
}

namespace {

class OneServer : public TestPlace {
public:
    explicit OneServer(TestTables tables) : m_database(tables) {}
    std::string connectionString() const override { return m_database.connectionString(); }
    std::string conninfo() const override { return m_database.conninfo(); }

private:
    PostgresDatabase m_database;
};

}  // namespace

TestDatabase::Maker& TestDatabase::makerOfServers() {
    static Maker maker = []() -> std::unique_ptr<TestPlace> {
        throw std::logic_error("the test program is not linked with what makes servers");
    };
    return maker;
}

TestDatabase::TestDatabase(TestTables tables) {
    if (testEngine() != ASEngine::PostgreSQL) return;
    m_postgres = hasTestServers() ? makerOfServers()() : std::make_unique<OneServer>(tables);
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
