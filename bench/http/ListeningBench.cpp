// What it costs how clients come: short requests and pages of rows over a kept connection, by a unix socket, TCP and
// TLS to one agent, and short requests by unix sockets to this agent and to another build of it.
//
//     bench_listening [OTHER-AGENT] [--smallest] [--check]
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/Figures.h"
#include "support/HttpClient.h"
#include "support/TemporaryDirectory.h"
#include "support/TestCertificates.h"
#include "support/TlsWire.h"

namespace {

using namespace QOR::bench;
using namespace QOR::test;

/// What an agent without a database of its own needs.
class Agent {
public:
    Agent(const std::string& program, std::vector<std::string> more) {
        std::vector<std::string> command{program,
                                         "--database",
                                         "Driver=SQLite3;Database=" + (m_folder / "agent.db").string(),
                                         "--log-file",
                                         (m_folder / "agent.log").string(),
                                         "--socket",
                                         socket()};
        command.insert(command.end(), more.begin(), more.end());
        m_child = std::make_unique<ChildProcess>(command);
        check(m_child->waitForLine("qor-agent listening on"), "the agent does not start");
    }
    ~Agent() {
        m_child->signal(SIGTERM);
        m_child->wait();
    }
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    std::string socket() const { return (m_folder / "agent.sock").string(); }
    int port(const std::string& scheme) const {
        const std::string line = "listening on " + scheme + "://127.0.0.1:";
        check(m_child->waitForLine("qor-agent " + line), "the agent does not listen there");
        const std::string output = m_child->output();
        return std::stoi(output.substr(output.find(line) + line.size()));
    }

private:
    TemporaryDirectory m_folder;
    std::unique_ptr<ChildProcess> m_child;
};

double secondsOf(HttpClient& client, const std::string& target, unsigned requests) {
    return wallSeconds([&] {
        for (unsigned number = 0; number < requests; ++number) {
            const int status = client.get(target).status;
            check(status == 200, "status " + std::to_string(status));
        }
    });
}

/// Stores as many operations.
void fill(HttpClient& root, unsigned operations) {
    std::string lines;
    for (unsigned number = 0; number < operations; ++number) {
        const std::string text = std::to_string(number);
        lines += R"({"kind":"operation","id":"made-)" + text + R"(","op":"start","status":0,"time":)" +
                 std::to_string(1'600'000'000 + number) + "}\n";
    }
    const HttpAnswer stored = root.post("/v1/records", lines);
    check(stored.status == 200, "the operations were not stored: " + stored.body);
}

/// Asks for the newest 20 operations with how many there are, as who has full access by a token.
std::string pageRequest(HttpClient& root) {
    root.post("/v1/identities/add", R"({"name":"reader","kind":"token","access":"full"})");
    const std::string made = root.post("/v1/tokens/create", R"({"name":"reader"})").body;
    const std::size_t token = made.find("qor_");
    check(token != std::string::npos, "no token: " + made);
    return HttpClient::compose("GET",
                               "/v1/views/vOpLog/rows?fields=time,op,status,id&sort=-time,-id&limit=20&count=exact", {},
                               "Authorization: Bearer " + made.substr(token, made.find('"', token) - token) + "\r\n");
}

double secondsOfPages(HttpClient& client, const std::string& request, unsigned pages) {
    return wallSeconds([&] {
        for (unsigned number = 0; number < pages; ++number) {
            const bool sent = client.send(request);
            const int status = sent ? client.receive().status : 0;
            check(status == 200, "status " + std::to_string(status));
        }
    });
}

void run(Figures& figures) {
    const TestCertificates files;
    const std::string program = (programDirectory() / "qor-agent").string();
    const unsigned rounds = figures.smallest() ? 1 : 15;
    const unsigned requests = figures.smallest() ? 20 : 4000;
    const std::string live = "/health/live";
    const Agent agent(program, {"--listen", "http://127.0.0.1:0", "--listen", "https://127.0.0.1:0",
                                "--tls-certificate", files.certificate("server"), "--tls-key", files.key("server")});
    HttpClient local(agent.socket());
    HttpClient tcp(connectTcp("127.0.0.1", agent.port("http")));
    const int socket = connectTcp("127.0.0.1", agent.port("https"));
    HttpClient tls(socket, std::make_unique<TlsWire>(socket, TlsFiles{files.certificate("authority")}));
    const auto of = [&](HttpClient& client) { return [&] { return secondsOf(client, live, requests) / requests; }; };
    figures.ratio("TCP beside a unix socket", Goal::none(), rounds, of(local), of(tcp));
    figures.ratio("TLS beside TCP", Goal::none(), rounds, of(tcp), of(tls));
    fill(local, requests);
    const std::string page = pageRequest(local);
    const unsigned pages = requests / 4;
    const auto ofPages = [&](HttpClient& client) {
        return [&] { return secondsOfPages(client, page, pages) / pages; };
    };
    figures.ratio("TLS beside TCP, pages", Goal::atMost(1.1), rounds, ofPages(tcp), ofPages(tls));
    if (figures.arguments().empty()) return;
    const Agent other(figures.arguments().front(), {});
    HttpClient before(other.socket());
    const auto health = [&](HttpClient& client) {
        return [&] { return secondsOf(client, "/v1/health", requests) / requests; };
    };
    figures.ratio("a unix socket beside another build's", Goal::atMost(1.03), rounds, health(before), health(local));
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_listening [OTHER-AGENT] [--smallest] [--check]", run);
}
