// The logs: how fast operations are taken in, against bare prepared inserts of the same rows; and how long a page of
// 20 with its total takes from logs of different sizes, against plain SQL on the same tables. Medians.
//
//     bench_logs [FOLDER [SIZE...]]
//
// The default is a folder that is removed afterwards, and logs of 10000 and 1000000; a log that is in a named folder
// already is used. Ten million take 5 GB and some minutes to make.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORFunctionality/QORAccess.h"
#include "QORLibAgent/QORLogs.h"
#include "QORLibAgent/QORSecurity.h"
#include "host/QORPlainNumber.h"
#include "ingest/QORIngest.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace QOR;

constexpr std::int64_t firstSecond = 1600000000;
constexpr std::int64_t year = 365 * 86400;
constexpr unsigned environments = 100;
constexpr int forever = std::numeric_limits<int>::max();

double microseconds() {
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double medianTime(unsigned times, const std::function<void()>& work) {
    std::vector<double> taken;
    for (unsigned i = 0; i < times; ++i) {
        const double start = microseconds();
        work();
        taken.push_back(microseconds() - start);
    }
    return median(std::move(taken));
}

void check(bool holds, const char* what) {
    if (!holds) throw std::logic_error(what);
}

QOREID eidOf(std::uint64_t number) {
    char text[40];
    std::snprintf(text, sizeof text, "6ba7b810-9dad-11d1-80b4-%012llu", static_cast<unsigned long long>(number));
    QOREID eid;
    eid.fromString(text);
    return eid;
}

/// Environments run on a few hosts, which some of their operations touch too.
QOREID hostOf(std::uint64_t environment) {
    return eidOf(environment % 8);
}

/// A year of operations in the order of their times, of any size: larger logs are denser.
QOROperationRecord makeOperation(std::uint64_t number, std::uint64_t size) {
    QOROperationRecord record;
    const std::uint64_t mixed = (number + 1) * 0x9E3779B97F4A7C15U;
    char id[48];
    std::snprintf(id, sizeof id, "%016llx-%llu", static_cast<unsigned long long>(mixed),
                  static_cast<unsigned long long>(number));
    record.id = id;
    record.op = "start";
    record.status = static_cast<std::int32_t>(mixed >> 60);
    record.time = firstSecond + static_cast<std::int64_t>(static_cast<double>(number) / static_cast<double>(size) *
                                                          static_cast<double>(year));
    record.eid = eidOf(mixed % environments);
    if (number % 3 == 0) record.eids.push_back(hostOf(mixed % environments));
    QORInfo message;
    message.add("task_id", std::to_string(number));
    record.message = std::move(message);
    return record;
}

ASDatabaseOptions optionsOf(const std::filesystem::path& file) {
    ASDatabaseOptions options;
    options.connectionString = "Driver=SQLite3;Database=" + file.string();
    return options;
}

void openEmpty(const std::filesystem::path& file) {
    for (const char* suffix : {"", "-wal", "-shm"})
        std::filesystem::remove(file.string() + suffix);
    QORDBSchema::open(optionsOf(file), QORSchemaMode::Own);
}

std::vector<QORRecord> makeBatch(std::uint64_t first, std::uint64_t count, std::uint64_t size) {
    std::vector<QORRecord> batch;
    batch.reserve(count);
    for (std::uint64_t number = first; number < std::min(first + count, size); ++number)
        batch.emplace_back(makeOperation(number, size));
    return batch;
}

/// A database whose tables count nothing.
void openBare(const std::filesystem::path& file) {
    openEmpty(file);
    QORRdbmsTran tran(ASAccess::Write);
    std::vector<std::string> triggers;
    ASStatement& select = tran->prepare("SELECT name FROM sqlite_master WHERE type = 'trigger'");
    select.execute();
    while (select.fetch())
        triggers.emplace_back(select.text(1));
    select.close();
    for (const std::string& trigger : triggers)
        tran->execute("DROP TRIGGER " + ASSession::quoteIdentifier(trigger));
    tran.commit();
}

/// The same rows in the same tables by prepared statements and nothing else. The texts are made before the clock runs.
struct BareRow {
    std::string id, op, time, eid, message;
    std::int64_t status;
    std::vector<std::string> touched;
    std::vector<std::int64_t> positions;
};

BareRow toBare(const QOROperationRecord& record) {
    BareRow row{record.id,
                *record.op,
                time2dbstr(record.time),
                record.eid.toString(),
                record.message->serializeToString(),
                record.status,
                {},
                {}};
    for (const QOREID& eid : record.eids) {
        row.positions.push_back(static_cast<std::int64_t>(row.positions.size()));
        row.touched.push_back(eid.toString());
    }
    return row;
}

void insertBare(ASSession& session, const BareRow& row, std::int64_t sequence) {
    session
        .prepare(
            "INSERT INTO qor_operation (parent_id, op, status, time, eid, package, version, message, id, seq) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .bindNull(1)
        .bindNull(6)
        .bindNull(7)
        .bind(2, std::string_view(row.op))
        .bind(3, row.status)
        .bind(4, std::string_view(row.time))
        .bind(5, std::string_view(row.eid))
        .bind(8, std::string_view(row.message))
        .bind(9, std::string_view(row.id))
        .bind(10, sequence)
        .execute();
    for (std::size_t i = 0; i < row.touched.size(); ++i) {
        session
            .prepare(
                "INSERT INTO qor_operation_environment (operation, position, eid, own, time) VALUES (?, ?, ?, ?, ?)")
            .bind(1, sequence)
            .bind(2, row.positions[i])
            .bind(3, std::string_view(row.touched[i]))
            .bind(4, std::string_view(row.eid))
            .bind(5, std::string_view(row.time))
            .execute();
    }
}

/// Takes turns between the two, so that what else the machine does meets both; the median of the ratios counts.
void benchImport(const std::filesystem::path& folder, std::uint64_t batchSize, unsigned rounds) {
    constexpr std::uint64_t size = 1000000;
    const auto ours = folder / "import-ours.db";
    const auto bare = folder / "import-bare.db";
    openBare(bare);
    openEmpty(ours);
    std::vector<double> oursTime;
    std::vector<double> bareTime;
    std::vector<double> ratios;
    const std::uint64_t perRound = batchSize == 1 ? 200 : 20 * batchSize;
    QORIngestOptions options;
    options.batchRecords = batchSize;
    for (unsigned round = 0; round < rounds; ++round) {
        const std::vector<QORRecord> records = makeBatch(round * perRound, perRound, size);
        std::vector<BareRow> rows;
        for (const QORRecord& record : records)
            rows.push_back(toBare(std::get<QOROperationRecord>(record)));
        QORRdbms::instance().configure(optionsOf(bare));
        double start = microseconds();
        for (std::size_t at = 0; at < rows.size(); at += batchSize) {
            QORRdbmsTran tran(ASAccess::Write);
            if (batchSize > 1) QORDBSchema::prepareManyWrites(*tran);
            for (std::size_t i = at; i < std::min(at + batchSize, rows.size()); ++i)
                insertBare(*tran, rows[i], static_cast<std::int64_t>(round * perRound + i + 1));
            tran.commit();
        }
        bareTime.push_back((microseconds() - start) / static_cast<double>(rows.size()));
        QORRdbms::instance().configure(optionsOf(ours));
        start = microseconds();
        const QORIngestResult result = QORIngest(options).store(records, false);
        oursTime.push_back((microseconds() - start) / static_cast<double>(rows.size()));
        check(!result.failure && result.accepted() == records.size(), "the records were not stored");
        ratios.push_back(bareTime.back() / oursTime.back());
    }
    std::printf("import, %llu a transaction: %.0f a second, bare %.0f, ratio %.2f\n",
                static_cast<unsigned long long>(batchSize), 1e6 / median(oursTime), 1e6 / median(bareTime),
                median(ratios));
}

QORClientContextPtr fullAccess() {
    auto context = std::make_shared<QORClientContext>();
    context->fullAccess = true;
    return context;
}

/// A client whose identities stand for environments from 0 on.
QORClientContextPtr accessTo(unsigned count) {
    QORToken::SidSet sids;
    for (unsigned number = 0; number < count; ++number)
        sids.insert(std::make_shared<QORLocalSID>(0, 1, eidOf(number)));
    auto context = std::make_shared<QORClientContext>();
    context->token = std::make_shared<QORToken>(nullptr, std::move(sids));
    return context;
}

/// A log that an older version of the schema holds, made by the database itself, which is soon done; opening it counts
/// it.
void fillOld(std::uint64_t size) {
    const std::string span = "FROM (WITH RECURSIVE s(n) AS (SELECT 0 UNION ALL SELECT n + 1 FROM s WHERE n + 1 < " +
                             std::to_string(size) + ") SELECT n, (n * 7919) % " + std::to_string(environments) +
                             " AS e, datetime(" + std::to_string(firstSecond) + " + n * " + std::to_string(year) +
                             " / " + std::to_string(size) + ", 'unixepoch') AS t FROM s)";
    const std::string prefix = "'6ba7b810-9dad-11d1-80b4-' || printf('%012d', ";
    QORRdbmsTran tran(ASAccess::Write);
    QORDBSchema::prepareManyWrites(*tran);
    QORDBSchema::migrate(*tran, 2);
    tran->execute(
        "INSERT INTO qor_operation (seq, id, op, status, time, eid, message) SELECT n + 1, printf('op-%09d', n), "
        "'start', n % 7, t, " +
        prefix + "e), '<info><task_id>' || n || '</task_id></info>' " + span);
    tran->execute("INSERT INTO qor_operation_environment (operation, position, eid, time) SELECT n + 1, -1, " + prefix +
                  "e), t " + span);
    tran->execute("INSERT INTO qor_operation_environment (operation, position, eid, time) SELECT n + 1, 0, " + prefix +
                  "e % 8), t " + span + " WHERE n % 3 = 0 AND e >= 8");
    tran.commit();
}

void fill(const std::filesystem::path& file, std::uint64_t size) {
    const double start = microseconds();
    if (!std::filesystem::exists(file)) {
        QORRdbms::instance().configure(optionsOf(file));
        fillOld(size);
        std::printf("filled %s in %.0f s\n", file.filename().c_str(), (microseconds() - start) / 1e6);
    }
    QORDBSchema::open(optionsOf(file), QORSchemaMode::Own);
    std::printf("opened %s after %.0f s\n", file.filename().c_str(), (microseconds() - start) / 1e6);
    std::fflush(stdout);
}

struct Question {
    const char* name;
    unsigned owners;  ///< whose records the client may see, environments from 0 on; 0 for full access
    QOREnvSelection envs;
    int from;
    int to;
};

std::size_t askTotal(const Question& question) {
    QOROpLogResult result;
    check(
        QOROpLogAgent().getOps(result, question.envs, nullptr, "", "", 0, 0, forever, question.from, question.to) == 0,
        getErrorMessage());
    return result.size();
}

/// The page as the source of the operation log reads it. \returns the identifiers
std::vector<std::string> askPage(const Question& question, std::size_t offset) {
    QOROpLogResult result;
    check(
        QOROpLogAgent().getOps(result, question.envs, nullptr, "", "", 0, 0, forever, question.from, question.to) == 0,
        getErrorMessage());
    std::vector<std::string> ids;
    for (std::size_t i = offset; i < std::min(offset + 20, result.size()); ++i)
        ids.push_back(result.at(i).id);
    return ids;
}

/// What SQL has for the question, as a condition on qor_operation o.
std::string sqlCondition(const Question& question) {
    std::string condition = "o.time BETWEEN ? AND ?";
    for (unsigned number = 0; number < question.owners; ++number)
        condition += (number == 0 ? " AND o.eid IN ('" : ", '") + eidOf(number).toString() + "'";
    if (question.owners != 0) condition += ")";
    if (question.envs.isAll()) return condition;
    const std::string eid = "'" + question.envs.eid().toString() + "'";
    return condition + " AND o.seq IN (SELECT seq FROM qor_operation WHERE eid = " + eid +
           " UNION ALL SELECT operation FROM qor_operation_environment WHERE eid = " + eid + " AND eid IS NOT own)";
}

std::vector<std::string> askSql(const Question& question, std::size_t offset, std::size_t& total) {
    QORRdbmsTran tran(ASAccess::Read);
    const std::string from = "FROM qor_operation o WHERE " + sqlCondition(question);
    const std::string first = time2dbstr(question.from);
    const std::string last = time2dbstr(question.to);
    ASStatement& count = tran->prepare("SELECT count(*) " + from);
    count.bind(1, std::string_view(first)).bind(2, std::string_view(last));
    count.execute();
    count.fetch();
    total = static_cast<std::size_t>(count.integer(1));
    count.close();
    ASStatement& page = tran->prepare("SELECT id, parent_id, op, status, message " + from +
                                      " ORDER BY time DESC, seq DESC LIMIT 20 OFFSET ?");
    page.bind(1, std::string_view(first)).bind(2, std::string_view(last)).bind(3, static_cast<std::int64_t>(offset));
    page.execute();
    std::vector<std::string> ids;
    while (page.fetch())
        ids.emplace_back(page.text(1));
    page.close();
    return ids;
}

void benchPages(const std::filesystem::path& file, std::uint64_t size) {
    fill(file, size);
    constexpr int quarter = static_cast<int>(year / 4);
    const int from = static_cast<int>(firstSecond) + quarter + 12345;
    const int to = static_cast<int>(firstSecond) + 3 * quarter + 54321;
    for (const Question& question :
         {Question{"all", 0, QOREnvSelection::all(), 0, forever},
          Question{"all, time range", 0, QOREnvSelection::all(), from, to},
          Question{"environment", 0, eidOf(7), 0, forever}, Question{"environment, time range", 0, eidOf(7), from, to},
          Question{"of 1 environment", 1, QOREnvSelection::all(), 0, forever},
          Question{"of 20 environments", 20, QOREnvSelection::all(), 0, forever},
          Question{"of 20, time range", 20, QOREnvSelection::all(), from, to},
          Question{"of 20, one touched", 20, eidOf(7), 0, forever}}) {
        const QORClientContextScope scope(question.owners == 0 ? fullAccess() : accessTo(question.owners));
        const std::size_t total = askTotal(question);
        for (const std::size_t offset :
             {std::size_t{0}, std::min<std::size_t>(20000, total / 2), total / 2, total > 20 ? total - 20 : 0}) {
            std::size_t sqlTotal = 0;
            const auto expected = askSql(question, offset, sqlTotal);
            check(sqlTotal == total, "the totals differ");
            check(askPage(question, offset) == expected, "the pages differ");
            const double ours = medianTime(201, [&] { askPage(question, offset); });
            const double sql = medianTime(size > 100000 ? 3 : 51, [&] { askSql(question, offset, sqlTotal); });
            std::printf("%9llu %-24s total %9zu offset %9zu: %8.0f us, plain SQL %10.0f us\n",
                        static_cast<unsigned long long>(size), question.name, total, offset, ours, sql);
            std::fflush(stdout);
        }
    }
}

std::uint64_t sizeOf(const char* argument) {
    constexpr QORNumberRange range{1, 100'000'000};
    const auto size = readPlainNumber(argument, range);
    if (!size) throw std::invalid_argument(describeBadNumber("a number of operations", argument, range));
    return *size;
}

int run(int argc, char** argv) {
    QORRdbms::prepareProcess();
    std::optional<test::TemporaryDirectory> own;
    if (argc < 2) own.emplace();
    const std::filesystem::path folder = own ? own->path() : std::filesystem::path(argv[1]);
    std::filesystem::create_directories(folder);
    std::vector<std::uint64_t> sizes;
    for (int i = 2; i < argc; ++i)
        sizes.push_back(sizeOf(argv[i]));
    if (sizes.empty()) sizes = {10000, 1000000};
    benchImport(folder, 1000, 9);
    benchImport(folder, 1, 9);
    for (const std::uint64_t size : sizes)
        benchPages(folder / ("logs-" + std::to_string(size) + ".db"), size);
    QORRdbms::instance().shutdown();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_logs: %s\n", failure.what());
        return 1;
    }
}
