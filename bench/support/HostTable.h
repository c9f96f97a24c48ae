/// \file
/// The table that the database benchmarks read, and the select over it that plain ODBC is given: prepared and bound
/// once, its rows fetched and left where they are.
#pragma once

#include <sql.h>
#include <sqlext.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "rdbmspp/pool/QORRdbms.h"
#include "support/Figures.h"
#include "tests/support/TemporaryDirectory.h"

namespace QOR::bench {

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
    std::string make(std::int64_t rows) const {
        const std::string path = m_folder.file(std::to_string(rows) + ".db");
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
    test::TemporaryDirectory m_folder;
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

/// Takes turns between the select by hand and `ours`, `batch` requests at a time.
/// \param limit rows of a page; 0 for all
/// \param ours runs one request and gives its number of rows
template <class Ours>
void compare(Figures& figures, const std::string& name, const Goal& goal, std::int64_t rows, std::int32_t limit,
             unsigned batch, Ours& ours) {
    ByHand hand(rows, limit > 0);
    const std::int64_t expected = limit > 0 ? limit : rows - 10;
    check(ours(Request{limit, 40}) == expected, "our rows are not right");
    check(hand.run({limit, 40}) == expected, "the rows by hand are not right");
    const auto timed = [batch, limit](auto& client) {
        return [&client, batch, limit] {
            std::int32_t page = 0;
            return processorSecondsEach(batch, [&] { client(Request{limit, 20 * (page++ % 5)}); });
        };
    };
    auto byHand = [&hand](const Request& request) { return hand.run(request); };
    figures.ratio(name + "/" + std::to_string(rows), goal, limit > 0 ? 41 : 15, timed(byHand), timed(ours));
}

/// Pages of 20 a second by so many threads. \param makeClient gives each thread its own `ours` as above
template <class MakeClient>
double pagesPerSecond(unsigned threads, unsigned pages, MakeClient makeClient) {
    std::vector<decltype(makeClient())> clients;
    for (unsigned t = 0; t < threads; ++t)
        clients.push_back(makeClient());
    const auto from = Clock::now();
    std::vector<std::thread> running;
    for (auto& client : clients) {
        running.emplace_back([&client, pages] {
            for (unsigned i = 0; i < pages; ++i)
                check(client(Request{20, static_cast<std::int32_t>(20 * (i % 5))}) == 20, "a page is not whole");
        });
    }
    for (auto& thread : running)
        thread.join();
    return static_cast<double>(threads) * pages / secondsSince(from);
}

/// The pages that two threads answer for one page of one.
template <class MakeClient>
void compareThreads(Figures& figures, const Goal& goal, MakeClient makeClient) {
    const unsigned pages = figures.smallest() ? 100 : 4000;
    const Turns turns = takeTurns(
        figures.smallest() ? 1 : 7, [&] { return pagesPerSecond(1, pages, makeClient); },
        [&] { return pagesPerSecond(2, pages, makeClient); });
    figures.print("pages of two threads", std::to_string(static_cast<long>(turns.baseline)) + " pages/s of one",
                  turns.ratio, "ratio", goal);
}

/// How many rows the tables have.
inline std::vector<std::int64_t> tableSizes(const Figures& figures) {
    if (figures.smallest()) return {1000};
    return {100'000, 1'000'000};
}

}  // namespace QOR::bench
