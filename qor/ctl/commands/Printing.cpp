#include "commands/Printing.h"

#include <unistd.h>

#include <iostream>
#include <utility>

#include "output/TextWidth.h"

namespace QOR {
namespace {

bool wantsNoNotes = false;

/// Remembers the counts for a form that has no place for them.
class CountKeeper final : public RowSink {
public:
    explicit CountKeeper(RowSink& next) : m_next(next) {}
    void begin(std::span<const std::string> names) override { m_next.begin(names); }
    void row(std::span<const Cell> cells) override { m_next.row(cells); }
    void end(const std::optional<RowCounts>& given) override {
        counts = given;
        m_next.end(given);
    }
    std::optional<RowCounts> counts;

private:
    RowSink& m_next;
};

}  // namespace

std::unique_ptr<RowSink> makePrinter(const PrintOptions& print, bool counts, Output& out, ColumnKinds kinds) {
    if (print.pattern) return makeTemplatePrinter(*print.pattern, out);
    const std::size_t width = print.width ? *print.width : terminalWidth(STDOUT_FILENO);
    return print.form->makePrinter({width, counts, print.header, std::move(kinds)}, out);
}

bool tellsKinds(const PrintOptions& print) {
    return !print.pattern && print.form->tellsKinds;
}

void printAnswer(Backend& backend, const std::string& request, const PrintOptions& print, bool counts,
                 std::vector<std::string> columns, ColumnKinds kinds) {
    FileOutput out(STDOUT_FILENO);
    const auto printer = makePrinter(print, counts, out, std::move(kinds));
    CountKeeper keeper(*printer);
    const bool asAnswered = columns.empty() || (print.form->isAnswer && !print.pattern);
    ColumnOrder ordered(std::move(columns), keeper);

    const auto answer = backend.ask(request);
    const auto error = readAnswer(*answer, asAnswered ? static_cast<RowSink&>(keeper) : ordered);
    out.flush();  // the rows before an error too: they have been answered
    if (error) throw CtlError::answered(error->code, error->message);
    const bool holdsCounts = print.form->holdsCounts && !print.pattern;
    if (keeper.counts && !holdsCounts) tellPerson(describeCounts(*keeper.counts));
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
