#include "backend/Backend.h"

#include <algorithm>
#include <fstream>

#include "QORCommon/QORException.h"
#include "QORMessage/QORNotation.h"
#include "backend/AgentBackend.h"
#include "backend/StandaloneBackend.h"
#include "host/QORHostPaths.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

QORAgentAddress addressOf(const ConnectionOptions& options) {
    if (options.agent.empty())
        return unixAddress(options.socket.empty() ? defaultClientSocketPath().string() : options.socket);
    try {
        return readAgentAddress(options.agent);
    } catch (const QORException& exception) {
        throw CtlError::usage("--agent: " + exception.message());
    }
}

/// A token on a command line could be read by everybody on the machine.
std::string tokenOf(const ConnectionOptions& options) {
    std::string token = options.token;
    if (!options.tokenFile.empty()) {
        std::ifstream stream(options.tokenFile);
        std::getline(stream, token);
    } else if (token.empty()) {
        return {};
    }
    const bool plain = std::all_of(token.begin(), token.end(), [](char c) { return c > ' ' && c < 0x7f; });
    if (token.empty() || !plain)
        throw CtlError::usage(options.tokenFile.empty()
                                  ? std::string("QOR_TOKEN, or the context's token, is none")
                                  : "--token-file: " + options.tokenFile + " holds no token in its first line");
    return token;
}

AgentPlace placeOf(const ConnectionOptions& options) {
    if (!options.socket.empty() && !options.agent.empty())
        throw CtlError::usage("--socket and --agent exclude each other");
    const QORAgentAddress address = addressOf(options);
    if (!options.ca.empty() && address.scheme != QORAgentAddress::Scheme::Https)
        throw CtlError::usage("--ca needs --agent https://HOST:PORT");
    return {address, options.ca, tokenOf(options)};
}

}  // namespace

std::string Backend::refusalOfLongLine() {
    std::string answer;
    writeErrorResponse(errBadRequest, "the line is longer than a request may be", answer);
    return answer;
}

std::unique_ptr<Backend> makeBackend(const ConnectionOptions& options, BackendUse use) {
    const bool named =
        !options.socket.empty() || !options.agent.empty() || !options.ca.empty() || !options.tokenFile.empty();
    if (options.standalone && named)
        throw CtlError::usage(
            (options.socket.empty() ? options.agent.empty() ? "--ca or --token-file" : "--agent" : "--socket") +
            std::string(" and --standalone exclude each other"));
    if (!options.standalone) {
        if (!options.database.empty() || options.readOnly || !options.config.empty() || !options.plugIns.empty())
            throw CtlError::usage("--database, --read-only, --config and --plugins need --standalone");
        return std::make_unique<AgentBackend>(placeOf(options));
    }
    if (options.database.empty())
        throw CtlError::usage("--standalone needs a database, for example --database ./agent.db");
    if (options.readOnly && use == BackendUse::Store)
        throw CtlError::usage("--read-only and a command that stores records exclude each other");
    return std::make_unique<StandaloneBackend>(options, use);
}

}  // namespace QOR
