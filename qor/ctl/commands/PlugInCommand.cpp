#include <array>

#include "commands/Commands.h"
#include "commands/Printing.h"
#include "conformance/QORPlugInCheck.h"

namespace QOR {
namespace {

Cell cellOf(std::string_view text) {
    return text.empty() ? Cell{} : Cell{Cell::Kind::Text, text};
}

std::string_view wordOf(QORPlugInFinding::Level level) {
    constexpr std::array<std::string_view, 3> words{"ok", "advice", "FAULT"};
    return words[static_cast<std::size_t>(level)];
}

}  // namespace

void runPlugInCheck(const QORPlugInCheckOptions& options, const PrintOptions& print) {
    const std::vector<QORPlugInFinding> findings = checkPlugIn(options);
    const auto output = openOutput(print);
    const auto printer = makePrinter(print, false, *output);
    printer->begin(std::array<std::string, 4>{"state", "what", "found", "to do"});
    std::size_t faults = 0;
    for (const QORPlugInFinding& finding : findings) {
        faults += finding.level == QORPlugInFinding::Level::Fault ? 1 : 0;
        printer->row(std::array<Cell, 4>{cellOf(wordOf(finding.level)), cellOf(finding.check), cellOf(finding.found),
                                         cellOf(finding.todo)});
    }
    printer->end(std::nullopt);
    output->flush();
    if (faults > 0)
        throw CtlError(CtlExit::AnsweredError,
                       std::to_string(faults) + " of " + std::to_string(findings.size()) + " checks found a fault");
}

}  // namespace QOR
