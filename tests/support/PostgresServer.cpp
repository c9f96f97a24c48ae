#include "support/PostgresServer.h"

#include <fcntl.h>
#include <libpq-fe.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "QORDBSchema/QORDBSchema.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {
namespace {

// Where Debian puts the programs that are not in the path.
constexpr const char* programs = "/usr/lib/postgresql/15/bin";

constexpr const char* user = "qor";

// Where a folder with a server's files is that others begin with.
constexpr const char* filesVariable = "QOR_TEST_POSTGRES_FILES";
constexpr const char* nameWithTables = "host_tables";

// Runs before the keeper, and as who started the test, who alone may find those files.
constexpr const char* copyScript = R"sh(
if said=$(cp -a "$0" "$1/data" 2>&1); then shift; exec "$@"; fi
echo "failed: $said" | tr '\n' ' '; echo)sh";

// Runs beside the server and outlives the test by the moment that it takes to clean up: the end of its input is the end
// of the test, whichever way that came.
constexpr const char* keeperScript = R"sh(
programs=$1 folder=$2 user=$3 port=$4
# Where it looks for certificates of its own when it connects to another server: the home of who started it may be closed.
export HOME="$folder"
server=
start() {
    "$programs/postgres" -D "$folder/data" -p "$port" -k "$folder" >>"$folder/log" 2>&1 </dev/null &
    server=$!
    until "$programs/pg_isready" -q -h "$folder" -p "$port" -d postgres; do
        kill -0 "$server" 2>/dev/null || { echo "failed: $(tail -n 3 "$folder/log" | tr '\n' ' ')"; return; }
        sleep 0.02
    done
    echo ready
}
tell() {
    kill "$1" "$server" 2>/dev/null
    for process in /proc/[0-9]*; do
        read -r line 2>/dev/null <"$process/stat" || continue
        set -- "$1" ${line##*) }
        [ "$3" != "$server" ] || kill "$1" "${process#/proc/}" 2>/dev/null
    done
}
stop() {
    [ -z "$server" ] || { tell -CONT; kill -QUIT "$server" 2>/dev/null; }
    wait "$server" 2>/dev/null
    server=
}
trap 'stop; rm -rf "$folder"' EXIT
if [ -e "$folder/data" ]; then
    start
elif "$programs/initdb" -D "$folder/data" -U "$user" --auth=trust --no-sync --no-instructions --encoding=UTF8 \
    --locale=C.UTF-8 --locale-provider=icu --icu-locale=en >"$folder/log" 2>&1 </dev/null; then
    cat >>"$folder/data/postgresql.conf" <<END
listen_addresses = ''
fsync = off
synchronous_commit = off
full_page_writes = off
wal_level = minimal
max_wal_senders = 0
autovacuum = off
shared_buffers = 32MB
max_connections = 100
END
    start
else
    echo "failed: $(tail -n 3 "$folder/log" | tr '\n' ' ')"
fi
while read -r command; do
    case $command in
        crash) stop; echo crashed ;;
        end) kill -INT "$server"; wait "$server"; server=; echo ended ;;
        start) start ;;
        suspend) tell -STOP; echo suspended ;;
        resume) tell -CONT; echo resumed ;;
    esac
done
)sh";

struct Pipe {
    Pipe() {
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
    }
    std::array<int, 2> ends{};
};

const passwd* unprivileged() {
    for (const char* name : {"postgres", "nobody"}) {
        if (const passwd* found = ::getpwnam(name)) return found;
    }
    throw std::runtime_error("there is no user to run a server as");
}

struct Cleared {
    void operator()(PGresult* result) const noexcept { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, Cleared>;

Result run(void* connection, const std::string& sql) {
    auto* const server = static_cast<PGconn*>(connection);
    Result result(PQexec(server, sql.c_str()));
    const ExecStatusType status = PQresultStatus(result.get());
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) return result;
    throw std::runtime_error(PQerrorMessage(server) + (" in " + sql));
}

}  // namespace

PostgresConnection::PostgresConnection(const std::string& conninfo) : m_connection(PQconnectdb(conninfo.c_str())) {
    auto* const server = static_cast<PGconn*>(m_connection);
    if (PQstatus(server) == CONNECTION_OK) {
        PQsetNoticeProcessor(
            server, [](void*, const char*) {}, nullptr);
        return;
    }
    const std::string reason = PQerrorMessage(server);
    PQfinish(server);
    throw std::runtime_error(reason);
}

PostgresConnection::~PostgresConnection() {
    PQfinish(static_cast<PGconn*>(m_connection));
}

void PostgresConnection::run(const std::string& sql) {
    test::run(m_connection, sql);
}

std::vector<std::vector<std::string>> PostgresConnection::rows(const std::string& sql) {
    const Result result = test::run(m_connection, sql);
    std::vector<std::vector<std::string>> all;
    for (int row = 0; row < PQntuples(result.get()); ++row) {
        auto& cells = all.emplace_back();
        for (int column = 0; column < PQnfields(result.get()); ++column) {
            const bool null = PQgetisnull(result.get(), row, column) != 0;
            cells.emplace_back(null ? "<null>" : PQgetvalue(result.get(), row, column));
        }
    }
    return all;
}

PostgresServer& PostgresServer::shared() {
    static PostgresServer server;
    return server;
}

PostgresServer::PostgresServer(int port) : m_port(port) {
    if (!std::filesystem::exists(std::string(programs) + "/postgres")) {
        throw std::runtime_error("there is no PostgreSQL in " + std::string(programs) +
                                 ": its tests need the packages that ./test installs");
    }
    m_folder = makeTemporaryFolder();
    const char* const files = std::getenv(filesVariable);
    const bool begun = files != nullptr && ::access((std::string(files) + "/PG_VERSION").c_str(), R_OK) == 0;
    std::vector<std::string> command{"sh",     "-c",     keeperScript, "keeper",
                                     programs, m_folder, user,         std::to_string(m_port)};
    if (::geteuid() == 0) {
        const passwd* const owner = unprivileged();
        if (::chown(m_folder.c_str(), owner->pw_uid, owner->pw_gid) != 0) {
            throw std::runtime_error("cannot give a folder to " + std::string(owner->pw_name));
        }
        command.insert(command.begin(), {"setpriv", "--reuid=" + std::to_string(owner->pw_uid),
                                         "--regid=" + std::to_string(owner->pw_gid), "--clear-groups", "--"});
    }
    if (begun) {
        command.insert(command.begin(), {"sh", "-c", copyScript, files, m_folder});
        m_tables = nameWithTables;
    }
    const Pipe input;
    const Pipe output;
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input.ends[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output.ends[1], STDOUT_FILENO);
    ::posix_spawn_file_actions_addchdir_np(&actions, "/");  // the folder of the test may be closed to that user
    // A session of its own, so that what a terminal sends to the test alone ends it in order.
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    std::vector<char*> arguments;
    for (std::string& argument : command)
        arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    const int error = ::posix_spawnp(&m_keeper, arguments.front(), &actions, &attributes, arguments.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(input.ends[0]);
    ::close(output.ends[1]);
    m_commands = input.ends[1];
    m_answers = output.ends[0];
    if (error != 0) throw std::runtime_error("cannot start a server: " + std::string(std::strerror(error)));
    waitFor("ready");
}

PostgresServer::~PostgresServer() {
    ::close(m_commands);
    ::waitpid(m_keeper, nullptr, 0);
    ::close(m_answers);
}

void PostgresServer::tell(const std::string& command, const std::string& answer) {
    const std::string line = command + "\n";
    if (::write(m_commands, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        throw std::runtime_error("nobody looks after the server any more");
    }
    waitFor(answer);
}

void PostgresServer::waitFor(const std::string& answer) {
    constexpr int patience = 300'000;  // milliseconds; sanitizers and busy machines are slow, a hang must still end
    std::string line;
    for (char letter = 0; letter != '\n';) {
        pollfd waiting{m_answers, POLLIN, 0};
        if (::poll(&waiting, 1, patience) <= 0) throw std::runtime_error("the server says nothing");
        if (::read(m_answers, &letter, 1) != 1) throw std::runtime_error("the server has ended: " + line);
        if (letter != '\n') line += letter;
    }
    if (line != answer) throw std::runtime_error("the server: " + line);
}

std::string PostgresServer::createDatabase(const std::string& like) {
    std::string name = "test_" + std::to_string(++m_databases);
    copyDatabase(like, name);
    return name;
}

void PostgresServer::copyDatabase(const std::string& from, const std::string& to) {
    PostgresConnection all(conninfo("postgres"));
    all.run("DROP DATABASE IF EXISTS " + to + " WITH (FORCE)");
    all.run("CREATE DATABASE " + to + " TEMPLATE " + from + " STRATEGY file_copy");
}

const std::string& PostgresServer::databaseWithTables() {
    if (!m_tables.empty()) return m_tables;
    copyDatabase(bare, nameWithTables);
    PostgresConnection connection(conninfo(nameWithTables));
    connection.run("BEGIN");
    for (const std::string& statement : QORDBSchema::postgresStatements())
        connection.run(statement);
    connection.run("COMMIT");
    return m_tables = nameWithTables;
}

void PostgresServer::endAndKeepFiles(const std::string& folder) {
    tell("end", "ended");
    // Whole or not at all, for who begins with it.
    const std::string half = folder + ".half";
    std::filesystem::remove_all(half);
    const std::string command = "cp -a '" + m_folder + "/data' '" + half + "'";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("cannot copy a server's files to " + half);
    std::filesystem::rename(half, folder);
}

void PostgresServer::dropDatabase(const std::string& name) {
    PostgresConnection(conninfo("postgres")).run("DROP DATABASE " + name + " WITH (FORCE)");
}

std::string PostgresServer::connectionString(const std::string& database, const std::string& folder) const {
    return "Driver=PostgreSQL Unicode;Server=" + folder + ";Port=" + std::to_string(m_port) + ";Database=" + database +
           ";UID=" + user;
}

std::string PostgresServer::conninfo(const std::string& database) const {
    return "host=" + m_folder + " port=" + std::to_string(m_port) + " user=" + user + " dbname=" + database;
}

std::string PostgresDatabase::create(TestTables tables) {
    PostgresServer& server = PostgresServer::shared();
    return tables == TestTables::Own ? server.createDatabase(server.databaseWithTables()) : server.createDatabase();
}

PostgresDatabase::~PostgresDatabase() {
    try {
        PostgresServer::shared().dropDatabase(m_name);
    } catch (const std::exception&) {
        // It goes with the server.
    }
}

}  // namespace QOR::test

// Asked by the leak checker where a build has one: the driver forgets some bytes of its own after some failures.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:psqlodbcw.so\n";
}
