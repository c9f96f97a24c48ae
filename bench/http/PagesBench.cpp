// Pages over HTTP: the newest 20 operations of an environment with how many it has, as JSON, from an agent and from the
// least that could answer them, over the same rows; and from what others put over their databases.
//
//     bench_http_pages [--smallest] [--check] [OPERATIONS [peers]]
//
// Servers have a processor of their own, this client another one. Who is measured takes turns with who it is measured
// against. `peers` installs and asks PostGraphile (on PostgreSQL) and soul-cli (on SQLite) too, which needs npm.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "http/LoadClient.h"
#include "support/ChildProcess.h"
#include "support/Figures.h"
#include "support/HttpClient.h"
#include "support/Operations.h"
#include "support/PostgresServer.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace QOR::bench;
using namespace QOR::test;

constexpr std::array<std::size_t, 3> connections{1, 8, 64};
constexpr unsigned serversProcessor = 0;
constexpr unsigned clientsProcessor = 1;
constexpr std::size_t asked = 7;  ///< number of the environment

std::string eid() {
    return QOR::test::eidOf(asked).toString();
}

/// Has done on the servers' processor what is done there, and comes back.
template <class Work>
auto asServer(Work&& work) {
    runOnProcessor(serversProcessor);
    auto made = work();
    runOnProcessor(clientsProcessor);
    return made;
}

/// A port that nobody listens on.
int freePort() {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const bool found = ::bind(socket, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
                       ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
    ::close(socket);
    check(found, "no port is free");
    return ntohs(address.sin_port);
}

/// A program that listens on a port.
class Server {
public:
    /// \param line begins the line that tells the port, which follows it
    Server(const std::vector<std::string>& command, const std::string& line) : Server(command, line, 0) {
        const std::string output = m_child->output();
        port = std::atoi(output.c_str() + output.find(line) + line.size());
    }
    /// \param line says that it listens on the port that it was told
    Server(const std::vector<std::string>& command, const std::string& line, int given)
        : port(given), m_child(asServer([&] { return std::make_unique<ChildProcess>(command); })) {
        check(m_child->waitForLine(line), command.front() + " does not start: " + m_child->output());
    }
    ~Server() {
        m_child->signal(SIGTERM);
        m_child->wait();
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    pid_t pid() const { return m_child->pid(); }
    double residentMegabytes() const {
        std::ifstream file("/proc/" + std::to_string(m_child->pid()) + "/statm");
        double pages = 0;
        file >> pages >> pages;
        return pages * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1e6;
    }

    int port;

private:
    std::unique_ptr<ChildProcess> m_child;
};

std::string requestOf(const std::string& target, const std::string& fields = {}) {
    return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + fields + "\r\n";
}

/// Rows of operations in a database, and who answers pages of them.
class Rows {
public:
    Rows(const std::string& connection, std::size_t size, const std::filesystem::path& folder) {
        QOR::ASDatabaseOptions options;
        options.connectionString = connection;
        fill(options, size);
        const std::string socket = (folder / "agent.sock").string();
        m_agent = std::make_unique<Server>(
            std::vector<std::string>{(programDirectory() / "qor-agent").string(), "--database", connection, "--socket",
                                     socket, "--listen", "http://127.0.0.1:0", "--log-file",
                                     (folder / "agent.log").string()},
            "qor-agent listening on http://127.0.0.1:");
        m_floor =
            std::make_unique<Server>(std::vector<std::string>{(programDirectory() / "http_floor").string(), connection},
                                     "http_floor listening on ");
        HttpClient root(socket);
        root.post("/v1/identities/add", R"({"name":"reader","kind":"token","access":"full"})");
        const std::string answer = root.post("/v1/tokens/create", R"({"name":"reader"})").body;
        const std::size_t token = answer.find("qor_");
        check(token != std::string::npos, "no token: " + answer);
        m_account = "Authorization: Bearer " + answer.substr(token, answer.find('"', token) - token) + "\r\n";
    }

    const Server& agent() const { return *m_agent; }
    const Server& floor() const { return *m_floor; }
    std::string agentsPage() const {
        return requestOf("/v1/views/vOpLog/rows?fields=time,op,status,id&where=eid='" + eid() +
                             "'&sort=-time,-id&limit=20&count=exact",
                         m_account);
    }
    static std::string floorsPage() { return requestOf("/page/" + eid()); }

private:
    static void fill(const QOR::ASDatabaseOptions& options, std::size_t size) {
        QOR::QORDBSchema::open(options, QOR::QORSchemaMode::Own);
        QOR::QORIngest ingest;
        for (std::size_t first = 0; first < size; first += 10'000) {
            const QOR::QORIngestResult result = ingest.store(makeBatch(first, 10'000, size), false);
            check(!result.failure && result.refused == 0, "the operations were not stored");
        }
        QOR::QORRdbms::instance().shutdown();
    }

    std::unique_ptr<Server> m_agent;
    std::unique_ptr<Server> m_floor;
    std::string m_account;
};

/// The rows of a page, without what agents say beside them.
std::string rowsOf(const std::string& answer) {
    const std::size_t begin = answer.find("\"rows\":");
    check(begin != std::string::npos, "no page: " + answer);
    return answer.substr(begin, answer.find("\"exactness\"") - begin);
}

/// Who is asked again and again for the same.
struct Asked {
    LoadClient& client;
    const Server& server;
    std::vector<Load> loads{};
    double processor = 0;  ///< seconds of it that the server used
    double answers = 0;

    void ask(double seconds) {
        const double before = processorSecondsOf(server.pid());
        loads.push_back(client.ask(seconds));
        processor += processorSecondsOf(server.pid()) - before;
        answers += loads.back().perSecond * seconds;
    }
    double median(double Load::*figure) const {
        std::vector<double> values;
        for (const Load& load : loads)
            values.push_back(load.*figure);
        return QOR::bench::median(values);
    }
};

std::string shown(double value, const char* unit) {
    return std::to_string(static_cast<long>(value)) + unit;
}

/// In turns; the ratio is the median of the turns' own.
void compare(Figures& figures, const std::string& name, const Goal& goal, Asked baseline, Asked ours) {
    const unsigned rounds = figures.smallest() ? 1 : 11;
    const double seconds = figures.smallest() ? 0.05 : 0.7;
    ours.ask(seconds / 2);
    baseline.ask(seconds / 2);
    ours.loads.clear();
    baseline.loads.clear();
    std::vector<double> ratios;
    for (unsigned round = 0; round < rounds; ++round) {
        baseline.ask(seconds);
        ours.ask(seconds);
        ratios.push_back(ours.loads.back().perSecond / baseline.loads.back().perSecond);
    }
    figures.print(name, shown(ours.median(&Load::perSecond), " a second"), median(ratios), "ratio", goal);
    figures.print("  processor time of the server", shown(ours.processor / ours.answers * 1e6, " us each"),
                  ours.processor / ours.answers / (baseline.processor / baseline.answers), "ratio");
    figures.print("  p99 beside the median", shown(ours.median(&Load::median) * 1e6, " us"),
                  ours.median(&Load::p99) / ours.median(&Load::median), "ratio",
                  ours.client.connections() == 8 ? Goal::atMost(3) : Goal::none());
}

/// With each number of connections.
void beside(Figures& figures, const std::string& what, const Goal& goal, const Server& least,
            const std::string& leastRequest, const Server& agent, const std::string& request) {
    for (const std::size_t number : connections) {
        LoadClient floor(least.port, number, leastRequest);
        LoadClient ours(agent.port, number, request);
        compare(figures, what + ", connections: " + std::to_string(number), goal, {floor, least}, {ours, agent});
    }
}

void besideTheFloor(Figures& figures, const std::string& engine, const Rows& rows) {
    check(rowsOf(LoadClient(rows.agent().port, 1, rows.agentsPage()).answer()) ==
              rowsOf(LoadClient(rows.floor().port, 1, Rows::floorsPage()).answer()),
          "the pages differ");
    figures.print(engine + ", agent at rest", "", rows.agent().residentMegabytes(), " MB", Goal::atMost(20));
    beside(figures, engine + ", page", Goal::atLeast(0.75), rows.floor(), Rows::floorsPage(), rows.agent(),
           rows.agentsPage());
}

/// An answer that asks no database, beside the same from nothing but the HTTP library.
void besideTheLibrary(Figures& figures, const Server& agent) {
    const Server bare({(programDirectory() / "http_bare_beast").string()}, "http_bare_beast listening on ");
    check(LoadClient(bare.port, 1, requestOf("/live")).answer() ==
              LoadClient(agent.port, 1, requestOf("/health/live")).answer(),
          "the static answers differ");
    beside(figures, "static answer", Goal::atLeast(0.8), bare, requestOf("/live"), agent, requestOf("/health/live"));
}

/// What npm has of them, installed once.
std::string peerProgram(const std::string& name) {
    const std::filesystem::path packages = QOR_BENCH_PEERS;
    const std::filesystem::path program = packages / "node_modules" / ".bin" / name;
    if (!std::filesystem::exists(program)) {
        std::puts("installing with npm what pages are compared with");
        ChildProcess npm({"npm", "install", "--no-audit", "--no-fund", "--prefix", packages.string()});
        check(npm.wait() == 0, "npm: " + npm.output());
    }
    return program.string();
}

/// The same page from another program over the same rows.
void besidePeer(Figures& figures, const std::string& name, double goal, const Server& peer, const std::string& request,
                const Rows& rows) {
    const std::string answer = LoadClient(peer.port, 1, request).answer();
    const std::string total = rowsOf(LoadClient(rows.agent().port, 1, rows.agentsPage()).answer());
    const std::size_t at = total.find("\"total\":") + 8;
    check(answer.find(total.substr(at, total.find(',', at) - at)) != std::string::npos,
          name + " tells of other rows: " + answer);
    for (const std::size_t number : connections) {
        LoadClient theirs(peer.port, number, request);
        LoadClient ours(rows.agent().port, number, rows.agentsPage());
        compare(figures, "page beside " + name + ", connections: " + std::to_string(number), Goal::atLeast(goal),
                {theirs, peer}, {ours, rows.agent()});
    }
}

void besideSoul(Figures& figures, const Rows& rows, const std::string& file) {
    const int port = freePort();
    const Server soul({peerProgram("soul"), "-d", file, "-p", std::to_string(port)}, "Soul is running", port);
    besidePeer(figures, "soul-cli", 4, soul,
               requestOf("/api/tables/vOpLog/rows?_schema=time,op,status,id&_filters=eid:" + eid() +
                         "&_ordering=-time&_limit=20"),
               rows);
}

void besidePostGraphile(Figures& figures, const Rows& rows, const std::string& folder, const std::string& database) {
    const int port = freePort();
    const Server graph({peerProgram("postgraphile"), "-c", "postgres:///" + database + "?user=qor&host=" + folder, "-s",
                        "public", "-n", "127.0.0.1", "-p", std::to_string(port), "--disable-query-log"},
                       "PostGraphile", port);
    const std::string query = R"({"query":"{allVOpLogs(condition:{eid:\")" + eid() +
                              R"(\"},orderBy:TIME_DESC,first:20){nodes{time op status id} totalCount}}"})";
    besidePeer(figures, "PostGraphile", 6, graph,
               HttpClient::compose("POST", "/graphql", query, "Content-Type: application/json\r\n"), rows);
}

void run(Figures& figures) {
    QOR::QORRdbms::prepareProcess();
    const std::size_t size = figures.number(0, figures.smallest() ? 2000 : 100'000);
    const bool peers = figures.arguments().size() > 1 && figures.arguments()[1] == "peers";
    runOnProcessor(clientsProcessor);
    {
        const TemporaryDirectory folder;
        const std::string file = (folder / "operations.db").string();
        const Rows rows("Driver=SQLite3;Database=" + file, size, folder.path());
        besideTheLibrary(figures, rows.agent());
        besideTheFloor(figures, "SQLite", rows);
        if (peers) besideSoul(figures, rows, file);
    }
    const TemporaryDirectory folder;
    const PostgresServer& server = *asServer([] { return &PostgresServer::shared(); });
    const PostgresDatabase database;
    const Rows rows(database.connectionString(), size, folder.path());
    besideTheFloor(figures, "PostgreSQL", rows);
    if (peers) besidePostGraphile(figures, rows, server.folder(), database.name());
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_http_pages [--smallest] [--check] [OPERATIONS [peers]]", run);
}
