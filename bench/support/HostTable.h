/// \file
/// The table that the database benchmarks read, and the select over it that plain ODBC is given: prepared and bound
/// once, its rows fetched and left where they are.
#pragma once

#include <benchmark/benchmark.h>
#include <sql.h>
#include <sqlext.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "rdbmspp/pool/QORRdbms.h"

namespace QOR::bench {

using Clock = std::chrono::steady_clock;

inline void check(bool holds, const char* what) {
    if (!holds) throw std::logic_error(what);
}

/// A database of `rows` rows of six short columns behind a view, made once for the process.
class Data {
public:
    static const std::string& file(std::int64_t rows) {
        static Data data;
        auto& path = data.m_files[rows];
        if (path.empty()) path = data.make(rows);
        return path;
    }

private:
    Data() {
        std::string name = (std::filesystem::temp_directory_path() / "qor-bench-XXXXXX").string();
        check(mkdtemp(name.data()) != nullptr, "no temporary folder");
        m_folder = name;
    }
    ~Data() {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
    std::string make(std::int64_t rows) const {
        const std::string path = (m_folder / (std::to_string(rows) + ".db")).string();
        sqlite3* db = nullptr;
        check(sqlite3_open(path.c_str(), &db) == SQLITE_OK, "cannot make the database");
        const std::string sql =
            "PRAGMA journal_mode = WAL;"
            "CREATE TABLE host (id INT PRIMARY KEY, name NVARCHAR(64), eid UNIQUEIDENTIFIER, state INT, seen DATETIME,"
            " address NVARCHAR(40)) WITHOUT ROWID;"
            "CREATE INDEX host_name ON host (name);"
            "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i + 1 < " +
            std::to_string(rows) +
            ") INSERT INTO host SELECT i, 'host-' || i || '.example.org',"
            " printf('6ba7b810-9dad-41d1-80b4-%012d', i), i % 7, datetime(1700000000 + i, 'unixepoch'),"
            " '10.' || (i / 65536 % 256) || '.' || (i / 256 % 256) || '.' || (i % 256) FROM n;"
            "CREATE VIEW vHost AS SELECT id, name, eid, state, seen, address FROM host;";
        check(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, "cannot fill the database");
        sqlite3_close(db);
        return path;
    }
    std::filesystem::path m_folder;
    std::map<std::int64_t, std::string> m_files;
};

struct Request {
    std::int32_t limit;
    std::int32_t offset;
};

inline constexpr char condition[] = "WHERE \"vHost\".\"id\" >= ? AND \"vHost\".\"name\" LIKE +?";

inline void configure(std::int64_t rows) {
    ASDatabaseOptions options;
    options.connectionString = "Driver=SQLite3;Database=" + Data::file(rows);
    QORRdbms::instance().configure(options);
}

/// The same select by hand: prepared and bound once, rows fetched into buffers of the declared lengths.
class ByHand {
public:
    ByHand(std::int64_t rows, bool paged) {
        SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &m_environment);
        SQLSetEnvAttr(m_environment, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
        SQLAllocHandle(SQL_HANDLE_DBC, m_environment, &m_connection);
        std::string string = "Driver=SQLite3;Database=" + Data::file(rows);
        succeed(
            SQLDriverConnect(m_connection, nullptr, chars(string), SQL_NTS, nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT));
        SQLAllocHandle(SQL_HANDLE_STMT, m_connection, &m_statement);
        std::string sql = std::string("SELECT id, name, eid, state, seen, address FROM \"vHost\" ") + condition +
                          " ORDER BY \"vHost\".\"id\"" + (paged ? " LIMIT ? OFFSET ?" : "");
        succeed(SQLPrepare(m_statement, chars(sql), SQL_NTS));
        bindNumber(1, m_from);
        succeed(SQLBindParameter(m_statement, 2, SQL_PARAM_INPUT, SQL_C_CHAR, SQL_VARCHAR, 4, 0, m_pattern.data(), 4,
                                 &m_patternLength));
        if (paged) {
            bindNumber(3, m_limit);
            bindNumber(4, m_offset);
        }
        bindColumn(1, SQL_C_SBIGINT, &m_id, sizeof m_id);
        bindColumn(2, SQL_C_CHAR, m_name.data(), m_name.size());
        bindColumn(3, SQL_C_CHAR, m_eid.data(), m_eid.size());
        bindColumn(4, SQL_C_SBIGINT, &m_state, sizeof m_state);
        bindColumn(5, SQL_C_CHAR, m_seen.data(), m_seen.size());
        bindColumn(6, SQL_C_CHAR, m_address.data(), m_address.size());
    }
    ~ByHand() {
        SQLFreeHandle(SQL_HANDLE_STMT, m_statement);
        SQLDisconnect(m_connection);
        SQLFreeHandle(SQL_HANDLE_DBC, m_connection);
        SQLFreeHandle(SQL_HANDLE_ENV, m_environment);
    }
    ByHand(const ByHand&) = delete;
    ByHand& operator=(const ByHand&) = delete;

    std::int64_t run(const Request& request) {
        m_limit = request.limit;
        m_offset = request.offset;
        succeed(SQLExecute(m_statement));
        std::int64_t rows = 0;
        while (SQL_SUCCEEDED(SQLFetch(m_statement)))
            ++rows;
        SQLFreeStmt(m_statement, SQL_CLOSE);
        return rows;
    }

private:
    static SQLCHAR* chars(std::string& text) { return reinterpret_cast<SQLCHAR*>(text.data()); }
    static void succeed(SQLRETURN rc) { check(SQL_SUCCEEDED(rc), "ODBC failed"); }
    void bindNumber(SQLUSMALLINT index, std::int64_t& value) {
        succeed(
            SQLBindParameter(m_statement, index, SQL_PARAM_INPUT, SQL_C_SBIGINT, SQL_BIGINT, 0, 0, &value, 0, nullptr));
    }
    void bindColumn(SQLUSMALLINT index, SQLSMALLINT type, void* to, std::size_t size) {
        succeed(SQLBindCol(m_statement, index, type, to, static_cast<SQLLEN>(size), &m_lengths[index]));
    }

    SQLHENV m_environment = nullptr;
    SQLHDBC m_connection = nullptr;
    SQLHSTMT m_statement = nullptr;
    std::int64_t m_from = 10, m_limit = 0, m_offset = 0, m_id = 0, m_state = 0;
    std::string m_pattern = "%org";
    SQLLEN m_patternLength = 4;
    std::array<char, 65> m_name{};
    std::array<char, 37> m_eid{};
    std::array<char, 20> m_seen{};
    std::array<char, 41> m_address{};
    std::array<SQLLEN, 7> m_lengths{};
};

/// Processor time of this thread: what else the machine does stays out of it.
inline double processorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

inline double seconds(Clock::time_point from) {
    return std::chrono::duration<double>(Clock::now() - from).count();
}

/// Takes turns between the select by hand and `ours`, `batch` requests at a time. Counters: the best times of both
/// and their ratio, below 1 being faster than ODBC by hand.
/// \param ours runs one request and gives its number of rows
template <class Ours>
void compare(benchmark::State& state, std::int64_t rows, std::int32_t limit, int batch, Ours ours) {
    ByHand hand(rows, limit > 0);
    const std::int64_t expected = limit > 0 ? limit : rows - 10;
    check(ours(Request{limit, 40}) == expected, "our rows are not right");
    check(hand.run({limit, 40}) == expected, "the rows by hand are not right");
    double best = 1e9;
    double plain = 1e9;
    for (auto _ : state) {
        double from = processorSeconds();
        for (int i = 0; i < batch; ++i)
            hand.run({limit, 20 * (i % 5)});
        plain = std::min(plain, (processorSeconds() - from) / batch);
        from = processorSeconds();
        for (int i = 0; i < batch; ++i)
            ours(Request{limit, 20 * (i % 5)});
        const double now = (processorSeconds() - from) / batch;
        best = std::min(best, now);
        state.SetIterationTime(now);
    }
    state.counters["odbc_us"] = plain * 1e6;
    state.counters["ours_us"] = best * 1e6;
    state.counters["ratio"] = best / plain;
}

/// Pages of 20 a second by so many threads. \param makeClient gives each thread its own `ours` as above
template <class MakeClient>
double pagesPerSecond(unsigned threads, int pages, MakeClient makeClient) {
    std::vector<decltype(makeClient())> clients;
    for (unsigned t = 0; t < threads; ++t)
        clients.push_back(makeClient());
    const auto from = Clock::now();
    std::vector<std::thread> running;
    for (auto& client : clients) {
        running.emplace_back([&client, pages] {
            for (int i = 0; i < pages; ++i)
                check(client(Request{20, 20 * (i % 5)}) == 20, "a page is not whole");
        });
    }
    for (auto& thread : running)
        thread.join();
    return static_cast<double>(threads) * pages / seconds(from);
}

/// "gain": pages of two threads for one page of one. The best of several: whatever else the machine does can only
/// take processors away.
template <class MakeClient>
void compareThreads(benchmark::State& state, MakeClient makeClient) {
    pagesPerSecond(2, 100, makeClient);
    double one = 0;
    double two = 0;
    for (auto _ : state) {
        const double now = pagesPerSecond(1, 4000, makeClient);
        one = std::max(one, now);
        two = std::max(two, pagesPerSecond(2, 4000, makeClient));
        state.SetIterationTime(4000 / now);
    }
    state.counters["pages_s_one"] = one;
    state.counters["pages_s_two"] = two;
    state.counters["gain"] = two / one;
}

}  // namespace QOR::bench
