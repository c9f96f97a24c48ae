// The database layer against ODBC itself: the same select prepared and bound by hand, its rows fetched and left where
// they are. Names say what is selected.
//
//     bench_rdbms [--smallest] [--check]
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
    check(bytes != 0, "the rows are empty");
    return cursor.GetAmount();
}

void run(Figures& figures) {
    QORRdbms::prepareProcess();
    for (const std::int64_t rows : tableSizes(figures)) {
        configure(rows);
        compare(figures, "page of 20", Goal::none(), rows, 20, 200, throughLayer);
    }
    const std::int64_t rows = tableSizes(figures).front();
    configure(rows);
    compare(figures, "all rows", Goal::none(), rows, 0, 1, throughLayer);
    compareThreads(figures, Goal::none(), [] { return &throughLayer; });
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_rdbms [--smallest] [--check]", run);
}
