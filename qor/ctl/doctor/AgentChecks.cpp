#include "doctor/AgentChecks.h"

#include <cstdint>

#include "QORCommon/QORException.h"
#include "QORCommon/QORTime.h"
#include "ingest/QORRecords.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

using Level = Finding::Level;

/// An agent's answer to whom it does not know.
constexpr int errNotLetIn = 401;

std::string adviceOnAnAgentAway(const ConnectionOptions& connection) {
    if (connection.standalone) return "name another database with --database";
    if (!connection.agent.empty())
        return "see whether it runs there, and whether its address, its certificate and your token are right";
    return "sudo systemctl start qor-agent (restart where it hangs), or start qor-agent; whoever may not use its "
           "socket has to be in its group";
}

std::string describeAgent(const AgentHealth& agent) {
    return "version " + agent.version + ", up " + std::to_string(agent.uptime) + " s, " + agent.status;
}

Finding checkHealth(const AgentHealth& agent, const std::string& version) {
    if (agent.status != "ok")
        return {Level::Fault, "agent", describeAgent(agent), "qorctl status and its log say more"};
    if (agent.version != version)
        return {Level::Advice, "agent", describeAgent(agent) + ", while this program is version " + version,
                "restart what is older"};
    return {Level::Fine, "agent", describeAgent(agent)};
}

Finding checkDatabase(const QORDatabaseStatus& database, const ConnectionOptions& connection) {
    for (const QORServerStatus& server : database.servers)
        if (!server.failure.empty())
            return {Level::Fault, "database", "server " + server.name + ": " + server.failure,
                    "bring that server back; nothing else has to be done then"};
    std::uint64_t unreadable = 0;
    if (database.unreadable)
        for (const QORUnreadableDocuments& column : *database.unreadable)
            unreadable += column.count;
    if (unreadable > 0)
        return {Level::Fault, "database", std::to_string(unreadable) + " documents cannot be read",
                "qorctl check says which, qorctl check --mend mends what can be mended"};
    if (database.schemaVersion == 0)
        return {Level::Advice, "database", database.name + " is another program's: its views can be asked, no logs",
                "name another one with --database where that is not meant"};
    return {Level::Fine, "database",
            database.engine + ", schema version " + std::to_string(database.schemaVersion) +
                (database.readOnly && !connection.standalone ? ", only read" : "")};
}

Finding checkForwarding(const AgentForwarding& forwarding) {
    const bool isAway =
        forwarding.lastFailure && (!forwarding.lastSuccess || *forwarding.lastSuccess < *forwarding.lastFailure);
    if (isAway)
        return {Level::Fault, "forwarding", forwarding.target + ": " + forwarding.lastError,
                "records wait here until it is mended there; " + std::to_string(forwarding.behind) + " do"};
    return {Level::Fine, "forwarding", forwarding.target + " has all but " + std::to_string(forwarding.behind)};
}

/// What it means that an agent answers, but not how its database is.
Finding findingOf(const CtlError& refusal) {
    const std::string said = firstLineOf(refusal.what());
    if (refusal.code() == errForbidden)
        return {Level::Advice, "rights", "you have no full access: " + said,
                "an administrator gives it: qorctl identity add NAME --kind user --full"};
    return {Level::Fault, "database", said, "the agent's log says more; the agent goes on when its database is back"};
}

/// Its file; an agent's only where it does not depend on the folder that the agent was started in.
std::filesystem::path fileOf(const QORDatabaseStatus& database, const ConnectionOptions& connection) {
    const std::filesystem::path file = database.engine == "SQLite" ? database.name : "";
    return connection.standalone || file.is_absolute() ? file : std::filesystem::path();
}

void checkStatus(Backend& backend, const std::string& version, const ConnectionOptions& connection,
                 AgentDiagnosis& diagnosis) {
    try {
        const BackendStatus status = backend.status();
        if (status.agent) diagnosis.findings.push_back(checkHealth(*status.agent, version));
        diagnosis.findings.push_back(checkDatabase(status.database, connection));
        if (status.forwarding) diagnosis.findings.push_back(checkForwarding(*status.forwarding));
        if (connection.agent.empty()) diagnosis.databaseFile = fileOf(status.database, connection);
    } catch (const CtlError& error) {
        const bool isAnswered = error.code() != 0 && error.code() != errNotLetIn;
        if (!isAnswered || connection.standalone) throw;
        diagnosis.findings.push_back({Level::Fine, "agent", "answers"});
        diagnosis.findings.push_back(findingOf(error));
    }
}

void checkRights(Backend& backend, AgentDiagnosis& diagnosis) {
    if (backend.seesEnvironments())
        diagnosis.findings.push_back({Level::Fine, "environments", "you see all, or those that you stand for"});
    else
        diagnosis.findings.push_back(
            {Level::Advice, "environments", "you stand for none, and see what is open to everybody alone",
             "an administrator gives you some: qorctl identity add NAME --kind user --environment EID"});
}

}  // namespace

AgentDiagnosis checkAgent(const ConnectionOptions& connection, const std::string& version) {
    AgentDiagnosis diagnosis;
    ConnectionOptions looking = connection;
    looking.readOnly = connection.standalone;  // an older version of the database is not brought up to date by looking
    try {
        const auto backend = makeBackend(looking, BackendUse::Inspect);
        checkStatus(*backend, version, connection, diagnosis);
        checkRights(*backend, diagnosis);
    } catch (const CtlError& error) {
        diagnosis.findings.push_back({Level::Fault, connection.standalone ? "database" : "agent",
                                      firstLineOf(error.what()), adviceOnAnAgentAway(connection)});
    } catch (const QORException& error) {
        diagnosis.findings.push_back(
            {Level::Fault, "database", firstLineOf(error.message()), adviceOnAnAgentAway(connection)});
    }
    return diagnosis;
}

}  // namespace QOR
