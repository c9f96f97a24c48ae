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
#include "QORPager/Operators/Pager2/QORViewMetadata.h"
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
    explicit Client(std::int32_t limit) : m_requests(5) {
        const auto factory = QOROpFactoryRegistry::instance().find("pager2");
        m_accesser = factory->newAccesser(factory->newOperator());
        auto context = std::make_shared<QORClientContext>();
        context->fullAccess = true;
        m_context = std::move(context);
        for (std::size_t index = 0; index < m_requests.size(); ++index) {
            readElement(requestText({limit, static_cast<std::int32_t>(20 * index)}), m_requests[index]);
        }
    }

    /// \returns rows of the answer; the answer's tree is dropped, its memory kept, as a host does between requests
    std::int64_t operator()(const Request& request) {
        const QORClientContextScope scope(m_context);
        m_response.clear();
        QORBinaryIterator in = m_requests[static_cast<std::size_t>(request.offset / 20)].root();
        in.firstChild();
        QORBinaryIterator out = m_response.root();
        m_accesser->request("select", &in, &out);
        if (out.firstChild(tag::rowSet) != 0) return -1;
        // The result element, six names, and for each row an element and six values.
        return static_cast<std::int64_t>((m_response.nodeCount() - 7) / 7);
    }

private:
    std::vector<QORMessage> m_requests;
    QORPtr<QORAccesserPrototype> m_accesser;
    QORClientContextPtr m_context;
    QORMessage m_response;
};

void prepare(std::int64_t rows) {
    configure(rows);
    test::forgetMetadata();
}

void pageOf20(benchmark::State& state) {
    prepare(state.range(0));
    Client client(20);
    compare(state, state.range(0), 20, 200, [&client](const Request& request) { return client(request); });
}
void allRows(benchmark::State& state) {
    prepare(state.range(0));
    Client client(0);
    compare(state, state.range(0), 0, 1, [&client](const Request& request) { return client(request); });
}
void twoThreads(benchmark::State& state) {
    prepare(state.range(0));
    compareThreads(state, [] { return Client(20); });
}

BENCHMARK(pageOf20)->Arg(100'000)->Arg(1'000'000)->UseManualTime()->Iterations(40)->Unit(benchmark::kMicrosecond);
BENCHMARK(allRows)->Arg(100'000)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(twoThreads)->Arg(100'000)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

[[maybe_unused]] const bool prepared = (QORRdbms::prepareProcess(), true);

}  // namespace
