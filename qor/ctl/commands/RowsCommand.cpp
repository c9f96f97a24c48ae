#include <unistd.h>

#include "commands/Commands.h"
#include "commands/Printing.h"
#include "rows/RowsAdvice.h"

namespace QOR {

void runRows(const QORConnectionOptions& connection, const QORRowsOptions& options, const QORPrintOptions& print) {
    QORRequestEnvelope request = makeRowsRequest(options);
    std::string json;
    writeRequest(request, json);
    for (const std::string& note : adviseOnRows(options))
        tellPerson("note: " + note);

    const auto backend = makeBackend(connection, QORBackendUse::Ask);
    QORFileOutput out(STDOUT_FILENO);
    const auto printer = makePrinter(print, options.count, out);
    QORCountKeeper rows(*printer);
    const auto answer = backend->ask(json);
    const auto error = readAnswer(*answer, rows);
    if (error) throw QORCtlError::answered(error->code, error->message);
    out.flush();
    if (rows.counts && print.format == QORRowFormat::Csv) tellPerson(describeCounts(*rows.counts));
}

}  // namespace QOR
