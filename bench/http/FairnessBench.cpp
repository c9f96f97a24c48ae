// What one user's requests without end cost others, in one run against a real agent: pages of 20 by one user, alone and
// beside another who asks for cross joins over 16 connections; and how soon the agent says how it is while every worker
// is busy with such requests. Needs root, who alone can be several users.
//
//     bench_fairness [--smallest] [--check]
//
// Undisturbed and disturbed stretches take turns, the greedy users being stopped and continued, so that what the
// machine does meets both; the 99th percentiles are those of all stretches. That the greedy users are greedy is
// checked: while they run, the agent takes all of the processor that the pages leave.
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/Figures.h"
#include "support/HttpClient.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace QOR::bench;
using namespace QOR::test;

constexpr uid_t stranger = 65534;
constexpr int greedyConnections = 16;

constexpr const char* pageRequest =
    R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vNumbers"],[1741,"n"],[1741,"name"],)"
    R"([1742,[[2227,[[1741,"n"],[1018,"100"]]]]],[1377,[[1024,"20"]]]]]})";
/// Each row of one view beside each of the other.
constexpr const char* greedyRequest =
    R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vNumbers"],[1741,"n"],[1742,[[2234,[[1018,"x"],)"
    R"([1740,[[1009,"vOthers"],[1741,"name"],[1742,[[2235,[[2226,[[1741,"n"],[1741,"vNumbers.n"]]],)"
    R"([2231,[[1741,"name"],[1018,"%zz%"]]]]]]]]]]]]]]]})";

void makeDatabase(const std::string& file) {
    sqlite3* database = nullptr;
    const char* const sql =
        "CREATE TABLE numbers (n int, name varchar(20));"
        "WITH RECURSIVE count(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM count WHERE n < 100000) "
        "INSERT INTO numbers SELECT n, 'number ' || n FROM count;"
        "CREATE INDEX by_n ON numbers (n);"
        "CREATE VIEW vNumbers AS SELECT n, name FROM numbers;"
        "CREATE VIEW vOthers AS SELECT n, name FROM numbers;";
    const bool made = sqlite3_open(file.c_str(), &database) == SQLITE_OK &&
                      sqlite3_exec(database, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(database);
    check(made, "cannot make the database");
}

/// Microseconds that something took again and again.
class Times {
public:
    template <class Work>
    void measure(std::size_t times, Work&& work) {
        for (std::size_t i = 0; i < times; ++i) {
            m_times.push_back(wallSeconds(work) * 1e6);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    double percentile(std::size_t percent) {
        std::sort(m_times.begin(), m_times.end());
        return m_times.at(m_times.size() * percent / 100);
    }

private:
    std::vector<double> m_times;
};

void askWithoutEnd(const std::string& socket) {
    for (;;) {
        try {
            for (HttpClient client(socket);;)
                client.message(greedyRequest);
        } catch (const std::exception&) {
            // Refused, or silent for longer than the client waits: it comes again.
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

/// Another user's program, which runs while it is let.
class GreedyUser {
public:
    GreedyUser(const std::string& socket, uid_t user) : m_process(::fork()) {
        check(m_process >= 0, "no process");
        if (m_process != 0) return;
        // Of the group that may reach the socket.
        if (::setresgid(stranger, stranger, stranger) != 0 || ::setresuid(user, user, user) != 0) ::_exit(1);
        std::vector<std::thread> threads;
        for (int number = 1; number < greedyConnections; ++number)
            threads.emplace_back([&] { askWithoutEnd(socket); });
        askWithoutEnd(socket);
        ::_exit(0);
    }
    ~GreedyUser() {
        ::kill(m_process, SIGKILL);
        ::waitpid(m_process, nullptr, 0);
    }
    GreedyUser(const GreedyUser&) = delete;
    GreedyUser& operator=(const GreedyUser&) = delete;

private:
    pid_t m_process;
};

class Bench {
public:
    Bench(Figures& figures) : m_figures(figures), m_perStretch(figures.smallest() ? 50 : 1000) {
        std::filesystem::permissions(m_folder.path(), std::filesystem::perms(0755));
        const std::string database = (m_folder / "numbers.db").string();
        makeDatabase(database);
        m_agent = std::make_unique<ChildProcess>(std::vector<std::string>{
            (programDirectory() / "qor-agent").string(), "--read-only", "--database",
            "Driver=SQLite3;Database=" + database, "--socket", m_socket, "--socket-group", std::to_string(stranger),
            "--log-file", (m_folder / "agent.log").string(), "--grace", "0"});
        check(m_agent->waitForLine("qor-agent listening on"), "the agent does not start");
    }
    ~Bench() {
        m_agent->signal(SIGKILL);
        m_agent->wait();
    }
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    /// Who is greedy leaves with all that it asked for, and comes anew for the next stretch.
    void pages() {
        Times warmUp, alone, beside;
        ask(warmUp);
        for (int turn = 0; turn < (m_figures.smallest() ? 1 : 7); ++turn) {
            settle();
            ask(alone);
            const GreedyUser greedy(m_socket, stranger);
            awaitLoad();
            const double before = processorSecondsOf(m_agent->pid());
            const double seconds = wallSeconds([&] { ask(beside); });
            const double used = processorSecondsOf(m_agent->pid()) - before;
            // A short stretch is not measured finely enough to tell how much.
            check(m_figures.smallest() || used > 0.5 * seconds, "the greedy user keeps the agent busy for " +
                                                                    std::to_string(used) + " of " +
                                                                    std::to_string(seconds) + " seconds only");
        }
        print("page of 20, alone", alone);
        print("page of 20, beside a greedy user", beside);
        m_figures.print("page of 20, beside a greedy user, p99", "", beside.percentile(99) / alone.percentile(99),
                        "ratio", Goal::atMost(3));
    }

    /// More users than it takes to have all workers, half of which one may have.
    void health() {
        const GreedyUser one(m_socket, stranger), another(m_socket, stranger - 1), third(m_socket, stranger - 2);
        awaitLoad();
        HttpClient client(m_socket);
        Times times;
        times.measure(m_perStretch, [&] {
            const HttpAnswer answer = client.get("/v1/health");
            check(answer.status == 200 && answer.body.find("\"ok\"") != std::string::npos, "no health: " + answer.body);
        });
        print("health, all workers busy", times);
        m_figures.print("health, all workers busy, p99", "", times.percentile(99) / 1000, " ms", Goal::atMost(50));
    }

private:
    void ask(Times& times) {
        HttpClient client(m_socket);
        times.measure(m_perStretch, [&] {
            const std::string answer = client.message(pageRequest);
            check(answer.find("number 120") != std::string::npos, "no page: " + answer);
        });
    }
    /// Waits until the agent has used as much of the processor as requests without end would.
    void awaitLoad() {
        const double before = processorSecondsOf(m_agent->pid());
        for (int looks = 0; processorSecondsOf(m_agent->pid()) - before < 0.5; ++looks) {
            check(looks < 3000, "the greedy users do not keep the agent busy");
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    /// Waits until it has noticed that the greedy user is gone.
    void settle() {
        for (double used = 0.1; used > 0.02;) {
            const double before = processorSecondsOf(m_agent->pid());
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            used = processorSecondsOf(m_agent->pid()) - before;
        }
    }
    void print(const std::string& name, Times& times) {
        m_figures.print(name + ", median", "", times.percentile(50), " us");
        m_figures.print(name + ", p99", "", times.percentile(99), " us");
    }

    Figures& m_figures;
    std::size_t m_perStretch;
    TemporaryDirectory m_folder;
    std::string m_socket = (m_folder / "agent.sock").string();
    std::unique_ptr<ChildProcess> m_agent;
};

void run(Figures& figures) {
    if (::geteuid() != 0) {
        std::puts("only root can be two users; nothing was measured");
        return;
    }
    Bench bench(figures);
    bench.pages();
    bench.health();
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_fairness [--smallest] [--check]", run);
}
