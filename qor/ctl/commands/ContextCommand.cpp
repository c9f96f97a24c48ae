#include <array>
#include <filesystem>
#include <string>

#include "QORCommon/QORAgentAddress.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORPasswords.h"
#include "QORCommon/QORText.h"
#include "backend/Contexts.h"
#include "commands/Commands.h"
#include "commands/Printing.h"

namespace QOR {
namespace {

Cell cellOf(std::string_view text) {
    return text.empty() ? Cell{} : Cell{Cell::Kind::Text, text};
}

/// The file is read from wherever qorctl is called.
std::string absolute(const std::string& path) {
    return path.empty() ? path : std::filesystem::absolute(path).lexically_normal().string();
}

void requireOne(const Context& context) {
    if (context.agent.empty() == context.database.empty())
        throw CtlError::usage("a context needs either --agent (or --socket) or --database");
    if (!context.database.empty() &&
        (!context.tokenFile.empty() || !context.ca.empty() || !context.certificate.empty() || !context.key.empty()))
        throw CtlError::usage("--token-file, --ca, --certificate and --key go with an agent");
    if (context.certificate.empty() && !context.key.empty()) throw CtlError::usage("--key needs --certificate");
    if (context.agent.empty() || context.agent.starts_with('/')) return;
    try {
        readAgentAddress(context.agent);
    } catch (const QORException& exception) {
        throw CtlError::usage("--agent: " + exception.message());
    }
}

}  // namespace

void runContextSet(const std::string& name, const ConnectionOptions& connection) {
    if (name.empty()) throw CtlError::usage("a context needs a name");
    if (!connection.agent.empty() && !connection.socket.empty())
        throw CtlError::usage("--socket and --agent exclude each other");
    Context context;
    context.agent = connection.socket.empty() ? connection.agent : absolute(connection.socket);
    context.database =
        connection.database.find('=') == std::string::npos ? absolute(connection.database) : connection.database;
    context.tokenFile = absolute(connection.tokenFile);
    context.ca = absolute(connection.ca);
    context.certificate = absolute(connection.certificate);
    context.key = absolute(connection.key);
    requireOne(context);
    Contexts contexts = readContexts();
    contexts.all[name] = std::move(context);
    writeContexts(contexts);
}

void runContextUse(const std::string& name) {
    Contexts contexts = readContexts();
    contexts.find(name);
    contexts.current = name;
    writeContexts(contexts);
}

void runContextRemove(const std::string& name) {
    Contexts contexts = readContexts();
    contexts.find(name);
    contexts.all.erase(name);
    if (contexts.current == name) contexts.current.clear();
    writeContexts(contexts);
}

void runContextList(const std::string& name, const PrintOptions& print) {
    const Contexts contexts = readContexts();
    if (!name.empty()) contexts.find(name);
    const auto output = openOutput(print);
    const auto rows = makePrinter(print, false, *output);
    const std::array<std::string, 7> names{"context", "current", "agent", "database", "token", "ca", "certificate"};
    rows->begin(names);
    for (const auto& [each, context] : contexts.all) {
        if (!name.empty() && name != each) continue;
        const std::string database = withoutPasswords(context.database);
        const std::string token = context.token.empty() ? context.tokenFile : "in the file of contexts";
        const std::array<Cell, 7> cells{cellOf(each),
                                        cellOf(each == contexts.current ? "yes" : "no"),
                                        cellOf(context.agent),
                                        cellOf(database),
                                        cellOf(token),
                                        cellOf(context.ca),
                                        cellOf(context.certificate)};
        rows->row(cells);
    }
    rows->end(std::nullopt);
    output->flush();
}

void runContextShow(const std::string& name, const PrintOptions& print) {
    const std::string shown = name.empty() ? readContexts().current : name;
    if (shown.empty())
        throw CtlError(CtlExit::AnsweredError, "no context is in use; qorctl context use NAME chooses one");
    runContextList(shown, print);
}

}  // namespace QOR
