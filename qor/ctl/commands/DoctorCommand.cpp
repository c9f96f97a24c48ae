#include <array>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <vector>

#include "backend/AgentChannel.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "doctor/AgentChecks.h"
#include "doctor/MachineChecks.h"

namespace QOR {
namespace {

std::string_view wordFor(Finding::Level level) {
    switch (level) {
        case Finding::Level::Fine:
            return "ok";
        case Finding::Level::Advice:
            return "advice";
        case Finding::Level::Fault:
            return "FAULT";
    }
    return {};
}

Cell textCell(std::string_view bytes) {
    return {Cell::Kind::Text, bytes};
}

/// The file, or the nearest folder above it that this user may see.
std::filesystem::path placeOnDisk(std::filesystem::path place) {
    std::error_code unseen;
    while (!std::filesystem::exists(place, unseen) && place.has_parent_path() && place != place.parent_path())
        place = place.parent_path();
    return place;
}

}  // namespace

void runDoctor(const ConnectionOptions& connection, const PrintOptions& print) {
    constexpr std::int64_t patience = 5;  // one that hangs is what is looked for
    AgentChannel::usePatience(patience);
    AgentDiagnosis diagnosis = checkAgent(connection, QOR_VERSION);
    std::vector<Finding>& findings = diagnosis.findings;
    if (connection.agent.empty()) {
        findings.push_back(checkSettings());
        findings.push_back(checkDrivers());
        findings.push_back(checkPlugIns(connection.plugIns));
        if (!diagnosis.databaseFile.empty()) findings.push_back(checkDisk(placeOnDisk(diagnosis.databaseFile)));
    }
    findings.push_back(checkClock());

    const auto output = openOutput(print);
    Output& out = *output;
    const auto printer = makePrinter(print, false, out);
    printer->begin(std::array<std::string, 4>{"state", "what", "found", "to do"});
    std::size_t faults = 0;
    for (const Finding& finding : findings) {
        faults += finding.level == Finding::Level::Fault ? 1 : 0;
        printer->row(std::array<Cell, 4>{textCell(wordFor(finding.level)), textCell(finding.subject),
                                         textCell(finding.found),
                                         finding.todo.empty() ? Cell{} : textCell(finding.todo)});
    }
    printer->end(std::nullopt);
    out.flush();
    if (faults > 0)
        throw CtlError(CtlExit::AnsweredError,
                       std::to_string(faults) + " of " + std::to_string(findings.size()) + " checks found a fault");
}

}  // namespace QOR
