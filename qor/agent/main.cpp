// qor-agent: hosts the plug-ins of a machine and answers its clients.
#include <sys/resource.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "QORCommon/QORAgentAddress.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORPasswords.h"
#include "QORCommon/QORRelativeTime.h"
#include "QORFunctionality/QOROpFactory.h"
#include "agent/MemoryKeeper.h"
#include "agent/SignalWatch.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentAudit.h"
#include "agent/http/HttpServer.h"
#include "agent/http/LocalListener.h"
#include "agent/http/TcpListener.h"
#include "forward/QORForwarder.h"
#include "host/QORHost.h"
#include "host/QORHostPaths.h"
#include "host/QORMaintenance.h"
#include "host/QORNumberOption.h"
#include "host/QORPlugInLoader.h"
#include "host/QORVocabularyFiles.h"

namespace {

using namespace QOR;

struct Settings {
    std::string database;
    bool readOnly = false;
    std::string logFile;
    int logLevel = 2;
    std::string plugIns;
    std::string socket;
    std::vector<std::string> listen;
    HttpCertificateFiles tls;
    std::string vocabulary;
    bool checkConfig = false;
    QORRetentionOptions keep;
    HttpServerOptions server;
    QORAnswerLimits answers;
    AgentMemory memory;
    AgentFollowSettings following;
    AgentAudit::Options audit;
    std::string forward;
    QORForwardOptions forwarding;
    std::uint64_t forwardKeep = std::uint64_t{1} << 30;
};

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

template <class Number>
auto store(Number& number) {
    return [&number](std::uint64_t value) { number = static_cast<Number>(value); };
}

auto storeSeconds(std::chrono::milliseconds& time) {
    return [&time](std::uint64_t seconds) { time = std::chrono::seconds(seconds); };
}

/// How clients share the agent.
void declareShares(CLI::App& app, HttpServerOptions& server) {
    constexpr std::uint64_t mostBytes = std::uint64_t{1} << 40;
    const char* const group = "Shares of clients";
    addNumber(app, "--threads", {1, 1024}, "requests that are answered at once, by default 16", store(server.threads));
    addNumber(app, "--user-requests", {1, 1024}, "of these, of one user, by default half",
              store(server.requestsPerIdentity))
        ->group(group);
    addNumber(app, "--streams", {1, 1024}, "answers of any size that are streamed at once, by default 8",
              store(server.streams))
        ->group(group);
    addNumber(app, "--user-streams", {1, 1024}, "of these, of one user, by default half",
              store(server.streamsPerIdentity))
        ->group(group);
    addNumber(app, "--followers", {1, 4096}, "requests that follow what comes, at once, by default 64",
              store(server.followers))
        ->group(group);
    addNumber(app, "--user-followers", {1, 4096}, "of these, of one user, by default half",
              store(server.followersPerIdentity))
        ->group(group);
    addNumber(app, "--waiting", {0, 1'000'000}, "requests that may wait for their turn, by default 1024",
              store(server.waiting))
        ->group(group);
    addNumber(app, "--user-waiting", {0, 1'000'000}, "of these, of one user, by default 256",
              store(server.waitingPerIdentity))
        ->group(group);
    addNumber(app, "--connections", {1, 1'000'000}, "open connections, by default 1024", store(server.maxConnections))
        ->group(group);
    addNumber(app, "--user-connections", {1, 1'000'000}, "of these, of one user, by default 512",
              store(server.connectionsPerIdentity))
        ->group(group);
    addNumber(app, "--body-limit", {1, mostBytes}, "bytes that a request's body may have, by default 67108864",
              store(server.bodyLimit));
    addNumber(app, "--body-memory", {0, mostBytes}, "bytes of all bodies above 64 KiB, by default 268435456",
              store(server.bodyMemory))
        ->group(group);
    addNumber(app, "--user-body-memory", {0, mostBytes}, "of these, of one user, by default 134217728",
              store(server.bodyMemoryPerIdentity))
        ->group(group);
    addNumber(app, "--body-rate", {0, mostBytes}, "bytes a second that a body must bring, by default 16384",
              store(server.bodyRate))
        ->group(group);
}

/// How slow clients may be.
void declareTimes(CLI::App& app, HttpServerOptions& server) {
    constexpr std::uint64_t aDay = 86400;
    const char* const group = "Slow clients";
    addNumber(app, "--header-bytes", {1024, std::uint64_t{1} << 20},
              "bytes that a request's line and fields may have, by default 16384", store(server.headerLimit))
        ->group(group);
    addNumber(app, "--handshake-time", {1, aDay}, "seconds for a handshake of TLS, by default 10",
              storeSeconds(server.handshakeTimeout))
        ->group(group);
    addNumber(app, "--header-time", {1, aDay}, "seconds from a request's first byte to its last field, by default 30",
              storeSeconds(server.headerTimeout))
        ->group(group);
    addNumber(app, "--idle-time", {1, aDay}, "seconds that a connection may wait for a request, by default 3600",
              storeSeconds(server.idleTimeout))
        ->group(group);
    addNumber(app, "--write-time", {1, aDay},
              "seconds in which a client has to take something of its answer, by default 60",
              storeSeconds(server.writeTimeout))
        ->group(group);
}

/// How those are treated who follow what comes.
void declareFollowing(CLI::App& app, AgentFollowSettings& following) {
    constexpr std::uint64_t aDay = 86400;
    const char* const group = "Followers";
    addNumber(app, "--follow-heartbeat", {1, aDay},
              "seconds of silence behind which a follower is told where it stands, by default 15",
              storeSeconds(following.heartbeat))
        ->group(group);
    addNumber(app, "--follow-patience", {1, aDay},
              "seconds that a follower may take for what it is sent, by default 15; then it ends",
              storeSeconds(following.patience))
        ->group(group);
}

/// What answers and requests may take of the agent's memory.
void declareMemory(CLI::App& app, Settings& settings) {
    constexpr std::uint64_t least = std::uint64_t{64} << 10;
    constexpr std::uint64_t most = std::uint64_t{1} << 40;
    const char* const group = "Memory";
    addNumber(app, "--answer-rows", {1, most}, "rows of an answer that is not streamed, by default 100000",
              store(settings.answers.rows))
        ->group(group);
    addNumber(app, "--answer-bytes", {least, most}, "bytes of such an answer, by default 67108864",
              store(settings.answers.bytes))
        ->group(group);
    addNumber(app, "--request-memory", {least, most}, "bytes that one request may hold, by default 268435456",
              store(settings.memory.oneRequest))
        ->group(group);
    addNumber(app, "--memory", {least, most}, "bytes that all requests together may hold, by default 1073741824",
              store(settings.memory.allRequests))
        ->group(group);
}

/// How much the logs keep.
void declareRetention(CLI::App& app, QORRetentionOptions& keep) {
    const char* const group = "What the logs keep; older operations and events are removed";
    app.add_option_function<std::string>(
           "--keep-age",
           [&keep](const std::string& text) {
               keep.seconds = parseDuration(text);
               if (!keep.seconds)
                   throw CLI::ValidationError("--keep-age", "\"" + text + "\" is no age (90s, 45m, 12h, 30d, 8w)");
           },
           "what is not older than this")
        ->type_name("AGE")
        ->group(group);
    addNumber(app, "--keep-records", {0, mostNumber}, "so many of each of the two logs", [&keep](std::uint64_t number) {
        keep.records = number;
    })->group(group);
    addNumber(app, "--keep-size", {0, mostNumber}, "what lets the database use so many bytes",
              [&keep](std::uint64_t number) { keep.bytes = number; })
        ->group(group);
}

/// Where records are sent on to.
void declareForwarding(CLI::App& app, Settings& settings) {
    const char* const group = "Sending records on to another agent";
    CLI::Option* const forward =
        app.add_option("--forward", settings.forward, "what is stored is sent on to the agent at this address")
            ->type_name("https://HOST:PORT")
            ->group(group);
    app.add_option("--forward-token", settings.forwarding.target.tokenFile,
                   "the file whose first line is the token that is shown to it")
        ->type_name("FILE")
        ->needs(forward)
        ->group(group);
    app.add_option("--forward-ca", settings.forwarding.target.authority,
                   "whose certificates are believed (PEM), in place of the system's authorities")
        ->type_name("FILE")
        ->needs(forward)
        ->group(group);
    addNumber(app, "--forward-wait", {1, 3600}, "seconds at most until it is tried again, by default 60",
              storeSeconds(settings.forwarding.longestPause))
        ->needs(forward)
        ->group(group);
    addNumber(app, "--forward-keep", {0, mostNumber},
              "bytes that the database may use before records are removed that were not sent on, by default 1073741824",
              store(settings.forwardKeep))
        ->needs(forward)
        ->group(group);
}

void addOrigin(HttpOrigins& origins, const std::string& origin) {
    try {
        origins.add(origin);
    } catch (const QORException& exception) {
        throw CLI::ValidationError("--allow-origin", exception.message());
    }
}

/// Where clients come, and how they know whom they have met.
void declareListening(CLI::App& app, Settings& settings) {
    const char* const group = "Listening";
    app.add_option("--socket", settings.socket,
                   "as --listen unix:PATH (default: " + defaultSocketPath().string() + ", unless --listen is given)")
        ->type_name("PATH")
        ->group(group);
    app.add_option("--socket-group", settings.server.socketGroup, "the group whose members may connect to it")
        ->type_name("NAME")
        ->group(group);
    app.add_option("--listen", settings.listen,
                   "unix:PATH, http://127.0.0.1:PORT or https://ADDRESS:PORT; may be given several times")
        ->type_name("ADDRESS")
        ->allow_extra_args(false)
        ->group(group);
    app.add_option("--tls-certificate", settings.tls.certificate, "for https: the certificate and its chain (PEM)")
        ->type_name("FILE")
        ->group(group);
    app.add_option("--tls-key", settings.tls.key, "for https: the certificate's key (PEM)")
        ->type_name("FILE")
        ->group(group);
    app.add_option("--tls-client-ca", settings.tls.clientAuthority,
                   "for https: ask clients for a certificate of this authority; they may have none")
        ->type_name("FILE")
        ->group(group);
    app.add_option_function<std::vector<std::string>>(
           "--allow-origin",
           [&settings](const std::vector<std::string>& origins) {
               for (const std::string& origin : origins)
                   addOrigin(settings.server.origins, origin);
           },
           "a web page of this origin may ask, from a browser; may be given several times (default: none may)")
        ->type_name("ORIGIN")
        ->allow_extra_args(false)
        ->group(group);
}

void declareOptions(CLI::App& app, Settings& settings) {
    app.set_version_flag("--version", QOR_VERSION);
    app.add_option("--database", settings.database,
                   "SQLite's file, or an ODBC connection string (default: " +
                       (defaultStateDirectory() / "agent.db").string() + ")")
        ->transform(connectionStringOf);
    app.add_flag("--read-only", settings.readOnly, "write nothing; any database is read as it is");
    declareListening(app, settings);
    app.add_option("--plugins", settings.plugIns,
                   "folder of the plug-ins (default: " + defaultPlugInDirectory().string() + ")");
    app.add_option("--config", settings.vocabulary, "a vocabulary file: configured fields and caches");
    app.add_flag("--check-config", settings.checkConfig, "say what is wrong with the vocabulary, then end");
    declareRetention(app, settings.keep);
    declareForwarding(app, settings);
    declareShares(app, settings.server);
    declareTimes(app, settings.server);
    declareFollowing(app, settings.following);
    declareMemory(app, settings);
    addNumber(app, "--deadline", {1, 86400},
              "seconds that a request may take, by default 30; it may ask for less itself",
              storeSeconds(settings.server.deadline));
    addNumber(app, "--grace", {0, 3600},
              "seconds that requests in flight are given when the agent is told to stop, by default 30",
              storeSeconds(settings.server.grace));
    app.add_option("--audit", settings.audit.target,
                   "a line for each request: who asked what; append it to this file, or \"journal\" (default: none)")
        ->type_name("FILE|journal");
    app.add_flag("--audit-literals", settings.audit.literals,
                 "show what conditions compare with, which the audit else leaves out");
    app.add_option("--log-file", settings.logFile, "append log lines to this file (default: standard error)");
    addNumber(app, "--log-level", {0, 5}, "0 failures, 1 warnings, 2 events, 3 progress, 4 detail, 5 all; by default 2",
              store(settings.logLevel));
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

void decideListening(Settings& settings) {
    std::vector<QORAgentAddress>& addresses = settings.server.listen;
    if (!settings.socket.empty()) addresses.push_back(unixAddress(settings.socket));
    for (const std::string& text : settings.listen)
        addresses.push_back(readAgentAddress(text));
    if (addresses.empty()) addresses.push_back(unixAddress(defaultSocketPath()));
    const bool secure = std::any_of(addresses.begin(), addresses.end(), [](const QORAgentAddress& address) {
        return address.scheme == QORAgentAddress::Scheme::Https;
    });
    const HttpCertificateFiles& files = settings.tls;
    if (secure && (files.certificate.empty() || files.key.empty()))
        throw std::runtime_error("--listen https://... needs --tls-certificate and --tls-key");
    if (!secure && !(files.certificate + files.key + files.clientAuthority).empty())
        throw std::runtime_error("--tls-certificate, --tls-key and --tls-client-ca are for --listen https://...");
    if (secure) settings.server.certificates = std::make_shared<HttpCertificates>(files);
}

/// A token that goes over a network without TLS is everybody's.
bool isOfThisMachine(const std::string& host) {
    return host == "localhost" || host == "::1" || host.starts_with("127.");
}

void decideForwarding(Settings& settings) {
    if (settings.forward.empty()) return;
    using Scheme = QORAgentAddress::Scheme;
    QORAgentAddress& address = settings.forwarding.target.address;
    address = readAgentAddress(settings.forward);
    if (address.isUnix()) throw std::runtime_error("--forward: an agent is reached at https://HOST:PORT");
    if (address.scheme == Scheme::Http && !isOfThisMachine(address.host))
        throw std::runtime_error("--forward: plain http is for this machine's own programs: name https://" +
                                 address.authority());
    if (address.scheme == Scheme::Http && !settings.forwarding.target.authority.empty())
        throw std::runtime_error("--forward-ca is for --forward https://...");
    if (settings.readOnly)
        throw std::runtime_error("--read-only: how far records have been sent on cannot be kept for --forward");
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

/// The defaults lie in the state folder, which the agent makes for itself; places that were named must exist.
void applyDefaults(Settings& settings) {
    decideListening(settings);
    decideForwarding(settings);
    if (!settings.database.empty()) return;
    settings.database = defaultConnectionString();
    if (settings.readOnly) return;
    makeStateDirectory();
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
void readAnew(const Settings& settings, AgentAudit* audit) {
    reopenLog(settings.logFile);
    if (audit != nullptr) audit->reopen();
    if (!settings.server.certificates) return;
    try {
        settings.server.certificates->reload();
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

QORHostOptions hostOptions(const Settings& settings) {
    QORHostOptions options;
    options.database.connectionString = settings.database;
    options.database.readOnly = settings.readOnly;
    options.schemaMode = settings.readOnly ? QORSchemaMode::Reading : QORSchemaMode::Own;
    options.exclusive = true;
    options.follows = true;
    options.plugInDirectory = settings.plugIns;
    options.vocabularyFile = settings.vocabulary;
    options.answers = settings.answers;
    return options;
}

int checkConfig(const Settings& settings) {
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

int serve(Settings& settings) {
    // What the agent keeps is other people's business; the socket has a mode of its own.
    ::umask(S_IRWXG | S_IRWXO);
    setLogLevel(settings.logLevel);
    openLog(settings.logFile);
    applyDefaults(settings);
    raiseDescriptorLimit();
    fitConnections(settings.server);
    if (settings.keep.any() && settings.readOnly)
        throw std::runtime_error("--read-only: nothing can be removed for --keep-age, --keep-records or --keep-size");
    checkAddresses(settings.server.listen);
    QORHost host(hostOptions(settings));
    std::optional<QORForwarder> forwarder;
    if (!settings.forward.empty()) {
        forwarder.emplace(settings.forwarding);
        setPruneHold(QORPruneHold{[&forwarder] { return forwarder->position(); }, settings.forwardKeep});
    }
    const QORRetention retention(settings.keep);
    std::optional<AgentAudit> audit;
    if (!settings.audit.target.empty()) audit.emplace(settings.audit);
    settings.memory.unpackedBody = settings.server.bodyLimit;
    AgentApplication application(host, settings.memory);
    application.setForwarder(forwarder ? &*forwarder : nullptr);
    application.setFollowing(settings.following);
    application.setAudit(audit ? &*audit : nullptr);
    HttpServer server(settings.server, application);
    application.setCounters([&server] { return server.connections(); }, [&server] { return server.counts(); });
    const SignalWatch signals({[&server] { server.stop(); }, [&] { readAnew(settings, audit ? &*audit : nullptr); }});
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

int parseAndServe(int argc, char** argv) {
    constexpr int badUsage = 2;
    Settings settings;
    CLI::App app("Hosts the plug-ins of this machine and answers its clients over a unix socket, TCP or TLS.",
                 "qor-agent");
    declareOptions(app, settings);
    std::vector<std::string> arguments(argv + 1, argv + argc);
    hidePasswords(argc, argv);
    std::reverse(arguments.begin(), arguments.end());  // as the parser takes them
    try {
        app.parse(arguments);
    } catch (const CLI::ParseError& error) {
        std::ostringstream complaint;
        const bool done = app.exit(error, std::cout, complaint) == 0;
        std::cerr << withoutPasswords(complaint.str()) << std::flush;
        return done ? EXIT_SUCCESS : badUsage;
    }
    return settings.checkConfig ? checkConfig(settings) : serve(settings);
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
