#include <memory>
#include <optional>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORTime.h"
#include "QORQuery/QORQueryField.h"
#include "commands/Commands.h"
#include "commands/Printing.h"

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
            if (isSameWord(each.view, view) && each.column == column) return each.type;
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
    SelectRequest request =
        makeSelectRequest(options, currentTime(),
                          [&](std::string_view view, std::string_view column) { return backend.typeOf(view, column); });
    for (const std::string& note : request.notes)
        tellNote(note);
    std::string json;
    writeRequest(request.envelope, json);

    tellOfNoEnvironment(backend.get(), options.client);
    ColumnKinds kinds;
    for (const QORQueryField& field : request.fields) {
        if (!tellsKinds(print)) break;
        kinds[field.column] = columnKindOf(field, backend.typeOf(options.view, field.column));
    }
    printAnswer(backend.get(), json, print, options.count, std::move(request.columns), std::move(kinds));
}

}  // namespace QOR
