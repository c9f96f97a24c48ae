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
#include "support/FilledLog.h"
#include "support/Operations.h"

namespace QOR::bench {

Log::Log(std::size_t size) : m_size(size) {
    open();
    auto engine = m_database.connect();
    fillLog(QORRdbms::instance(), engine, size);
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
