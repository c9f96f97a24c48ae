// A real agent in numbers, and what its audit says of requests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"
#include "support/HostDatabase.h"
#include "support/HttpClient.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* one = "11111111-1111-1111-1111-111111111111";

std::string operation(int number) {
    return R"({"kind":"operation","id":"op-)" + std::to_string(number) + R"(","op":"install","status":)" +
           std::to_string(number) + R"(,"time":)" + std::to_string(1700000000 + number) + R"(,"eid":")" + one + "\"}\n";
}

class AgentNumbers : public testing::Test {
protected:
    AgentSettings settings(Words more) const {
        more.insert(more.end(), {"--listen", "http://127.0.0.1:0"});
        return {.database = database.connectionString(), .more = std::move(more)};
    }
    static HttpClient overTcp(const AgentProcess& agent) {
        const std::string text = "listening on http://127.0.0.1:";
        const std::string output = agent.output();
        return HttpClient(connectTcp("127.0.0.1", std::stoi(output.substr(output.find(text) + text.size()))));
    }
    static std::string tokenOf(HttpClient& root, const std::string& name, const std::string& access) {
        EXPECT_EQ(
            root.post("/v1/identities/add", R"({"name":")" + name + R"(","kind":"token","access":)" + access + "}")
                .status,
            200);
        const std::string answer = root.post("/v1/tokens/create", R"({"name":")" + name + "\"}").body;
        return answer.substr(answer.find("qor_"), 68);
    }
    static std::string select(const std::string& view, const std::string& more = {}) {
        return R"({"operator":"pager2","request":"select","body":[1740,[[1009,")" + view + R"("],[1741,"op"])" + more +
               "]]}";
    }

    TestDatabase database{TestTables::Own};
    TemporaryDirectory files;
};

/// Each series with its value, as a strict reader of the format has them.
std::map<std::string, double> readStrictly(const std::string& text) {
    CtlProcess reader({"python3", QOR_METRICS_READER});
    reader.write(text);
    const CtlResult result = reader.finish();
    EXPECT_EQ(result.status, 0) << result.err << text;
    std::map<std::string, double> samples;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t blank = line.rfind(' ');
        samples[line.substr(0, blank)] = std::stod(line.substr(blank + 1));
    }
    return samples;
}

TEST_F(AgentNumbers, WhatIsAskedIsCountedInAFormThatAStrictReaderTakes) {
    const AgentProcess agent(settings({}));
    HttpClient root(agent.socketPath());
    const auto numbers = [&] {
        const HttpAnswer answer = root.get("/metrics");
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.headers.at("content-type"), "text/plain; version=0.0.4; charset=utf-8");
        return readStrictly(answer.body);
    };
    const auto before = numbers();
    for (int number = 0; number < 3; ++number)
        ASSERT_EQ(root.get("/v1/views").status, 200);
    ASSERT_EQ(root.get("/nothing/qor_secret").status, 404);
    ASSERT_EQ(root.get("/nothing/else").status, 404);
    std::string lines = "no record\n";
    for (int number = 0; number < 5; ++number)
        lines += operation(number);
    ASSERT_EQ(root.post("/v1/records", lines).status, 200);
    const HttpAnswer answer = root.post("/v1/messages", select("vOpLog"));
    ASSERT_EQ(answer.status, 200);
    ASSERT_EQ(root.get("/v1/views/vOpLog/rows?where=satus=1").status, 400);
    ASSERT_EQ(root.get("/v1/views/vOpLgo/rows").status, 404);
    HttpClient tcp = overTcp(agent);
    ASSERT_EQ(tcp.get("/v1/views").status, 401);
    auto after = numbers();
    const auto grew = [&](const std::string& series) {
        if (after.count(series) == 0) return -1.0;
        const auto was = before.find(series);
        return after.at(series) - (was == before.end() ? 0 : was->second);
    };
    EXPECT_EQ(grew("qor_http_requests_total{route=\"/v1/views\",status=\"200\"}"), 3);
    EXPECT_EQ(grew("qor_http_request_seconds_count{route=\"/v1/views\"}"), 4) << "with the one that was not let in";
    EXPECT_EQ(grew("qor_http_requests_total{route=\"none\",status=\"404\"}"), 2);
    EXPECT_EQ(grew("qor_http_requests_total{route=\"/metrics\",status=\"200\"}"), 1);
    EXPECT_EQ(grew("qor_ingest_records_total{outcome=\"stored\"}"), 5);
    EXPECT_EQ(grew("qor_ingest_records_total{outcome=\"refused\"}"), 1);
    EXPECT_EQ(grew("qor_rows_total{route=\"/v1/messages\"}"), 5);
    EXPECT_EQ(grew("qor_http_response_bytes_total{route=\"/v1/messages\"}"), static_cast<double>(answer.body.size()));
    EXPECT_EQ(grew("qor_problems_total{code=\"bad_condition\"}"), 1);
    EXPECT_EQ(grew("qor_problems_total{code=\"unknown_view\"}"), 1);
    EXPECT_EQ(grew("qor_logins_refused_total"), 1);
    EXPECT_EQ(grew("qor_http_limits_total{limit=\"user-waiting\"}"), 0);
    EXPECT_EQ(after.at("qor_http_connections{listener=\"unix:" + agent.socketPath() + "\"}"), 1);
    EXPECT_EQ(after.at("qor_http_workers{lane=\"following\"}"), 64);
    EXPECT_EQ(after.at("qor_memory_limit_bytes"), 1073741824);
    EXPECT_GE(after.at("qor_database_connections"), 1);
    EXPECT_GT(after.at("process_resident_memory_bytes"), 0);
    for (const auto& [series, value] : after)
        EXPECT_THAT(series, Not(HasSubstr("secret"))) << "what clients make up is no series";
}

/// What an agent tells in numbers, as the rows of a table.
std::vector<std::string> rowsOfNumbers(const std::string& metrics) {
    std::vector<std::string> rows;
    std::istringstream lines(metrics);
    std::string help;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# HELP ")) help = line.substr(7);
        if (!line.starts_with("# TYPE ")) continue;
        const std::size_t name = help.find(' ');
        rows.push_back("| `" + help.substr(0, name) + "` | " + line.substr(line.rfind(' ') + 1) + " | " +
                       help.substr(name + 1) + " |");
    }
    return rows;
}

TEST_F(AgentNumbers, AreThoseOfTheDocuments) {
    const AgentProcess agent(settings({"--audit", files.file("audit.log"), "--forward", "http://127.0.0.1:1"}));
    HttpClient root(agent.socketPath());
    const std::vector<std::string> told = rowsOfNumbers(root.get("/metrics").body);
    std::ifstream page(std::filesystem::path(QOR_PROJECT_DIR) / "docs/operations.md");
    std::vector<std::string> documented;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("| `qor_") || line.starts_with("| `process_")) documented.push_back(line);
    }
    const auto lines = [](const std::vector<std::string>& rows) {
        std::string text;
        for (const std::string& row : rows)
            text += row + "\n";
        return text;
    };
    EXPECT_EQ(lines(told), lines(documented));  // what differs is shown
}

TEST_F(AgentNumbers, AreForFullAccess) {
    const AgentProcess agent(settings({}));
    HttpClient root(agent.socketPath());
    const std::string reader = tokenOf(root, "reader", R"("environments")");
    const std::string scraper = tokenOf(root, "scraper", R"("full")");
    HttpClient tcp = overTcp(agent);
    EXPECT_EQ(tcp.get("/metrics").status, 401);
    EXPECT_EQ(tcp.request("GET", "/metrics", {}, "Authorization: Bearer " + reader + "\r\n").status, 403);
    EXPECT_EQ(tcp.request("GET", "/metrics", {},
                          "Accept: application/openmetrics-text;version=1.0.0;q=0.8,text/plain;version=0.0.4;q=0.5,"
                          "*/*;q=0.1\r\nAuthorization: Bearer " +
                              scraper + "\r\n")
                  .status,
              200);
}

TEST_F(AgentNumbers, OptionsTellWhatMayBeAskedOfAPath) {
    const AgentProcess agent(settings({}));
    HttpClient root(agent.socketPath());
    const auto options = [](HttpClient& client, const std::string& target) {
        client.send(HttpClient::compose("OPTIONS", target));
        HttpAnswer answer = client.receiveHead();
        if (answer.status != 204) client.receiveBody(answer);
        return std::to_string(answer.status) + " " + answer.headers["allow"];
    };
    EXPECT_EQ(options(root, "/v1/views"), "204 GET, HEAD, OPTIONS");
    EXPECT_EQ(options(root, "/v1/messages"), "204 POST, OPTIONS");
    EXPECT_EQ(options(root, "*"), "204 GET, HEAD, POST, DELETE, OPTIONS");
    EXPECT_EQ(options(root, "/nothing"), "404 ");
    HttpClient tcp = overTcp(agent);
    EXPECT_EQ(options(tcp, "/v1/views"), "401 ");
    EXPECT_EQ(options(tcp, "*"), "401 ");
}

class AgentAuditProcess : public AgentNumbers {
protected:
    std::string file() const { return (files / "audit.log").string(); }
    /// Everything that was written, once a request is in it that was asked after all others.
    std::string whole(HttpClient& client) const {
        client.get("/health/live");
        std::string text;
        while ((text = content(file())).find("/health/live") == std::string::npos)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return text;
    }
    static std::string content(const std::string& path) {
        std::ifstream input(path);
        return {std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>()};
    }
    /// The line that tells of this.
    static std::string lineWith(const std::string& text, const std::string& part) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);)
            if (line.find(part) != std::string::npos) return line;
        ADD_FAILURE() << part << " is not told of in " << text;
        return {};
    }
    static void ask(HttpClient& client, const std::string& headers = {}) {
        EXPECT_EQ(
            client
                .request("POST", "/v1/messages",
                         select("vOpLog", R"(,[1742,[[2235,[[2225,[[1741,"op"],[1018,"topsecret"]]],)"
                                          R"([2234,[[1741,"status"],[1018,"1942194219"],[1018,"1943194319"]]]]]]])"),
                         headers)
                .status,
            200);
        EXPECT_EQ(client
                      .request("POST", "/v1/messages",
                               R"({"operator":"pager","request":"select","body":[1740,[[1741,"pager.op_log.op"],)"
                               R"([1742,"pager.op_log.op = 'topsecret' and pager.op_log.status > 1942194219"]]]})",
                               headers)
                      .status,
                  200);
    }
};

TEST_F(AgentAuditProcess, TellsWhoAskedWhatAndNotWhatItWasComparedWith) {
    const AgentProcess agent(settings({"--audit", file()}));
    HttpClient root(agent.socketPath());
    root.post("/v1/records", operation(1));
    root.get("/v1/records");
    const std::string token = tokenOf(root, "reader", R"("environments")");
    HttpClient tcp = overTcp(agent);
    ask(tcp, "Authorization: Bearer " + token + "\r\nCookie: a=" + token + "\r\n");
    EXPECT_EQ(tcp.request("GET", "/v1/views?" + token, {}, "Authorization: Bearer x" + token + "\r\n").status, 401);
    root.request("GET", "/nothing/" + token, {}, "X-Qor-As: reader\r\n");
    const std::string text = whole(root);
    const std::string view = lineWith(text, "vOpLog");
    EXPECT_THAT(view, HasSubstr(R"("who":"reader","from":"127.0.0.1","method":"POST","route":"/v1/messages")"));
    EXPECT_THAT(view, HasSubstr(R"("operator":"pager2","view":"vOpLog","fields":["op"],)"
                                R"x("condition":"op = ? and status in (?)","rows":0,"status":200)x"));
    EXPECT_THAT(lineWith(text, R"("operator":"pager",)"),
                HasSubstr(R"("condition":"pager.op_log.op = ? and pager.op_log.status > ?")"));
    EXPECT_THAT(lineWith(text, R"("stored":1)"), HasSubstr(R"("from":"unix","uid":)"));
    EXPECT_THAT(lineWith(text, R"("method":"GET","route":"/v1/records")"), HasSubstr(R"("rows":1,"status":200)"));
    EXPECT_THAT(lineWith(text, R"("status":401)"), HasSubstr(R"("outcome":"refused")"));
    EXPECT_THAT(lineWith(text, R"("as":"reader")"), HasSubstr(R"("route":"none")"));
    // The numbers are longer than any time, process or duration of the log, which may hold shorter ones by chance.
    for (const std::string& hidden :
         {std::string("topsecret"), token, token.substr(10, 20), std::string("1942194219"), std::string("1943194319")})
        EXPECT_THAT(text, Not(HasSubstr(hidden)));
}

TEST_F(AgentAuditProcess, TellsLiteralsWhereThatIsWanted) {
    const AgentProcess agent(settings({"--audit", file(), "--audit-literals"}));
    HttpClient root(agent.socketPath());
    ask(root);
    const std::string text = whole(root);
    EXPECT_THAT(text, HasSubstr(R"x("condition":"op = 'topsecret' and status in (1942194219, 1943194319)")x"));
    EXPECT_THAT(text, HasSubstr("pager.op_log.op = 'topsecret' and pager.op_log.status > 1942194219"));
}

TEST_F(AgentAuditProcess, HupBeginsANewFileAfterTheOldOneWasMoved) {
    const AgentProcess agent(settings({"--audit", file()}));
    HttpClient root(agent.socketPath());
    root.get("/v1/views");
    whole(root);
    std::filesystem::rename(file(), file() + ".1");
    agent.signal(SIGHUP);
    while (!std::filesystem::exists(file()))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    root.get("/v1/vocabulary");
    const std::string text = whole(root);
    EXPECT_THAT(text, HasSubstr("/v1/vocabulary"));
    EXPECT_THAT(text, Not(HasSubstr("/v1/views")));
    EXPECT_THAT(content(file() + ".1"), HasSubstr("/v1/views"));
}

TEST_F(AgentAuditProcess, AFileThatCannotBeOpenedEndsTheStart) {
    const Words command{(programDirectory() / "qor-agent").string(),
                        "--database",
                        database.connectionString(),
                        "--socket",
                        (files / "a.sock").string(),
                        "--audit",
                        (files / "no" / "audit").string()};
    ChildProcess child(command);
    EXPECT_EQ(child.wait(), 1);
    EXPECT_THAT(child.output(), HasSubstr("no/audit"));
}

}  // namespace
}  // namespace QOR::test
