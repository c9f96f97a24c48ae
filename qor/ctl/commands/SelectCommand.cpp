#include <algorithm>
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
        for (const QORViewColumn& each : columns())
            if (isSameWord(each.view, view) && each.column == column) return each.type;
        return {};
    }

    /// All of a view, in their order; none for a view that is not known.
    std::vector<std::string> columnsOf(std::string_view view) {
        std::vector<std::string> names;
        for (const QORViewColumn& each : columns())
            if (isSameWord(each.view, view)) names.push_back(each.column);
        return names;
    }

private:
    const std::vector<QORViewColumn>& columns() {
        if (!m_columns) m_columns = get().views();
        return *m_columns;
    }

    const ConnectionOptions& m_connection;
    std::unique_ptr<Backend> m_backend;
    std::optional<std::vector<QORViewColumn>> m_columns;
};

/// A field "*" is all columns that are not asked for beside it. Of a view that is not known it stays, so that whoever
/// answers says so.
void expandFields(SelectOptions& options, LazyBackend& backend) {
    const auto all = std::find(options.fields.begin(), options.fields.end(), "*");
    if (all == options.fields.end()) return;
    std::vector<std::string> fields(options.fields.begin(), all);
    for (const std::string& column : backend.columnsOf(options.view)) {
        const std::string quoted = quoteName(column);
        const auto isAsked = [&](const std::string& field) { return parseQueryField(field).column == column; };
        if (std::none_of(options.fields.begin(), options.fields.end(), isAsked)) fields.push_back(quoted);
    }
    if (fields.empty()) return;
    fields.insert(fields.end(), all + 1, options.fields.end());
    options.fields = std::move(fields);
}

}  // namespace

void runSelect(const ConnectionOptions& connection, const SelectOptions& asked, const PrintOptions& print) {
    LazyBackend backend(connection);
    SelectOptions options = asked;
    expandFields(options, backend);
    SelectRequest request =
        makeSelectRequest(options, currentTime(),
                          [&](std::string_view view, std::string_view column) { return backend.typeOf(view, column); });
    std::string json;
    writeRequest(request.envelope, json);

    tellOfNoEnvironment(backend.get(), options.client);
    ColumnKinds kinds;
    std::vector<std::string> names;
    for (const auto& [name, field] : request.columns) {
        if (tellsKinds(print)) kinds[name] = columnKindOf(field, backend.typeOf(options.view, field.column));
        if (!request.ordered) names.push_back(name);
    }
    printAnswer(backend.get(), json, print, options.count, std::move(names), std::move(kinds));
}

}  // namespace QOR
