// qor-agent: hosts the plug-ins of a machine and answers its clients.
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "QORCommon/QORAgentAddress.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORPasswords.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORStandardStreams.h"
#include "QORCommon/QORText.h"
#include "QORFunctionality/QOROpFactory.h"
#include "agent/AgentReload.h"
#include "agent/MemoryKeeper.h"
#include "agent/ServiceManager.h"
#include "agent/SignalWatch.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentAudit.h"
#include "agent/http/HttpCertificates.h"
#include "agent/http/HttpServer.h"
#include "agent/http/LocalListener.h"
#include "agent/http/TcpListener.h"
#include "agent/settings/GivenSettings.h"
#include "agent/settings/SettingTable.h"
#include "agent/settings/SettingsCommandLine.h"
#include "agent/settings/SettingsManual.h"
#include "agent/settings/SettingsMeaning.h"
#include "agent/settings/SettingsSources.h"
#include "agent/settings/SettingsText.h"
#include "forward/QORForwarder.h"
#include "host/QORHost.h"
#include "host/QORHostPaths.h"
#include "host/QORMaintenance.h"
#include "host/QORPlugInLoader.h"
#include "host/QORVocabularyFiles.h"
#include "ingest/QORCollectorSchedule.h"
#include "ingest/QORCollectors.h"

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

/// A folder that is the agent's by its name is for the agent alone.
void makeStateDirectory() {
    const std::filesystem::path folder = defaultStateDirectory();
    std::filesystem::create_directories(folder);
    if (const std::optional<mode_t> before = narrowOwnFile(folder.string())) {
        logMessage(1, "QORAgent", QOR_SOURCE_PATH, "serve",
                   "%s had mode %04o, so that others could enter it; it is %04o now", folder.c_str(), *before,
                   *before & S_IRWXU);
    }
}

/// Of two agents, the second is told whose address it is before it is told whose database.
void checkAddresses(const HttpServerOptions& server) {
    for (const QORAgentAddress& address : server.listen) {
        const bool isHanded =
            std::any_of(server.handed.begin(), server.handed.end(),
                        [&](const HttpHandedSocket& socket) { return socket.address.text() == address.text(); });
        if (isHanded) continue;
        if (address.isUnix()) {
            const LocalListener free(address.path);
        } else {
            const TcpListener free(address);
        }
    }
}

/// A unix socket is named by its path alone.
void announce(const std::vector<QORAgentAddress>& addresses) {
    for (const QORAgentAddress& address : addresses) {
        const std::string where = address.isUnix() ? address.path : address.text();
        std::printf("qor-agent listening on %s\n", where.c_str());
        logMessage(2, "QORAgent", QOR_SOURCE_PATH, "serve", "listening on %s", where.c_str());
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

void checkFolderOf(const std::string& file) {
    const std::filesystem::path folder = std::filesystem::path(file).parent_path();
    std::error_code unseen;
    if (!file.empty() && !folder.empty() && !std::filesystem::is_directory(folder, unseen))
        throw QORException(errBadRequest, "the folder " + quoteText(folder.string()) + " does not exist",
                           QOR_SOURCE_PATH);
}

/// What of a setting shows when it is used alone. \throws QORException
struct SettingCheck {
    std::string_view setting;
    void (*check)(const AgentSettings& settings);
};
constexpr std::array<SettingCheck, 7> settingChecks{{
    {"listen",
     [](const AgentSettings& settings) {
         for (const std::string& text : settings.listen) {
             const QORAgentAddress address = readAgentAddress(text);
             if (!address.isUnix()) TcpListener::check(address);
         }
     }},
    {"tls-certificate",
     [](const AgentSettings& settings) {
         // What sockets the service manager hands over, and how they are spoken at, is not known here.
         if (settings.listen.empty()) return;
         if (usesTls(serverOptions(settings, {}))) static_cast<void>(HttpCertificates::read(settings.tls));
     }},
    {"forward",
     [](const AgentSettings& settings) {
         if (!settings.forward.empty()) static_cast<void>(forwardOptions(settings));
     }},
    {"read-only", checkTogether},
    {"log-file", [](const AgentSettings& settings) { checkFolderOf(settings.logFile); }},
    {"database",
     [](const AgentSettings& settings) {
         if (settings.database.find('=') == std::string::npos) checkFolderOf(settings.database);
     }},
    {"collect", [](const AgentSettings& settings) { static_cast<void>(collectorWishes(settings)); }},
}};

/// Says what is wrong with what the settings mean, and where.
bool areSettingsSound(const GivenSettings& given, const AgentSettings& settings) {
    bool isSound = true;
    for (const SettingCheck& one : settingChecks) {
        try {
            one.check(settings);
        } catch (const QORException& exception) {
            const Setting* const setting = findSetting(one.setting);
            const GivenSettings::Given* const place = setting == nullptr ? nullptr : given.find(*setting);
            const std::string where = place == nullptr ? "the settings" : place->where;
            std::fprintf(stderr, "%s: %s\n", where.c_str(), withoutPasswords(exception.message()).c_str());
            if (one.setting == "listen") return false;  // what else depends on it would say the same
            isSound = false;
        }
    }
    return isSound;
}

int checkConfig(const GivenSettings& given) {
    const AgentSettings settings = given.settings();
    // The plug-ins know what the vocabulary may hold, and bring collectors beside those that come with the host.
    registerCollectors();
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
    if (!areSettingsSound(given, settings) || !files.mistakes.empty() || !refused.empty()) return EXIT_FAILURE;
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

/// One that hangs in the system cannot be ended, and who destroys the schedule waits for it: then the process ends
/// here. What it would bring is read by the next agent.
void endCollectors(QORCollectorSchedule& collectors, int status) {
    constexpr std::chrono::seconds patience(5);
    if (collectors.stop(patience)) return;
    logMessage(1, "QORAgent", QOR_SOURCE_PATH, "serve", "stopped; a collector that hangs was left behind");
    std::_Exit(status);
}

/// A database may be given with a password.
void complain(const std::exception& exception) {
    std::fprintf(stderr, "qor-agent: %s\n", withoutPasswords(exception.what()).c_str());
}

int serve(AgentSettings settings, SettingsSources sources) {
    // What the agent keeps is other people's business; the socket has a mode of its own.
    ::umask(S_IRWXG | S_IRWXO);
    const std::vector<HttpHandedSocket> handed = ServiceManager::takeSockets();
    setLogLevel(static_cast<int>(settings.logLevel));
    openLog(settings.logFile);
    HttpServerOptions serving = serverOptions(settings, handed);
    std::optional<QORForwardOptions> forwardingTo;
    if (!settings.forward.empty()) forwardingTo = forwardOptions(settings);
    checkTogether(settings);
    if (usesTls(serving)) serving.certificates = std::make_shared<HttpCertificates>(settings.tls);
    // A place that was named must exist.
    if (settings.database.empty() && !settings.readOnly) makeStateDirectory();
    raiseDescriptorLimit();
    fitConnections(serving);
    checkAddresses(serving);
    QORHost host(hostOptions(settings));
    std::optional<QORForwarder> forwarder;
    if (forwardingTo) forwarder.emplace(*forwardingTo);
    QORRetention retention(settings.keep);
    settings.memory.unpackedBody = serving.bodyLimit;
    SettingsState state;
    state.loaded({});
    setLibvirtSources(settings.collectLibvirt);
    QORCollectorSchedule collectors(settings.collectRoot);
    const std::vector<QORCollectorWish> wishes = collectorWishes(settings);
    AgentApplication application(host, collectors, settings.memory);
    application.setForwarder(forwarder ? &*forwarder : nullptr);
    application.setFollowing(settings.following);
    if (!settings.audit.target.empty()) application.setAudit(std::make_shared<AgentAudit>(settings.audit));
    application.setSettingsState(&state);
    HttpServer server(serving, application);
    application.setCounters([&server] { return server.connections(); }, [&server] { return server.counts(); });
    if (const auto pause = ServiceManager::watchdogPause()) server.setBeat(*pause, ServiceManager::alive);
    AgentReload reload(std::move(sources), std::move(settings),
                       {host, application, server, serving.certificates.get(), retention, collectors, state, handed});
    const auto stop = [&server] {
        ServiceManager::stopping();
        server.stop();
    };
    try {
        collectors.keep(wishes);  // before a reload may wish for others
        const SignalWatch signals({stop, [&reload] { reload.run(); }});
        const MemoryKeeper memory;
        const Forwarding forwarding(forwarder ? &*forwarder : nullptr, application.changes());
        announce(server.addresses());
        ServiceManager::ready(state.text());
        if (!server.run()) {
            // Threads are still at work in plug-ins; unloading those beneath them would be worse than leaving at once.
            logMessage(0, "QORAgent", QOR_SOURCE_PATH, "serve", "requests did not end in time");
            std::_Exit(EXIT_FAILURE);
        }
        endCollectors(collectors, EXIT_SUCCESS);
    } catch (const std::exception& exception) {
        complain(exception);
        endCollectors(collectors, EXIT_FAILURE);
        return EXIT_FAILURE;
    }
    logMessage(2, "QORAgent", QOR_SOURCE_PATH, "serve", "stopped");
    return EXIT_SUCCESS;
}

/// Of what has been asked about the program, all of which is on standard output.
int ended(int status) {
    return endStandardOutput("qor-agent") || status != EXIT_SUCCESS ? status : EXIT_FAILURE;
}

int print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    return ended(EXIT_SUCCESS);
}

int parseAndServe(int argc, char** argv) {
    constexpr int badUsage = 2;
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    hidePasswords(argc, argv);
    if (!arguments.empty() && arguments.front() == agentManualQuestion) return print(agentManual(QOR_VERSION));
    if (!arguments.empty() && arguments.front() == settingsManualQuestion) return print(settingsManual(QOR_VERSION));
    if (!arguments.empty() && arguments.front() == packagedSettingsQuestion)
        return print(settingsAsFile({}, Defaults::InWords));
    int status = EXIT_SUCCESS;
    const std::optional<SettingsCommandLine> line = readCommandLine(arguments, status);
    if (!line) return ended(status);
    using Wish = SettingsCommandLine::Wish;
    if (line->wish == Wish::PrintTable) return print(settingsAsTable());
    SettingsSources sources(line->file, line->given);
    GivenSettings given;
    AgentSettings settings;
    try {
        given = sources.read();
        settings = given.settings();
        if (line->wish == Wish::PrintSettings) return print(settingsAsFile(given));
    } catch (const QORException& exception) {
        std::fprintf(stderr, "%s\n", withoutPasswords(exception.message()).c_str());
        return badUsage;
    }
    return line->wish == Wish::CheckConfig ? ended(checkConfig(given)) : serve(std::move(settings), std::move(sources));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        holdStandardStreams();
        QORHost::prepareProcess();
        SignalWatch::block();
        return parseAndServe(argc, argv);
    } catch (const std::exception& exception) {
        complain(exception);
    } catch (...) {
        std::fputs("qor-agent: unknown failure\n", stderr);
    }
    return EXIT_FAILURE;
}
