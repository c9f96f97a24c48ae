// Three machines send to one agent whose records lie with three servers, and anything is killed at any time: in the end
// all is there once, and everybody sees his own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <memory>
#include <random>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "forward/ForwardAgents.h"
#include "support/ShardedPostgres.h"
#include "support/SqliteFile.h"
#include "support/TcpBalancer.h"

namespace QOR::test {
namespace {

using Rows = std::vector<std::vector<std::string>>;
using Random = std::mt19937;

constexpr unsigned machines = 3;
constexpr unsigned servers = 3;

std::string eidOf(unsigned machine, unsigned number) {
    const std::string digit = std::to_string(machine + 1);
    std::string tail = std::to_string(number);
    tail.insert(0, 12 - tail.size(), '0');
    return std::string(8, digit[0]) + "-0000-4000-8000-" + tail;
}

/// What one machine stores: it is environment 0, the others are below it. The same records for the same seed.
class Source {
public:
    Source(unsigned machine, unsigned seed) : m_machine(machine), m_random(seed + machine) {}

    std::string batch() {
        if (m_batches++ == 0) return environment(0);
        std::string lines;
        for (unsigned count = 1 + below(40); count > 0; --count)
            lines += record();
        return lines;
    }

private:
    unsigned below(unsigned end) { return static_cast<unsigned>(m_random() % end); }
    std::string eid() { return eidOf(m_machine, below(m_environments)); }
    std::string environment(unsigned number) {
        return R"({"kind":"environment","eid":")" + eidOf(m_machine, number) + '"' +
               (number == 0 ? "" : R"(,"parent_eid":")" + eidOf(m_machine, 0) + '"') + R"(,"state":)" +
               std::to_string(below(9)) + R"(,"config":{"hostname":"h)" + std::to_string(number) + R"(","ip":["10.0.)" +
               std::to_string(m_machine) + "." + std::to_string(number % 250) + R"("],"memory":)" +
               std::to_string(below(5000)) + "}}\n";
    }
    std::string record() {
        const std::string time = std::to_string(1700000000 + below(100000));
        const std::string name = std::to_string(m_machine) + "-" + std::to_string(below(400));
        switch (below(10)) {
            case 0:
                return environment(below(3) == 0 ? m_environments++ : below(m_environments));
            case 1:
                return R"({"kind":"backup","id":"b)" + name + R"(","time":)" + time + R"(,"eid":")" + eid() +
                       R"(","size":)" + std::to_string(below(1000000)) + R"(,"info":{"veid":")" + name + "\"}}\n";
            case 2:
            case 3:
            case 4:
                return R"({"kind":"operation","id":"o)" + name + R"(","time":)" + time + R"(,"status":)" +
                       std::to_string(below(5)) + R"(,"eid":")" + eid() + R"(","eids":[")" + eid() + R"(",")" + eid() +
                       R"("],"message":{"package":{"name":"p)" + name + "\"}}}\n";
            default:
                return R"({"kind":"event","time":)" + time + R"(,"eid":")" + eid() + R"(","category":"c)" +
                       std::to_string(below(4)) + R"(","info":{"n":[1,2]}})" + "\n";
        }
    }

    unsigned m_machine;
    Random m_random;
    unsigned m_batches = 0;
    unsigned m_environments = 1;
};

/// Sends a batch until the machine's agent has said that it has stored it.
void bring(const AgentProcess& agent, const std::string& lines, const std::string& key) {
    for (;;) {
        try {
            const HttpAnswer answer = HttpClient(agent.socketPath())
                                          .request("POST", "/v1/records", lines, "Idempotency-Key: " + key + "\r\n");
            if (answer.status == 200 && answer.body.find("\"failure\"") == std::string::npos) return;
        } catch (const std::runtime_error&) {  // it was killed
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

/// The same for both engines, in an order of its own.
struct Kind {
    const char* table;
    const char* columns;
};
constexpr std::array kinds{
    Kind{"qor_environment", "eid, parent_eid, title, state, transition, hostname, ip, memory, config"},
    Kind{"qor_operation", "id, parent_id, op, status, time, eid, package, version, message"},
    Kind{"qor_event", "time, eid, source, category, info"},
    Kind{"qor_backup", "id, eid, time, size, type, name"},
};
constexpr const char* touched =
    "SELECT o.id, e.eid, e.position FROM qor_operation_environment e JOIN qor_operation o ON o.seq = e.operation";

void add(Rows& to, Rows more) {
    to.insert(to.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}
Rows sorted(Rows rows) {
    std::sort(rows.begin(), rows.end());
    return rows;
}

class ForwardKilled : public testing::Test {
protected:
    ForwardKilled() {
        // What a server has acknowledged shall be there after a crash.
        for (unsigned number = 1; number <= servers; ++number) {
            {
                PostgresConnection server(places.conninfo(number));
                server.run("ALTER SYSTEM SET synchronous_commit = on");
                server.run("ALTER SYSTEM SET wal_level = replica");
                server.run("CHECKPOINT");
            }
            ShardedPostgres::server(number).crash();
            ShardedPostgres::server(number).start();
        }
        central = std::make_unique<AgentProcess>(
            AgentSettings{.database = places.connectionString(), .more = {"--listen", "http://127.0.0.1:0"}});
        way = std::make_unique<TcpBalancer>(std::vector<int>{portOf(*central)});
        for (unsigned machine = 0; machine < machines; ++machine) {
            const std::string name = "machine-" + std::to_string(machine);
            const std::string token = tokenFile(*central, name, {"--below", eidOf(machine, 0), "--write"}, folder);
            hosts.push_back(std::make_unique<AgentProcess>(
                AgentSettings{.database = "Driver=SQLite3;Database=" + (folder / (name + ".db")).string(),
                              .more = {"--forward", "http://127.0.0.1:" + std::to_string(way->port()),
                                       "--forward-token", token, "--forward-wait", "1"}}));
        }
    }

    ShardedPostgres places{servers};
    TemporaryDirectory folder;
    std::unique_ptr<AgentProcess> central;
    std::unique_ptr<TcpBalancer> way;
    std::vector<std::unique_ptr<AgentProcess>> hosts;

    /// One of the machines, the agent in the middle, or a server, which comes back a little later; a server may hang
    /// instead.
    void killOne(Random& random) {
        const auto victim = static_cast<unsigned>(random() % (machines + 1 + servers));
        const auto pause = std::chrono::milliseconds(random() % 400);
        if (victim > machines) {
            PostgresServer& server = ShardedPostgres::server(victim - machines);
            const bool hangs = random() % 2 == 0;
            hangs ? server.suspend() : server.crash();
            std::this_thread::sleep_for(pause);
            hangs ? server.resume() : server.start();
            return;
        }
        AgentProcess& agent = victim == machines ? *central : *hosts[victim];
        agent.kill();
        std::this_thread::sleep_for(pause);
        agent.start();
        if (victim == machines) way->setPort(0, portOf(agent));
    }

    Rows ofMachines(const std::string& sql) const {
        Rows rows;
        for (unsigned machine = 0; machine < machines; ++machine)
            add(rows, ofMachine(machine, sql));
        return sorted(std::move(rows));
    }
    Rows ofMachine(unsigned machine, const std::string& sql) const {
        return SqliteFile(folder / ("machine-" + std::to_string(machine) + ".db")).rows(sql);
    }
    Rows ofServers(const std::string& sql) const {
        Rows rows;
        for (unsigned number = 1; number <= servers; ++number)
            add(rows, PostgresConnection(places.conninfo(number)).rows(sql));
        return sorted(std::move(rows));
    }

    /// A record whose environment was on another server before is there as well until that one has been told, which
    /// waits while it is away.
    void awaitRemovals() const {
        for (unsigned number = 1; number <= servers; ++number) {
            PostgresConnection server(places.conninfo(number));
            while (server.rows("SELECT count(*) FROM qor_removal").at(0).at(0) != "0")
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    void expectUnion() const {
        for (const Kind& kind : kinds) {
            const std::string sql = "SELECT " + std::string(kind.columns) + " FROM " + kind.table;
            const bool atHome = std::string_view(kind.table) == "qor_environment";
            const Rows found = atHome ? sorted(PostgresConnection(places.conninfo()).rows(sql)) : ofServers(sql);
            const Rows expected = ofMachines(sql);
            EXPECT_EQ(found.size(), expected.size()) << kind.table;
            EXPECT_TRUE(found == expected) << kind.table;
        }
        EXPECT_TRUE(ofServers(touched) == ofMachines(touched));
    }

    /// Who may see one machine sees what that one has, and that it has brought it.
    void expectOwn(unsigned machine) const {
        const std::string name = "machine-" + std::to_string(machine);
        const std::array<std::pair<const char*, const char*>, 4> views{{{"vEnvironment", "qor_environment"},
                                                                        {"vOpLog", "qor_operation"},
                                                                        {"vEventLog", "qor_event"},
                                                                        {"vBackupInfo", "qor_backup"}}};
        for (const auto& [view, table] : views) {
            const std::string count = ofMachine(machine, "SELECT count(*) FROM " + std::string(table)).at(0).at(0);
            for (const std::string& where : {std::string(), "&where=reporter%3D'" + name + "'"}) {
                const HttpAnswer seen =
                    HttpClient(central->socketPath())
                        .request("GET", "/v1/views/" + std::string(view) + "/rows?limit=1&count=exact" + where, {},
                                 "X-Qor-As: " + name + "\r\n");
                EXPECT_EQ(jsonAt(seen.body, "page/total"), count) << view << seen.body;
            }
        }
    }
};

/// Asks both operators for pages meanwhile, as one machine that sees its own: each is right, or an error that says why.
class Asker {
public:
    explicit Asker(const AgentProcess& agent) : m_agent(agent) {}

    void ask(const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            ask("/v1/views/vOpLog/rows?fields=id,reporter&limit=20&sort=-time");
            ask("/v1/rows?fields=pager.op_log.id&limit=20");
        }
    }
    unsigned answered() const { return m_answered; }

private:
    void ask(const std::string& page) {
        try {
            const HttpAnswer answer =
                HttpClient(m_agent.socketPath()).request("GET", page, {}, "X-Qor-As: machine-0\r\n");
            if (answer.status != 200) {
                EXPECT_FALSE(jsonAt(answer.body, "detail").empty()) << answer.status << answer.body;
                return;
            }
            ++m_answered;
            EXPECT_FALSE(jsonAt(answer.body, "page/returned").empty()) << answer.body;
            for (const char* other : {"machine-1", "machine-2"})
                EXPECT_EQ(answer.body.find(other), std::string::npos) << answer.body;
        } catch (const std::runtime_error&) {  // it was killed
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    const AgentProcess& m_agent;
    unsigned m_answered = 0;
};

unsigned numberIn(const char* variable, unsigned otherwise) {
    const char* const text = std::getenv(variable);
    return text == nullptr || *text == '\0' ? otherwise : static_cast<unsigned>(std::stoul(text));
}

/// A few kills, the same each time; with QOR_TEST_KILL_SECONDS in the environment other ones, as many as there is time
/// for.
TEST_F(ForwardKilled, InTheEndAllIsThereOnceAndEverybodySeesHisOwn) {
    const unsigned seconds = numberIn("QOR_TEST_KILL_SECONDS", 0);
    const unsigned seed = numberIn("QOR_TEST_SEED", seconds == 0 ? 1 : std::random_device{}());
    std::cout << "QOR_TEST_SEED=" << seed << std::endl;
    constexpr unsigned fewKills = 5;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    {
        Asker asker(*central);
        std::jthread asking([&asker](const std::stop_token& stop) { asker.ask(stop); });
        std::vector<std::jthread> sources;
        for (unsigned machine = 0; machine < machines; ++machine) {
            sources.emplace_back([&, machine](const std::stop_token& stop) {
                Source source(machine, seed);
                constexpr int least = 20;
                for (int batch = 0; batch < least || !stop.stop_requested(); ++batch) {
                    bring(*hosts[machine], source.batch(), std::to_string(batch));
                    std::this_thread::sleep_for(std::chrono::milliseconds(30));
                }
            });
        }
        Random random(seed);
        for (unsigned kill = 0; seconds == 0 ? kill < fewKills : std::chrono::steady_clock::now() < until; ++kill) {
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 500));
            killOne(random);
        }
        for (std::jthread& source : sources)
            source.request_stop();
        sources.clear();
        asking = {};
        EXPECT_GT(asker.answered(), 0U);
    }
    for (const auto& host : hosts) {
        awaitSent(*host);
        EXPECT_EQ(forwarding(*host, "refused"), "0") << host->log();
        EXPECT_EQ(forwarding(*host, "missing"), "0");
    }
    awaitRemovals();
    expectUnion();
    for (unsigned machine = 0; machine < machines; ++machine)
        expectOwn(machine);
}

}  // namespace
}  // namespace QOR::test
