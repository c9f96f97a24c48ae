// Operator "pager2" against ODBC itself: from the tree of a request to the tree of its answer, beside the same select
// prepared and bound by hand with nothing done to its rows. Metadata and statements are warm. Each benchmark takes
// turns between the two and reports the best time of both and their ratio.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "QORFunctionality/QOROpFactory.h"
#include "QORLibAgent/QORSecurity.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "QORPager/Operators/QORViewMetadata.h"
#include "support/HostTable.h"

namespace {

using namespace QOR;
using namespace QOR::bench;

/// The same select as Select by hand runs: two conditions, an order, and a page unless the limit is 0.
std::string requestText(const Request& request) {
    std::string text = R"(["select",[["view","vHost"],["field","id"],["field","name"],["field","eid"],)"
                       R"(["field","state"],["field","seen"],["field","address"],["sort",[["field","id"]]],)"
                       R"(["where",[["and",[["ge",[["field","id"],["value","10"]]],)"
                       R"(["like",[["field","name"],["value","%org"]]]]]]])";
    if (request.limit > 0) {
        text += R"(,["limit",[["size",")" + std::to_string(request.limit) + R"("],["offset",")" +
                std::to_string(request.offset) + R"("]]])";
    }
    return text + "]]";
}

/// One client, its requests already read into trees.
class Client {
   public:
    Client() : m_operator(QOROpFactoryRegistry::instance().find("pager2")->newOperator()) {
        m_accesser = QOROpFactoryRegistry::instance().find("pager2")->newAccesser(m_operator);
        auto context = std::make_shared<QORClientContext>();
        context->fullAccess = true;
        m_context = std::move(context);
    }

    /// \returns rows of the answer; the answer's tree is dropped, its memory kept, as a host does between requests
    std::int64_t run(QORMessage& request) {
        const QORClientContextScope scope(m_context);
        m_response.clear();
        QORBinaryIterator in = request.root();
        in.firstChild();
        QORBinaryIterator out = m_response.root();
        m_accesser->request("select", &in, &out);
        if (out.firstChild(tag::rowSet) != 0) return -1;
        return static_cast<std::int64_t>((m_response.nodeCount() - 7) / 7);
    }

   private:
    QORPtr<QOROperatorPrototype> m_operator;
    QORPtr<QORAccesserPrototype> m_accesser;
    QORClientContextPtr m_context;
    QORMessage m_response;
};

std::vector<QORMessage> requestTrees(std::int32_t limit) {
    std::vector<QORMessage> trees(5);
    for (std::size_t index = 0; index < trees.size(); ++index) {
        readElement(requestText({limit, static_cast<std::int32_t>(20 * index)}), trees[index]);
    }
    return trees;
}

void prepare(std::int64_t rows) {
    configure(rows);
    testing::forgetMetadata();
}

void compare(benchmark::State& state, std::int64_t rows, std::int32_t limit, int batch) {
    prepare(rows);
    ByHand hand(rows, limit > 0);
    Client client;
    std::vector<QORMessage> requests = requestTrees(limit);
    const std::int64_t expected = limit > 0 ? limit : rows - 10;
    check(client.run(requests[2]) == expected, "the operator's rows are not right");
    check(hand.run({limit, 40}) == expected, "the rows by hand are not right");
    double ours = 1e9;
    double plain = 1e9;
    for (auto _ : state) {
        auto from = Clock::now();
        for (int i = 0; i < batch; ++i) hand.run({limit, 20 * (i % 5)});
        plain = std::min(plain, seconds(from) / batch);
        from = Clock::now();
        for (int i = 0; i < batch; ++i) client.run(requests[static_cast<std::size_t>(i % 5)]);
        const double now = seconds(from) / batch;
        ours = std::min(ours, now);
        state.SetIterationTime(now);
    }
    state.counters["odbc_us"] = plain * 1e6;
    state.counters["pager2_us"] = ours * 1e6;
    state.counters["ratio"] = ours / plain;
}

void pageOf20(benchmark::State& state) { compare(state, state.range(0), 20, 200); }
void allRows(benchmark::State& state) { compare(state, state.range(0), 0, 1); }

double pagesPerSecond(unsigned threads, int pages) {
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<std::vector<QORMessage>> requests(threads);
    for (unsigned index = 0; index < threads; ++index) {
        clients.push_back(std::make_unique<Client>());
        requests[index] = requestTrees(20);
    }
    const auto from = Clock::now();
    std::vector<std::thread> running;
    for (unsigned index = 0; index < threads; ++index) {
        running.emplace_back([&, index] {
            for (int i = 0; i < pages; ++i) {
                check(clients[index]->run(requests[index][static_cast<std::size_t>(i % 5)]) == 20,
                      "a page is not whole");
            }
        });
    }
    for (auto& thread : running) thread.join();
    return static_cast<double>(threads) * pages / seconds(from);
}

/// "gain": pages of two threads for one page of one.
void twoThreads(benchmark::State& state) {
    prepare(state.range(0));
    pagesPerSecond(2, 100);
    double one = 0;
    double two = 0;
    for (auto _ : state) {
        const double now = pagesPerSecond(1, 4000);
        one = std::max(one, now);
        two = std::max(two, pagesPerSecond(2, 4000));
        state.SetIterationTime(4000 / now);
    }
    state.counters["pages_s_one"] = one;
    state.counters["pages_s_two"] = two;
    state.counters["gain"] = two / one;
}

BENCHMARK(pageOf20)->Arg(100'000)->Arg(1'000'000)->UseManualTime()->Iterations(40)->Unit(benchmark::kMicrosecond);
BENCHMARK(allRows)->Arg(100'000)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(twoThreads)->Arg(100'000)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

[[maybe_unused]] const bool prepared = (QORRdbms::prepareProcess(), true);

}  // namespace
