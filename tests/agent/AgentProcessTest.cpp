// The daemon as its users meet it: a real process, a real socket, a real database.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "agent/ProbeAgent.h"
#include "support/AgentProcess.h"
#include "support/DirectDatabase.h"
#include "support/HttpClient.h"

namespace QOR {
namespace {

using test::AgentProcess;
using test::AgentSettings;
using test::HttpAnswer;
using test::HttpClient;
using test::withProbe;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

const std::filesystem::path plugIns = QOR_TEST_PLUGIN_DIR;

std::string probe(const std::string& request, const std::string& element = "[1740]") {
    return R"({"operator":"probe","request":")" + request + R"(","body":)" + element + "}";
}

QORResponse::Error errorOf(const std::string& text) {
    return readResponse(text).error.value_or(QORResponse::Error{0, "no error"});
}

int numberOf(const std::string& text, QORTag id) {
    QORResponse response = readResponse(text);
    int number = -1;
    response.response.root().getValue(number, id);
    return number;
}

class Agent : public testing::Test {
protected:
    HttpClient connect() const { return HttpClient(agent.socketPath()); }
    AgentProcess agent{withProbe()};
};

TEST_F(Agent, AnswersAMessage) {
    EXPECT_EQ(connect().message(probe("echo", R"([1740,"hello"])")), R"({"response":[[1007,"1740"],[1018,"hello"]]})");
}

TEST_F(Agent, SocketHasMode0660) {
    struct stat found {};
    ASSERT_EQ(::stat(agent.socketPath().c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777U, 0660U);
}

TEST_F(Agent, EveryConnectionIsAClientOfItsOwn) {
    HttpClient first = connect();
    HttpClient second = connect();
    EXPECT_EQ(numberOf(first.message(probe("count")), tag::total), 1);
    EXPECT_EQ(numberOf(first.message(probe("count")), tag::total), 2);
    const std::string answer = second.message(probe("count"));
    EXPECT_EQ(numberOf(answer, tag::total), 1);
    EXPECT_EQ(numberOf(answer, tag::size), 2) << "objects alive";
    EXPECT_EQ(numberOf(first.message(probe("count")), tag::statistics), 2) << "ended requests";
}

TEST_F(Agent, ARequestAsAnotherClientUsesTheConnectionsOperator) {
    HttpClient client = connect();
    client.message(probe("count"));
    const std::string answer =
        client.message(R"({"operator":"probe","request":"count","body":[1740],"client":{"fullAccess":false}})");
    EXPECT_EQ(numberOf(answer, tag::total), 2);
    EXPECT_EQ(numberOf(answer, tag::size), 1);
}

TEST_F(Agent, OperatorsAreToldWhenTheirClientGoes) {
    {
        HttpClient client = connect();
        client.message(probe("count"));
        client.message(probe("count"));
    }
    HttpClient other = connect();
    while (numberOf(other.message(probe("count")), tag::size) > 1) {
    }
    EXPECT_THAT(agent.log(), HasSubstr("probe disconnected after 2 requests"));
}

TEST_F(Agent, ManyClientsAtOnceGetTheirOwnAnswers) {
    std::vector<std::future<int>> clients;
    for (int number = 0; number < 12; ++number) {
        clients.push_back(std::async(std::launch::async, [this, number] {
            HttpClient client = connect();
            int right = 0;
            for (int request = 0; request < 40; ++request) {
                const std::string text = std::to_string(number) + "/" + std::to_string(request);
                const std::string answer = client.message(probe("echo", "[1740,\"" + text + "\"]"));
                right += answer == "{\"response\":[[1007,\"1740\"],[1018,\"" + text + "\"]]}" ? 1 : 0;
            }
            return right;
        }));
    }
    for (auto& client : clients)
        EXPECT_EQ(client.get(), 40);
}

TEST_F(Agent, PipelinedMessagesAreAnsweredInOrder) {
    HttpClient client = connect();
    std::string requests;
    for (int number = 0; number < 100; ++number) {
        requests += HttpClient::compose("POST", "/v1/messages", probe("echo", "[" + std::to_string(number + 1) + "]"));
    }
    client.send(requests);
    for (int number = 0; number < 100; ++number) {
        EXPECT_EQ(numberOf(client.receive().body, tag::type), number + 1);
    }
}

TEST_F(Agent, ASlowRequestHoldsUpNobodyElse) {
    HttpClient slow = connect();
    const std::string end = (agent.directory() / "end").string();
    slow.send(HttpClient::compose("POST", "/v1/messages", probe("wait", "[1740,\"" + end + "\"]")));
    while (agent.log().find("probe waits") == std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(connect().get("/v1/health").status, 200);
    EXPECT_EQ(numberOf(connect().message(probe("count")), tag::size), 2) << "the slow one is still there";
    std::ofstream(end) << "";
    EXPECT_THAT(slow.receive().body, HasSubstr("waited"));
}

TEST_F(Agent, LargeAnswersArriveWhole) {
    HttpClient client = connect();
    QORResponse response = readResponse(client.message(probe("rows", R"([1740,"300000"])")));
    EXPECT_EQ(response.response.nodeCount(), 300'000U);
    EXPECT_THAT(client.message(probe("echo")), StartsWith("{\"response\""));
}

// ---- errors

TEST_F(Agent, ErrorsOfOperatorsArePartOfTheAnswer) {
    HttpClient client = connect();
    const HttpAnswer answer = client.post("/v1/messages", probe("fail", R"([1740,"my complaint"])"));
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(errorOf(answer.body).code, 400);
    EXPECT_EQ(errorOf(answer.body).message, "my complaint");
    EXPECT_EQ(errorOf(client.message(probe("throw", R"([1740,"thrown"])"))).message, "thrown");
    EXPECT_EQ(errorOf(client.message(probe("count"))).code, 0);
}

TEST_F(Agent, UnknownNamesAreErrorsOfTheAnswer) {
    HttpClient client = connect();
    const HttpAnswer answer = client.post("/v1/messages", R"({"operator":"x","request":"select","body":[1740]})");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, R"({"response":[],"error":{"code":400,"message":"unknown operator \"x\""}})");
    EXPECT_EQ(errorOf(client.message(probe("insert"))).message, R"(unknown request "insert" of operator "probe")");
}

TEST_F(Agent, WhatIsNoRequestIs400WithAnErrorInTheBody) {
    HttpClient client = connect();
    for (const char* body : {"", "{", "null", "[1740]", R"({"operator":"probe"})", "\xff\xfe"}) {
        const HttpAnswer answer = client.post("/v1/messages", body);
        EXPECT_EQ(answer.status, 400) << body;
        EXPECT_EQ(answer.headers.at("content-type"), "application/json");
        EXPECT_EQ(errorOf(answer.body).code, 400) << body;
    }
    EXPECT_EQ(client.get("/v1/health").status, 200);
}

TEST_F(Agent, OtherPathsAre404OtherMethods405) {
    struct Row {
        const char* method;
        const char* target;
        int status;
        const char* allow;
    };
    const Row rows[] = {
        {"GET", "/", 404, nullptr},
        {"GET", "/v1", 404, nullptr},
        {"GET", "/v1/messages/", 404, nullptr},
        {"POST", "/v2/messages", 404, nullptr},
        {"GET", "/v1/messages", 405, "POST, OPTIONS"},
        {"PUT", "/v1/records", 405, "POST, GET, HEAD, OPTIONS"},
        {"GET", "/v1/collect", 405, "POST, OPTIONS"},
        {"POST", "/v1/views", 405, "GET, HEAD, OPTIONS"},
        {"DELETE", "/v1/health", 405, "GET, HEAD, OPTIONS"},
        {"GET", "/v1/health?verbose=1", 400, nullptr},
    };
    HttpClient client = connect();
    for (const Row& row : rows) {
        const HttpAnswer answer = client.request(row.method, row.target);
        EXPECT_EQ(answer.status, row.status) << row.method << ' ' << row.target;
        EXPECT_EQ(answer.headers.count("allow"), row.allow == nullptr ? 0U : 1U) << row.target;
        if (row.allow != nullptr) {
            EXPECT_EQ(answer.headers.at("allow"), row.allow);
        }
        EXPECT_EQ(answer.headers.at("content-type"), "application/problem+json") << row.target;
    }
}

TEST_F(Agent, ABodyBeyondTheLimitIs413) {
    const HttpAnswer answer = connect().post("/v1/messages", std::string((std::size_t{64} << 20) + 1, ' '));
    EXPECT_EQ(answer.status, 413);
    EXPECT_THAT(answer.body, HasSubstr(R"("code":"too_large")"));
    EXPECT_EQ(connect().get("/v1/health").status, 200);
}

TEST_F(Agent, WhatIsNoHttpIs400WithAnErrorInTheBody) {
    HttpClient client = connect();
    client.send("complete nonsense\r\n\r\n");
    const HttpAnswer answer = client.receive();
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.headers.at("content-type"), "application/problem+json");
    EXPECT_THAT(answer.body, HasSubstr(R"("code":"bad_request")"));
}

// ---- the other paths

TEST_F(Agent, HealthTellsWhatIsLoaded) {
    HttpClient client = connect();
    const HttpAnswer answer = client.get("/v1/health");
    EXPECT_EQ(answer.status, 200);
    EXPECT_THAT(answer.body, AllOf(HasSubstr(R"("status":"ok")"), HasSubstr(R"("operators":["probe"])"),
                                   HasSubstr(R"("plugins":["libQORProbe.so"])"), HasSubstr(R"("connections":1)")));
}

TEST_F(Agent, StatusTellsOfTheDatabase) {
    const HttpAnswer answer = connect().get("/v1/status");
    EXPECT_EQ(answer.status, 200);
    EXPECT_THAT(answer.body, AllOf(HasSubstr(R"("engine":")" + test::oneOf("SQLite", "PostgreSQL") + R"(","schema":)"),
                                   HasSubstr(R"(,"readOnly":false})"), HasSubstr(R"("unreadable":[])")));
}

TEST_F(Agent, ViewsAreListedWithTheirColumns) {
    const HttpAnswer answer = connect().get("/v1/views");
    EXPECT_EQ(answer.status, 200);
    EXPECT_THAT(answer.body, StartsWith(R"({"views":[{"name":)"));
    for (const char* view : {"vEnvironment", "vOpLog", "vEventLog", "vBackupInfo"}) {
        EXPECT_THAT(answer.body, HasSubstr(std::string(R"({"name":")") + view + R"(","columns":[{"name":")"));
    }
    EXPECT_THAT(answer.body, HasSubstr(R"({"name":"securableObjId","type":"uniqueidentifier","length":0})"));
}

TEST_F(Agent, RecordsAreTakenInAndBadLinesNamed) {
    HttpClient client = connect();
    const std::string good = R"({"kind":"operation","id":"op-1","op":"install","time":"2024-01-01"})";
    const HttpAnswer answer = client.post("/v1/records?first-line=11", good + "\nnonsense\n" + good + "\n");
    EXPECT_EQ(answer.status, 200);
    EXPECT_THAT(answer.body,
                AllOf(HasSubstr(R"("accepted":2)"), HasSubstr(R"("operation":{"added":1,"replaced":1,"unchanged":0})"),
                      HasSubstr(R"("refusedCount":1,"refused":[{"line":12,"reason":")")));
    EXPECT_THAT(answer.body, testing::Not(HasSubstr("failure")));
}

TEST_F(Agent, ParametersOfRecordsAreChecked) {
    HttpClient client = connect();
    for (const char* query : {"first-line=x", "first-line=0", "first-line=-1", "first-line=+1", "first-line=01",
                              "first-line=", "other=1", "first-line"}) {
        EXPECT_EQ(client.post(std::string("/v1/records?") + query, "").status, 400) << query;
    }
    EXPECT_EQ(client.post("/v1/records", "").status, 200);
}

TEST_F(Agent, CollectsThisMachine) {
    HttpClient client = connect();
    EXPECT_THAT(client.post("/v1/collect", "").body, HasSubstr(R"("environment":{"added":1,"replaced":0)"));
    EXPECT_THAT(client.post("/v1/collect", "").body, HasSubstr(R"("environment":{"added":0,"replaced":1)"));
}

TEST(AgentCollectors, APlugInBringsOne) {
    const test::TemporaryDirectory root;
    std::filesystem::create_directories(root / "etc");
    AgentSettings settings;
    settings.plugIns = plugIns / "mixed";
    settings.more = {"--collect-root", root.path().string(), "--collect", "echo=1d"};
    AgentProcess agent(settings);
    const auto status = [&] { return HttpClient(agent.socketPath()).get("/v1/status").body; };
    while (status().find(R"("name":"echo","source":"/etc/echo","every":86400,"outcome":"none")") == std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::ofstream(root / "etc/echo") << "one\ntwo\n";
    HttpClient client(agent.socketPath());
    EXPECT_THAT(client.post("/v1/collect", "").body, HasSubstr(R"("event":{"added":2,"replaced":0)"));
    EXPECT_THAT(status(), HasSubstr(R"("name":"echo","source":"/etc/echo","every":86400,"outcome":"done")"));
    EXPECT_EQ(agent.stop(), 0);
    std::ofstream(root / "etc/echo", std::ios::app) << "three\n";
    agent.start();
    while (status().find(R"("vEventLog":3)") == std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_THAT(HttpClient(agent.socketPath()).post("/v1/collect", "").body,
                HasSubstr(R"("event":{"added":0,"replaced":0)"))
        << "it goes on behind what was stored before the agent's restart";
}

// ---- starting

TEST(AgentStart, APlugInThatFailsToLoadIsNamedAndTheOthersServe) {
    AgentSettings settings;
    settings.plugIns = plugIns / "mixed";
    const AgentProcess agent(settings);
    EXPECT_THAT(agent.log(), AllOf(HasSubstr("libQORRefusing.so: initQORPlugIn returned 7"),
                                   HasSubstr("libQORNoEntry.so: it is no plug-in")));
    HttpClient client(agent.socketPath());
    EXPECT_EQ(client.message(R"({"operator":"sound","request":"select","body":[1740]})"), R"({"response":[]})");
    EXPECT_THAT(client.get("/v1/health").body,
                AllOf(HasSubstr(R"("status":"degraded")"), HasSubstr("libQORRefusing.so")));
}

TEST(AgentStart, ASecondAgentOnTheSocketFailsAndTheFirstGoesOn) {
    const AgentProcess agent(withProbe());
    auto command = agent.command();
    const auto [status, output] = test::runProgram(command);
    EXPECT_EQ(status, 1);
    EXPECT_THAT(output, AllOf(HasSubstr("qor-agent: cannot listen at " + agent.socketPath()),
                              HasSubstr("another agent is using it")));
    EXPECT_EQ(HttpClient(agent.socketPath()).get("/v1/health").status, 200);
}

TEST(AgentStart, ADeadAgentsSocketIsReplaced) {
    AgentProcess agent(withProbe());
    agent.kill();
    ASSERT_TRUE(std::filesystem::is_socket(agent.socketPath()));
    agent.start();
    EXPECT_EQ(HttpClient(agent.socketPath()).get("/v1/health").status, 200);
}

TEST(AgentStart, ClientsThatCameBeforeTheDeathOfAnAgentSeeItsEnd) {
    AgentProcess agent(withProbe());
    HttpClient client(agent.socketPath());
    client.get("/v1/health");
    agent.kill();
    EXPECT_TRUE(client.isClosed());
}

TEST(AgentStart, TheSocketsFolderIsMade) {
    const test::TemporaryDirectory directory;
    AgentSettings settings = withProbe();
    settings.socket = directory / "run" / "qor" / "agent.sock";
    const AgentProcess agent(settings);
    EXPECT_EQ(HttpClient(agent.socketPath()).get("/v1/health").status, 200);
}

TEST(AgentStart, WhatCannotBeOpenedIsNamed) {
    const test::TemporaryDirectory directory;
    const std::string program = (test::programDirectory() / "qor-agent").string();
    const std::string socket = (directory / "agent.sock").string();
    const std::string database = "Driver=SQLite3;Database=" + (directory / "agent.db").string();
    const std::string probes = (plugIns / "probe").string();
    struct Row {
        std::vector<std::string> arguments;
        int status;
        std::string text;
    };
    const Row rows[] = {
        {{"--plugins", "/nonexistent/plugins", "--database", database, "--socket", socket}, 1, "/nonexistent/plugins"},
        {{"--plugins", probes, "--database", "Driver=SQLite3;Database=/nonexistent/agent.db", "--socket", socket},
         1,
         "/nonexistent/agent.db"},
        {{"--plugins", probes, "--database", "Driver=SQLite3;Database=" + (directory / "missing.db").string(),
          "--read-only", "--socket", socket},
         1,
         "missing.db"},
        {{"--plugins", probes, "--database", database, "--socket", "/dev/null/x"}, 1, "/dev/null/x"},
        {{"--threads", "0"}, 2, "threads"},
        {{"--no-such-option"}, 2, "no-such-option"},
        {{"--help"}, 0, "--socket"},
        {{"--version"}, 0, "1."},
    };
    for (const Row& row : rows) {
        std::vector<std::string> command{program};
        command.insert(command.end(), row.arguments.begin(), row.arguments.end());
        const auto [status, output] = test::runProgram(command);
        EXPECT_EQ(status, row.status) << output;
        EXPECT_THAT(output, HasSubstr(row.text));
    }
    EXPECT_FALSE(std::filesystem::exists(directory / "missing.db"));
    EXPECT_FALSE(std::filesystem::exists(socket));
}

TEST(AgentStart, AReadOnlyAgentAnswersAndTakesNothingIn) {
    AgentProcess first(withProbe());
    HttpClient(first.socketPath()).post("/v1/collect", "");
    AgentSettings settings = withProbe();
    settings.database = first.connectionString();
    settings.more = {"--read-only"};
    const AgentProcess reader(settings);
    HttpClient client(reader.socketPath());
    EXPECT_THAT(client.get("/v1/views").body, HasSubstr("vEnvironment"));
    const HttpAnswer answer = client.post("/v1/records", R"({"kind":"operation","id":"op-1","time":1})");
    EXPECT_THAT(answer.body, AllOf(HasSubstr(R"("accepted":0)"), HasSubstr(R"("failure":{"firstLine":1)"),
                                   HasSubstr(R"("error":{"code":1)")));
}

}  // namespace
}  // namespace QOR
