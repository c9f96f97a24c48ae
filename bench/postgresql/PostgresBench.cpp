// What a request costs on PostgreSQL, on a private server, in turns: pages of the operation log by operator "pager2"
// beside the same text prepared and bound by hand through the driver and through the engine's own library; pages with
// their totals out of logs of different sizes; a long result; operations taken in.
//
//     bench_postgresql [--smallest] [--check] [OPERATIONS]
//
// The default is a log of 1000000 operations beside one of 10000. Ten million take 4 GB below /tmp and some minutes to
// make.
#include "postgresql/PostgresBench.h"

#include "QORPager/Operators/Pager2/QORViewMetadata.h"
#include "support/Operations.h"

namespace QOR::bench {

// With all that the database keeps beside the operations.
void fillLog(PostgresConnection& database, std::size_t size) {
    constexpr std::size_t block = 100'000;
    const std::string eid = "CAST('6ba7b810-9dad-11d1-80b4-' || lpad(CAST(";
    const std::string ofRow = eid + "n * 7919 % " + std::to_string(environments) + " AS text), 12, '0') AS uuid)";
    const std::string ofHost = eid + "n * 7919 % " + std::to_string(environments) + " % 8 AS text), 12, '0') AS uuid)";
    const std::string time = "to_timestamp(" + std::to_string(firstSecond) + " + n * " + std::to_string(year) + " / " +
                             std::to_string(size) + ") AT TIME ZONE 'UTC'";
    for (std::size_t first = 0; first < size; first += block) {
        const std::string rows = " FROM generate_series(" + std::to_string(first) + "::bigint, " +
                                 std::to_string(std::min(first + block, size) - 1) + ") n";
        database.run(
            "INSERT INTO qor_operation (seq, id, op, status, time, eid, message) SELECT n + 1, 'op-' || "
            "lpad(CAST(n AS text), 9, '0'), 'start', n % 7, " +
            time + ", " + ofRow + ", '<info><task_id>' || n || '</task_id></info>'" + rows);
        database.run("INSERT INTO qor_operation_environment (operation, position, eid, own, time) SELECT n + 1, 0, " +
                     ofHost + ", " + ofRow + ", " + time + rows + " WHERE n % 3 = 0");
    }
    database.run("VACUUM ANALYZE");
}

Log::Log(std::size_t size) : m_size(size) {
    open();
    auto engine = m_database.connect();
    fillLog(engine, size);
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
    QORRdbms::instance().shutdown();
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_postgresql [--smallest] [--check] [OPERATIONS]", run);
}
