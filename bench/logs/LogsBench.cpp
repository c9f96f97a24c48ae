// The log of operations: how long a page of 20 with its total takes from logs of different sizes, beside plain SQL on
// the same tables (`count(*)`, and `order by ... limit ... offset ...`); and the last page behind a record, as page
// tokens ask for it, beside the first one.
//
//     bench_logs [--smallest] [--check] [FOLDER [OPERATIONS...]]
//
// The default is a folder that is removed afterwards, and logs of 10000 and 1000000; a log that is in a named folder
// already is used. Ten million take 5 GB and some minutes to make.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORLibAgent/QORLogs.h"
#include "QORLibAgent/QORSecurity.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/LogPages.h"
#include "support/Operations.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace QOR;
using namespace QOR::bench;

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
    const auto start = Clock::now();
    if (!std::filesystem::exists(file)) {
        QORRdbms::instance().configure(optionsOf(file));
        fillOld(size);
        std::printf("filled %s in %.0f s\n", file.filename().c_str(), secondsSince(start));
    }
    QORDBSchema::open(optionsOf(file), QORSchemaMode::Own);
    std::printf("opened %s after %.0f s\n", file.filename().c_str(), secondsSince(start));
    std::fflush(stdout);
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

/// The plain question takes long where it has many rows to count.
void measurePage(Figures& figures, const std::string& name, const Question& question, std::size_t total,
                 std::size_t offset) {
    std::size_t sqlTotal = 0;
    const auto expected = askSql(question, offset, sqlTotal);
    check(sqlTotal == total, "the totals differ");
    check(askPage(question, offset) == expected, "the pages differ");
    const auto sql = [&] { return processorSecondsEach(1, [&] { askSql(question, offset, sqlTotal); }); };
    const auto ours = [&] { return processorSecondsEach(5, [&] { askPage(question, offset); }); };
    const unsigned rounds = figures.smallest() ? 1 : sql() > 0.02 ? 5 : 51;
    const Turns turns = takeTurns(rounds, sql, ours);
    figures.print(name, "of " + std::to_string(total) + " from " + std::to_string(offset), turns.ours * 1e6, " us",
                  Goal::atMost(5000));
    figures.print(name + ", beside plain SQL", "", turns.ratio, "ratio", Goal::atMost(2));
}

/// The page of 20 behind a record, as a page token asks for it.
std::vector<std::string> askBehind(const Question& question, const QORLogMark* mark) {
    QORLogWalk<QORRequestProgressData> walk({.envs = question.envs, .from = question.from, .to = question.to});
    std::vector<std::string> ids;
    for (auto& found : walk.read(mark, 20))
        ids.push_back(std::move(found.record.id));
    return ids;
}

/// Where the record stands that so many are newer than.
QORLogMark markAt(const Question& question, std::size_t position) {
    QORLogWalk<QORRequestProgressData> walk({.envs = question.envs, .from = question.from, .to = question.to});
    QORLogMark mark;
    for (std::size_t left = position + 1; left > 0;) {
        const auto found = walk.read(left == position + 1 ? nullptr : &mark, std::min<std::size_t>(left, 5000));
        check(!found.empty(), "the log is shorter than it was");
        mark = found.back().mark;
        left -= found.size();
    }
    return mark;
}

/// A page from a token costs the same at any depth.
void measureDepth(Figures& figures, const std::string& name, const Question& question, std::size_t total) {
    if (total < 100) return;
    const std::size_t deep = total - 21;
    const QORLogMark mark = markAt(question, deep - 1);
    std::size_t sqlTotal = 0;
    check(askBehind(question, &mark) == askSql(question, deep, sqlTotal), "the pages differ");
    const auto first = [&] { return processorSecondsEach(5, [&] { askBehind(question, nullptr); }); };
    const auto last = [&] { return processorSecondsEach(5, [&] { askBehind(question, &mark); }); };
    const Turns turns = takeTurns(figures.smallest() ? 1 : 51, first, last);
    figures.print(name + ", behind a record", "behind " + std::to_string(deep), turns.ours * 1e6, " us",
                  Goal::atMost(5000));
    figures.print(name + ", beside the first page", "", turns.ratio, "ratio", Goal::atMost(1.5));
}

void benchPages(Figures& figures, const std::filesystem::path& file, std::uint64_t size) {
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
        measureDepth(figures, std::to_string(size) + " " + question.name, question, total);
        const std::size_t thousandth = std::min<std::size_t>(20'000, total / 2);
        for (const std::size_t offset : {std::size_t{0}, thousandth, total / 2, total > 20 ? total - 20 : 0})
            measurePage(figures, std::to_string(size) + " " + question.name, question, total, offset);
    }
}

void run(Figures& figures) {
    QORRdbms::prepareProcess();
    const test::TemporaryDirectory scratch;
    const auto& arguments = figures.arguments();
    const std::filesystem::path folder = arguments.empty() ? scratch.path() : std::filesystem::path(arguments.front());
    std::filesystem::create_directories(folder);
    std::vector<std::size_t> sizes{figures.number(1, figures.smallest() ? 2000 : 10'000)};
    for (std::size_t position = 2; position < arguments.size(); ++position)
        sizes.push_back(figures.number(position, 0));
    if (arguments.size() < 2 && !figures.smallest()) sizes.push_back(1'000'000);
    for (const std::size_t size : sizes)
        benchPages(figures, folder / ("logs-" + std::to_string(size) + ".db"), size);
    QORRdbms::instance().shutdown();
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_logs [--smallest] [--check] [FOLDER [OPERATIONS...]]", run);
}
