#include <memory>
#include <optional>
#include <utility>

#include "QORCommon/QORTime.h"
#include "QORQuery/QORQueryField.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "filter/FilterNames.h"
#include "rows/FilterSpelling.h"
#include "rows/RowsAdvice.h"
#include "rows/ShortNames.h"

namespace QOR {
namespace {

/// A request in the names that the operator knows.
struct WholeRows {
    RowsOptions options;
    std::map<std::string, std::string> shown{};  ///< fields as they were asked for, by their whole names
};

void addMainFields(RowsOptions& options, const QORSource* source) {
    if (!options.fields.empty()) return;
    if (source == nullptr)
        throw CtlError::usage(
            "--field is required, or else the records: qorctl rows operations, events, backups or "
            "environments");
    for (const std::string_view field : splitQueryList(source->shown))
        options.fields.emplace_back(field);
}

/// Whole names in place of short ones.
void spellOut(WholeRows& rows, const FilterNames& names, const QORSource& source) {
    const ShortNames known(names, source);
    for (std::string& field : rows.options.fields) {
        const std::string whole = known.whole(field);
        rows.shown[whole] = field;
        field = whole;
    }
    for (std::string& key : rows.options.sort) {
        const bool descends = key.starts_with('-');
        key = (descends ? "-" : "") + known.whole(std::string_view(key).substr(descends ? 1 : 0));
    }
    if (rows.options.where) rows.options.where = known.inFilter(*rows.options.where);
}

void addBounds(RowsOptions& options, const FilterNames& names, const QORSource* source) {
    const QORSource* const bounded = source != nullptr ? source : sourceOfFields(options.fields);
    const std::string time = bounded == nullptr ? std::string() : ShortNames(names, *bounded).whole("time");
    if (!names.isField(time))
        throw CtlError::usage("--since and --until need records that have a time: operations, events or backups");
    options.where = joinConditions(options.where.value_or(""), conditionOf(options.bounds, time, currentTime()));
}

void askRows(Backend& backend, const WholeRows& rows, const std::string& request, const PrintOptions& print) {
    AnswerForm form;
    if (tellsKinds(print)) {
        for (const auto& [name, kind] : FilterNames(backend.vocabulary()).kindsOf(rows.options.fields)) {
            const auto shown = rows.shown.find(name);
            form.kinds[shown == rows.shown.end() ? name : shown->second] = kind;
        }
    }
    if (!rows.options.source.empty()) form.columns = rows.options.fields;
    form.counts = rows.options.count;
    form.shown = rows.shown;
    tellOfNoEnvironment(backend, rows.options.client);
    const PrintedAnswer printed = printRows([&] { return backend.ask(request); }, backend, print, std::move(form));
    if (printed.hasNext && printed.rows < rows.options.limit)
        tellNote("the request's deadline came before the page was full; more rows follow these");
}

}  // namespace

void runRows(const ConnectionOptions& connection, const RowsOptions& asked, const PrintOptions& print) {
    std::unique_ptr<Backend> backend;
    WholeRows rows{asked};
    RowsOptions& options = rows.options;
    const QORSource* const source = findSource(options.source);
    addMainFields(options, source);
    conditionOf(options.bounds, "time", currentTime());
    makeRowsRequest(options);  // what cannot be meant is said before anybody is asked
    if (source != nullptr || options.bounds.any() || (options.where && mayBeMisspelled(*options.where))) {
        backend = makeBackend(connection, BackendUse::Ask);
        const auto vocabulary = backend->vocabulary();
        const FilterNames names(vocabulary);
        if (source != nullptr) spellOut(rows, names, *source);
        if (options.where) options.where = spellNames(*options.where, vocabulary);
        if (options.bounds.any()) addBounds(options, names, source);
    }
    std::string json;
    QORRequestEnvelope request = makeRowsRequest(options);
    writeRequest(request, json);
    for (const std::string& note : adviseOnRows(options))
        tellNote(note);

    if (!backend) backend = makeBackend(connection, BackendUse::Ask);
    try {
        askRows(*backend, rows, json, print);
    } catch (const CtlError& error) {
        if (error.exit() != CtlExit::AnsweredError) throw;
        throw error.advised(adviseOnRefusedRows(options, FilterNames(backend->vocabulary())));
    }
}

}  // namespace QOR
