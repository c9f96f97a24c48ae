#include <unistd.h>

#include <vector>

#include "commands/Commands.h"
#include "commands/RecordProgress.h"
#include "output/Output.h"
#include "process/Interrupt.h"

namespace QOR {

void runCheck(const ConnectionOptions& connection, const CheckOptions& options) {
    const auto backend = makeBackend(connection, options.mend ? BackendUse::Store : BackendUse::Inspect);
    const Interrupt interrupt;
    FileOutput out(STDOUT_FILENO);
    std::size_t wrong = 0;
    const std::vector<std::string> parts = checkParts();
    RecordProgress progress(false, false, "parts");
    for (std::size_t at = 0; at < parts.size(); ++at) {
        const std::string& part = parts[at];
        progress.tell("checking", at, parts.size(), 0);
        if (interrupt.isRequested()) throw CtlError(CtlExit::Interrupted, "stopped before " + part);
        const std::vector<QORCheckFinding> findings = backend->check(part, options.mend);
        progress.hide();
        if (findings.empty()) out << part << ": sound\n";
        for (const QORCheckFinding& finding : findings) {
            out << part << ": " << finding.text << (finding.mended ? " (mended)" : "") << "\n";
            if (!finding.mended) ++wrong;
        }
        out.flush();
    }
    if (wrong == 0) return;
    throw CtlError(CtlExit::AnsweredError,
                   std::to_string(wrong) + (wrong == 1 ? " fault" : " faults") +
                       (options.mend ? " cannot be mended" : " found; --mend mends what can be mended"));
}

}  // namespace QOR
