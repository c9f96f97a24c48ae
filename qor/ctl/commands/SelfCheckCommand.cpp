#include <unistd.h>

#include <cstdio>

#include "QORCommon/QORText.h"
#include "backend/Backend.h"
#include "commands/Commands.h"
#include "output/Output.h"
#include "selfcheck/QORSecurityCheck.h"

namespace QOR {
namespace {

constexpr std::size_t shownBytes = 2000;  // of a request or an answer that differs

std::string namesOrNone(const std::vector<std::string>& names) {
    return names.empty() ? "none" : joinTexts(names);
}

std::string shown(const std::string& text) {
    return text.size() <= shownBytes ? text : text.substr(0, shownBytes) + "...";
}

void print(const QORSecurityReport& report, FileOutput& out) {
    const auto line = [&out](const std::string& text) { out << text + "\n"; };
    line("Restricted views: " + namesOrNone(report.restrictedViews));
    line("Views that everybody sees whole: " + namesOrNone(report.openViews));
    line(std::to_string(report.requests) + " requests of " + std::to_string(report.clients) + " clients, answered by " +
         std::to_string(report.rows) + " rows, of which");
    for (const auto& [name, count] : report.operators)
        line("  " + std::to_string(count) + " to operator " + name);
    for (const auto& [shape, count] : report.shapes)
        line("  " + std::to_string(count) + " with " + shape);
    for (const auto& [error, count] : report.errors)
        line("  " + std::to_string(count) + " answered by the error: " + error);
    for (const QORSecurityDifference& difference : report.differences) {
        line("Different: " + shown(difference.request));
        line("  the client was answered " + shown(difference.restricted));
        line("  and should have been    " + shown(difference.expected));
    }
    if (report.unsettled > 0) {
        line(std::to_string(report.unsettled) +
             " requests could not be compared: others wrote what they ask about at every attempt");
    }
    line(std::to_string(report.different) + " answers differ from what the client's own rows give");
}

}  // namespace

void runSelfCheckSecurity(const ConnectionOptions& connection, const SecurityCommandOptions& options) {
    if (!connection.standalone || connection.database.empty()) {
        throw CtlError::usage(
            "self-check needs the database itself: --standalone --database DATABASE; an agent may serve it meanwhile, "
            "its records are only read");
    }
    ConnectionOptions reading = connection;
    reading.readOnly = true;
    makeBackend(reading, BackendUse::Inspect);
    QORSecurityCheckOptions check;
    check.requests = options.requests;
    check.seed = options.seed;
    check.plugIns = connection.plugIns;
    if (::isatty(STDERR_FILENO) == 1) {
        check.progress = [&](std::size_t done) { std::fprintf(stderr, "%zu of %zu\n", done, options.requests); };
    }
    const QORSecurityReport report = checkSecurity(connection.database, check);
    FileOutput out(STDOUT_FILENO);
    print(report, out);
    out.flush();
    if (report.different > 0) {
        throw CtlError(CtlExit::AnsweredError, "hidden rows tell of themselves: " + std::to_string(report.different) +
                                                   " of " + std::to_string(report.requests) +
                                                   " answers depend on them");
    }
}

}  // namespace QOR
