/// \file
/// Logs of any size, which PostgreSQL makes itself.
#pragma once

#include <cstddef>
#include <string>

#include "QORDBSchema/QORDBSchema.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/Figures.h"
#include "support/Operations.h"
#include "support/PostgresServer.h"

namespace QOR::bench {

/// The number of the environment that the nth operation of a filled log belongs to, as the engine computes it.
inline std::string ownerSql(const std::string& n) {
    return "(" + n + " * 7919 % " + std::to_string(environments) + ")";
}
/// The environment of a number, as the engine makes it: eidOf().
inline std::string eidSql(const std::string& number) {
    return "CAST('6ba7b810-9dad-11d1-80b4-' || lpad(CAST(" + number + " AS text), 12, '0') AS uuid)";
}

/// The counters of what was stored without them, level by level.
inline void countFilled(test::PostgresConnection& engine) {
    // Buckets of this level hold no more than one of a log with ten million operations a year may hold.
    constexpr int finest = 8;
    const std::string second = "extract(epoch FROM time)::bigint >> " + std::to_string(finest);
    const std::string counts = " AS bucket, count(*) AS n FROM qor_operation";
    engine.run("CREATE TEMP TABLE counted AS SELECT '' COLLATE \"C\" AS scope, " + second + counts +
               " GROUP BY 2 UNION ALL SELECT eid::text, " + second + counts +
               " WHERE eid IS NOT NULL GROUP BY 1, 2 UNION ALL SELECT '>' || eid, " + second + counts +
               "_environment WHERE eid IS DISTINCT FROM own GROUP BY 1, 2 UNION ALL SELECT own || '>' || eid, " +
               second + counts + "_environment WHERE eid <> own GROUP BY 1, 2");
    check(engine.cell("SELECT coalesce(max(n), 0) <= 256 FROM counted") == "t", "the log is denser than thought");
    for (int level = 24; level >= finest; level -= 4) {
        const std::string parent =
            level == 24
                ? ""
                : " JOIN qor_operation_count p ON p.scope = c.scope AND p.level = " + std::to_string(level + 4) +
                      " AND p.bucket = c.bucket >> " + std::to_string(level + 4 - finest) + " AND p.split = 1";
        engine.run("INSERT INTO qor_operation_count (scope, level, bucket, n, split) SELECT c.scope, " +
                   std::to_string(level) + ", c.bucket >> " + std::to_string(level - finest) +
                   ", sum(c.n), (sum(c.n) > 256 AND " + std::to_string(level) + " > 0)::int FROM counted c" + parent +
                   " GROUP BY 1, 3");
    }
    engine.run("DROP TABLE counted");
}

/// Makes a year of operations, without indexes and triggers, which are made when all is there.
/// \param database an empty one of the host's own, which nobody else uses \param engine the engine's own connection
/// to it \param owners a condition on `owner`, an environment's number: those whose operations are made; empty: all
inline void fillLog(QORRdbms& database, test::PostgresConnection& engine, std::size_t size,
                    const std::string& owners = {}) {
    if (size == 0) return;
    const std::string time = "to_timestamp(" + std::to_string(firstSecond) + " + n * " + std::to_string(year) + " / " +
                             std::to_string(size) + ") AT TIME ZONE 'UTC'";
    const std::string rows = " FROM (SELECT n, " + ownerSql("n") + " AS owner FROM generate_series(0::bigint, " +
                             std::to_string(size - 1) + ") n) made WHERE " + (owners.empty() ? "true" : owners);
    database.write([](ASSession& session) { QORDBSchema::beginFilling(session); });
    engine.run("SET session_replication_role = replica");  // what refers to an operation was made from it
    engine.run(
        "INSERT INTO qor_operation (seq, id, op, status, time, eid, message) SELECT n + 1, 'op-' || "
        "lpad(CAST(n AS text), 9, '0'), 'start', n % 7, " +
        time + ", " + eidSql("owner") + ", '<info><task_id>' || n || '</task_id></info>'" + rows);
    engine.run("INSERT INTO qor_operation_environment (operation, position, eid, own, time) SELECT n + 1, 0, " +
               eidSql("owner % 8") + ", " + eidSql("owner") + ", " + time + rows + " AND n % 3 = 0");
    countFilled(engine);
    database.write([](ASSession& session) {
        session.execute("SET LOCAL maintenance_work_mem = '256MB'");
        QORDBSchema::completeFilling(session);
    });
    database.write([](ASSession& session) { QORDBSchema::endFilling(session); });
    engine.run("VACUUM ANALYZE");
}

}  // namespace QOR::bench
