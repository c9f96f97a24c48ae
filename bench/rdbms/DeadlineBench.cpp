// What it costs that statements end with their request: the engine asks at every few hundred steps whether the request
// goes on. The same selects over two connections, of which one is not asked.
//
//     bench_deadline [--smallest] [--check]
#include <sqlite3.h>

#include <chrono>
#include <memory>
#include <string>

#include "QORCommon/QORRequestControl.h"
#include "support/HostTable.h"

namespace {

using namespace QOR;
using namespace QOR::bench;

/// The connection that the driver has opened last.
sqlite3* opened = nullptr;

int noteOpened(sqlite3* connection, const char**, const void*) {
    opened = connection;
    return SQLITE_OK;
}

/// A select by hand whose connection nobody asks for the request's end.
std::unique_ptr<ByHand> withoutDeadline(std::int64_t rows, bool paged) {
    auto hand = std::make_unique<ByHand>(rows, paged);
    check(opened != nullptr, "the connection was not seen");
    sqlite3_progress_handler(opened, 0, nullptr, nullptr);
    return hand;
}

void measure(Figures& figures, const std::string& name, std::int64_t rows, std::int32_t limit, unsigned batch) {
    ByHand asked(rows, limit > 0);
    const auto alone = withoutDeadline(rows, limit > 0);
    const Request request{limit, 40};
    check(asked.run(request) == (limit > 0 ? limit : rows - 10), "the rows are not right");
    figures.ratio(
        name, Goal::atMost(1.03), limit > 0 ? 101 : 21,
        [&] { return processorSecondsEach(batch, [&] { alone->run(request); }); },
        [&] { return processorSecondsEach(batch, [&] { asked.run(request); }); });
}

/// That one connection is asked and the other is not: a request that has ended ends one only.
void checkEnding(std::int64_t rows) {
    ByHand asked(rows, false);
    const auto alone = withoutDeadline(rows, false);
    const auto over = std::make_shared<QORRequestControl>();
    over->cancel(QORRequestControl::End::Gone);
    const QORRequestScope scope(over);
    check(alone->run({0, 0}) == rows - 10, "the connection that is not asked has ended");
    bool ended = false;
    try {
        ended = asked.run({0, 0}) < rows - 10;
    } catch (const std::logic_error&) {
        ended = true;
    }
    check(ended, "the connection that is asked goes on");
}

void run(Figures& figures) {
    QORRdbms::prepareProcess();
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(&noteOpened));
    const std::int64_t rows = tableSizes(figures).back();
    configure(rows);
    checkEnding(rows);
    const auto control = std::make_shared<QORRequestControl>(std::chrono::minutes(10));
    const QORRequestScope scope(control);
    measure(figures, "a page of 20, with deadline", rows, 20, 200);
    measure(figures, "all rows of " + std::to_string(rows) + ", with deadline", rows, 0, 1);
    QORRdbms::instance().shutdown();
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_deadline [--smallest] [--check]", run);
}
