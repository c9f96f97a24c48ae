#include "ingest/collectors/ContainerCollector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "QORCommon/QORTime.h"
#include "ingest/ContainerTest.h"
#include "ingest/QORMachine.h"
#include "support/ChildProcess.h"
#include "support/HostDatabase.h"
#include "support/UnixHttpServer.h"

namespace QOR {
namespace {

using test::queryRows;
using test::queryText;
using test::Row;
using test::UnixHttpServer;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string web(64, 'a');
const std::string job(64, 'b');

/// An engine as its clients see it: what it has is the test's to say. Texts are those that engines of that version
/// send.
class Engine {
public:
    explicit Engine(const std::filesystem::path& socket, std::string component = "Engine")
        : m_component(std::move(component)), m_server(socket.string(), [this](const std::string& path) {
              const std::lock_guard lock(m_mutex);
              return answer(path);
          }) {}

    struct Container {
        std::string id;
        std::string state = "running";
        std::string name = "web";
        std::string more{};  ///< members of what is told of it alone
    };
    void set(std::vector<Container> containers) {
        const std::lock_guard lock(m_mutex);
        m_containers = std::move(containers);
    }
    /// A line of /events. \param ago seconds
    void happens(const std::string& type, const std::string& action, const std::string& id, std::int64_t ago,
                 const std::string& attributes = R"("name":"web","image":"nginx:1.25")") {
        const std::lock_guard lock(m_mutex);
        const std::int64_t time = currentTime() - ago;
        m_events += R"({"Type":")" + type + R"(","Action":")" + action + R"(","Actor":{"ID":")" + id +
                    R"(","Attributes":{)" + attributes + R"(}},"time":)" + std::to_string(time) + R"(,"timeNano":)" +
                    std::to_string(time) + "123456" + std::to_string(100 + m_number++) + "}\n";
    }
    void setAnswer(std::string path, std::string answer) {
        const std::lock_guard lock(m_mutex);
        m_special = {std::move(path), std::move(answer)};
    }
    std::vector<std::string> asked() { return m_server.asked(); }

private:
    std::string answer(const std::string& path) const {
        if (!m_special.first.empty() && path.find(m_special.first) != std::string::npos) return m_special.second;
        if (path == "/version")
            return UnixHttpServer::ok(R"({"Components":[{"Name":")" + m_component +
                                      R"(","Version":"24.0.5"}],"Version":"24.0.5","ApiVersion":"1.43",)"
                                      R"("MinAPIVersion":"1.12"})");
        if (path == "/v1.41/containers/json?all=true") return UnixHttpServer::ok(list());
        if (path.starts_with("/v1.41/events?since=")) return UnixHttpServer::ok(m_events);
        for (const Container& one : m_containers) {
            if (path == "/v1.41/containers/" + one.id + "/json") return UnixHttpServer::ok(details(one));
        }
        return UnixHttpServer::status("404 Not Found");
    }
    std::string list() const {
        std::string text;
        for (const Container& one : m_containers)
            text += (text.empty() ? "" : ",") + (R"({"Id":")" + one.id + R"(","Names":["/)" + one.name) +
                    R"("],"Image":"nginx:1.25","ImageID":"sha256:0123","Command":"sh -c secret","Created":1700000000,)"
                    R"("State":")" +
                    one.state +
                    R"(","Status":"Up 2 hours","Labels":{"hidden":"secret"},"NetworkSettings":{"Networks":)"
                    R"({"bridge":{"IPAddress":"172.17.0.2","GlobalIPv6Address":""}}}})";
        return "[" + text + "]";
    }
    static std::string details(const Container& one) {
        return R"({"Id":")" + one.id + R"(","Name":"/)" + one.name +
               R"(","Platform":"linux","RestartCount":2,"Args":["secret"],"State":{"Status":")" + one.state +
               R"(","OOMKilled":false,"ExitCode":137,"StartedAt":"2026-01-02T03:04:05.678901234Z",)"
               R"("FinishedAt":"2026-01-02T03:04:09.1Z"},"HostConfig":{"Memory":536870912,"NanoCpus":1500000000,)"
               R"("RestartPolicy":{"Name":"always"}},"Config":{"Hostname":"web1","Env":["PASSWORD=secret"],)"
               R"("Labels":{"com.docker.compose.project":"shop","hidden":"secret"}})" +
               one.more + "}";
    }

    const std::string m_component;
    std::mutex m_mutex;
    std::vector<Container> m_containers;            // guarded by m_mutex
    std::string m_events;                           // guarded by m_mutex
    std::pair<std::string, std::string> m_special;  // guarded by m_mutex
    int m_number = 0;                               // guarded by m_mutex
    UnixHttpServer m_server;
};

class ContainerCollectorTest : public test::ContainerTest {
protected:
    ContainerCollectorTest() : ContainerTest(ContainerCollector::Engine::Docker) {
        std::filesystem::create_directories(m_root / "run/podman");
    }

    std::filesystem::path socket() const { return m_root / "run/docker.sock"; }
    /// What happens from now on is news to a run that begins two seconds later.
    static void passTime() {
        const std::int64_t begin = currentTime();
        while (currentTime() < begin + 3)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
};

TEST_F(ContainerCollectorTest, WithoutASocketOrWithOneThatNobodyListensAtThereIsNoSuchSource) {
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None);
    { const Engine engine(m_root / "gone.sock"); }
    std::filesystem::create_directory(socket());
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None);
}

TEST_F(ContainerCollectorTest, ContainersAreEnvironmentsBelowTheMachineWithoutTheirSecrets) {
    Engine engine(socket());
    engine.set({{web}, {job, "exited", "job"}});
    engine.happens("container", "start", web, 100);
    collectDone();
    EXPECT_EQ(lives(), (std::vector<Row>{{"job", "3", "0"}, {"web", "6", "0"}}));
    EXPECT_EQ(queryRows("SELECT parent_eid, name, hostname, type, ip, memory, boot_time, os_platform FROM "
                        "\"vEnvironment\" WHERE title = 'web'",
                        8),
              (std::vector<Row>{{describeMachine(m_root.path()).eid.toString(), "web", "web1", "container",
                                 "172.17.0.2", "512", "2026-01-02 03:04:05", "linux"}}));
    const std::string config = queryText("SELECT config FROM \"vEnvironment\" WHERE title = 'web'");
    EXPECT_THAT(
        config,
        AllOf(HasSubstr("<engine>docker</engine><image>nginx:1.25</image>"), HasSubstr("<cpus>1.5</cpus>"),
              HasSubstr("<restart_policy>always</restart_policy><restarts>2</restarts>"),
              HasSubstr("<name>com.docker.compose.project</name><value>shop</value>"), Not(HasSubstr("secret"))));
    EXPECT_THAT(operations(), IsEmpty()) << "what was before is no news";
}

TEST_F(ContainerCollectorTest, AContainerThatIsAsItWasIsNotWrittenAgain) {
    Engine engine(socket());
    engine.set({{web}});
    collectDone();
    EXPECT_EQ(collectDone().stored.accepted(), 0U);
    ContainerCollector later(ContainerCollector::Engine::Docker);  // as of an agent that was started again
    EXPECT_EQ(test::runOnce(later, m_root.path()).stored.accepted(), 0U);
}

TEST_F(ContainerCollectorTest, WhatHappensToContainersAndImagesIsToldOnce) {
    Engine engine(socket());
    engine.set({{web}});
    collectDone();
    passTime();
    engine.happens("container", "kill", web, 2);
    engine.happens("container", "die", web, 2, R"("name":"web","image":"nginx:1.25","exitCode":"137")");
    engine.happens("container", "start", web, 2);
    engine.happens("container", "restart", web, 2);
    engine.happens("container", "oom", web, 2);
    engine.happens("container", "exec_create: sh -c secret", web, 2);
    engine.happens("image", "pull", "registry:5000/shop/nginx:1.26", 2, R"("name":"registry:5000/shop/nginx")");
    engine.happens("network", "connect", "net", 2);
    collectDone();
    const std::vector<Row> all{{"stop", "137"}, {"start", "0"}, {"restart", "0"}, {"pull", "0"}};
    EXPECT_EQ(operations(), all);
    EXPECT_EQ(queryRows("SELECT category, source FROM \"vEventLog\" ORDER BY category", 2),
              (std::vector<Row>{{"env_status", "docker"},
                                {"env_status", "docker"},
                                {"env_status", "docker"},
                                {"resource_alert", "docker"}}));
    EXPECT_EQ(queryText("SELECT package FROM \"vOpLog\" WHERE op = 'pull'") + " " +
                  queryText("SELECT version FROM \"vOpLog\" WHERE op = 'pull'"),
              "registry:5000/shop/nginx 1.26");
    EXPECT_THAT(queryText("SELECT message FROM \"vOpLog\" WHERE op = 'stop'"),
                HasSubstr("<event>stopped</event><old_state>6</old_state><new_state>3</new_state>"
                          "<exit_code>137</exit_code>"));
    collectDone();
    EXPECT_EQ(operations(), all);
}

TEST_F(ContainerCollectorTest, AChangeOfWhichNoEventToldIsToldByTheSecondRunThatSeesIt) {
    Engine engine(socket());
    engine.set({{web}});
    collectDone();
    engine.set({{web, "exited"}});
    collectDone();
    EXPECT_EQ(lives(), (std::vector<Row>{{"web", "3", "0"}}));
    EXPECT_THAT(operations(), IsEmpty()) << "its event may come yet";
    collectDone();
    EXPECT_EQ(operations(), (std::vector<Row>{{"stop", "137"}}));
    EXPECT_EQ(queryText("SELECT time FROM \"vOpLog\""), "2026-01-02 03:04:09");
    engine.set({});
    collectDone();
    EXPECT_EQ(lives(), (std::vector<Row>{{"web", "1", "0"}}));
    collectDone();
    collectDone();
    EXPECT_EQ(operations(), (std::vector<Row>{{"stop", "137"}, {"remove", "0"}}));
}

TEST_F(ContainerCollectorTest, AContainerThatCameAndWentBetweenTwoRunsIsToldByItsEventsAlone) {
    Engine engine(socket());
    collectDone();
    passTime();
    for (const std::string action : {"create", "start", "die", "destroy"})
        engine.happens("container", action, job, 2, R"("name":"job","image":"tool","exitCode":"3")");
    collectDone();
    collectDone();
    collectDone();
    EXPECT_EQ(operations(), (std::vector<Row>{{"create", "0"}, {"start", "0"}, {"stop", "3"}, {"remove", "0"}}));
    EXPECT_THAT(lives(), IsEmpty());
}

TEST_F(ContainerCollectorTest, AFloodIsToldAsOneEvent) {
    ContainerCollector bounded(ContainerCollector::Engine::Docker, {.changes = 5, .ofOne = 3});
    Engine engine(socket());
    engine.set({{web}});
    test::runOnce(bounded, m_root.path());
    passTime();
    for (int number = 0; number < 20; ++number)
        engine.happens("container", "start", web, 2);
    EXPECT_EQ(test::runOnce(bounded, m_root.path()).outcome, QORCollectOutcome::Done);
    EXPECT_EQ(operations().size(), 3U);
    EXPECT_THAT(queryText("SELECT info FROM \"vEventLog\" WHERE info LIKE '%left_out%'"),
                AllOf(HasSubstr("<left_out>17</left_out>"), HasSubstr("<most_of>web</most_of>")));
}

TEST_F(ContainerCollectorTest, EventsThatAreTooManyForOneAnswerAreAskedForInParts) {
    Engine engine(socket());
    engine.set({{web}});
    collectDone();
    passTime();
    engine.setAnswer("/events", UnixHttpServer::ok(std::string(std::size_t{17} << 20, ' ')));
    const QORCollectResult result = collect();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Failed);
    EXPECT_THAT(result.text, HasSubstr("too many"));
    engine.setAnswer("", "");
    collectDone();
}

TEST_F(ContainerCollectorTest, AnswersThatMakeNoSenseFailAndLeaveWhatWasToldAsItIs) {
    Engine engine(socket());
    engine.set({{web}});
    collectDone();
    const std::string deep(200, '[');
    for (const auto& [path, answer] : std::vector<std::pair<std::string, std::string>>{
             {"/version", UnixHttpServer::ok("{}")},
             {"/version", UnixHttpServer::ok(R"({"ApiVersion":"2.0"})")},
             {"/version", "nonsense\r\n\r\n"},
             {"/version", UnixHttpServer::status("302 Found")},
             {"/containers/json", UnixHttpServer::ok(deep)},
             {"/containers/json", UnixHttpServer::ok(R"({"message":"no"})")},
             {"/containers/json", UnixHttpServer::ok("[{\"Id\":\"\xff\"}]")},
             {"/containers/json", UnixHttpServer::status("500 Oops")},
             {"/containers/json", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\nConnection: close\r\n\r\n["}}) {
        engine.setAnswer(path, answer);
        EXPECT_EQ(collect().outcome, QORCollectOutcome::Failed) << path << " " << answer;
        EXPECT_EQ(lives(), (std::vector<Row>{{"web", "6", "0"}}));
    }
    engine.setAnswer("", "");
    EXPECT_EQ(collectDone().stored.accepted(), 0U);
}

TEST_F(ContainerCollectorTest, OneContainerThatMakesNoSenseKeepsNoOthersFromBeingTold) {
    Engine engine(socket());
    engine.set({{"../../etc", "running", "evil"}, {web}, {job, "exited", "job"}});
    engine.setAnswer("/containers/" + job + "/json", UnixHttpServer::ok("{"));
    const QORCollectResult result = collect();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Failed);
    EXPECT_EQ(result.malformed, 1U);
    EXPECT_THAT(result.text, HasSubstr("the container job: "));
    EXPECT_EQ(lives(), (std::vector<Row>{{"web", "6", "0"}}));
}

TEST_F(ContainerCollectorTest, TextsInWhateverBytesAreStoredSoThatTheyCanBeRead) {
    Engine engine(socket());
    engine.set({{web, "running", R"(\u0001\u001b[2J)"}});
    collectDone();
    EXPECT_EQ(queryText("SELECT title FROM \"vEnvironment\""), R"(\x01\x1b[2J)");
}

TEST_F(ContainerCollectorTest, AnEngineThatSaysNothingFailsAndAStopIsHeard) {
    Engine engine(socket());
    engine.setAnswer("/version", "");
    std::stop_source stop;
    std::thread stopping([&] {
        while (engine.asked().empty())
            std::this_thread::yield();
        stop.request_stop();
    });
    const QORCollectResult result = runCollector(m_collector, {.root = m_root.path(), .ingest = {}}, stop.get_token());
    stopping.join();
    EXPECT_EQ(result.stored.accepted(), 0U);
}

TEST_F(ContainerCollectorTest, ThePodmanBehindDockersSocketIsLeftToItsOwnCollector) {
    Engine engine(socket(), "Podman Engine");
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None);
    Engine itself(m_root / "run/podman/podman.sock", "Podman Engine");
    itself.set({{web}});
    ContainerCollector podman(ContainerCollector::Engine::Podman);
    EXPECT_EQ(test::runOnce(podman, m_root.path()).outcome, QORCollectOutcome::Done);
    EXPECT_THAT(queryText("SELECT config FROM \"vEnvironment\""), HasSubstr("<engine>podman</engine>"));
}

TEST_F(ContainerCollectorTest, ImagesAreToldByTheirNamesAndWhereTheyHaveNoneByTheirDigests) {
    const std::string digest = "sha256:" + std::string(64, 'c');
    const std::string bare(64, 'd');
    Engine engine(socket());
    collectDone();
    passTime();
    engine.happens("image", "pull", "nginx:1.25", 2, R"("name":"nginx")");
    engine.happens("image", "pull", "host:5000/nginx", 2, R"("name":"host:5000/nginx")");
    engine.happens("image", "pull", "nginx@" + digest, 2, R"("name":"nginx")");
    engine.happens("image", "tag", digest, 2, R"("name":"shop/web:2")");
    engine.happens("image", "untag", digest, 2, R"("name":")" + digest + '"');
    engine.happens("image", "remove", bare, 2, R"("name":"")");
    collectDone();
    EXPECT_EQ(queryRows("SELECT op, package, version FROM \"vOpLog\" ORDER BY package, op, version", 3),
              (std::vector<Row>{{"remove", bare, "<null>"},
                                {"pull", "host:5000/nginx", "<null>"},
                                {"pull", "nginx", "1.25"},
                                {"pull", "nginx", digest},
                                {"untag", digest, "<null>"},
                                {"tag", "shop/web", "2"}}));
}

/// An engine as it is, with a store of its own.
class Podman {
public:
    explicit Podman(const std::filesystem::path& folder) : m_folder(folder) {
        // Locks of its own: those in shared memory are one for all stores of the machine.
        std::ofstream(folder / "containers.conf") << "[engine]\nlock_type = \"file\"\n";
        m_command = {"/usr/bin/env",
                     "CONTAINERS_CONF=" + (folder / "containers.conf").string(),
                     "/usr/bin/podman",
                     "--root",
                     (folder / "root").string(),
                     "--runroot",
                     (folder / "run").string(),
                     "--tmpdir",
                     (folder / "tmp").string(),
                     "--storage-driver",
                     "vfs",
                     "--cgroup-manager",
                     "cgroupfs",
                     "--events-backend",
                     "file"};
        if (std::filesystem::exists("/usr/sbin/runc"))
            m_command.insert(m_command.end(), {"--runtime", "/usr/sbin/runc"});
    }
    std::vector<std::string> command(const std::vector<std::string>& more) const {
        std::vector<std::string> command = m_command;
        command.insert(command.end(), more.begin(), more.end());
        return command;
    }
    /// Its status and what it said.
    std::pair<int, std::string> run(const std::vector<std::string>& more) const {
        test::ChildProcess child(command(more));
        const int status = child.wait();
        return {status, child.output()};
    }
    /// An image of one program.
    std::pair<int, std::string> import(const std::string& image) const {
        const std::string archive = (m_folder / "image.tar").string();
        test::ChildProcess tar({"/bin/tar", "-C", "/", "-cf", archive, "bin/busybox"});
        if (tar.wait() != 0) return {1, tar.output()};
        return run({"import", archive, image});
    }

private:
    const std::filesystem::path m_folder;
    std::vector<std::string> m_command;
};

TEST_F(ContainerCollectorTest, ARealPodmanIsUnderstood) {
    if (::geteuid() != 0 || !std::filesystem::exists("/usr/bin/podman") || !std::filesystem::exists("/bin/busybox"))
        GTEST_SKIP() << "there is no Podman for root here";
    std::filesystem::create_directory(m_root / "store");
    const Podman podman(m_root / "store");
    if (const auto [status, output] = podman.import("localhost/tiny:1"); status != 0)
        GTEST_SKIP() << "Podman does not work here: " << output;
    passTime();
    const std::string address = "unix://" + (m_root / "run/podman/podman.sock").string();
    test::ChildProcess service(podman.command({"system", "service", "--time", "0", address}));
    ContainerCollector collector(ContainerCollector::Engine::Podman);
    const auto collectNow = [&] { return test::runOnce(collector, m_root.path()); };
    QORCollectResult result;
    for (int tries = 0; tries < 10'000 && result.outcome == QORCollectOutcome::None; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        result = collectNow();
    }
    EXPECT_EQ(result.outcome, QORCollectOutcome::Done) << result.text;
    EXPECT_THAT(operations(), IsEmpty()) << "what was before the first run is no news";
    passTime();
    const auto [created, id] =
        podman.run({"create", "--name", "one", "--network", "none", "--memory", "64m", "--ulimit", "nofile=1024:1024",
                    "--ulimit", "nproc=1000:1000", "localhost/tiny:1", "/bin/busybox", "true"});
    if (created != 0) GTEST_SKIP() << "Podman does not work here: " << id;
    // Where processes may not be put into control groups, containers can be made but not started.
    const bool hasRun = podman.run({"start", "--attach", "one"}).first == 0;
    passTime();
    result = collectNow();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Done) << result.text;
    EXPECT_EQ(lives(), (std::vector<Row>{{"one", "3", "0"}}));
    EXPECT_THAT(operations(), Contains(Row{"create", "0"}));
    if (hasRun) {
        EXPECT_THAT(operations(), Contains(Row{"start", "0"}));
        EXPECT_THAT(operations(), Contains(Row{"stop", "0"}));
    }
    EXPECT_THAT(queryText("SELECT config FROM \"vEnvironment\""),
                AllOf(HasSubstr("<memory>64</memory>"), HasSubstr("<image>localhost/tiny:1</image>")));
    passTime();
    EXPECT_EQ(podman.run({"rm", "one"}).first, 0);
    EXPECT_EQ(podman.run({"rmi", "localhost/tiny:1"}).first, 0);
    passTime();
    result = collectNow();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Done) << result.text;
    EXPECT_EQ(lives(), (std::vector<Row>{{"one", "1", "0"}}));
    EXPECT_THAT(operations(), Contains(Row{"remove", "0"}));
    service.signal(SIGTERM);
    service.wait();
}

}  // namespace
}  // namespace QOR
