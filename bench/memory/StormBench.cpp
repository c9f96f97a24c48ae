// What of the agent stays resident behind a storm of requests: 16 filters of 20 MiB, 32 bodies of which half is sent,
// and four streams of a million rows, all at once. And how many pages of 20 a second one client is then answered.
//
//     bench_storm [--smallest] [--check] [LIBRARY...]
//
// Each LIBRARY takes the place of the C library's allocator (libjemalloc.so.2, libmimalloc.so.2) in an agent of its
// own.
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/Figures.h"
#include "support/HttpClient.h"
#include "support/LargeView.h"
#include "support/LongTexts.h"
#include "support/ResidentMemory.h"

namespace {

using namespace QOR::bench;
using namespace QOR::test;
using namespace std::chrono_literals;

constexpr std::size_t mebi = std::size_t{1} << 20;

constexpr const char* rowsRequest =
    R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vMany"],[1741,"id"],[1741,"name"]]]})";
constexpr const char* pageRequest =
    R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vMany"],[1741,"id"],[1741,"name"],)"
    R"([1377,[[1024,"20"]]]]]})";

struct Sizes {
    int rows;
    std::size_t filter;
    std::size_t body;
    unsigned pages;
    std::chrono::seconds rest;
};

class Storm {
public:
    Storm(const std::string& library, const std::string& database, const Sizes& sizes)
        : m_sizes(sizes),
          m_agent({"env", "LD_PRELOAD=" + library, (programDirectory() / "qor-agent").string(), "--read-only",
                   "--database", "Driver=SQLite3;Database=" + database, "--socket", m_socket, "--log-file",
                   (m_folder / "agent.log").string()}) {
        check(m_agent.waitForLine("qor-agent listening on"), "the agent does not start: " + m_agent.output());
        pages(m_sizes.pages);
        m_idle = resident();
    }

    void rage() {
        std::vector<std::future<void>> requests;
        const auto begin = [&](unsigned times, auto work) {
            for (unsigned i = 0; i < times; ++i)
                requests.push_back(std::async(std::launch::async, work));
        };
        const std::string filter = filterRequest(m_sizes.filter);
        begin(16, [&] { HttpClient(m_socket).message(filter); });
        begin(4, [&] {
            const HttpAnswer answer = HttpClient(m_socket).post("/v1/messages?stream=true", rowsRequest);
            check(answer.body.find("row number " + std::to_string(m_sizes.rows) + "\"") != std::string::npos,
                  "a stream is not whole");
        });
        const std::string half =
            HttpClient::compose("POST", "/v1/messages", filterRequest(m_sizes.body)).substr(0, m_sizes.body / 2);
        begin(32, [&] {
            HttpClient client(m_socket);
            client.send(half);
            std::this_thread::sleep_for(2s);
        });
        for (auto& request : requests) {
            while (request.wait_for(5ms) != std::future_status::ready)
                m_peak = std::max(m_peak, resident());
            request.get();
        }
    }

    void print(Figures& figures, const std::string& name) {
        const double atOnce = resident();
        std::this_thread::sleep_for(m_sizes.rest);
        const double rested = resident();
        figures.print(name + ", idle", "", m_idle, " MB");
        figures.print(name + ", most above idle", "", m_peak - m_idle, " MB");
        figures.print(name + ", above idle at once", "", atOnce - m_idle, " MB");
        figures.print(name + ", above idle after 10 s", "", rested - m_idle, " MB", Goal::atMost(64));
    }

    /// \returns seconds for a page of 20
    double pages(unsigned count) {
        HttpClient client(m_socket);
        check(client.message(pageRequest).find("row number 20\"") != std::string::npos, "a page is not whole");
        const double seconds = wallSeconds([&] {
            for (unsigned i = 0; i < count; ++i)
                client.message(pageRequest);
        });
        return seconds / count;
    }

private:
    double resident() const { return static_cast<double>(residentBytes(m_agent.pid())) / static_cast<double>(mebi); }

    Sizes m_sizes;
    TemporaryDirectory m_folder;
    std::string m_socket = (m_folder / "agent.sock").string();
    ChildProcess m_agent;
    double m_idle = 0;
    double m_peak = 0;
};

void run(Figures& figures) {
    const Sizes sizes = figures.smallest() ? Sizes{10'000, mebi / 4, mebi / 4, 20, 0s}
                                           : Sizes{1'000'000, 20 * mebi, 3 * mebi, 3000, 10s};
    const TemporaryDirectory folder;
    makeLargeView("Driver=SQLite3;Database=" + (folder / "large.db").string(), sizes.rows, sizes.rows);
    const std::string database = (folder / "large.db").string();
    Storm own("", database, sizes);
    own.rage();
    own.print(figures, "the C library's allocator");
    for (const std::string& library : figures.arguments()) {
        Storm other(library, database, sizes);
        other.rage();
        other.print(figures, library);
        figures.ratio(
            library + ", page of 20", Goal::none(), 9, [&] { return own.pages(sizes.pages); },
            [&] { return other.pages(sizes.pages); });
    }
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_storm [--smallest] [--check] [LIBRARY...]", run);
}
