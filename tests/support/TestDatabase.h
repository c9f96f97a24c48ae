/// \file
/// A database for one test, of the engine that the tests run on: the same tests run on each.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "rdbmspp/engine/ASEngine.h"
#include "support/PostgresServer.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {

/// What QOR_TEST_ENGINE in the environment names, by the name that the host gives it; SQLite where it names none.
ASEngine testEngine();

/// For what one engine alone has.
#define QOR_ONLY_ON(engine)                                                                   \
    do {                                                                                      \
        if (::QOR::test::testEngine() != (engine)) GTEST_SKIP() << "is about another engine"; \
    } while (false)

/// Empty and without any schema; for SQLite a name of a file that does not exist yet.
class TestDatabase {
public:
    TestDatabase();

    std::string connectionString() const;
    /// SQLite's. \throws std::logic_error on another engine
    std::filesystem::path file() const;
    /// PostgreSQL's, for the engine's own library. \throws std::logic_error on another engine
    std::string conninfo() const;
    /// A folder of the test's own, in which the file is.
    const TemporaryDirectory& folder() const { return m_folder; }

private:
    TemporaryDirectory m_folder;
    std::unique_ptr<PostgresDatabase> m_postgres;
};

}  // namespace QOR::test
