// Three filters over 1,000,000 rows: the evaluator beside a lambda and SQLite, and the time to parse. README.md says
// how to read the figures.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "QORPager/QORExpressionEvaluation.h"
#include "filter/FilterRows.h"
#include "filter/SqliteFilters.h"

namespace QOR::bench {
namespace {

constexpr std::size_t rowCount = 1'000'000;
constexpr int repetitions = 7;
/// The statistic that the ratios are made of: what else the machine did only ever adds to the time.
constexpr const char* fastest = "fastest";

/// The state is a text, as the field of an environment is; the memory is a number.
void declareFields(TExpressionEvaluation& evaluator) {
    evaluator.setIdentifier("hostname", "", true);
    evaluator.setIdentifier("os", "", true);
    evaluator.setIdentifier("state", "", true);
    evaluator.setIdentifier("memory", 0, true);
}

/// A filter with the fields that it uses, bound from the texts of each row.
class BoundFilter {
public:
    explicit BoundFilter(const Filter& filter) : m_evaluator(filter.text) {
        declareFields(m_evaluator);
        if (m_evaluator.prepareSpecial()) throw std::runtime_error(m_evaluator.getErrorMessage());
        for (const std::string_view field : filter.fields) {
            m_fields.push_back({m_evaluator.bindingHandle(field), member(field)});
        }
    }

    bool matches(const TextRow& row) {
        for (const Field& field : m_fields)
            TExpressionEvaluation::setView(field.handle, row.*field.text);
        bool result = false;
        if (m_evaluator.returnBooleanSpecial(result)) throw std::runtime_error(m_evaluator.getErrorMessage());
        return result;
    }

private:
    struct Field {
        TIdentifierHandle handle;
        std::string_view TextRow::*text;
    };

    static std::string_view TextRow::*member(std::string_view field) {
        if (field == "hostname") return &TextRow::hostname;
        if (field == "os") return &TextRow::os;
        return field == "state" ? &TextRow::state : &TextRow::memory;
    }

    TExpressionEvaluation m_evaluator;
    std::vector<Field> m_fields;
};

struct Data {
    FilterRows rows{rowCount};
    SqliteDatabase database = openRows(rows);
};

/// The rows that a contender selects; `matches(row)` by the row's number.
template <class Matches>
Selection selectRows(Matches matches) {
    Selection selection;
    for (std::size_t row = 0; row < rowCount; ++row) {
        if (matches(row)) selection.add(row);
    }
    return selection;
}

void checkSelections(const Data& data, const Filter& filter) {
    BoundFilter bound(filter);
    SqliteScan scan(data.database.get(), filter);
    SqliteRow byRow(data.database.get(), filter);
    const FilterRows& rows = data.rows;
    const Selection expected = selectRows([&](std::size_t row) { return filter.lambda(rows.typed(row)); });
    const bool same = expected.count() > 0 && expected == scan.select() && scan.count() == expected.count() &&
                      expected == selectRows([&](std::size_t row) { return bound.matches(rows.texts(row)); }) &&
                      expected == selectRows([&](std::size_t row) { return byRow.matches(rows.typed(row)); });
    if (!same) throw std::runtime_error(std::string("the contenders disagree on: ") + filter.text);
}

template <class Matches>
void countRows(benchmark::State& state, Matches matches) {
    for (auto _ : state) {
        std::size_t count = 0;
        for (std::size_t row = 0; row < rowCount; ++row)
            count += matches(row) ? 1 : 0;
        benchmark::DoNotOptimize(count);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rowCount));
}

void addBenchmark(const std::string& name, std::function<void(benchmark::State&)> run) {
    benchmark::RegisterBenchmark(name.c_str(), std::move(run))
        ->Unit(benchmark::kMillisecond)
        ->Repetitions(repetitions)
        ->ComputeStatistics(
            fastest, [](const std::vector<double>& times) { return *std::min_element(times.begin(), times.end()); })
        ->DisplayAggregatesOnly(true);
}

void addFilter(const Data& data, const Filter& filter) {
    const std::string name = std::string("filter/") + filter.name + "/1000000/";
    addBenchmark(name + "evaluator", [&](benchmark::State& state) {
        BoundFilter bound(filter);
        countRows(state, [&](std::size_t row) { return bound.matches(data.rows.texts(row)); });
    });
    addBenchmark(name + "lambda", [&](benchmark::State& state) {
        countRows(state, [&](std::size_t row) { return filter.lambda(data.rows.typed(row)); });
    });
    addBenchmark(name + "sqlite-scan", [&](benchmark::State& state) {
        SqliteScan scan(data.database.get(), filter);
        for (auto _ : state)
            benchmark::DoNotOptimize(scan.count());
        state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rowCount));
    });
    addBenchmark(name + "sqlite-row", [&](benchmark::State& state) {
        SqliteRow byRow(data.database.get(), filter);
        countRows(state, [&](std::size_t row) { return byRow.matches(data.rows.typed(row)); });
    });
}

void addParse(const Filter& filter) {
    addBenchmark(std::string("parse/") + filter.name, [&filter](benchmark::State& state) {
        TExpressionEvaluation evaluator;
        declareFields(evaluator);
        for (auto _ : state) {
            evaluator.setExpression(filter.text);
            if (evaluator.prepare()) state.SkipWithError(evaluator.getErrorMessage().c_str());
        }
        state.SetItemsProcessed(state.iterations());
    });
}

/// Collects the fastest repetition of each benchmark, in processor time.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.aggregate_name == fastest) m_milliseconds[run.run_name.function_name] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void printRatios() const {
        std::printf("\n%-10s %12s %12s %18s %18s\n", "filter", "ns per row", "lambda takes", "SQLite scan takes",
                    "SQLite rows take");
        for (const Filter& filter : filters()) {
            const std::string name = std::string("filter/") + filter.name + "/1000000/";
            const double evaluator = time(name + "evaluator");
            if (evaluator == 0) continue;
            std::printf("%-10s %12.1f %11.2fx %17.2fx %17.2fx\n", filter.name, evaluator * 1e6 / rowCount,
                        time(name + "lambda") / evaluator, time(name + "sqlite-scan") / evaluator,
                        time(name + "sqlite-row") / evaluator);
        }
        for (const Filter& filter : filters()) {
            const double parse = time(std::string("parse/") + filter.name);
            if (parse != 0) std::printf("parsing %-10s %8.2f us\n", filter.name, parse * 1e3);
        }
    }

private:
    double time(const std::string& name) const {
        const auto found = m_milliseconds.find(name);
        return found == m_milliseconds.end() ? 0 : found->second;
    }

    std::map<std::string, double> m_milliseconds;
};

}  // namespace
}  // namespace QOR::bench

int main(int argc, char** argv) {
    using namespace QOR::bench;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    try {
        const Data data;
        for (const Filter& filter : filters())
            checkSelections(data, filter);
        for (const Filter& filter : filters())
            addFilter(data, filter);
        for (const Filter& filter : filters())
            addParse(filter);
        RatioReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
        reporter.printRatios();
        benchmark::Shutdown();
        return 0;
    } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "%s\n", error.what()));
        return 1;
    }
}
