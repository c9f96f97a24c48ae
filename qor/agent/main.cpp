// qor-agent: hosts the plug-ins of a machine and answers its clients.
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QORCommon/QORAgentAddress.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORPasswords.h"
#include "QORFunctionality/QOROpFactory.h"
#include "agent/MemoryKeeper.h"
#include "agent/SignalWatch.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentAudit.h"
#include "agent/http/HttpServer.h"
#include "agent/http/LocalListener.h"
#include "agent/http/TcpListener.h"
#include "agent/settings/SettingsCommandLine.h"
#include "agent/settings/SettingsMeaning.h"
#include "agent/settings/SettingsSources.h"
#include "agent/settings/SettingsText.h"
#include "forward/QORForwarder.h"
#include "host/QORHost.h"
#include "host/QORHostPaths.h"
#include "host/QORMaintenance.h"
#include "host/QORPlugInLoader.h"
#include "host/QORVocabularyFiles.h"

namespace {

using namespace QOR;

/// Every client costs a descriptor, every query one or two more; the usual soft limit is meant for programs that
/// still use select().
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// Where the system gives fewer descriptors than there may be connections, fewer connections are taken.
void fitConnections(HttpServerOptions& server) {
    constexpr std::size_t forOthers = 320;  // 64 connections to the database with their files, the log, the plug-ins
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= server.maxConnections + forOthers) return;
    const std::size_t left = limit.rlim_cur > forOthers ? limit.rlim_cur - forOthers : 0;
    server.maxConnections = std::max<std::size_t>(left, 16);
    logMessage(1, "QORAgent", "qor/agent/main", "serve", "%zu descriptors are few: there may be %zu connections",
               static_cast<std::size_t>(limit.rlim_cur), server.maxConnections);
}

/// A folder that is the agent's by its name is for the agent alone.
void makeStateDirectory() {
    const std::filesystem::path folder = defaultStateDirectory();
    std::filesystem::create_directories(folder);
    if (const std::optional<mode_t> before = narrowOwnFile(folder.string())) {
        logMessage(1, "QORAgent", "qor/agent/main", "serve",
                   "%s had mode %04o, so that others could enter it; it is %04o now", folder.c_str(), *before,
                   *before & S_IRWXU);
    }
}

/// Of two agents, the second is told whose address it is before it is told whose database.
void checkAddresses(const std::vector<QORAgentAddress>& addresses) {
    for (const QORAgentAddress& address : addresses) {
        if (address.isUnix()) {
            const LocalListener free(address.path);
        } else {
            const TcpListener free(address);
        }
    }
}

void openLog(const std::string& path) {
    if (path.empty()) return;
    setLogFile(path);
    if (const std::optional<mode_t> before = narrowOwnFile(path)) {
        logMessage(1, "QORAgent", "qor/agent/main", "serve",
                   "%s had mode %04o, so that others could read it; it is %04o now", path.c_str(), *before,
                   *before & S_IRWXU);
    }
}

/// Whoever rotates logs has moved the file away, and made another or not.
void reopenLog(const std::string& path) {
    if (path.empty()) return;
    try {
        setLogFile(path);
        logMessage(2, "QORAgent", "qor/agent/main", "reopenLog", "the log has been opened anew");
    } catch (const std::exception& exception) {
        logMessage(0, "QORAgent", "qor/agent/main", "reopenLog", "%s; the old one is written on", exception.what());
    }
}

/// A certificate is replaced before it expires; with files that do not fit, the one that is there is better than none.
void readAnew(const AgentSettings& settings, HttpCertificates* certificates, AgentAudit* audit) {
    reopenLog(settings.logFile);
    if (audit != nullptr) audit->reopen();
    if (certificates == nullptr) return;
    try {
        certificates->reload();
        logMessage(2, "QORAgent", "qor/agent/main", "readAnew", "the certificates have been read anew");
    } catch (const std::exception& exception) {
        logMessage(0, "QORAgent", "qor/agent/main", "readAnew", "%s; the certificates stay as they were",
                   exception.what());
    }
}

/// A unix socket is named by its path alone.
void announce(const std::vector<QORAgentAddress>& addresses) {
    for (const QORAgentAddress& address : addresses) {
        const std::string where = address.isUnix() ? address.path : address.text();
        std::printf("qor-agent listening on %s\n", where.c_str());
        logMessage(2, "QORAgent", "qor/agent/main", "serve", "listening on %s", where.c_str());
    }
    std::fflush(stdout);
}

QORHostOptions hostOptions(const AgentSettings& settings) {
    QORHostOptions options;
    options.database.connectionString = connectionOf(settings);
    options.database.readOnly = settings.readOnly;
    options.schemaMode = settings.readOnly ? QORSchemaMode::Reading : QORSchemaMode::Own;
    options.exclusive = true;
    options.follows = true;
    options.plugInDirectory = settings.plugIns;
    options.vocabularyFile = settings.vocabulary;
    options.answers = settings.answers;
    return options;
}

int checkConfig(const AgentSettings& settings) {
    // The plug-ins know what the vocabulary may hold.
    QORPlugInLoader plugIns;
    const std::filesystem::path folder =
        settings.plugIns.empty() ? defaultPlugInDirectory() : std::filesystem::path(settings.plugIns);
    const auto refused = plugIns.loadDirectory(folder);
    for (const QORPlugInLoader::Refusal& refusal : refused)
        std::fprintf(stderr, "%s\n", refusal.reason.c_str());
    const QORVocabularyFiles files =
        readVocabularyFiles(settings.vocabulary, QOROpFactoryRegistry::instance().vocabulary());
    for (const QORVocMistake& mistake : files.mistakes)
        std::fprintf(stderr, "%s\n", mistake.text().c_str());
    if (!files.mistakes.empty() || !refused.empty()) return EXIT_FAILURE;
    for (const auto& file : files.read)
        std::printf("%s: no mistakes\n", file.c_str());
    return EXIT_SUCCESS;
}

/// Records are sent on for as long as it lives.
class Forwarding {
public:
    /// \param forwarder null for none
    Forwarding(QORForwarder* forwarder, QORChangeWatch& changes) : m_forwarder(forwarder) {
        if (m_forwarder != nullptr) m_forwarder->start(changes);
    }
    ~Forwarding() {
        if (m_forwarder != nullptr) m_forwarder->stop();
    }
    Forwarding(const Forwarding&) = delete;
    Forwarding& operator=(const Forwarding&) = delete;

private:
    QORForwarder* m_forwarder;
};

int serve(AgentSettings settings) {
    // What the agent keeps is other people's business; the socket has a mode of its own.
    ::umask(S_IRWXG | S_IRWXO);
    setLogLevel(static_cast<int>(settings.logLevel));
    openLog(settings.logFile);
    HttpServerOptions serving = serverOptions(settings);
    std::optional<QORForwardOptions> forwardingTo;
    if (!settings.forward.empty()) forwardingTo = forwardOptions(settings);
    checkTogether(settings);
    if (usesTls(serving)) serving.certificates = std::make_shared<HttpCertificates>(settings.tls);
    // A place that was named must exist.
    if (settings.database.empty() && !settings.readOnly) makeStateDirectory();
    raiseDescriptorLimit();
    fitConnections(serving);
    checkAddresses(serving.listen);
    QORHost host(hostOptions(settings));
    std::optional<QORForwarder> forwarder;
    if (forwardingTo) {
        forwarder.emplace(*forwardingTo);
        setPruneHold(QORPruneHold{[&forwarder] { return forwarder->position(); }, settings.forwardKeep});
    }
    const QORRetention retention(settings.keep);
    std::optional<AgentAudit> audit;
    if (!settings.audit.target.empty()) audit.emplace(settings.audit);
    settings.memory.unpackedBody = serving.bodyLimit;
    AgentApplication application(host, settings.memory);
    application.setForwarder(forwarder ? &*forwarder : nullptr);
    application.setFollowing(settings.following);
    application.setAudit(audit ? &*audit : nullptr);
    HttpServer server(serving, application);
    application.setCounters([&server] { return server.connections(); }, [&server] { return server.counts(); });
    const SignalWatch signals({[&server] { server.stop(); },
                               [&] { readAnew(settings, serving.certificates.get(), audit ? &*audit : nullptr); }});
    const MemoryKeeper memory;
    const Forwarding forwarding(forwarder ? &*forwarder : nullptr, application.changes());
    announce(server.addresses());
    if (!server.run()) {
        // Threads are still at work in plug-ins; unloading those beneath them would be worse than leaving at once.
        logMessage(0, "QORAgent", "qor/agent/main", "serve", "requests did not end in time");
        std::_Exit(EXIT_FAILURE);
    }
    logMessage(2, "QORAgent", "qor/agent/main", "serve", "stopped");
    return EXIT_SUCCESS;
}

int print(const std::string& text) {
    return std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

int parseAndServe(int argc, char** argv) {
    constexpr int badUsage = 2;
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    hidePasswords(argc, argv);
    int status = EXIT_SUCCESS;
    const std::optional<SettingsCommandLine> line = readCommandLine(arguments, status);
    if (!line) return status;
    using Wish = SettingsCommandLine::Wish;
    if (line->wish == Wish::PrintTable) return print(settingsAsTable());
    SettingsSources sources(line->file, line->given);
    AgentSettings settings;
    try {
        const GivenSettings given = sources.read();
        settings = given.settings();
        if (line->wish == Wish::PrintSettings) return print(settingsAsFile(given));
    } catch (const QORException& exception) {
        std::fprintf(stderr, "%s\n", withoutPasswords(exception.message()).c_str());
        return badUsage;
    }
    return line->wish == Wish::CheckConfig ? checkConfig(settings) : serve(std::move(settings));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        QORHost::prepareProcess();
        SignalWatch::block();
        return parseAndServe(argc, argv);
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "qor-agent: %s\n", exception.what());
    } catch (...) {
        std::fputs("qor-agent: unknown failure\n", stderr);
    }
    return EXIT_FAILURE;
}
