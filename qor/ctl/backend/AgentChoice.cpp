#include "backend/AgentChoice.h"

#include <sys/stat.h>

#include <cstdlib>
#include <string_view>

#include "QORCommon/QORAgentAddress.h"
#include "QORCommon/QORException.h"
#include "backend/Contexts.h"
#include "host/QORHostPaths.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

bool isPath(std::string_view text) {
    return text.starts_with('/') || text.starts_with("./") || text.starts_with("../");
}

void nameAgent(ConnectionOptions& options, const std::string& agent, const char* source) {
    if (isPath(agent)) {
        options.socket = agent;
        return;
    }
    try {
        readAgentAddress(agent);
    } catch (const QORException& exception) {
        throw CtlError::usage(source + (": " + exception.message()));
    }
    options.agent = agent;
}

void takeContext(ConnectionOptions& options, const Context& context) {
    if (!context.database.empty()) {
        options.standalone = true;
        options.database = connectionStringOf(context.database);
        return;
    }
    nameAgent(options, context.agent, "the context's agent");
    if (options.ca.empty()) options.ca = context.ca;
    if (options.certificate.empty() && options.key.empty()) {
        options.certificate = context.certificate;
        options.key = context.key;
    }
    if (!options.tokenFile.empty() || !options.token.empty()) return;
    options.token = context.token;
    options.tokenFile = context.token.empty() ? context.tokenFile : "";
}

}  // namespace

ConnectionOptions chosenConnection(const ConnectionOptions& given) {
    ConnectionOptions options = given;
    const bool isNamed = !given.socket.empty() || !given.agent.empty() || given.standalone;
    if (isNamed && !given.context.empty())
        throw CtlError::usage("--context and --socket, --agent or --standalone exclude each other");
    const bool saysDatabase =
        !given.database.empty() || given.readOnly || !given.config.empty() || !given.plugIns.empty();
    if (!given.standalone && options.tokenFile.empty()) options.token = variable("QOR_TOKEN");
    // What belongs to --standalone is refused without it, whatever else there is.
    if (isNamed || (saysDatabase && given.context.empty())) return options;
    const std::string agent = given.context.empty() ? variable("QOR_AGENT") : "";
    if (!agent.empty()) {
        nameAgent(options, agent, "QOR_AGENT");
        return options;
    }
    const Contexts contexts = readContexts();
    const std::string name = given.context.empty() ? contexts.current : given.context;
    if (!name.empty()) takeContext(options, contexts.find(name));
    if (options.standalone) options.token.clear();
    return options;
}

std::vector<std::string> warningsOfSecrets(const ConnectionOptions& chosen) {
    std::vector<std::string> warnings;
    const auto look = [&](const std::string& file, const char* what) {
        struct stat status {};
        if (file.empty() || ::stat(file.c_str(), &status) != 0) return;
        if ((status.st_mode & (S_IRWXG | S_IRWXO)) == 0) return;
        warnings.push_back(file + " holds " + what + " and may be read by others; chmod 600 " + file);
    };
    look(chosen.tokenFile, "a token");
    look(chosen.key, "a key");
    return warnings;
}

}  // namespace QOR
