#include <array>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "commands/Commands.h"
#include "commands/Printing.h"
#include "conformance/QORPlugInCheck.h"
#include "process/Interrupt.h"

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

void runPlugInCheck(QORPlugInCheckOptions options, const PrintOptions& print) {
    std::error_code unknown;
    if (!options.root.empty() && std::filesystem::equivalent(options.root, "/", unknown))
        throw CtlError(CtlExit::BadUsage,
                       "--root is all of this machine: copy what the collectors read to a folder, and name that");
    const Interrupt interrupt;
    options.interrupt = interrupt.descriptor();
    const std::vector<QORPlugInFinding> findings = checkPlugIn(options);
    const auto output = openOutput(print);
    const auto printer = makePrinter(print, false, *output);
    printer->begin(std::array<std::string, 4>{"state", "what", "found", "to do"});
    std::size_t faults = 0;
    std::string told;  // whole, whatever a terminal has room for
    for (const QORPlugInFinding& finding : findings) {
        printer->row(std::array<Cell, 4>{cellOf(wordOf(finding.level)), cellOf(finding.check), cellOf(finding.found),
                                         cellOf(finding.todo)});
        if (finding.level != QORPlugInFinding::Level::Fault) continue;
        ++faults;
        told += "  " + finding.check + ": " + finding.found + (finding.todo.empty() ? "" : "; " + finding.todo) + "\n";
    }
    printer->end(std::nullopt);
    output->flush();
    if (interrupt.isRequested()) throw CtlError(CtlExit::Interrupted, "interrupted; the other checks were not made");
    if (faults > 0)
        throw CtlError(CtlExit::AnsweredError,
                       std::to_string(faults) + " of " + std::to_string(findings.size()) + " checks found a fault")
            .advised(told);
}

}  // namespace QOR
