// Operator "pager2" against ODBC itself: from the tree of a request to the tree of its answer, beside the same select
// prepared and bound by hand with nothing done to its rows. Metadata and statements are warm.
//
//     bench_pager2 [--smallest] [--check]
#include <string>
#include <vector>

#include "QORPager/Operators/Pager2/QORViewMetadata.h"
#include "support/HostTable.h"
#include "support/Operations.h"
#include "support/Pager2Client.h"

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

/// Asks for pages that begin at one of the first hundred rows, or for all rows.
class Client {
public:
    explicit Client(std::int32_t limit) : m_client(fullAccess(), requests(limit)) {}

    /// \returns rows of the answer
    std::int64_t operator()(const Request& request) {
        // The result element, six names, and for each row an element and six values.
        return static_cast<std::int64_t>((m_client.ask(static_cast<std::size_t>(request.offset / 20)).nodeCount() - 7) /
                                         7);
    }

private:
    static std::vector<std::string> requests(std::int32_t limit) {
        std::vector<std::string> texts;
        for (std::int32_t page = 0; page < 5; ++page)
            texts.push_back(requestText({limit, 20 * page}));
        return texts;
    }

    Pager2Client m_client;
};

void prepare(std::int64_t rows) {
    configure(rows);
    test::forgetMetadata();
}

void run(Figures& figures) {
    QORRdbms::prepareProcess();
    for (const std::int64_t rows : tableSizes(figures)) {
        prepare(rows);
        Client client(20);
        compare(figures, "page of 20", Goal::atMost(2), rows, 20, 200, client);
    }
    const std::int64_t rows = tableSizes(figures).front();
    prepare(rows);
    Client client(0);
    compare(figures, "all rows", Goal::atMost(1.25), rows, 0, 1, client);
    compareThreads(figures, Goal::atLeast(1.7), [] { return Client(20); });
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_pager2 [--smallest] [--check]", run);
}
