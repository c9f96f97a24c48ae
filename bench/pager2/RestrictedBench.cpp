// What row security costs: pages of clients that may see the operations of some environments, beside the same pages of
// a client with full access that asks for those environments' operations itself, as one more term of its condition.
// Both go through operator "pager2", from the tree of a request to the tree of its answer.
//
//     bench_restricted [--smallest] [--check] [OPERATIONS]
//
// The default is 100000 operations of 100 environments. The goal holds for each page.
#include <array>
#include <string>

#include "QORPager/Operators/Pager2/QORViewMetadata.h"
#include "support/Operations.h"
#include "support/Pager2Client.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace QOR;
using namespace QOR::bench;

/// Beside the whole of the term, what stands between < and > is the condition of a select, which is restricted too.
struct Condition {
    const char* name;
    const char* term;  ///< empty: none
};

constexpr std::array<Condition, 13> conditions{{
    {"none", ""},
    {"equality", R"(["eq",[["field","status"],["value","3"]]])"},
    {"equality of a text", R"(["eq",[["field","op"],["value","install"]]])"},
    {"like", R"(["like",[["field","op"],["value","s%"]]])"},
    {"like, rare", R"(["like",[["field","id"],["value","%77777%"]]])"},
    {"or", R"(["or",[["eq",[["field","status"],["value","3"]]],["like",[["field","op"],["value","inst%"]]]]])"},
    {"not", R"(["not",[["like",[["field","op"],["value","%t"]]]]])"},
    {"not of an equality", R"(["not",[["eq",[["field","op"],["value","start"]]]]])"},
    {"in", R"(["in",[["field","op"],["value","start"],["value","remove"]]])"},
    {"between", R"(["between",[["field","time"],["value","2020-10-01T00:00:00"],["value","2021-03-01T00:00:00"]]])"},
    {"between and like",
     R"(["and",[["between",[["field","time"],["value","2020-10-01T00:00:00"],["value","2021-03-01T00:00:00"]]],)"
     R"(["like",[["field","op"],["value","%o%"]]]]])"},
    {"nested select", R"(["in",[["field","status"],["select",[["view","vEventLog"],["field","id"],)"
                      R"(["where",[<["lt",[["field","id"],["value","800"]]]>]]]]]])"},
    {"lower", R"(["eq",[["function",[["name","lower"],["field","op"]]],["value","start"]]])"},
}};

struct Shape {
    const char* name;
    const char* parts;
};

constexpr std::array<Shape, 3> shapes{{
    {"newest 20", R"(,["sort",[["field","time"],["descending"]]],["limit",[["size","20"]]])"},
    {"by text", R"(,["sort",[["field","id"]]],["limit",[["size","20"],["offset","40"]]])"},
    {"with total", R"(,["sort",[["field","time"],["descending"]]],["limit",[["size","20"]]],["statistics"])"},
}};

std::string requestText(const Shape& shape, const std::string& condition) {
    return R"(["select",[["view","vOpLog"],["field","id"],["field","time"],["field","op"],["field","status"])"
           R"(,["field","eid"])" +
           std::string(shape.parts) + (condition.empty() ? "" : R"(,["where",[)" + condition + "]]") + "]]";
}

/// What the client may see, as a term that it writes itself.
std::string accessTerm(unsigned owned) {
    std::string term = R"(["in",[["field","securableObjId"])";
    for (unsigned number = 0; number < owned; ++number)
        term += R"(,["value",")" + eidOf(number).toString() + R"("])";
    return term + "]]";
}

std::string replaced(std::string text, char mark, const std::string& by) {
    for (std::size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += by.size())
        text.replace(at, 1, by);
    return text;
}

/// The condition as it is, and with the access beside it.
std::string asked(const Condition& condition) {
    return replaced(replaced(condition.term, '<', ""), '>', "");
}
std::string spelt(const Condition& condition, const std::string& access) {
    const std::string begin = R"(["and",[)";
    const std::string end = "," + access + "]]";
    const std::string term = replaced(replaced(condition.term, '<', begin), '>', end);
    return term.empty() ? access : begin + term + end;
}

void fill(const std::filesystem::path& file, std::size_t size) {
    openEmpty(file);
    QORIngest ingest;
    for (std::size_t first = 0; first < size; first += 10'000) {
        const QORIngestResult result = ingest.store(makeBatch(first, 10'000, size), false);
        check(!result.failure && result.refused == 0, "the operations were not stored");
    }
    std::vector<QORRecord> events;
    for (std::uint64_t number = 0; number < 1000; ++number) {
        QOREventRecord event;
        event.time = firstSecond + static_cast<std::int64_t>(number);
        event.eid = eidOf(number % environments);
        events.emplace_back(std::move(event));
    }
    check(!ingest.store(events, false).failure, "the events were not stored");
}

/// Pages of one client. Short pages are asked for many times a turn.
void measure(Figures& figures, unsigned owned) {
    for (const Shape& shape : shapes) {
        for (const Condition& condition : conditions) {
            Pager2Client restricted(accessTo(owned), {requestText(shape, asked(condition))});
            Pager2Client spelling(fullAccess(), {requestText(shape, spelt(condition, accessTerm(owned)))});
            const std::string answer = restricted.answer(0);
            check(answer == spelling.answer(0), std::string("the pages differ: ") + condition.name);
            check(answer.find("error") == std::string::npos, answer);
            const double once = processorSecondsEach(1, [&] { restricted.ask(0); });
            const auto times = static_cast<unsigned>(1 + (figures.smallest() ? 0 : 0.01) / (once + 1e-5));
            figures.ratio(
                std::string(shape.name) + ", " + condition.name + ", of " + std::to_string(owned), Goal::atMost(1.3), 9,
                [&] { return processorSecondsEach(times, [&] { spelling.ask(0); }); },
                [&] { return processorSecondsEach(times, [&] { restricted.ask(0); }); });
        }
    }
}

void run(Figures& figures) {
    QORRdbms::prepareProcess();
    const test::TemporaryDirectory folder;
    fill(folder / "operations.db", figures.number(0, figures.smallest() ? 2000 : 100'000));
    // Which views are restricted is learned with the first question, of a client that is.
    Pager2Client(accessTo(1), {requestText(shapes[0], "")}).ask(0);
    for (const unsigned owned : {1U, 20U})
        measure(figures, owned);
    QORRdbms::instance().shutdown();
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_restricted [--smallest] [--check] [OPERATIONS]", run);
}
