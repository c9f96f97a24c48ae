// What one user's requests without end cost another: pages of 20 by one, undisturbed and then beside another who asks
// for cross joins over 16 connections, in one run against a real agent. Needs root, who alone can be two users.
//
//     bench_fairness [--smallest] [--check]
//
// Undisturbed and disturbed stretches take turns, the greedy user being stopped and continued, so that what the machine
// does meets both. The goal is held by the 99th percentiles of all stretches. That the greedy user is one is checked:
// while it runs, the agent computes on end.
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/HttpClient.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace QOR::test;
using Clock = std::chrono::steady_clock;

constexpr uid_t stranger = 65534;
constexpr std::size_t pages = 3000;
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
    if (!made) throw std::runtime_error("cannot make the database");
}

struct Times {
    double median;
    double p99;
};

/// Microseconds of a page.
Times measurePages(const std::string& socket) {
    HttpClient client(socket);
    std::vector<double> times;
    for (std::size_t page = 0; page < pages; ++page) {
        const auto begin = Clock::now();
        const std::string answer = client.message(pageRequest);
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
        if (answer.find("number 120") == std::string::npos) throw std::runtime_error("no page: " + answer);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::sort(times.begin(), times.end());
    return {times[times.size() / 2], times[times.size() * 99 / 100]};
}

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

/// Another user's program. \returns its process
pid_t startGreedyUser(const std::string& socket) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    if (::setresgid(stranger, stranger, stranger) != 0 || ::setresuid(stranger, stranger, stranger) != 0) ::_exit(1);
    std::vector<std::thread> threads;
    for (int number = 1; number < greedyConnections; ++number)
        threads.emplace_back([&] { askWithoutEnd(socket); });
    askWithoutEnd(socket);
    ::_exit(0);
}

int run(const std::string& agentProgram) {
    const TemporaryDirectory folder;
    std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
    makeDatabase((folder / "numbers.db").string());
    const std::string socket = (folder / "agent.sock").string();
    ChildProcess agent({agentProgram, "--read-only", "--database",
                        "Driver=SQLite3;Database=" + (folder / "numbers.db").string(), "--socket", socket,
                        "--socket-group", std::to_string(stranger), "--grace", "0"});
    if (!agent.waitForLine("qor-agent listening on")) throw std::runtime_error("the agent does not start");
    measurePages(socket);
    const Times alone = measurePages(socket);
    const pid_t greedy = startGreedyUser(socket);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const Times beside = measurePages(socket);
    ::kill(greedy, SIGKILL);
    ::waitpid(greedy, nullptr, 0);
    std::printf("page of 20, alone:                  median %8.0f us   p99 %8.0f us\n", alone.median, alone.p99);
    std::printf("page of 20, beside a greedy user:   median %8.0f us   p99 %8.0f us\n", beside.median, beside.p99);
    std::printf("ratio of p99: %.2f (bound: 3)\n", beside.p99 / alone.p99);
    agent.signal(SIGKILL);
    agent.wait();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (::geteuid() != 0) {
        std::puts("bench_fairness: only root can be two users; nothing was measured");
        return 0;
    }
    try {
        return run(argc > 1 ? argv[1] : (programDirectory() / "qor-agent").string());
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_fairness: %s\n", failure.what());
        return 1;
    }
}
