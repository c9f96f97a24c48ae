// The database layer against ODBC itself: the same select prepared and bound by hand, its rows fetched and left where
// they are. Each benchmark takes turns between the two and reports the best times of both (of the thread's processor)
// and their ratio. Names say what is selected.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "rdbmspp/pool/QORRdbms.h"
#include "rdbmspp/sql/ASCursor.h"
#include "support/HostTable.h"

namespace {

using namespace QOR;
using namespace QOR::bench;

/// The six columns of the view as the layer's objects.
struct Columns {
    ASDomainPtr domain = std::make_shared<ASDomain>("vHost", "");
    std::vector<ASAttribute> attributes;
    std::vector<ASDataPtr> data;

    Columns() {
        add("id", std::make_shared<ASInt>());
        add("name", std::make_shared<ASVStr>(65));
        add("eid", std::make_shared<ASGuid>());
        add("state", std::make_shared<ASInt>());
        add("seen", std::make_shared<ASTime>());
        add("address", std::make_shared<ASVStr>(41));
    }
    void add(const char* name, ASDataPtr receiver) {
        attributes.emplace_back(name, receiver->type());
        attributes.back().Register(receiver, domain);
        data.push_back(std::move(receiver));
    }
};

/// One request through the layer, from the condition to the texts of all values. Returns the number of rows.
std::int64_t throughLayer(const Request& request) {
    Columns columns;
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    auto& project = cursor.Filter().Project();
    for (const auto& attribute : columns.attributes)
        project << attribute;
    cursor.Filter().Set((columns.attributes[0] >= ASInt(10)) && ASAttribute::Like(columns.attributes[1], "%org", 0));
    cursor.Order(ASOrder(columns.attributes[0]));
    if (request.limit > 0) cursor.Limit(request.limit, request.offset);
    std::size_t bytes = 0;
    ASTextBuffer scratch;
    while (cursor.Fetch()) {
        for (const auto& value : columns.data)
            bytes += value->text(scratch).size();
    }
    benchmark::DoNotOptimize(bytes);
    return cursor.GetAmount();
}

void pageOf20(benchmark::State& state) {
    configure(state.range(0));
    compare(state, state.range(0), 20, 200, throughLayer);
}
void allRows(benchmark::State& state) {
    configure(state.range(0));
    compare(state, state.range(0), 0, 1, throughLayer);
}
void twoThreads(benchmark::State& state) {
    configure(state.range(0));
    compareThreads(state, [] { return throughLayer; });
}

BENCHMARK(pageOf20)->Arg(100'000)->Arg(1'000'000)->UseManualTime()->Iterations(40)->Unit(benchmark::kMicrosecond);
BENCHMARK(allRows)->Arg(100'000)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(twoThreads)->Arg(100'000)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

[[maybe_unused]] const bool prepared = (QORRdbms::prepareProcess(), true);

}  // namespace
