// Exports through the agent: a stream of all rows of a view, beside a process that fetches the same rows bound and
// writes the same bytes to a pipe; how long the first row takes; what of the agent is resident meanwhile, for one
// stream and for three at once.
//
//     bench_stream [--smallest] [--check] [FOLDER [ROWS]]
//
// The default is a folder that is removed afterwards, and 1000000 rows; a database that is in a named folder already is
// used. Ten million rows take 1.3 GB.
#include <signal.h>
#include <sql.h>
#include <sqlext.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "rdbmspp/pool/QORRdbms.h"
#include "support/Figures.h"
#include "support/ResidentMemory.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace QOR::bench;

void makeDatabase(const std::string& path, std::size_t rows) {
    if (std::filesystem::exists(path)) return;
    sqlite3* db = nullptr;
    check(sqlite3_open(path.c_str(), &db) == SQLITE_OK, "cannot make the database");
    const std::string sql =
        "PRAGMA journal_mode = WAL; PRAGMA synchronous = OFF; BEGIN;"
        "CREATE TABLE host (id INTEGER PRIMARY KEY, name NVARCHAR(64), eid UNIQUEIDENTIFIER, state INT, seen DATETIME,"
        " address NVARCHAR(40));"
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i + 1 < " +
        std::to_string(rows) +
        ") INSERT INTO host SELECT i, 'host-' || i || '.example.org',"
        " printf('6ba7b810-9dad-41d1-80b4-%012d', i), i % 7, datetime(1700000000 + i, 'unixepoch'),"
        " '10.' || (i / 65536 % 256) || '.' || (i / 256 % 256) || '.' || (i % 256) FROM n;"
        "CREATE VIEW vHost AS SELECT id, name, eid, state, seen, address FROM host; COMMIT;"
        "PRAGMA wal_checkpoint(TRUNCATE)";
    check(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, "cannot fill the database");
    sqlite3_close(db);
}

// ---- the same by hand

constexpr const char* byHandOption = "--by-hand";

/// Columns in the order of their names, as answers have them.
constexpr std::size_t columns = 6;
constexpr std::array<std::size_t, columns> sizes{41, 37, 24, 65, 20, 24};
constexpr const char* select = "SELECT address, eid, id, name, seen, state FROM vHost";

/// Fetches all rows bound, one by one as they come, and writes what an answer of them has to a descriptor.
void fetchByHand(const std::string& database, int out) {
    SQLHENV environment = nullptr;
    SQLHDBC connection = nullptr;
    SQLHSTMT statement = nullptr;
    const auto succeed = [](SQLRETURN rc) { check(SQL_SUCCEEDED(rc), "ODBC failed"); };
    succeed(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &environment));
    succeed(SQLSetEnvAttr(environment, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0));
    succeed(SQLAllocHandle(SQL_HANDLE_DBC, environment, &connection));
    std::string string = "Driver=SQLite3;StepAPI=1;Database=" + database;
    const auto chars = [](std::string& text) { return reinterpret_cast<SQLCHAR*>(text.data()); };
    succeed(SQLDriverConnect(connection, nullptr, chars(string), SQL_NTS, nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT));
    succeed(SQLAllocHandle(SQL_HANDLE_STMT, connection, &statement));
    std::array<std::vector<char>, columns> buffers;
    std::array<SQLLEN, columns> lengths{};
    for (std::size_t column = 0; column < columns; ++column) {
        buffers[column].resize(sizes[column]);
        succeed(SQLBindCol(statement, static_cast<SQLUSMALLINT>(column + 1), SQL_C_CHAR, buffers[column].data(),
                           static_cast<SQLLEN>(sizes[column]), &lengths[column]));
    }
    std::string sql = select;
    succeed(SQLExecDirect(statement, chars(sql), SQL_NTS));
    std::string block;
    const auto flush = [&] {
        for (std::string_view rest = block; !rest.empty();) {
            const ssize_t written = ::write(out, rest.data(), rest.size());
            check(written > 0, "cannot write to the pipe");
            rest.remove_prefix(static_cast<std::size_t>(written));
        }
        block.clear();
    };
    while (SQL_SUCCEEDED(SQLFetch(statement))) {
        block += ",[1739,[";
        for (std::size_t column = 0; column < columns; ++column) {
            block += column == 0 ? "[1018,\"" : ",[1018,\"";
            block.append(buffers[column].data(), static_cast<std::size_t>(lengths[column]));
            block += "\"]";
        }
        block += "]]";
        if (block.size() >= 65536 - 512) flush();
    }
    flush();
    SQLFreeHandle(SQL_HANDLE_STMT, statement);
    SQLDisconnect(connection);
    SQLFreeHandle(SQL_HANDLE_DBC, connection);
    SQLFreeHandle(SQL_HANDLE_ENV, environment);
}

/// Rows in a stream of bytes that comes in pieces.
class RowCounter {
public:
    void take(std::string_view piece) {
        // Every row begins with its tag behind an opening bracket, and no value holds either.
        constexpr std::string_view begin = "[1739,";
        std::string_view rest = piece;
        if (!m_tail.empty()) {
            m_tail.append(piece.substr(0, begin.size() - 1));
            m_rows += m_tail.find(begin) != std::string::npos ? 1U : 0U;
        }
        for (std::size_t at = 0; (at = rest.find(begin)) != std::string_view::npos; rest.remove_prefix(at + 1))
            ++m_rows;
        m_tail = piece.substr(piece.size() - std::min(piece.size(), begin.size() - 1));
    }
    std::size_t rows() const { return m_rows; }

private:
    std::size_t m_rows = 0;
    std::string m_tail;
};

struct Run {
    double seconds = 0;
    double firstRow = 0;  ///< milliseconds
    std::size_t rows = 0;
};

/// Runs this program again for the fetching, so that it is a process of its own too.
Run byHand(const std::string& program, const std::string& database) {
    int pipe[2];
    check(::pipe(pipe) == 0, "no pipe");
    const auto from = Clock::now();
    const pid_t child = ::fork();
    check(child >= 0, "no process");
    if (child == 0) {
        ::dup2(pipe[1], STDOUT_FILENO);
        ::close(pipe[0]);
        ::close(pipe[1]);
        ::execl(program.c_str(), program.c_str(), byHandOption, database.c_str(), nullptr);
        ::_exit(127);
    }
    ::close(pipe[1]);
    Run run;
    RowCounter rows;
    std::vector<char> buffer(65536);
    for (ssize_t size = 0; (size = ::read(pipe[0], buffer.data(), buffer.size())) > 0;) {
        if (rows.rows() == 0) run.firstRow = secondsSince(from) * 1000;
        rows.take({buffer.data(), static_cast<std::size_t>(size)});
    }
    ::close(pipe[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    check(status == 0, "fetching by hand failed");
    run.seconds = secondsSince(from);
    run.rows = rows.rows();
    return run;
}

// ---- through the agent

class Agent {
public:
    Agent(const std::filesystem::path& program, const std::string& database, const std::filesystem::path& folder)
        : m_socket((folder / "agent.sock").string()) {
        const std::string connection = "Driver=SQLite3;Database=" + database;
        const std::string log = (folder / "agent.log").string();
        m_pid = ::fork();
        check(m_pid >= 0, "no process");
        if (m_pid == 0) {
            const int quiet = ::dup(STDERR_FILENO);
            ::dup2(quiet, STDOUT_FILENO);
            ::execl(program.c_str(), program.c_str(), "--read-only", "--socket", m_socket.c_str(), "--database",
                    connection.c_str(), "--log-file", log.c_str(), nullptr);
            ::_exit(127);
        }
        while (!std::filesystem::exists(m_socket))
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ~Agent() {
        ::kill(m_pid, SIGTERM);
        ::waitpid(m_pid, nullptr, 0);
    }
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    double residentMegabytes() const { return static_cast<double>(QOR::test::residentBytes(m_pid)) / (1 << 20); }

    /// Reads the stream of all rows to its end. \param peak the largest resident size met meanwhile, in megabytes
    Run stream(double& peak) const {
        const int socket = connect();
        const std::string body =
            R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vHost"],[1741,"address"],[1741,"eid"],)"
            R"([1741,"id"],[1741,"name"],[1741,"seen"],[1741,"state"]]]})";
        const std::string request =
            "POST /v1/messages?stream=true HTTP/1.1\r\nHost: a\r\nContent-Length: " + std::to_string(body.size()) +
            "\r\n\r\n" + body;
        const auto from = Clock::now();
        check(::send(socket, request.data(), request.size(), 0) == static_cast<ssize_t>(request.size()), "cannot ask");
        Run run;
        RowCounter rows;
        std::string tail;
        std::vector<char> buffer(65536);
        constexpr std::string_view end = "0\r\n\r\n";
        for (int turn = 0; !tail.ends_with(end); ++turn) {
            const ssize_t size = ::recv(socket, buffer.data(), buffer.size(), 0);
            check(size > 0, "the stream broke off");
            const std::string_view piece(buffer.data(), static_cast<std::size_t>(size));
            const std::size_t before = rows.rows();
            rows.take(piece);
            if (before == 0 && rows.rows() > 0) run.firstRow = secondsSince(from) * 1000;
            tail = std::string((tail.append(piece.substr(piece.size() - std::min(piece.size(), end.size())))));
            tail.erase(0, tail.size() - std::min(tail.size(), end.size()));
            if (turn % 64 == 0) peak = std::max(peak, residentMegabytes());
        }
        run.seconds = secondsSince(from);
        run.rows = rows.rows();
        ::close(socket);
        return run;
    }

private:
    int connect() const {
        const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_socket.c_str(), sizeof address.sun_path - 1);
        for (int attempt = 0;; ++attempt) {
            if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return socket;
            check(attempt < 6000, "the agent does not listen");
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    std::string m_socket;
    pid_t m_pid = -1;
};

/// The same stream for three at once. \returns the largest resident size
double streamThree(const Agent& agent, std::size_t rows) {
    std::array<double, 3> peaks{};
    std::array<std::size_t, 3> read{};
    std::vector<std::thread> threads;
    for (std::size_t one = 0; one < peaks.size(); ++one)
        threads.emplace_back([&, one] { read[one] = agent.stream(peaks[one]).rows; });
    for (std::thread& thread : threads)
        thread.join();
    for (const std::size_t one : read)
        check(one == rows, "rows are missing");
    return *std::max_element(peaks.begin(), peaks.end());
}

void compare(Figures& figures, const std::string& self, const Agent& agent, const std::string& database,
             std::size_t rows) {
    double peak = 0;
    agent.stream(peak);  // everything is loaded and warm now
    const double idle = agent.residentMegabytes();
    peak = 0;
    std::vector<double> firsts;
    const Turns turns = takeTurns(
        figures.smallest() || rows > 5'000'000 ? 1 : 7,
        [&] {
            const Run hand = byHand(self, database);
            check(hand.rows == rows, "rows are missing by hand");
            return hand.seconds;
        },
        [&] {
            const Run ours = agent.stream(peak);
            check(ours.rows == rows, "rows are missing");
            firsts.push_back(ours.firstRow);
            return ours.seconds;
        });
    const std::string name = "stream/" + std::to_string(rows);
    figures.printRates(name, turns, static_cast<double>(rows), Goal::atLeast(0.8));
    figures.print(name, "first row", median(firsts), " ms", Goal::atMost(50));
    figures.print(name, "resident above idle", peak - idle, " MB", Goal::atMost(64));
    figures.print(name, "resident above idle, three at once", streamThree(agent, rows) - idle, " MB", Goal::atMost(64));
}

void run(Figures& figures) {
    const QOR::test::TemporaryDirectory scratch;
    const auto& arguments = figures.arguments();
    const std::filesystem::path folder = arguments.empty() ? scratch.path() : std::filesystem::path(arguments.front());
    const std::size_t rows = figures.number(1, figures.smallest() ? 10'000 : 1'000'000);
    const std::string database = (folder / ("stream-" + std::to_string(rows) + ".db")).string();
    makeDatabase(database, rows);
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    const Agent agent(self.parent_path() / "qor-agent", database, scratch.path());
    compare(figures, self.string(), agent, database, rows);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string_view(argv[1]) == byHandOption) {
        QOR::QORRdbms::prepareProcess();  // what the agent sets of the engine
        fetchByHand(argv[2], STDOUT_FILENO);
        return 0;
    }
    return runBenchmark(argc, argv, "usage: bench_stream [--smallest] [--check] [FOLDER [ROWS]]", run);
}
