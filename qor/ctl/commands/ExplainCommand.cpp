#include <algorithm>
#include <iterator>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORViewDescriptions.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORQuery/QORExplanation.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "rows/RowsRequest.h"
#include "select/RequestPage.h"

namespace QOR {
namespace {

constexpr std::string_view sources[] = {"environments", "operations", "events", "backups"};

/// Takes the rows of an explanation.
class ExplanationRows final : public RowSink {
public:
    explicit ExplanationRows(QORExplanation& explanation) : m_explanation(explanation) {}
    void begin(std::span<const std::string>) override {}
    void row(std::span<const Cell> cells) override {
        std::vector<std::string> row;
        for (const Cell& cell : cells)
            row.emplace_back(cell.bytes);
        m_explanation.take(row);
    }
    void end(const std::optional<RowCounts>&) override {}

private:
    QORExplanation& m_explanation;
};

QORExplanation ask(Backend& backend, QORRequestEnvelope& request) {
    QORBinaryIterator at = request.body.root();
    requireRoom(at.firstChild(tag::select));
    requireRoom(at.addChild(tag::explain));
    std::string json;
    writeRequest(request, json);
    QORExplanation explanation;
    ExplanationRows rows(explanation);
    const auto answer = backend.ask(json);
    if (const auto error = readAnswer(*answer, rows)) throw CtlError::answered(error->code, error->message);
    return explanation;
}

QORExplanation explainView(Backend& backend, const ExplainOptions& asked) {
    const std::vector<QORViewColumn> columns = backend.views();
    SelectOptions select = asked.select;
    select.view = asked.about;
    std::vector<std::string> all;
    for (const QORViewColumn& column : columns)
        if (isSameWord(column.view, asked.about)) all.push_back(quoteName(column.column));
    const bool everything = select.fields.empty() || select.fields == std::vector<std::string>{"*"};
    if (everything && !all.empty()) select.fields = std::move(all);
    QORConditionOptions options;
    options.view = asked.about;
    options.levels = QORMessageLimits().depth;
    options.now = currentTime();
    options.types = [&](std::string_view view, std::string_view column) {
        const auto found = std::find_if(columns.begin(), columns.end(), [&](const QORViewColumn& each) {
            return isSameWord(each.view, view) && each.column == column;
        });
        return found == columns.end() ? std::string() : found->type;
    };
    SelectRequest request = makeSelectRequest(select, options.now, options.types);
    QORExplanation explanation = ask(backend, request.envelope);
    std::vector<std::string> sort;
    for (const std::string& key : select.sort) {
        const QORQueryField field = parseQueryField(std::string_view(key).substr(key.starts_with('-') ? 1 : 0));
        if (field.function.empty()) sort.push_back(field.column);
    }
    explanation.lint(select.where.value_or(""), options, sort, viewColumnValues);
    return explanation;
}

QORExplanation explainSource(Backend& backend, const ExplainOptions& asked) {
    if (asked.select.fields.empty())
        throw CtlError::usage("-f is required for a source: fields as qorctl fields has them");
    RowsOptions rows;
    rows.fields = asked.select.fields;
    rows.where = asked.select.where;
    rows.sort = asked.select.sort;
    rows.limit = asked.select.limit;
    rows.offset = asked.select.offset;
    rows.client = asked.select.client;
    QORRequestEnvelope request = makeRowsRequest(rows);
    QORExplanation explanation = ask(backend, request);
    if (explanation.source != asked.about)
        throw CtlError::usage("these are fields of " + explanation.source + ", not of " + asked.about);
    return explanation;
}

// ---- for people -----------------------------------------------------------------------------------------------------

void tell(Output& out, std::string_view what, std::string_view text) {
    out << what << text << "\n";
}
void tellAll(Output& out, std::string_view what, const std::vector<std::string>& texts) {
    for (const std::string& text : texts)
        tell(out, what, text);
}

void printStatement(Output& out, const QORExplanation::Statement& statement) {
    out << "\n" << statement.sql << "\n";
    for (std::size_t i = 0; i < statement.parameters.size(); ++i)
        tell(out, "  value " + std::to_string(i + 1) + ": ", statement.parameters[i]);
    tellAll(out, "  plan: ", statement.plan);
    tell(out, "  condition: ", statement.servesCondition ? "an index finds the rows" : "rows are read and tested");
    tell(out, "  order: ", statement.servesOrder ? "as rows are read" : "rows are sorted, or have none");
    if (statement.isElsewhere) out << "  rows are asked for at other servers, whose plans are not told\n";
}

void printExplanation(Output& out, const QORExplanation& explanation) {
    const bool isView = explanation.source.empty();
    tell(out, isView ? "view: " : "source: ", isView ? explanation.view : explanation.source);
    if (!explanation.engine.empty()) tell(out, "engine: ", explanation.engine);
    tell(out, "rows that may be seen: ",
         explanation.access.empty() ? explanation.isRestricted ? "some" : "all" : std::string_view(explanation.access));
    if (explanation.isRestricted) out << "statements, plans and estimates are for full access\n";
    if (explanation.estimate) tell(out, "rows that match, about: ", std::to_string(*explanation.estimate));
    if (explanation.most) tell(out, "rows to be read, at most: ", std::to_string(*explanation.most));
    for (const QORExplanation::Index& index : explanation.indexes) {
        std::string columns;
        for (const std::string& column : index.columns)
            columns.append(columns.empty() ? "" : ", ").append(column);
        tell(out, "index " + index.name + ": ", columns);
    }
    tellAll(out, "narrows: ", explanation.narrowing);
    tellAll(out, "does not narrow: ", explanation.ignored);
    if (!isView) tell(out, "tested row by row: ", explanation.tested.empty() ? "nothing" : explanation.tested);
    if (!isView) tell(out, "order: ", explanation.order);
    for (const QORExplanation::Statement& statement : explanation.statements)
        printStatement(out, statement);
}

std::string noteOf(const QORExplainedWarning& warning, std::string_view where) {
    std::string note = warning.parameter.empty() ? std::string() : "--" + warning.parameter;
    if (warning.offset) note += " at character " + std::to_string(charactersBefore(where, *warning.offset) + 1);
    note.append(note.empty() ? "" : ": ").append(warning.message);
    return warning.suggestion.empty() ? note : note + "; write " + warning.suggestion;
}

}  // namespace

void runExplain(const ConnectionOptions& connection, const ExplainOptions& options) {
    const auto backend = makeBackend(connection, BackendUse::Ask);
    const bool isSource = std::find(std::begin(sources), std::end(sources), options.about) != std::end(sources);
    const QORExplanation explanation = isSource ? explainSource(*backend, options) : explainView(*backend, options);
    const std::string where = options.select.where.value_or("");
    const auto output = openOutput({});
    if (options.json) {
        *output << explanation.json(where) << "\n";
    } else {
        printExplanation(*output, explanation);
    }
    output->flush();
    if (options.json) return;
    for (const QORExplainedWarning& warning : explanation.warnings)
        tellNote(noteOf(warning, where));
}

}  // namespace QOR
