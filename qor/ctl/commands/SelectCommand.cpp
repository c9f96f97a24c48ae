#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORViewDescriptions.h"
#include "QORQuery/QORQueryField.h"
#include "commands/Commands.h"
#include "commands/CountRows.h"
#include "commands/Printing.h"
#include "output/ManyRows.h"
#include "select/SelectAdvice.h"

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
    std::vector<QORViewColumn> columnsOf(std::string_view view) {
        std::vector<QORViewColumn> found;
        for (const QORViewColumn& each : columns())
            if (isSameWord(each.view, view)) found.push_back(each);
        return found;
    }

    /// What helps somebody whose request was refused; nothing where nobody can be asked any more.
    std::string adviseOn(const SelectOptions& options, std::int64_t now) {
        try {
            return adviseOnSelect(options, columns(), now);
        } catch (const CtlError&) {
            return adviseOnWriting(options);
        }
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

/// Its rows are environments: who reads them needs no names beside identifiers.
constexpr std::string_view environmentsView = "vEnvironment";

/// What is shown of a view where nobody says what: of the host's own its main columns, of others all that people read.
void addMainFields(SelectOptions& options, LazyBackend& backend) {
    if (!options.fields.empty()) return;
    const std::vector<QORViewColumn> columns = backend.columnsOf(options.view);
    if (columns.empty()) {
        options.fields = {"*"};  // whoever answers says that there is no such view
        return;
    }
    for (const std::string_view name : viewMainColumns(columns.front().view))
        options.fields.push_back(quoteName(name));
    if (!options.fields.empty()) return;
    for (const QORViewColumn& column : columns) {
        if (!isOfRowSecurity(column.column) && columnKindOf(column.type) != QORColumnKind::Bytes)
            options.fields.push_back(quoteName(column.column));
    }
}

/// The column that --since and --until mean: that of the name "time", or else the only one of times.
std::string timeColumnOf(const std::string& view, const std::vector<QORViewColumn>& columns) {
    std::vector<std::string> times;
    for (const QORViewColumn& column : columns) {
        if (columnKindOf(column.type) != QORColumnKind::Time) continue;
        if (column.column == "time") return column.column;
        times.push_back(column.column);
    }
    if (columns.empty() || times.size() == 1) return times.empty() ? "time" : times.front();
    throw CtlError::usage("--since and --until need a view with one column of times; " + view + " has " +
                          (times.empty() ? "none" : std::to_string(times.size()) + ", so name one in --where"));
}

void addBounds(SelectOptions& options, LazyBackend& backend, std::int64_t now) {
    if (!options.bounds.any()) return;
    conditionOf(options.bounds, "time", now);  // what is no time is told before anybody is asked
    options.within =
        conditionOf(options.bounds, quoteName(timeColumnOf(options.view, backend.columnsOf(options.view))), now);
}

/// A field "*" is all columns that are not asked for beside it. Of a view that is not known it stays, so that whoever
/// answers says so.
void expandFields(SelectOptions& options, LazyBackend& backend) {
    const auto all = std::find(options.fields.begin(), options.fields.end(), "*");
    if (all == options.fields.end()) return;
    std::vector<std::string> fields(options.fields.begin(), all);
    for (const auto& [view, column, type, length] : backend.columnsOf(options.view)) {
        const std::string quoted = quoteName(column);
        const auto isAsked = [&, &name = column](const std::string& field) {
            return parseQueryField(field).column == name;
        };
        if (std::none_of(options.fields.begin(), options.fields.end(), isAsked)) fields.push_back(quoted);
    }
    if (fields.empty()) return;
    fields.insert(fields.end(), all + 1, options.fields.end());
    options.fields = std::move(fields);
}

/// How many rows there are at least, as far as that can be told in no time; 0 where it does not matter.
std::int64_t expectedRows(LazyBackend& backend, const SelectOptions& options, const PrintOptions& print,
                          std::int64_t now) {
    const bool mayBeMany = options.limit == 0 || options.limit > ManyRows::most;
    if (!mayBeMany || !asksBeforeMany(print)) return 0;
    const auto counts = countRows(backend.get(), options, now, [&](std::string_view view, std::string_view column) {
        return backend.typeOf(view, column);
    });
    const std::int64_t total = counts ? counts->total - options.offset : 0;
    return options.limit == 0 ? total : std::min(total, options.limit);
}

/// Answers tell the least and the greatest time in seconds, which are no number to people.
bool isTimeAggregate(const QORQueryField& field) {
    return isSameWord(field.function, "min") || isSameWord(field.function, "max");
}

void askSelect(LazyBackend& backend, const SelectOptions& options, const PrintOptions& print, std::int64_t now) {
    SelectRequest request = makeSelectRequest(
        options, now, [&](std::string_view view, std::string_view column) { return backend.typeOf(view, column); });
    std::string json;
    writeRequest(request.envelope, json);

    tellOfNoEnvironment(backend.get(), options.client);
    ColumnKinds kinds;
    std::vector<std::string> names;
    for (const auto& [name, field] : request.columns) {
        if (tellsKinds(print)) {
            const std::string type = backend.typeOf(options.view, field.column);
            const bool isTime =
                isForPerson(print) && isTimeAggregate(field) && columnKindOf(type) == QORColumnKind::Time;
            kinds[name] = isTime ? QORColumnKind::Time : columnKindOf(field, type);
        }
        if (!request.ordered) names.push_back(name);
    }
    AnswerForm form;
    form.counts = options.count;
    form.columns = std::move(names);
    form.kinds = std::move(kinds);
    form.namesEnvironments = !isSameWord(options.view, environmentsView);
    form.client = options.client;
    form.expected = expectedRows(backend, options, print, now);
    printRows([&] { return backend.get().ask(json); }, backend.get(), print, std::move(form));
}

}  // namespace

void runSelect(const ConnectionOptions& connection, const SelectOptions& asked, const PrintOptions& print) {
    LazyBackend backend(connection);
    SelectOptions options = asked;
    const std::int64_t now = currentTime();
    try {
        addMainFields(options, backend);
        expandFields(options, backend);
        addBounds(options, backend, now);
        askSelect(backend, options, print, now);
    } catch (const CtlError& error) {
        if (error.exit() == CtlExit::BadUsage) throw error.advised(adviseOnWriting(options));
        if (error.exit() != CtlExit::AnsweredError) throw;
        throw error.advised(backend.adviseOn(options, now));
    }
}

}  // namespace QOR
