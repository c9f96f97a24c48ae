#include "backend/Backend.h"

#include <algorithm>
#include <fstream>
#include <string_view>
#include <utility>

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
    const bool speaksTls = address.scheme == QORAgentAddress::Scheme::Https;
    if (!options.ca.empty() && !speaksTls) throw CtlError::usage("--ca needs --agent https://HOST:PORT");
    if (!options.certificate.empty() && !speaksTls)
        throw CtlError::usage("--certificate needs --agent https://HOST:PORT");
    if (options.certificate.empty() && !options.key.empty()) throw CtlError::usage("--key needs --certificate");
    return {address, options.ca, options.certificate, options.key.empty() ? options.certificate : options.key,
            tokenOf(options)};
}

/// The option that is of no use without an agent, the first of those given; empty for none.
std::string_view optionOfAgent(const ConnectionOptions& options) {
    using Option = std::pair<std::string_view, const std::string&>;
    for (const auto& [name, value] : {Option{"--socket", options.socket}, Option{"--agent", options.agent},
                                      Option{"--ca", options.ca}, Option{"--token-file", options.tokenFile},
                                      Option{"--certificate", options.certificate}, Option{"--key", options.key}})
        if (!value.empty()) return name;
    return {};
}

}  // namespace

std::string Backend::refusalOfLongLine() {
    std::string answer;
    writeErrorResponse(errBadRequest, "the line is longer than a request may be", answer);
    return answer;
}

std::unique_ptr<Backend> makeBackend(const ConnectionOptions& options, BackendUse use) {
    if (const std::string_view named = optionOfAgent(options); options.standalone && !named.empty())
        throw CtlError::usage(std::string(named) + " and --standalone exclude each other");
    if (!options.standalone) {
        if (options.readOnly || !options.config.empty() || !options.plugIns.empty())
            throw CtlError::usage("--read-only, --config and --plugins need --database or --standalone");
        return std::make_unique<AgentBackend>(placeOf(options));
    }
    if (options.database.empty())
        throw CtlError::usage("--standalone needs a database, for example --database ./agent.db");
    if (options.readOnly && use == BackendUse::Store)
        throw CtlError::usage("--read-only and a command that stores records exclude each other");
    return std::make_unique<StandaloneBackend>(options, use);
}

}  // namespace QOR
