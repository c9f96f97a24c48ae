#include <unistd.h>

#include "commands/Commands.h"
#include "output/Output.h"
#include "process/Interrupt.h"

namespace QOR {

void runCheck(const QORConnectionOptions& connection, const QORCheckOptions& options) {
    const auto backend = makeBackend(connection, options.mend ? QORBackendUse::Store : QORBackendUse::Inspect);
    const QORInterrupt interrupt;
    QORFileOutput out(STDOUT_FILENO);
    std::size_t wrong = 0;
    for (const std::string& part : checkParts()) {
        if (interrupt.isRequested()) throw QORCtlError(QORCtlExit::AnsweredError, "stopped before " + part);
        const std::vector<QORCheckFinding> findings = backend->check(part, options.mend);
        if (findings.empty()) out << part << ": sound\n";
        for (const QORCheckFinding& finding : findings) {
            out << part << ": " << finding.text << (finding.mended ? " (mended)" : "") << "\n";
            if (!finding.mended) ++wrong;
        }
        out.flush();
    }
    if (wrong == 0) return;
    throw QORCtlError(QORCtlExit::AnsweredError,
                      std::to_string(wrong) + (wrong == 1 ? " fault" : " faults") +
                          (options.mend ? " cannot be mended" : " found; --mend mends what can be mended"));
}

}  // namespace QOR
