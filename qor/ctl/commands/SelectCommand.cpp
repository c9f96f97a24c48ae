#include <unistd.h>

#include <memory>
#include <optional>

#include "commands/Commands.h"
#include "commands/Printing.h"
#include "where/FieldSpec.h"

namespace QOR {
namespace {

/// What there is to ask, made when it is first needed: a request that is not well formed needs nobody.
class LazyBackend {
public:
    explicit LazyBackend(const QORConnectionOptions& connection) : m_connection(connection) {}

    QORBackend& get() {
        if (!m_backend) m_backend = makeBackend(m_connection, QORBackendUse::Ask);
        return *m_backend;
    }

    std::string typeOf(std::string_view view, std::string_view column) {
        if (!m_columns) m_columns = get().views();
        for (const QORViewColumn& each : *m_columns)
            if (isSameView(each.view, view) && each.column == column) return each.type;
        return {};
    }

private:
    const QORConnectionOptions& m_connection;
    std::unique_ptr<QORBackend> m_backend;
    std::optional<std::vector<QORViewColumn>> m_columns;
};

}  // namespace

void runSelect(const QORConnectionOptions& connection, const QORSelectOptions& options, const QORPrintOptions& print) {
    LazyBackend backend(connection);
    QORSelectRequest request = makeSelectRequest(
        options, [&](std::string_view view, std::string_view column) { return backend.typeOf(view, column); });
    for (const std::string& note : request.notes)
        tellPerson("note: " + note);
    std::string json;
    writeRequest(request.envelope, json);

    tellOfNoEnvironment(backend.get(), options.client);
    QORFileOutput out(STDOUT_FILENO);
    const auto printer = makePrinter(print, options.count, out);
    QORCountKeeper keeper(*printer);
    // The XML form is the answer itself, so its columns stand where the answer has them.
    QORColumnOrder ordered(std::move(request.columns), keeper);
    QORRowSink& rows = print.format == QORRowFormat::Xml ? static_cast<QORRowSink&>(keeper) : ordered;

    const auto answer = backend.get().ask(json);
    const auto error = readAnswer(*answer, rows);
    out.flush();  // the rows before an error too: they have been answered
    if (error) throw QORCtlError::answered(error->code, error->message);
    if (keeper.counts && print.format == QORRowFormat::Csv) tellPerson(describeCounts(*keeper.counts));
}

}  // namespace QOR
