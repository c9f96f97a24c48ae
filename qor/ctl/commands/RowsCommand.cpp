#include <memory>
#include <utility>

#include "commands/Commands.h"
#include "commands/Printing.h"
#include "filter/FilterNames.h"
#include "rows/FilterSpelling.h"
#include "rows/RowsAdvice.h"

namespace QOR {

void runRows(const ConnectionOptions& connection, const RowsOptions& asked, const PrintOptions& print) {
    std::unique_ptr<Backend> backend;
    RowsOptions options = asked;
    makeRowsRequest(options);  // what cannot be meant is said before anybody is asked
    if (options.where && mayBeMisspelled(*options.where)) {
        backend = makeBackend(connection, BackendUse::Ask);
        options.where = spellNames(*options.where, backend->vocabulary());
    }
    std::string json;
    QORRequestEnvelope request = makeRowsRequest(options);
    writeRequest(request, json);
    for (const std::string& note : adviseOnRows(options))
        tellNote(note);

    if (!backend) backend = makeBackend(connection, BackendUse::Ask);
    ColumnKinds kinds;
    if (tellsKinds(print)) kinds = FilterNames(backend->vocabulary()).kindsOf(options.fields);
    tellOfNoEnvironment(*backend, options.client);
    const PrintedAnswer printed = printAnswer(*backend, json, print, options.count, {}, std::move(kinds));
    if (printed.hasNext && printed.rows < options.limit)
        tellNote("the request's deadline came before the page was full; more rows follow these");
}

}  // namespace QOR
