// What servers that share a database's records cost and bring: the same operations on one PostgreSQL server, and behind
// a home with one and with three servers; pages of both operators, totals and ingest, in turns. All of them are on this
// machine, so that more servers have no more processors, disks or memory than one: what is shown is what the way to
// them costs.
//
//     bench_shards [--smallest] [--check] [OPERATIONS]
//
// The default is 100000 operations, beside a tenth of them. Of more than a million only that is measured, since what
// one server alone costs is bench_postgresql's: ten million take 5 GB below /tmp.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "QORPager/Operators/Pager2/QORViewMetadata.h"
#include "support/Figures.h"
#include "support/FilledLog.h"
#include "support/LogPages.h"
#include "support/Operations.h"
#include "support/Pager2Client.h"
#include "support/ShardedPostgres.h"

namespace {

using namespace QOR;
using namespace QOR::bench;
using test::PostgresConnection;
using test::PostgresDatabase;
using test::ShardedPostgres;

constexpr std::size_t batchSize = 1000;
constexpr std::size_t mostBesideOthers = 1'000'000;

/// A log on one server.
class Alone {
public:
    std::string connectionString() const { return m_database.connectionString(); }
    void fill(std::size_t size) const {
        PostgresConnection engine = m_database.connect();
        fillLog(QORRdbms::instance(), engine, size);
    }

private:
    PostgresDatabase m_database;
};

/// A log behind a home.
class Spread {
public:
    explicit Spread(unsigned servers) : m_servers(servers) {}
    std::string connectionString() const { return m_servers.connectionString(); }
    /// Each server makes what belongs to it; home is told what agents tell it who store.
    void fill(std::size_t size) const {
        std::vector<std::future<void>> filling;
        for (unsigned number = 1; number <= m_servers.size(); ++number)
            filling.push_back(std::async(std::launch::async, [this, number, size] { fillServer(number, size); }));
        for (std::future<void>& done : filling)
            done.get();
        PostgresConnection home(m_servers.conninfo());
        home.rows("SELECT setval('qor_arrival', " + std::to_string(size) + ")");
        home.run("INSERT INTO qor_touched_server SELECT DISTINCT t.eid, h.name FROM (SELECT " + eidSql("n") +
                 " AS own, " + eidSql("n % 8") + " AS eid FROM generate_series(0, " + std::to_string(environments - 1) +
                 ") n) t JOIN qor_server h ON " + isOf("h", "t.own") + " WHERE NOT " + isOf("h", "t.eid"));
    }

private:
    /// Whether an environment belongs to a server.
    static std::string isOf(const std::string& server, const std::string& eid) {
        return "satisfies_hash_partition('qor_spread'::regclass, " + server + ".modulus, " + server + ".remainder, " +
               eid + ")";
    }

    void fillServer(unsigned number, std::size_t size) const {
        PostgresConnection engine(m_servers.conninfo(number));
        const std::string own =
            engine.cell("SELECT coalesce(string_agg(n::text, ', '), '-1') FROM generate_series(0, " +
                        std::to_string(environments - 1) + ") n, qor_held h WHERE " + isOf("h", eidSql("n")));
        QORRdbms server;
        ASDatabaseOptions options;
        options.connectionString = m_servers.connectionString(number);
        server.configure(options);
        fillLog(server, engine, size, "owner IN (" + own + ")");
        server.shutdown();
    }

    ShardedPostgres m_servers;
};

/// A database of the host's own with so many operations, and some that come.
template <class Place>
class Log {
public:
    template <class... Arguments>
    explicit Log(std::size_t size, Arguments... arguments) : m_place(arguments...), m_size(size) {
        open();
        m_options.batchRecords = batchSize;
        m_place.fill(size);
        const QORClientContextScope scope(fullAccess());
        check(askTotal({"all", 0, QOREnvSelection::all(), 0, forever}) == size, "a log was not counted right");
    }
    std::size_t size() const noexcept { return m_size; }
    /// Makes it the process's database.
    void open() const {
        ASDatabaseOptions options;
        options.connectionString = m_place.connectionString();
        QORDBSchema::open(options, QORSchemaMode::Own);
        test::forgetMetadata();
    }
    /// What comes behind all others. \returns seconds
    double store(std::size_t count) {
        open();
        std::uint64_t first = m_size + std::exchange(m_added, m_added + count);
        return storeNext(m_options, first, count, first + count);
    }

private:
    const Place m_place;
    const std::size_t m_size;
    QORIngestOptions m_options;
    std::uint64_t m_added = 0;
};

struct Page {
    const char* name;
    const char* condition;  ///< elements of the select
    unsigned owners;        ///< whose records the client may see; 0: all
};

/// Of an environment all records are on one server; of the newest of all each server may have some.
constexpr std::array<Page, 3> pages{{
    {"page of an environment", R"(["where",[["eq",[["field","eid"],["value","$"]]]]],)", 0},
    {"newest page of all", "", 0},
    {"newest page of 20 environments", "", 20},
}};

std::string requestOf(const Page& page) {
    std::string condition = page.condition;
    if (const std::size_t at = condition.find('$'); at != std::string::npos)
        condition.replace(at, 1, eidOf(7).toString());
    return R"(["select",[["view","vOpLog"],["field","id"],["field","op"],["field","status"],["field","time"],)" +
           condition +
           R"(["sort",[["field","time"],["descending"],["field","id"],["descending"]]],["limit",[["size","20"],)"
           R"(["offset","0"]]]]])";
}

/// Times one question in the database that is open.
class Asker {
public:
    Asker(const Page& page, unsigned batch)
        : m_client(page.owners == 0 ? fullAccess() : accessTo(page.owners), {requestOf(page)}), m_batch(batch) {}

    std::string answer() { return m_client.answer(0); }
    double time() {
        m_client.ask(0);  // connections are opened, statements prepared
        return wallSeconds([this] {
                   for (unsigned i = 0; i < m_batch; ++i)
                       m_client.ask(0);
               }) /
               m_batch;
    }

private:
    Pager2Client m_client;
    unsigned m_batch;
};

/// \param timed opens a log and times the question there
template <class Baseline, class Ours, class Timed>
void inTurns(Figures& figures, const std::string& name, const Goal& goal, const Baseline& baseline, const Ours& ours,
             Timed timed) {
    figures.ratio(
        name, goal, figures.smallest() ? 1 : 11, [&] { return timed(baseline); }, [&] { return timed(ours); });
}

/// What two logs cost beside each other; where they are of one size, they have to give the same answers.
template <class Baseline, class Ours>
struct Beside {
    const char* name;
    Goal goal;
    const Baseline& baseline;
    const Ours& ours;

    bool isSame() const { return baseline.size() == ours.size(); }
    std::string of(const std::string& what) const { return what + ", " + name; }
};

template <class Baseline, class Ours>
void measurePages(Figures& figures, const Beside<Baseline, Ours>& logs) {
    const unsigned batch = figures.smallest() ? 2 : 50;
    for (const Page& page : pages) {
        const auto timed = [&](const auto& log) {
            log.open();
            return Asker(page, batch).time();
        };
        const auto answered = [&](const auto& log) {
            log.open();
            return Asker(page, batch).answer();
        };
        check(!logs.isSame() || answered(logs.baseline) == answered(logs.ours), logs.of("answers differ"));
        inTurns(figures, logs.of(page.name), logs.goal, logs.baseline, logs.ours, timed);
    }
}

template <class Baseline, class Ours>
void measureTotals(Figures& figures, const Beside<Baseline, Ours>& logs) {
    const unsigned batch = figures.smallest() ? 1 : 20;
    const QORClientContextScope scope(fullAccess());
    const int middle = static_cast<int>(firstSecond) + static_cast<int>(year / 2);
    for (const Question& question : {Question{"all", 0, QOREnvSelection::all(), 0, forever},
                                     Question{"time range", 0, QOREnvSelection::all(), middle, forever},
                                     Question{"environment", 0, eidOf(7), 0, forever}}) {
        const auto timed = [&](const auto& log) {
            log.open();
            askPage(question, 0);
            return wallSeconds([&] {
                       for (unsigned i = 0; i < batch; ++i)
                           askPage(question, 0);
                   }) /
                   batch;
        };
        const auto total = [&](const auto& log) {
            log.open();
            return askTotal(question);
        };
        check(!logs.isSame() || total(logs.baseline) == total(logs.ours), logs.of("totals differ"));
        inTurns(figures, logs.of(std::string("page with total, ") + question.name), logs.goal, logs.baseline, logs.ours,
                timed);
    }
}

template <class Baseline, class Ours>
void measureReading(Figures& figures, const Beside<Baseline, Ours>& logs) {
    measurePages(figures, logs);
    measureTotals(figures, logs);
}

void measureIngest(Figures& figures, Log<Alone>& alone, Log<Spread>& one, Log<Spread>& three) {
    const std::size_t count = (figures.smallest() ? 1 : 10) * batchSize;
    const auto rates = [&](const char* name, auto& log) {
        const Turns turns = takeTurns(
            figures.smallest() ? 1 : 7, [&] { return alone.store(count); }, [&] { return log.store(count); });
        figures.printRates(name, turns, static_cast<double>(count), Goal::none());
    };
    rates("operations of 100 environments, one server behind a home", one);
    rates("operations of 100 environments, three servers", three);
}

void run(Figures& figures) {
    QORRdbms::prepareProcess();
    const std::size_t size = figures.number(0, figures.smallest() ? 2000 : 100'000);
    const auto start = Clock::now();
    const Log<Spread> small(size / 10, 3U);
    Log<Spread> three(size, 3U);
    std::printf("made logs of %zu in %.0f s\n", size, secondsSince(start));
    measureReading(figures,
                   Beside<Log<Spread>, Log<Spread>>{"three servers, beside a tenth", Goal::atMost(1.5), small, three});
    if (size <= mostBesideOthers) {
        Log<Alone> alone(size);
        Log<Spread> one(size, 1U);
        measureReading(figures, Beside<Log<Alone>, Log<Spread>>{"one server behind a home", Goal::none(), alone, one});
        measureReading(figures, Beside<Log<Alone>, Log<Spread>>{"three servers", Goal::none(), alone, three});
        measureIngest(figures, alone, one, three);
    }
    QORRdbms::instance().shutdown();
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_shards [--smallest] [--check] [OPERATIONS]", run);
}
