#include <array>
#include <string>
#include <vector>

#include "QORCommon/QORAscii.h"
#include "postgresql/ByHand.h"
#include "postgresql/PostgresBench.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/LogPages.h"
#include "support/Operations.h"
#include "support/Pager2Client.h"

namespace QOR::bench {
namespace {

constexpr std::size_t pages = 5;
constexpr std::size_t columns = 6;

/// A page of an environment's operations, the newest first. Columns stand in the order of their names, as answers have
/// them.
std::string requestText(std::size_t page) {
    return R"(["select",[["view","vOpLog"],["field","eid"],["field","id"],["field","message"],["field","op"],)"
           R"(["field","status"],["field","time"],["where",[["eq",[["field","eid"],["value",")" +
           eidOf(7).toString() + R"("]]]]],["sort",[["field","time"],["descending"]]],["limit",[["size","20"],)" +
           R"(["offset",")" + std::to_string(20 * page) + R"("]]]]])";
}

std::vector<Given> givenOf(std::size_t page) {
    return {eidOf(7).toString(), std::int64_t{20}, static_cast<std::int64_t>(20 * page)};
}

/// The text of the statement that the pool's connection has sent last, as the server knows it.
std::string sentLast(const PostgresDatabase& database) {
    return database.connect().cell(
        "SELECT query FROM pg_stat_activity WHERE datname = current_database() AND application_name = 'qor' "
        "AND backend_type = 'client backend' AND query <> '' ORDER BY query_start DESC LIMIT 1");
}

/// As answers write it.
std::string answered(std::string value) {
    constexpr std::size_t lengthOfTime = 19;
    if (value.size() == lengthOfTime && value[10] == ' ') value.replace(10, 1, "t") += "+0000";
    return '"' + toLowerText(value) + '"';
}

/// Makes sure that an answer has these values in this order.
void checkAnswer(const std::string& answer, const Rows& rows) {
    check(rows.size() == 20, "a page by hand is not whole");
    const std::string lowered = toLowerText(answer);
    std::size_t at = 0;
    for (const auto& row : rows) {
        for (const std::string& value : row) {
            at = lowered.find(answered(value), at);
            check(at != std::string::npos, "the pages differ: " + value + " is not in " + answer);
        }
    }
}

}  // namespace

void measurePages(Figures& figures, const Log& log) {
    log.open();
    std::vector<std::string> requests;
    for (std::size_t page = 0; page < pages; ++page)
        requests.push_back(requestText(page));
    // What is known of the views is learned with the first question of a client that may not see all.
    Pager2Client(accessTo(1), requests).ask(0);
    Pager2Client client(fullAccess(), requests);
    for (int i = 0; i < 2; ++i)
        client.ask(0);  // at the first, the driver looks at the columns of a statement that is new to it
    const std::string sql = sentLast(log.database());
    check(sql.starts_with("SELECT ") && sql.find("\"vOpLog\"") != std::string::npos,
          "a page is not one statement but ends with " + sql);
    const auto driver = driverByHand(log.database().connectionString(), withMarks(sql), givenOf(0), columns);
    const auto library = libraryByHand(PostgresServer::shared().conninfo(log.database().name()), sql);
    for (std::size_t page = 0; page < pages; ++page) {
        checkAnswer(client.answer(page), driver->rows(givenOf(page)));
        checkAnswer(client.answer(page), library->rows(givenOf(page)));
    }
    std::array<std::vector<Given>, pages> given;
    for (std::size_t page = 0; page < pages; ++page)
        given[page] = givenOf(page);
    const unsigned batch = figures.smallest() ? 10 : 300;
    const auto timed = [batch](auto ask) {
        return [batch, ask] {
            return wallSeconds([&] {
                       for (std::size_t i = 0; i < batch; ++i)
                           ask(i % pages);
                   }) /
                   batch;
        };
    };
    const auto ours = timed([&](std::size_t page) { client.ask(page); });
    const std::string name = "page of 20 of " + std::to_string(log.size());
    figures.ratio(name + ", beside the driver", Goal::atMost(1.25), 41,
                  timed([&](std::size_t page) { driver->run(given[page]); }), ours);
    figures.ratio(name + ", beside the library", Goal::none(), 41,
                  timed([&](std::size_t page) { library->run(given[page]); }), ours);
}

void measureTotals(Figures& figures, const Log& small, const Log& large) {
    constexpr int quarter = static_cast<int>(year / 4);
    const int from = static_cast<int>(firstSecond) + quarter + 12345;
    const int to = static_cast<int>(firstSecond) + 3 * quarter + 54321;
    for (const Question& question :
         {Question{"all", 0, QOREnvSelection::all(), 0, forever},
          Question{"time range", 0, QOREnvSelection::all(), from, to}, Question{"environment", 0, eidOf(7), 0, forever},
          Question{"of 20 environments", 20, QOREnvSelection::all(), 0, forever}}) {
        const QORClientContextScope scope(question.owners == 0 ? fullAccess() : accessTo(question.owners));
        const unsigned batch = figures.smallest() ? 1 : 20;
        const auto timed = [&](const Log& log) {
            return [&] {
                log.open();
                const std::size_t offset = askTotal(question) / 2;
                check(askPage(question, offset).size() == std::min<std::size_t>(20, askTotal(question) - offset),
                      "a page is not whole");
                return wallSeconds([&] {
                           for (unsigned i = 0; i < batch; ++i)
                               askPage(question, i % 2 == 0 ? 0 : offset);
                       }) /
                       batch;
            };
        };
        const Turns turns = takeTurns(figures.smallest() ? 1 : 15, timed(small), timed(large));
        const std::string name = std::string("page with total, ") + question.name;
        figures.print(name, "of " + std::to_string(large.size()), turns.ours * 1e3, " ms", Goal::atMost(10));
        figures.print(name + ", beside " + std::to_string(small.size()), "", turns.ratio, "ratio", Goal::atMost(1.5));
    }
}

}  // namespace QOR::bench
