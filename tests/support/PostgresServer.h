/// \file
/// A PostgreSQL server of a test program's own, and the engine's own connections to prepare its databases and to
/// compare with.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace QOR::test {

/// One connection through the engine's own library, without a driver. Used by one thread at a time.
class PostgresConnection {
public:
    /// \param conninfo in the library's form \throws std::runtime_error with its reason
    explicit PostgresConnection(const std::string& conninfo);
    ~PostgresConnection();
    PostgresConnection(const PostgresConnection&) = delete;
    PostgresConnection& operator=(const PostgresConnection&) = delete;

    /// Runs statements. \throws std::runtime_error when one is not taken
    void run(const std::string& sql);
    /// Rows of a select as texts, nulls as "<null>". \throws std::runtime_error
    std::vector<std::vector<std::string>> rows(const std::string& sql);
    /// The only cell of a select of one row.
    std::string cell(const std::string& sql) { return rows(sql).at(0).at(0); }

private:
    void* m_connection;
};

/// Listens on a socket in a temporary folder of its own and nowhere else, as an unprivileged user where the test runs
/// as root. It promises nothing about power cuts. Its databases order and fold texts by the rules of a language, so
/// that what has to go by bytes does so because it was told to. It ends, and its folder goes, with the process that
/// started it, however that ends.
class PostgresServer {
public:
    /// The program's one server, started at the first call. Tests that stop it start it again.
    static PostgresServer& shared();

    /// \param port a part of the name of its socket
    explicit PostgresServer(int port = 5432);
    ~PostgresServer();
    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

    /// Makes a database and \returns its name. Without tables, or with all that another has.
    std::string createDatabase(const std::string& like = bare);
    /// Makes one with all that another has, which nobody may be connected to; in place of the one of that name.
    void copyDatabase(const std::string& from, const std::string& to);
    /// Drops it, with whoever is connected.
    void dropDatabase(const std::string& name);
    /// What a driver is told to get to a database.
    std::string connectionString(const std::string& database) const { return connectionString(database, m_folder); }
    /// \param folder where its socket is looked for, which may be somebody's between
    std::string connectionString(const std::string& database, const std::string& folder) const;
    /// The same for the engine's own library.
    std::string conninfo(const std::string& database) const;

    /// Ends the server as a crash does: nobody is told.
    void crash() { tell("crash", "crashed"); }
    /// Starts it again, and waits until it takes connections.
    void start() { tell("start", "ready"); }
    /// Has all of its processes hang: the system goes on taking what is sent to them.
    void suspend() { tell("suspend", "suspended"); }
    void resume() { tell("resume", "resumed"); }
    /// The database that has what the host makes in an empty one, and that others are copied from. Made at the first
    /// call, unless the server began with files that have it.
    const std::string& databaseWithTables();
    /// Ends the server in order, and has a folder hold its files: servers of processes that QOR_TEST_POSTGRES_FILES in
    /// the environment names it to begin with a copy of it.
    void endAndKeepFiles(const std::string& folder);
    /// Who looks after the server: when that process's input ends, it stops the server and removes the folder.
    pid_t keeper() const noexcept { return m_keeper; }
    const std::string& folder() const noexcept { return m_folder; }

private:
    static constexpr const char* bare = "template1";  ///< the engine's own

    void tell(const std::string& command, const std::string& answer);
    void waitFor(const std::string& answer);

    int m_port;
    std::string m_folder;
    pid_t m_keeper = -1;
    int m_commands = -1;
    int m_answers = -1;
    unsigned m_databases = 0;
    std::string m_tables;
};

/// What is in a test's database at first.
enum class TestTables {
    None,  ///< nothing: without any schema
    Own,   ///< what the host makes in an empty database, where to make it takes long: a program makes it once, and
           ///< copies bear the same identity; where it does not, nothing
};

/// A database for one test.
class PostgresDatabase {
public:
    explicit PostgresDatabase(TestTables tables = TestTables::None) : m_name(create(tables)) {}
    ~PostgresDatabase();
    PostgresDatabase(const PostgresDatabase&) = delete;
    PostgresDatabase& operator=(const PostgresDatabase&) = delete;

    const std::string& name() const noexcept { return m_name; }
    std::string connectionString() const { return PostgresServer::shared().connectionString(m_name); }
    std::string connectionStringThrough(const std::string& folder) const {
        return PostgresServer::shared().connectionString(m_name, folder);
    }
    /// The engine's own connection to it.
    PostgresConnection connect() const { return PostgresConnection(conninfo()); }
    std::string conninfo() const { return PostgresServer::shared().conninfo(m_name); }

private:
    static std::string create(TestTables tables);

    std::string m_name;
};

}  // namespace QOR::test
