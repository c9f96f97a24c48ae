// What a request costs on PostgreSQL, on a private server, in turns: pages of the operation log by operator "pager2"
// beside the same text prepared and bound by hand through the driver and through the engine's own library; pages with
// their totals out of logs of different sizes; a long result; operations taken in.
//
//     bench_postgresql [--smallest] [--check] [OPERATIONS]
//
// The default is a log of 1000000 operations beside one of 10000. Ten million take 4 GB below /tmp and some minutes to
// make.
#include "postgresql/PostgresBench.h"

#include "QORLibAgent/QORLogCheck.h"
#include "QORPager/Operators/Pager2/QORViewMetadata.h"
#include "support/Operations.h"

namespace QOR::bench {

namespace {

// Buckets of this level hold no more than one of a log with ten million operations a year may hold.
constexpr int finest = 8;

/// The counters of what was stored without them, level by level.
void countLog(PostgresConnection& database) {
    const std::string second = "extract(epoch FROM time)::bigint >> " + std::to_string(finest);
    const std::string counts = " AS bucket, count(*) AS n FROM qor_operation";
    database.run("CREATE TEMP TABLE counted AS SELECT '' COLLATE \"C\" AS scope, " + second + counts +
                 " GROUP BY 2 UNION ALL SELECT eid::text, " + second + counts +
                 " WHERE eid IS NOT NULL GROUP BY 1, 2 UNION ALL SELECT '>' || eid, " + second + counts +
                 "_environment WHERE eid IS DISTINCT FROM own GROUP BY 1, 2 UNION ALL SELECT own || '>' || eid, " +
                 second + counts + "_environment WHERE eid <> own GROUP BY 1, 2");
    check(database.cell("SELECT coalesce(max(n), 0) <= 256 FROM counted") == "t", "the log is denser than thought");
    for (int level = 24; level >= finest; level -= 4) {
        const std::string parent =
            level == 24
                ? ""
                : " JOIN qor_operation_count p ON p.scope = c.scope AND p.level = " + std::to_string(level + 4) +
                      " AND p.bucket = c.bucket >> " + std::to_string(level + 4 - finest) + " AND p.split = 1";
        database.run("INSERT INTO qor_operation_count (scope, level, bucket, n, split) SELECT c.scope, " +
                     std::to_string(level) + ", c.bucket >> " + std::to_string(level - finest) +
                     ", sum(c.n), (sum(c.n) > 256 AND " + std::to_string(level) + " > 0)::int FROM counted c" + parent +
                     " GROUP BY 1, 3");
    }
    database.run("DROP TABLE counted");
}

}  // namespace

// Without indexes and triggers, which are made when all is there.
void fillLog(PostgresConnection& database, std::size_t size) {
    if (size == 0) return;
    const std::string eid = "CAST('6ba7b810-9dad-11d1-80b4-' || lpad(CAST(";
    const std::string ofRow = eid + "n * 7919 % " + std::to_string(environments) + " AS text), 12, '0') AS uuid)";
    const std::string ofHost = eid + "n * 7919 % " + std::to_string(environments) + " % 8 AS text), 12, '0') AS uuid)";
    const std::string time = "to_timestamp(" + std::to_string(firstSecond) + " + n * " + std::to_string(year) + " / " +
                             std::to_string(size) + ") AT TIME ZONE 'UTC'";
    const std::string rows = " FROM generate_series(0::bigint, " + std::to_string(size - 1) + ") n";
    QORRdbms::instance().write([](ASSession& session) { QORDBSchema::beginFilling(session); });
    database.run("SET session_replication_role = replica");  // what refers to an operation was made from it
    database.run(
        "INSERT INTO qor_operation (seq, id, op, status, time, eid, message) SELECT n + 1, 'op-' || "
        "lpad(CAST(n AS text), 9, '0'), 'start', n % 7, " +
        time + ", " + ofRow + ", '<info><task_id>' || n || '</task_id></info>'" + rows);
    database.run("INSERT INTO qor_operation_environment (operation, position, eid, own, time) SELECT n + 1, 0, " +
                 ofHost + ", " + ofRow + ", " + time + rows + " WHERE n % 3 = 0");
    countLog(database);
    QORRdbms::instance().write([](ASSession& session) {
        session.execute("SET LOCAL maintenance_work_mem = '256MB'");
        QORDBSchema::completeFilling(session);
    });
    QORRdbms::instance().write([](ASSession& session) { QORDBSchema::endFilling(session); });
    database.run("VACUUM ANALYZE");
}

Log::Log(std::size_t size) : m_size(size) {
    open();
    auto engine = m_database.connect();
    fillLog(engine, size);
    constexpr std::size_t quicklyCounted = 10'000;
    if (size > quicklyCounted) return;
    QORRdbmsTran tran(ASAccess::Read);
    check(findMiscountedScopes(*tran, QORLogKind::Operations).empty(), "a log was not counted right");
}

void Log::open() const {
    ASDatabaseOptions options;
    options.connectionString = m_database.connectionString();
    QORDBSchema::open(options, QORSchemaMode::Own);
    test::forgetMetadata();
}

}  // namespace QOR::bench

namespace {

using namespace QOR;
using namespace QOR::bench;

void run(Figures& figures) {
    QORRdbms::prepareProcess();
    const std::size_t size = figures.number(0, figures.smallest() ? 10'000 : 1'000'000);
    const Log small(figures.smallest() ? 1000 : 10'000);
    const auto start = Clock::now();
    const Log large(size);
    std::printf("made a log of %zu in %.0f s\n", size, secondsSince(start));
    measurePages(figures, large);
    measureTotals(figures, small, large);
    measureStream(figures, large);
    measureIngest(figures);
    measureWriters(figures);
    QORRdbms::instance().shutdown();
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_postgresql [--smallest] [--check] [OPERATIONS]", run);
}
