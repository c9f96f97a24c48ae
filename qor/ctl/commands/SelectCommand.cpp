#include <unistd.h>

#include "commands/Commands.h"
#include "commands/Printing.h"

namespace QOR {
void runSelect(const QORConnectionOptions& connection, const QORSelectOptions& options, const QORPrintOptions& print) {
    QORSelectRequest request = makeSelectRequest(options);
    for (const std::string& note : request.notes)
        tellPerson("note: " + note);
    std::string json;
    writeRequest(request.envelope, json);

    const auto backend = makeBackend(connection, QORBackendUse::Ask);
    QORFileOutput out(STDOUT_FILENO);
    const auto printer = makePrinter(print, options.count, out);
    QORCountKeeper keeper(*printer);
    // The XML form is the answer itself, so its columns stand where the answer has them.
    QORColumnOrder ordered(std::move(request.columns), keeper);
    QORRowSink& rows = print.format == QORRowFormat::Xml ? static_cast<QORRowSink&>(keeper) : ordered;

    const auto answer = backend->ask(json);
    const auto error = readAnswer(*answer, rows);
    if (error) throw QORCtlError::answered(error->code, error->message);
    out.flush();
    if (keeper.counts && print.format == QORRowFormat::Csv) tellPerson(describeCounts(*keeper.counts));
}

}  // namespace QOR
