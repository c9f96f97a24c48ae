#include "commands/Printing.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "QORCommon/QORTime.h"
#include "commands/EnvironmentNames.h"
#include "output/HeldRows.h"
#include "output/ManyRows.h"
#include "output/Pager.h"
#include "output/TextWidth.h"

namespace QOR {
namespace {

/// Unless somebody wants no colours, or the terminal has none.
bool mayColour() {
    const char* const none = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return (none == nullptr || *none == '\0') && terminal != nullptr && std::string_view(terminal) != "dumb";
}

TimeForm timesOf(const PrintOptions& print, bool onTerminal) {
    if (print.times) return *print.times == TimeForm::Answered && print.zone ? TimeForm::Full : *print.times;
    if (onTerminal) return TimeForm::Short;
    return print.zone ? TimeForm::Full : TimeForm::Answered;
}

/// As many rows wait for the names of their environments.
constexpr std::size_t mostNamedRows = 1000;

/// Whether a person at a terminal is shown identifiers.
bool namesEnvironments(const PrintOptions& print, const ColumnKinds& kinds) {
    return print.form->isForPeople && !print.pattern && ::isatty(STDOUT_FILENO) != 0 &&
           std::any_of(kinds.begin(), kinds.end(),
                       [](const auto& kind) { return kind.second == QORColumnKind::Identifier; });
}

/// Counts rows, and remembers the counts for a form that has no place for them.
class CountKeeper final : public RowSink {
public:
    CountKeeper(RowSink& next, ManyRows& many, Output& out) : m_next(next), m_many(many), m_out(out) {}
    void begin(std::span<const std::string> names) override { m_next.begin(names); }
    void row(std::span<const Cell> cells) override {
        m_many.row(m_out);
        ++rows;
        m_next.row(cells);
    }
    void end(const std::optional<RowCounts>& given) override {
        counts = given;
        m_next.end(given);
    }
    std::int64_t rows = 0;
    std::optional<RowCounts> counts;

private:
    RowSink& m_next;
    ManyRows& m_many;
    Output& m_out;
};

std::optional<std::string> pagerOf(const PrintOptions& print) {
    const bool pages = print.pages && !print.pattern && print.form->isForPeople;
    return pages ? pagerCommand() : std::nullopt;
}

}  // namespace

std::unique_ptr<Output> openOutput(const PrintOptions& print) {
    return std::make_unique<PagedOutput>(pagerOf(print));
}

bool isForPerson(const PrintOptions& print) {
    return print.form->isForPeople && !print.pattern && ::isatty(STDOUT_FILENO) != 0 &&
           print.times != TimeForm::Answered;
}

bool asksBeforeMany(bool mayAsk) {
    return mayAsk && ::isatty(STDIN_FILENO) != 0 && ::isatty(STDOUT_FILENO) != 0;
}

bool asksBeforeMany(const PrintOptions& print) {
    return asksBeforeMany(print.asks) && !pagerOf(print);
}

std::unique_ptr<RowSink> makePrinter(const PrintOptions& print, bool counts, Output& out, ColumnKinds kinds,
                                     std::shared_ptr<const std::map<std::string, std::string>> environments) {
    if (print.pattern) return makeTemplatePrinter(*print.pattern, out);
    const bool forPeople = print.form->isForPeople;
    const bool onTerminal = ::isatty(STDOUT_FILENO) != 0;
    RowPrinterOptions options;
    options.width = print.width ? *print.width : terminalWidth(STDOUT_FILENO);
    options.counts = counts;
    options.header = print.header;
    options.colours = forPeople && print.colours.value_or(onTerminal && mayColour());
    options.prefixes = onTerminal;
    options.sizes = isForPerson(print);
    options.times = timesOf(print, onTerminal);
    options.now = currentTime();
    options.kinds = std::move(kinds);
    options.environments = std::move(environments);
    return print.form->makePrinter(options, out);
}

bool tellsKinds(const PrintOptions& print) {
    if (print.pattern) return false;
    if (!print.form->isForPeople) return print.form->tellsKinds;
    return ::isatty(STDOUT_FILENO) != 0 || print.times || print.zone;
}

PrintedAnswer printRows(const std::function<std::unique_ptr<AnswerSource>()>& ask, Backend& backend,
                        const PrintOptions& print, AnswerForm form) {
    ManyRows many(asksBeforeMany(print));
    many.expect(form.expected);
    const auto output = openOutput(print);
    Output& out = *output;
    const bool names = form.namesEnvironments && namesEnvironments(print, form.kinds);
    const auto environments = std::make_shared<std::map<std::string, std::string>>();
    const auto printer = makePrinter(print, form.counts, out, form.kinds, environments);
    CountKeeper keeper(*printer, many, out);
    HeldRows held(keeper, names ? mostNamedRows : 0);
    ColumnNames shown(std::move(form.shown), held);
    const bool asAnswered = form.columns.empty() || (print.form->isAnswer && !print.pattern);
    ColumnOrder ordered(std::move(form.columns), shown);

    PrintedAnswer printed;
    std::optional<AnsweredError> error;
    {
        const auto answer = ask();
        RowSink& rows = print.form->isAnswer && !print.pattern ? static_cast<RowSink&>(keeper)
                        : asAnswered                           ? static_cast<RowSink&>(shown)
                                                               : ordered;
        error = readAnswer(*answer, rows, &printed.hasNext);
    }
    if (names && !error)
        *environments = environmentNames(backend, held.valuesOf(QORColumnKind::Identifier, form.kinds), form.client);
    held.release();
    out.flush();  // the rows before an error too: they have been answered
    if (error) throw CtlError::answered(error->code, error->message);
    // Of forms for programs none says that a total is a bound.
    const bool holdsCounts = print.form->holdsCounts && !print.pattern && (!keeper.counts || !keeper.counts->isBound);
    if (keeper.counts && !holdsCounts) tellPerson(describeCounts(*keeper.counts));
    printed.rows = keeper.rows;
    return printed;
}

void tellOfNoEnvironment(Backend& backend, const std::vector<std::string>& client) {
    const bool none = client.empty() ? !backend.seesEnvironments() : client == std::vector<std::string>{"none"};
    if (!none) return;
    tellNote(client.empty() ? "you stand for no environment, so no row of an environment is shown to you; root and "
                              "the agent's user see all"
                            : "this client stands for no environment, so no row of an environment is shown to it");
}

}  // namespace QOR
