#include "backend/Backend.h"

#include "backend/AgentBackend.h"
#include "backend/StandaloneBackend.h"
#include "process/CtlError.h"

namespace QOR {

std::unique_ptr<QORBackend> makeBackend(const QORConnectionOptions& options, QORBackendUse use) {
    if (options.standalone && !options.socket.empty())
        throw QORCtlError::usage("--socket and --standalone exclude each other");
    if (!options.standalone) {
        if (!options.database.empty() || options.readOnly || !options.config.empty() || !options.plugIns.empty())
            throw QORCtlError::usage("--database, --read-only, --config and --plugins need --standalone");
        return std::make_unique<QORAgentBackend>(options.socket);
    }
    if (options.database.empty())
        throw QORCtlError::usage(
            "--standalone needs a database, for example --database \"Driver=SQLite3;Database=./agent.db\"");
    if (options.readOnly && use == QORBackendUse::Store)
        throw QORCtlError::usage("--read-only and a command that stores records exclude each other");
    return std::make_unique<QORStandaloneBackend>(options, use);
}

}  // namespace QOR
