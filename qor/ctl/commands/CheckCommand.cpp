#include <unistd.h>

#include "commands/Commands.h"
#include "output/Output.h"
#include "process/Interrupt.h"

namespace QOR {

void runCheck(const ConnectionOptions& connection, const CheckOptions& options) {
    const auto backend = makeBackend(connection, options.mend ? BackendUse::Store : BackendUse::Inspect);
    const Interrupt interrupt;
    FileOutput out(STDOUT_FILENO);
    std::size_t wrong = 0;
    for (const std::string& part : checkParts()) {
        if (interrupt.isRequested()) throw CtlError(CtlExit::Interrupted, "stopped before " + part);
        const std::vector<QORCheckFinding> findings = backend->check(part, options.mend);
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
