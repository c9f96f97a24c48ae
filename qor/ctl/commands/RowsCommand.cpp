#include <unistd.h>

#include <memory>

#include "commands/Commands.h"
#include "commands/Printing.h"
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
        tellPerson("note: " + note);

    if (!backend) backend = makeBackend(connection, BackendUse::Ask);
    tellOfNoEnvironment(*backend, options.client);
    FileOutput out(STDOUT_FILENO);
    const auto printer = makePrinter(print, options.count, out);
    CountKeeper rows(*printer);
    const auto answer = backend->ask(json);
    const auto error = readAnswer(*answer, rows);
    out.flush();  // the rows before an error too: they have been answered
    if (error) throw CtlError::answered(error->code, error->message);
    if (rows.counts && print.format == RowFormat::Csv) tellPerson(describeCounts(*rows.counts));
}

}  // namespace QOR
