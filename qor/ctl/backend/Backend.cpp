#include "backend/Backend.h"

#include "QORCommon/QORException.h"
#include "QORMessage/QORNotation.h"
#include "backend/AgentBackend.h"
#include "backend/StandaloneBackend.h"
#include "process/CtlError.h"

namespace QOR {

std::string Backend::refusalOfLongLine() {
    std::string answer;
    writeErrorResponse(errBadRequest, "the line is longer than a request may be", answer);
    return answer;
}

std::unique_ptr<Backend> makeBackend(const ConnectionOptions& options, BackendUse use) {
    if (options.standalone && !options.socket.empty())
        throw CtlError::usage("--socket and --standalone exclude each other");
    if (!options.standalone) {
        if (!options.database.empty() || options.readOnly || !options.config.empty() || !options.plugIns.empty())
            throw CtlError::usage("--database, --read-only, --config and --plugins need --standalone");
        return std::make_unique<AgentBackend>(options.socket);
    }
    if (options.database.empty())
        throw CtlError::usage("--standalone needs a database, for example --database ./agent.db");
    if (options.readOnly && use == BackendUse::Store)
        throw CtlError::usage("--read-only and a command that stores records exclude each other");
    return std::make_unique<StandaloneBackend>(options, use);
}

}  // namespace QOR
