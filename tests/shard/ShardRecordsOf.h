/// \file
/// Records for tests of spread databases, and what is in them.
#pragma once

#include <string>
#include <vector>

#include "support/ShardedPostgres.h"

namespace QOR::test {

using Rows = std::vector<std::vector<std::string>>;

/// Statements that store, for the numbers from one to another, an operation of an environment (of ten numbers one has
/// none), what it touches, an event and a backup. \param where which of them; e.eid is the environment
inline std::vector<std::string> recordStatements(int from, int to, const std::string& where = {}) {
    const std::string numbers =
        " FROM (SELECT n, CASE WHEN n % 10 = 0 THEN NULL ELSE md5('e' || n % 97)::uuid END AS eid, "
        "'2024-05-01'::timestamp + make_interval(secs => n / 7) AS at FROM generate_series(" +
        std::to_string(from) + ", " + std::to_string(to) + ") AS n) e" + (where.empty() ? "" : " WHERE " + where);
    return {
        "INSERT INTO qor_operation (seq, id, status, time, eid, message) SELECT n, 'o' || n, n % 3, at, eid, "
        "repeat('\xc3\xa4', n % 50)" +
            numbers,
        "INSERT INTO qor_operation_environment (operation, eid, position) SELECT n, "
        "md5('e' || (n + k) % 97)::uuid, k FROM (SELECT e.*" +
            numbers + ") e, generate_series(1, 2) AS k",
        "INSERT INTO qor_event (seq, time, eid, category, info) SELECT n, at, eid, 'c' || n % 4, '<info/>'" + numbers,
        "INSERT INTO qor_backup (seq, id, eid, time, size, type, info) SELECT n, 'b' || n, eid, at, n, 0, "
        "decode(md5(n::text), 'hex')" +
            numbers + (where.empty() ? " WHERE " : " AND ") + "n % 5 = 0"};
}

/// What decides whether an environment belongs to the server that the statement is run at.
inline const char* const belongsHere =
    "(SELECT satisfies_hash_partition('qor_spread'::regclass, modulus, remainder, e.eid) FROM qor_held)";

/// The servers that have operations which touch environments of another one, with these.
inline const char* const touchedElsewhere =
    "SELECT DISTINCT e.eid, h.name FROM qor_all.qor_operation_environment e JOIN qor_server h ON "
    "satisfies_hash_partition('qor_spread'::regclass, h.modulus, h.remainder, e.own) WHERE e.eid IS DISTINCT FROM "
    "e.own "
    "AND NOT satisfies_hash_partition('qor_spread'::regclass, h.modulus, h.remainder, e.eid)";

/// Stores them where they belong, as an agent does.
inline void store(const ShardedPostgres& database, unsigned servers, int from, int to) {
    for (unsigned number = 1; number <= servers; ++number) {
        PostgresConnection server(database.conninfo(number));
        for (const std::string& statement : recordStatements(from, to, belongsHere))
            server.run(statement);
    }
    PostgresConnection(database.conninfo())
        .run(std::string("INSERT INTO qor_touched_server ") + touchedElsewhere + " ON CONFLICT DO NOTHING");
}

/// Every row of the tables of records, in an order that depends on nothing else. \param schema "" or of foreign tables
inline Rows recordsOf(PostgresConnection& home, const std::string& schema) {
    Rows all;
    for (const char* const table : {"qor_operation", "qor_operation_environment", "qor_event", "qor_backup"}) {
        Rows rows = home.rows("SELECT '" + std::string(table) + "', t::text FROM " + schema + table +
                              " t ORDER BY t::text COLLATE \"C\"");
        all.insert(all.end(), rows.begin(), rows.end());
    }
    return all;
}

}  // namespace QOR::test
