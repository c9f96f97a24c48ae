// qor-agent: hosts the plug-ins of a machine and answers its clients.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>

#include "QORCommon/QORLogger.h"
#include "agent/api/AgentApplication.h"
#include "agent/http/HttpServer.h"
#include "host/QORHost.h"
#include "host/QORHostPaths.h"
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
    std::string vocabulary;
    bool checkConfig = false;
    HttpServerOptions server;
};

/// Turns termination signals into calls. The signals must be blocked before the first thread starts, or another
/// thread would be killed by them.
class SignalWatch {
public:
    static void block() {
        // A client that goes away while it is being answered is not worth dying for.
        ::signal(SIGPIPE, SIG_IGN);
        const sigset_t signals = watched();
        ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }

    explicit SignalWatch(HttpServer& server) : m_thread([&server] { watch(server); }) {}
    ~SignalWatch() {
        ::pthread_kill(m_thread.native_handle(), wake);
        m_thread.join();
    }
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

private:
    static constexpr int wake = SIGUSR1;

    static sigset_t watched() {
        sigset_t signals;
        ::sigemptyset(&signals);
        for (const int number : {SIGTERM, SIGINT, wake})
            ::sigaddset(&signals, number);
        return signals;
    }

    static void watch(HttpServer& server) {
        const sigset_t signals = watched();
        for (int number = 0; ::sigwait(&signals, &number) == 0 && number != wake;)
            server.stop();
    }

    std::thread m_thread;
};

/// Every client costs a descriptor, every query one or two more; the usual soft limit is meant for programs that
/// still use select().
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

void declareOptions(CLI::App& app, Settings& settings) {
    app.set_version_flag("--version", QOR_VERSION);
    app.add_option("--database", settings.database,
                   "ODBC connection string (default: " + defaultConnectionString() + ")");
    app.add_flag("--read-only", settings.readOnly, "write nothing; any database is read as it is");
    app.add_option("--socket", settings.socket, "where to listen (default: " + defaultSocketPath().string() + ")");
    app.add_option("--plugins", settings.plugIns,
                   "folder of the plug-ins (default: " + defaultPlugInDirectory().string() + ")");
    app.add_option("--config", settings.vocabulary, "a vocabulary file: configured fields and caches");
    app.add_flag("--check-config", settings.checkConfig, "say what is wrong with the vocabulary, then end");
    app.add_option("--threads", settings.server.threads, "requests that are answered at once")
        ->check(CLI::Range(1, 1024))
        ->capture_default_str();
    app.add_option("--body-limit", settings.server.bodyLimit, "bytes that a request's body may have")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option_function<unsigned>(
           "--grace", [&settings](unsigned seconds) { settings.server.grace = std::chrono::seconds(seconds); },
           "seconds that requests in flight are given when the agent is told to stop (default: 30)")
        ->check(CLI::Range(0, 3600));
    app.add_option("--log-file", settings.logFile, "append log lines to this file (default: standard error)");
    app.add_option("--log-level", settings.logLevel, "0 failures, 1 warnings, 2 events, 3 progress, 4 detail, 5 all")
        ->check(CLI::Range(0, 5))
        ->capture_default_str();
}

/// The defaults lie in the state folder, which the agent makes for itself; places that were named must exist.
void applyDefaults(Settings& settings) {
    settings.server.socketPath = settings.socket.empty() ? defaultSocketPath() : std::filesystem::path(settings.socket);
    if (!settings.database.empty()) return;
    settings.database = defaultConnectionString();
    if (settings.readOnly) return;
    std::filesystem::create_directories(defaultStateDirectory());
}

QORHostOptions hostOptions(const Settings& settings) {
    QORHostOptions options;
    options.database.connectionString = settings.database;
    options.database.readOnly = settings.readOnly;
    options.schemaMode = settings.readOnly ? QORSchemaMode::Reading : QORSchemaMode::Own;
    options.plugInDirectory = settings.plugIns;
    options.vocabularyFile = settings.vocabulary;
    return options;
}

int checkConfig(const Settings& settings) {
    const QORVocabularyFiles files = readVocabularyFiles(settings.vocabulary);
    for (const QORVocMistake& mistake : files.mistakes)
        std::fprintf(stderr, "%s\n", mistake.text().c_str());
    if (!files.mistakes.empty()) return EXIT_FAILURE;
    for (const auto& file : files.read)
        std::printf("%s: no mistakes\n", file.c_str());
    return EXIT_SUCCESS;
}

int serve(Settings& settings) {
    applyDefaults(settings);
    setLogLevel(settings.logLevel);
    if (!settings.logFile.empty()) setLogFile(settings.logFile);
    raiseDescriptorLimit();
    QORHost host(hostOptions(settings));
    AgentApplication application(host);
    HttpServer server(settings.server, application);
    application.setConnectionCounter([&server] { return server.connections(); });
    SignalWatch signals(server);
    const std::string path = settings.server.socketPath.string();
    std::printf("qor-agent listening on %s\n", path.c_str());
    std::fflush(stdout);
    logMessage(2, "QORAgent", "qor/agent/main", "serve", "listening on %s", path.c_str());
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
    CLI::App app("Hosts the plug-ins of this machine and answers its clients over a unix socket.", "qor-agent");
    declareOptions(app, settings);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : badUsage;
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
