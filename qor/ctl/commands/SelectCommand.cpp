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
    explicit LazyBackend(const ConnectionOptions& connection) : m_connection(connection) {}

    Backend& get() {
        if (!m_backend) m_backend = makeBackend(m_connection, BackendUse::Ask);
        return *m_backend;
    }

    std::string typeOf(std::string_view view, std::string_view column) {
        if (!m_columns) m_columns = get().views();
        for (const QORViewColumn& each : *m_columns)
            if (isSameView(each.view, view) && each.column == column) return each.type;
        return {};
    }

private:
    const ConnectionOptions& m_connection;
    std::unique_ptr<Backend> m_backend;
    std::optional<std::vector<QORViewColumn>> m_columns;
};

}  // namespace

void runSelect(const ConnectionOptions& connection, const SelectOptions& options, const PrintOptions& print) {
    LazyBackend backend(connection);
    SelectRequest request = makeSelectRequest(
        options, [&](std::string_view view, std::string_view column) { return backend.typeOf(view, column); });
    for (const std::string& note : request.notes)
        tellPerson("note: " + note);
    std::string json;
    writeRequest(request.envelope, json);

    tellOfNoEnvironment(backend.get(), options.client);
    FileOutput out(STDOUT_FILENO);
    const auto printer = makePrinter(print, options.count, out);
    CountKeeper keeper(*printer);
    // The XML form is the answer itself, so its columns stand where the answer has them.
    ColumnOrder ordered(std::move(request.columns), keeper);
    RowSink& rows = print.format == RowFormat::Xml ? static_cast<RowSink&>(keeper) : ordered;

    const auto answer = backend.get().ask(json);
    const auto error = readAnswer(*answer, rows);
    out.flush();  // the rows before an error too: they have been answered
    if (error) throw CtlError::answered(error->code, error->message);
    if (keeper.counts && print.format == RowFormat::Csv) tellPerson(describeCounts(*keeper.counts));
}

}  // namespace QOR
