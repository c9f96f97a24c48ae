// Agents that send what they store on to another one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "agent/Follower.h"
#include "agent/RecordLines.h"
#include "forward/ForwardAgents.h"
#include "support/DirectDatabase.h"
#include "support/TcpBalancer.h"
#include "support/TestCertificates.h"

namespace QOR::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr const char* own = "11111111-1111-1111-1111-111111111111";
constexpr const char* below = "22222222-2222-2222-2222-222222222222";
constexpr const char* foreign = "33333333-3333-3333-3333-333333333333";

std::string event(const std::string& source, const std::string& eid = own) {
    return R"({"kind":"event","time":1,"category":"c","source":")" + source + R"(","eid":")" + eid + "\"}\n";
}
std::string operation(const std::string& id, int status = 0, const std::string& eid = own) {
    return R"({"kind":"operation","id":")" + id + R"(","time":1,"status":)" + std::to_string(status) + R"(,"eid":")" +
           eid + R"(","eids":[")" + eid + "\"]}\n";
}

/// All that is stored but for what each agent gives out itself.
std::string everything(const AgentProcess& agent) {
    return rowsOf(agent, "vEnvironment",
                  "eid,parent_eid,title,state,transition,name,description,domain,hostname,architecture,type,os_name,"
                  "os_platform,os_version,os_kernel,ip,memory,boot_time,config,virtual_config") +
           rowsOf(agent, "vOpLog", "id,parent_id,op,status,time,eid,package,version,message") +
           rowsOf(agent, "vEventLog", "time,eid,source,category,info") +
           rowsOf(agent, "vBackupInfo", "id,eid,storage_eid,time,size,type,description,name,hostname");
}

/// A central agent, with a way to it on which things get lost, and the settings of one that sends there.
class ForwardTest : public testing::Test {
protected:
    AgentSettings settings(std::vector<std::string> more = {}) const { return settingsOf(token, std::move(more)); }
    AgentSettings settingsOf(const std::string& tokenFile, std::vector<std::string> more = {}) const {
        more.insert(more.end(), {"--forward", "http://127.0.0.1:" + std::to_string(way.port()), "--forward-token",
                                 tokenFile, "--forward-wait", "1"});
        return {.more = std::move(more)};
    }

    /// So many more that fail.
    static void awaitAttempts(const AgentProcess& host, int number) {
        for (int attempt = 0; attempt < number; ++attempt) {
            const std::string before = forwarding(host, "lastFailure");
            awaitThat([&] { return forwarding(host, "lastFailure") != before; });
        }
    }

    TemporaryDirectory folder;
    AgentProcess central{{.more = {"--listen", "http://127.0.0.1:0"}}};
    std::string token = tokenFile(central, "sender", {"--full"}, folder);
    TcpBalancer way{{portOf(central)}};
};

TEST_F(ForwardTest, RecordsOfAllKindsArriveAsTheyAreAndAgainWhenTheyChange) {
    AgentProcess host(settings());
    ctl(host,
        {"sample", "--environments", "40", "--operations", "700", "--events", "600", "--backups", "80", "--seed", "7"});
    store(host, R"({"kind":"environment","eid":")" + std::string(own) +
                    R"(","config":{"name":null,"description":"","hostname":"h","ip":[],"memory":5,"boot_time":7,)"
                    R"("os":{"name":"x","version":null},"more":[[1,"a"],{"b":null}],"1st <&>":"\u0000\u0001"},)"
                    R"("virtual_config":{"ip":["10.0.0.1",""],"memory":"5","os":null}})"
                    "\n"
                    R"({"kind":"environment","eid":")" +
                    std::string(below) + R"(","config":{"ip":null,"memory":"5","boot_time":"2024-05-01 10:00"}})" +
                    "\n" + R"({"kind":"operation","id":"o \" é","time":-1,"eids":[")" + below + R"(",")" + own +
                    R"("],"message":{"a":1,"b":{"c":[]},"a":[true,{"d":"  "}]}})"
                    "\n" +
                    event("twice") + event("twice") + R"({"kind":"event","time":5,"info":{}})" + "\n" +
                    R"({"kind":"backup","id":"b","time":1,"info":{"x":"y"}})" + "\n");
    awaitSent(host);
    EXPECT_EQ(everything(central), everything(host));
    EXPECT_THAT(rowsOf(central, "vEventLog", "source,reporter"), AllOf(HasSubstr("sender"), Not(HasSubstr("null]"))));
    store(host, operation("o \\\" é", 7, below) + environment(below, own));
    awaitSent(host);
    EXPECT_EQ(everything(central), everything(host));
    EXPECT_EQ(rowsOf(central, "vOpLog", "eid,status", "&where=status=7%20and%20op%20is%20null"),
              R"([[")" + std::string(below) + R"(",7]])");
    EXPECT_EQ(forwarding(host, "refused"), "0");
}

TEST_F(ForwardTest, NothingIsDoubledOrLostWhereAnswersAre) {
    AgentProcess host(settings());
    for (int round = 0; round < 5; ++round) {
        way.loseAnswers(2);
        store(host, event("a") + event("a") + event("b " + std::to_string(round)) + operation(std::to_string(round)));
        awaitSent(host);
    }
    EXPECT_EQ(way.lost(), 10U);
    EXPECT_EQ(everything(central), everything(host));
    EXPECT_EQ(jsonAt(HttpClient(central.socketPath()).get("/v1/views/vEventLog/rows?fields=count(id)").body, "rows"),
              "[[15]]");
}

TEST_F(ForwardTest, WhatIsMissingIsCountedOnceHoweverOftenTheRestIsTried) {
    const TestDatabase database;
    AgentSettings lasting = settings();
    lasting.database = database.connectionString();
    const AgentProcess host(lasting);
    store(host, event("sent"));
    awaitSent(host);
    central.stop();
    store(host, event("removed") + event("kept"));
    DirectDatabase(database).run("DELETE FROM qor_event WHERE source = 'removed'");
    awaitAttempts(host, 3);
    EXPECT_EQ(forwarding(host, "missing"), "0") << "nothing is done with yet";
    central.start();
    way.setPort(0, portOf(central));
    awaitSent(host);
    EXPECT_EQ(forwarding(host, "missing"), "1");
    EXPECT_EQ(rowsOf(central, "vEventLog", "source"), R"([["kept"],["sent"]])");
}

// What has been read behind the last record of a full request is read again.
TEST_F(ForwardTest, WhatIsMissingBehindAFullRequestIsCountedOnce) {
    const TestDatabase database;
    AgentSettings lasting = settings();
    lasting.database = database.connectionString();
    const AgentProcess host(lasting);
    central.stop();
    const std::string large(100'000, 'x');
    std::string records = event("removed");
    for (int number = 0; number < 120; ++number)
        records += R"({"kind":"event","time":1,"source":"large","info":{"text":")" + large + "\"}}\n";
    store(host, records + event("removed") + event("kept") + event("removed"));
    DirectDatabase(database).run("DELETE FROM qor_event WHERE source = 'removed'");
    awaitAttempts(host, 2);  // what was read before that is not being sent any more
    central.start();
    way.setPort(0, portOf(central));
    awaitSent(host);
    EXPECT_EQ(forwarding(host, "missing"), "3");
    EXPECT_EQ(forwarding(host, "taken"), "121");
}

TEST_F(ForwardTest, WhatWasSentIsKnownByAnyNumberOfSendersAndAfterStarts) {
    AgentProcess host(settings());
    store(host, event("one"));
    awaitSent(host);
    host.kill();
    host.start();
    store(host, event("two"));
    awaitSent(host);
    EXPECT_EQ(rowsOf(central, "vEventLog", "source"), R"([["one"],["two"]])");
    EXPECT_EQ(forwarding(host, "taken"), "1") << "since the start, from where it was";
    EXPECT_EQ(host.stop(), 0);
    if (testEngine() != ASEngine::SQLite) return;
    // A copy sends all of it again, since its changes have other numbers.
    const std::string copy = (folder / "copy.db").string();
    const CtlResult copied = runCtl({"copy", "--from", host.databasePath().string(), "--to", copy});
    EXPECT_EQ(copied.status, 0) << copied.err;
    AgentSettings other = settings();
    other.database = "Driver=SQLite3;Database=" + copy;
    const AgentProcess again(other);
    awaitSent(again);
    EXPECT_EQ(forwarding(again, "taken"), "2");
    EXPECT_EQ(rowsOf(central, "vEventLog", "source"), R"([["one"],["two"]])");
}

TEST_F(ForwardTest, AMachineWritesAboutItselfAloneAndTheRestGoesOn) {
    const std::string machine = tokenFile(central, "machine", {"--below", own, "--write"}, folder);
    AgentProcess host(settingsOf(machine));
    store(host, environment(own) + event("1") + environment(below, own) + event("2", below) + environment(foreign) +
                    event("3", foreign) + event("4", foreign) + operation("theirs", 0, foreign) + event("5"));
    awaitSent(host);
    EXPECT_EQ(rowsOf(central, "vEventLog", "source,reporter"), R"([["1","machine"],["2","machine"],["5","machine"]])");
    EXPECT_EQ(forwarding(host, "refused"), "4");
    EXPECT_THAT(host.log(), HasSubstr("does not take theirs: the operation \"theirs\" is about the environment"));
    ctl(central, {"identity", "remove", "machine"});
    EXPECT_EQ(rowsOf(central, "vEventLog", "source"), R"([["1"],["2"],["5"]])");
    // Who has been given the right meanwhile sends what was refused after a start.
    ctl(central, {"identity", "add", "machine", "--kind", "token", "--below", own, "--below", foreign, "--write"});
    std::ofstream(machine) << ctl(central, {"token", "create", "machine"});
    EXPECT_EQ(host.stop(), 0);
    host.start();
    awaitThat([&] { return forwarding(host, "refused") == "0"; });
    EXPECT_EQ(everything(central), everything(host));
}

// It leaves as it is by then, at the place of its first change.
TEST_F(ForwardTest, ARecordIsNotSentBeforeTheEnvironmentsThatItIsAboutByNow) {
    const std::string machine = tokenFile(central, "machine", {"--below", own, "--write"}, folder);
    AgentProcess host;
    store(host, environment(own) + operation("early") + event("between"));
    store(host, environment(foreign, own) + environment(below, foreign) + operation("early", 5, below));
    EXPECT_EQ(host.stop(), 0);
    AgentSettings sending = settingsOf(machine);
    sending.database = host.connectionString();
    const AgentProcess again(sending);
    awaitSent(again);
    EXPECT_EQ(forwarding(again, "refused"), "0") << again.log();
    EXPECT_EQ(everything(central), everything(again));
}

TEST_F(ForwardTest, ASenderWhoIsNotLetInTriesAgain) {
    const std::string file = (folder / "later.token").string();
    std::ofstream(file) << "qor_nobody\n";
    const AgentProcess host(settingsOf(file));
    store(host, event("one"));
    awaitThat([&] { return forwarding(host, "failing") == "true"; });
    EXPECT_THAT(forwarding(host, "lastError"), HasSubstr("it answers 401"));
    EXPECT_EQ(forwarding(host, "behind"), "1");
    std::ofstream(file) << ctl(central, {"token", "create", "sender"});
    awaitSent(host);
    EXPECT_EQ(rowsOf(central, "vEventLog", "source"), R"([["one"]])");
    awaitThat([&] { return forwarding(host, "failing") == "false"; });
}

/// A number that an agent tells of itself.
std::int64_t numberOf(const AgentProcess& agent, const std::string& name) {
    const std::string all = HttpClient(agent.socketPath()).get("/metrics").body;
    const std::string begin = "\n" + name + " ";
    return std::stoll(all.substr(all.find(begin) + begin.size()));
}

// Others have all connections of its identity. What the central agent asks for then is longer than the sender's first
// pauses of its own, which are a quarter and half a second at most.
TEST_F(ForwardTest, ASenderWhoIsToldWhenToComeAgainComesNoSoonerAndLosesNothing) {
    constexpr int connections = 4;
    const AgentProcess crowded(
        {.more = {"--listen", "http://127.0.0.1:0", "--user-connections", std::to_string(connections)}});
    const std::string file = tokenFile(crowded, "crowd", {"--full"}, folder);
    std::ifstream stream(file);
    std::string shown;
    std::getline(stream, shown);
    std::list<Follower> others;
    for (int other = 0; other < connections; ++other)
        others.emplace_back(HttpClient(connectTcp("127.0.0.1", portOf(crowded))), "",
                            "Authorization: Bearer " + shown + "\r\n");
    const auto begin = std::chrono::steady_clock::now();
    const AgentProcess host({.more = {"--forward", "http://127.0.0.1:" + std::to_string(portOf(crowded)),
                                      "--forward-token", file, "--forward-wait", "1"}});
    store(host, event("one") + event("two"));
    awaitThat([&] { return numberOf(host, "qor_forward_failures_total") >= 3; });
    // Between the first and the third are two seconds however busy the machine is: only more can pass.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    EXPECT_THAT(forwarding(host, "lastError"),
                AllOf(HasSubstr("it answers 429"), HasSubstr("this user has 4 connections")));
    awaitThat([&] { return forwarding(host, "behind") == "2"; });
    others.clear();
    awaitSent(host);
    EXPECT_EQ(rowsOf(crowded, "vEventLog", "source"), R"([["one"],["two"]])");
    EXPECT_EQ(forwarding(host, "refused"), "0");
}

TEST_F(ForwardTest, WhatWasNotSentIsNotPrunedUntilTheDatabaseIsTooLarge) {
    AgentProcess host(settings());
    store(host, event("sent"));
    awaitSent(host);
    central.stop();
    store(host, event("waits") + operation("waits") + R"({"kind":"backup","id":"waits","time":1})" + "\n");
    const auto prune = [&](const std::string& kind) {
        const HttpAnswer answer = HttpClient(host.socketPath()).post("/v1/prune?what=" + kind + "&before=5000000", "");
        return jsonAt(answer.body, "done");
    };
    EXPECT_EQ(prune("events"), "1");
    EXPECT_EQ(prune("operations") + prune("backups"), "00");
    EXPECT_EQ(rowsOf(host, "vEventLog", "source"), R"([["waits"]])");
    EXPECT_EQ(forwarding(host, "behind"), "3");
    // The way leads to where the agent listens now.
    central.start();
    way.setPort(0, portOf(central));
    awaitSent(host);
    EXPECT_EQ(rowsOf(central, "vEventLog", "source"), R"([["sent"],["waits"]])") << "removals are not sent";
    EXPECT_EQ(prune("events") + prune("operations") + prune("backups"), "111");
    central.stop();
    host.stop();
    AgentSettings small = settings({"--forward-keep", "0"});
    small.database = host.connectionString();
    const AgentProcess full(small);
    store(full, event("lost"));
    EXPECT_EQ(jsonAt(HttpClient(full.socketPath()).post("/v1/prune?what=events&before=5000000", "").body, "done"), "1");
    EXPECT_THAT(full.log(), HasSubstr("1 records of qor_event are removed that were not sent on"));
    // Told while the other agent is away: a line that was read before the record went cannot reach it any more.
    awaitThat([&] { return forwarding(full, "missing") == "1"; });
    central.start();
    way.setPort(0, portOf(central));
    awaitSent(full);
    EXPECT_EQ(forwarding(full, "missing"), "1");
}

// Agents and programs that send nothing themselves remove records of the same database.
TEST_F(ForwardTest, WhatWasNotSentIsKeptWhoeverPrunes) {
    const TestDatabase database;
    AgentSettings lasting = settings();
    lasting.database = database.connectionString();
    AgentProcess host(lasting);
    store(host, event("sent"));
    awaitSent(host);
    central.stop();
    store(host, event("waits"));
    if (testEngine() == ASEngine::PostgreSQL) {
        const AgentProcess other({.database = database.connectionString()});
        EXPECT_EQ(ctl(other, {"prune", "--events", "--before", "2024-01-01"}),
                  "events: 1 removed, 1 wait for being sent to another agent (--unsent removes them)\n"
                  "space: 0 bytes given back\n");
        store(other, event("waits too"));
    }
    host.stop();
    const auto prune = [&](Words more) {
        Words words{"prune",    "--standalone", "--database", database.connectionString(),
                    "--events", "--before",     "2024-01-01"};
        words.insert(words.end(), more.begin(), more.end());
        const CtlResult result = runCtl(words);
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out.substr(0, result.out.find('\n'));
    };
    const bool isServer = testEngine() == ASEngine::PostgreSQL;
    EXPECT_EQ(prune({}), "events: " + std::string(isServer ? "0 removed, 2" : "1 removed, 1") +
                             " wait for being sent to another agent (--unsent removes them)");
    host.start();
    awaitThat([&] { return forwarding(host, "failing") == "true"; });
    store(host, event("later"));
    host.stop();
    // Nobody has sent there for long.
    DirectDatabase(database).run("UPDATE qor_forward_target SET seen = seen - 31 * 86400, behind = seen - 40 * 86400");
    host.start();
    EXPECT_GE(std::stoll(forwarding(host, "behindSeconds")), 40LL * 86400) << "since when is known after a start";
    host.stop();
    EXPECT_THAT(prune({}), HasSubstr("0 removed, ")) << "there is somebody again";
    DirectDatabase(database).run("UPDATE qor_forward_target SET seen = seen - 31 * 86400");
    EXPECT_EQ(prune({}), "events: " + std::string(isServer ? "3" : "2") + " removed");
    host.start();
    store(host, event("unwanted"));
    host.stop();
    EXPECT_EQ(prune({"--unsent"}), "events: 1 removed");
}

TEST_F(ForwardTest, StatusAndNumbersTellHowFarBehindItIs) {
    AgentProcess host(settings());
    store(host, event("sent"));
    awaitSent(host);
    const std::string status = ctl(host, {"status"});
    EXPECT_THAT(status, AllOf(HasSubstr("sends records to"), HasSubstr("http://127.0.0.1:"),
                              HasSubstr("records behind"), HasSubstr("last success"), Not(HasSubstr("last error"))));
    central.stop();
    store(host, event("a") + event("b"));
    awaitThat([&] { return forwarding(host, "failing") == "true"; });
    EXPECT_THAT(ctl(host, {"status", "-o", "csv"}), AllOf(HasSubstr("records behind,2"), HasSubstr("last error,")));
    const std::string numbers = HttpClient(host.socketPath()).get("/metrics").body;
    EXPECT_THAT(numbers, AllOf(HasSubstr("\nqor_forward_behind 2\n"), HasSubstr("\nqor_forward_taken_total 1\n"),
                               HasSubstr("\nqor_forward_refused 0\n"), HasSubstr("\nqor_forward_missing_total 0\n"),
                               HasSubstr("\nqor_forward_forgotten_total 0\n")));
}

TEST_F(ForwardTest, AnAgentThatSendsNothingSaysNothingOfIt) {
    EXPECT_EQ(forwarding(central, "target"), "");
    EXPECT_THAT(HttpClient(central.socketPath()).get("/metrics").body, Not(HasSubstr("qor_forward")));
}

TEST_F(ForwardTest, ItStopsAtOnceWhereNobodyAnswers) {
    const int silent = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(::bind(silent, reinterpret_cast<const sockaddr*>(&address), size), 0);
    ASSERT_EQ(::listen(silent, 8), 0);
    ASSERT_EQ(::getsockname(silent, reinterpret_cast<sockaddr*>(&address), &size), 0);
    way.setPort(0, ntohs(address.sin_port));
    AgentProcess host(settings());
    store(host, event("one"));
    awaitThat([&] { return way.served() != std::vector<std::size_t>{0}; });
    EXPECT_EQ(host.stop(), 0);
    ::close(silent);
}

TEST(ForwardOverTls, BelievesTheAuthorityThatItWasTold) {
    const TestCertificates certificates;
    const TemporaryDirectory folder;
    const AgentProcess central({.more = {"--listen", "https://127.0.0.1:0", "--tls-certificate",
                                         certificates.certificate("server"), "--tls-key", certificates.key("server")}});
    const std::string token = tokenFile(central, "sender", {"--full"}, folder);
    const auto settings = [&](const std::string& authority) {
        return AgentSettings{.more = {"--forward", "https://127.0.0.1:" + std::to_string(portOf(central, "https")),
                                      "--forward-token", token, "--forward-ca", certificates.certificate(authority),
                                      "--forward-wait", "1"}};
    };
    const AgentProcess wrong(settings("other"));
    store(wrong, event("wrong"));
    awaitThat([&] { return forwarding(wrong, "failing") == "true"; });
    EXPECT_THAT(forwarding(wrong, "lastError"), HasSubstr("certificate verify failed"));
    const AgentProcess right(settings("authority"));
    store(right, event("right"));
    awaitSent(right);
    EXPECT_EQ(rowsOf(central, "vEventLog", "source"), R"([["right"]])");
}

TEST(ForwardOptions, ThatDoNotFitAreRefused) {
    const TemporaryDirectory folder;
    const auto refusal = [&](std::vector<std::string> more) {
        std::vector<std::string> command{(programDirectory() / "qor-agent").string(), "--socket",
                                         (folder / "agent.sock").string(), "--database",
                                         (folder / "agent.db").string()};
        command.insert(command.end(), more.begin(), more.end());
        const auto [status, output] = runProgram(command);
        EXPECT_NE(status, 0);
        return output;
    };
    EXPECT_THAT(refusal({"--forward", "http://192.0.2.1:7481"}), HasSubstr("name https://192.0.2.1:7481"));
    EXPECT_THAT(refusal({"--forward", "unix:/x"}), HasSubstr("an agent is reached at https://HOST:PORT"));
    EXPECT_THAT(refusal({"--forward", "nowhere"}), HasSubstr("is no address of an agent"));
    EXPECT_THAT(refusal({"--forward", "http://127.0.0.1:1", "--read-only"}), HasSubstr("--read-only"));
    EXPECT_THAT(refusal({"--forward", "http://127.0.0.1:1", "--forward-ca", "x"}), HasSubstr("--forward-ca is for"));
    EXPECT_THAT(refusal({"--forward", "http://127.0.0.1:1", "--forward-token", (folder / "none").string()}),
                HasSubstr("--forward-token: "));
    EXPECT_THAT(refusal({"--forward-token", "x"}), HasSubstr("--forward"));
}

}  // namespace
}  // namespace QOR::test
