#include "commands/Printing.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <utility>

#include "QORCommon/QORTime.h"
#include "output/Pager.h"
#include "output/TextWidth.h"

namespace QOR {
namespace {

bool wantsNoNotes = false;

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

/// Counts rows, and remembers the counts for a form that has no place for them.
class CountKeeper final : public RowSink {
public:
    explicit CountKeeper(RowSink& next) : m_next(next) {}
    void begin(std::span<const std::string> names) override { m_next.begin(names); }
    void row(std::span<const Cell> cells) override {
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
};

}  // namespace

std::unique_ptr<Output> openOutput(const PrintOptions& print) {
    const bool pages = print.pages && !print.pattern && print.form->isForPeople;
    return std::make_unique<PagedOutput>(pages ? pagerCommand() : std::nullopt);
}

std::unique_ptr<RowSink> makePrinter(const PrintOptions& print, bool counts, Output& out, ColumnKinds kinds) {
    if (print.pattern) return makeTemplatePrinter(*print.pattern, out);
    const bool forPeople = print.form->isForPeople;
    const bool onTerminal = ::isatty(STDOUT_FILENO) != 0;
    if (forPeople && print.zone) useZone(*print.zone);
    RowPrinterOptions options;
    options.width = print.width ? *print.width : terminalWidth(STDOUT_FILENO);
    options.counts = counts;
    options.header = print.header;
    options.colours = forPeople && print.colours.value_or(onTerminal && mayColour());
    options.prefixes = onTerminal;
    options.times = timesOf(print, onTerminal);
    options.now = currentTime();
    options.kinds = std::move(kinds);
    return print.form->makePrinter(options, out);
}

bool tellsKinds(const PrintOptions& print) {
    if (print.pattern) return false;
    if (!print.form->isForPeople) return print.form->tellsKinds;
    return ::isatty(STDOUT_FILENO) != 0 || print.times || print.zone;
}

PrintedAnswer printAnswer(Backend& backend, const std::string& request, const PrintOptions& print, bool counts,
                          std::vector<std::string> columns, ColumnKinds kinds) {
    const auto output = openOutput(print);
    Output& out = *output;
    const auto printer = makePrinter(print, counts, out, std::move(kinds));
    CountKeeper keeper(*printer);
    const bool asAnswered = columns.empty() || (print.form->isAnswer && !print.pattern);
    ColumnOrder ordered(std::move(columns), keeper);

    const auto answer = backend.ask(request);
    PrintedAnswer printed;
    const auto error = readAnswer(*answer, asAnswered ? static_cast<RowSink&>(keeper) : ordered, &printed.hasNext);
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

void tellPerson(std::string_view text) {
    std::cerr << "qorctl: " << text << (text.ends_with('\n') ? "" : "\n") << std::flush;
}

void tellNote(std::string_view text) {
    if (!wantsNoNotes) tellPerson("note: " + std::string(text));
}

void setQuiet(bool quiet) noexcept {
    wantsNoNotes = quiet;
}

}  // namespace QOR
