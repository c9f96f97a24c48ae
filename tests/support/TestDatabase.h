/// \file
/// A database for one test, of the engine that the tests run on: the same tests run on each.
#pragma once

#include <filesystem>
#include <functional>
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

/// Whether the tests' databases are spread over servers: QOR_TEST_SERVERS in the environment is not empty.
bool hasTestServers();

/// For what is not so where records lie with several servers.
#define QOR_NOT_WITH_SERVERS(reason)                                 \
    do {                                                             \
        if (::QOR::test::hasTestServers()) GTEST_SKIP() << (reason); \
    } while (false)

/// A database that is reached by strings, and goes with its object.
class TestPlace {
public:
    virtual ~TestPlace() = default;
    virtual std::string connectionString() const = 0;
    virtual std::string conninfo() const = 0;
};

/// For SQLite a name of a file that does not exist yet. With servers it is home of some of its own, made by what
/// ShardedPostgres.cpp registers, and has the host's tables.
class TestDatabase {
public:
    explicit TestDatabase(TestTables tables = TestTables::None);

    using Maker = std::function<std::unique_ptr<TestPlace>()>;
    static Maker& makerOfServers();

    std::string connectionString() const;
    /// SQLite's. \throws std::logic_error on another engine
    std::filesystem::path file() const;
    /// PostgreSQL's, for the engine's own library. \throws std::logic_error on another engine
    std::string conninfo() const;
    /// A folder of the test's own, in which the file is.
    const TemporaryDirectory& folder() const { return m_folder; }

private:
    TemporaryDirectory m_folder;
    std::unique_ptr<TestPlace> m_postgres;
};

}  // namespace QOR::test
