// How fast operations are taken in: by the host itself in batches and one by one, counters and indexes kept, beside
// bare prepared inserts of the same rows; by `qorctl import` through an agent, beside the same command without one; and
// from another agent that sends its own on, beside `qorctl import` there.
//
//     bench_import [--smallest] [--check]
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORDBSchema.h"
#include "ingest/QORIngest.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/ChildProcess.h"
#include "support/HttpClient.h"
#include "support/Operations.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace QOR;
using namespace QOR::bench;

constexpr std::uint64_t span = 1'000'000;  ///< of the operations that are made, whose first ones are stored

/// A database whose tables count nothing.
void openBare(const std::filesystem::path& file) {
    openEmpty(file);
    QORRdbmsTran tran(ASAccess::Write);
    std::vector<std::string> triggers;
    ASStatement& select = tran->prepare("SELECT name FROM sqlite_master WHERE type = 'trigger'");
    select.execute();
    while (select.fetch())
        triggers.emplace_back(select.text(1));
    select.close();
    for (const std::string& trigger : triggers)
        tran->execute("DROP TRIGGER " + ASSession::quoteIdentifier(trigger));
    tran.commit();
}

/// The same rows in the same tables by prepared statements and nothing else. The texts are made before the clock runs.
struct BareRow {
    std::string id, op, time, eid, message;
    std::int64_t status;
    std::vector<std::string> touched;
    std::vector<std::int64_t> positions;
};

BareRow toBare(const QOROperationRecord& record) {
    BareRow row{record.id,
                *record.op,
                time2dbstr(record.time),
                record.eid.toString(),
                record.message->serializeToString(),
                record.status,
                {},
                {}};
    for (const QOREID& eid : record.eids) {
        row.positions.push_back(static_cast<std::int64_t>(row.positions.size()));
        row.touched.push_back(eid.toString());
    }
    return row;
}

void insertBare(ASSession& session, const BareRow& row, std::int64_t sequence) {
    session
        .prepare(
            "INSERT INTO qor_operation (parent_id, op, status, time, eid, package, version, message, id, seq) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .bindNull(1)
        .bindNull(6)
        .bindNull(7)
        .bind(2, std::string_view(row.op))
        .bind(3, row.status)
        .bind(4, std::string_view(row.time))
        .bind(5, std::string_view(row.eid))
        .bind(8, std::string_view(row.message))
        .bind(9, std::string_view(row.id))
        .bind(10, sequence)
        .execute();
    for (std::size_t i = 0; i < row.touched.size(); ++i) {
        session
            .prepare(
                "INSERT INTO qor_operation_environment (operation, position, eid, own, time) VALUES (?, ?, ?, ?, ?)")
            .bind(1, sequence)
            .bind(2, row.positions[i])
            .bind(3, std::string_view(row.touched[i]))
            .bind(4, std::string_view(row.eid))
            .bind(5, std::string_view(row.time))
            .execute();
    }
}

/// The same operations into two databases, one of which counts and is written by the host's own means.
class Sides {
public:
    Sides(const std::filesystem::path& folder, std::uint64_t batchSize, std::uint64_t perTurn)
        : m_ours(folder / "ours.db"), m_bare(folder / "bare.db"), m_batchSize(batchSize), m_perTurn(perTurn) {
        openBare(m_bare);
        openEmpty(m_ours);
        m_options.batchRecords = batchSize;
    }

    // A turn opens the database anew. What that takes, and making the statements ready, is what the first batch shows,
    // which is not timed: who serves stays open.
    /// \returns seconds of the next turn
    double storeBare() {
        QORRdbms::instance().configure(optionsOf(m_bare));
        storeBare(m_batchSize);
        return storeBare(m_perTurn);
    }
    double store() {
        QORRdbms::instance().configure(optionsOf(m_ours));
        store(m_batchSize);
        return store(m_perTurn);
    }

private:
    double storeBare(std::uint64_t count) {
        std::vector<BareRow> rows;
        for (const QORRecord& record : makeBatch(m_bareStored, count, span))
            rows.push_back(toBare(std::get<QOROperationRecord>(record)));
        return wallSeconds([&] {
            for (std::size_t at = 0; at < rows.size(); at += m_batchSize) {
                QORRdbmsTran tran(ASAccess::Write);
                if (m_batchSize > 1) QORDBSchema::prepareManyWrites(*tran);
                for (std::size_t i = at; i < std::min<std::size_t>(at + m_batchSize, rows.size()); ++i)
                    insertBare(*tran, rows[i], static_cast<std::int64_t>(++m_bareStored));
                tran.commit();
            }
        });
    }
    double store(std::uint64_t count) { return storeNext(m_options, m_stored, count, span); }

    std::filesystem::path m_ours;
    std::filesystem::path m_bare;
    std::uint64_t m_batchSize;
    std::uint64_t m_perTurn;
    std::uint64_t m_bareStored = 0;
    std::uint64_t m_stored = 0;
    QORIngestOptions m_options;
};

void compareStores(Figures& figures, std::uint64_t batchSize, double goal, unsigned rounds) {
    const test::TemporaryDirectory folder;
    const std::uint64_t perTurn = figures.smallest() ? 2 * batchSize : batchSize == 1 ? 200 : 20 * batchSize;
    Sides sides(folder.path(), batchSize, perTurn);
    const Turns turns = takeTurns(
        figures.smallest() ? 1 : rounds, [&] { return sides.storeBare(); }, [&] { return sides.store(); });
    figures.printRates("import, " + std::to_string(batchSize) + " a transaction", turns, static_cast<double>(perTurn),
                       Goal::atLeast(goal));
}

// ---- the command

void writeLines(const std::filesystem::path& file, std::uint64_t first, std::uint64_t count, std::uint64_t size) {
    std::ofstream out(file);
    for (const QORRecord& record : makeBatch(first, count, size)) {
        const auto& operation = std::get<QOROperationRecord>(record);
        const std::string touched =
            operation.eids.empty() ? "" : R"(,"eids":[")" + operation.eids.front().toString() + "\"]";
        out << R"({"kind":"operation","id":")" << operation.id << R"(","op":")" << *operation.op << R"(","status":)"
            << operation.status << R"(,"time":)" << operation.time << R"(,"eid":")" << operation.eid.toString() << '"'
            << touched << R"(,"message":{"task_id":")" << operation.id << "\"}}\n";
    }
    check(out.good(), "cannot write the lines");
}

double runImport(std::vector<std::string> where, const std::filesystem::path& lines) {
    std::vector<std::string> command{(test::programDirectory() / "qorctl").string(), "import"};
    command.insert(command.end(), where.begin(), where.end());
    command.push_back(lines.string());
    return wallSeconds([&] {
        const auto [status, output] = test::runProgram(command);
        check(status == 0, "qorctl import: " + output);
    });
}

double importAlone(const std::filesystem::path& lines) {
    const test::TemporaryDirectory folder;
    openEmpty(folder / "alone.db");
    QORRdbms::instance().shutdown();
    return runImport({"--standalone", "--database", optionsOf(folder / "alone.db").connectionString}, lines);
}

/// An agent on the database `agent.db` of a folder, in which it leaves everything.
class Agent {
public:
    explicit Agent(const std::filesystem::path& folder, const std::vector<std::string>& more = {})
        : m_socket((folder / "agent.sock").string()), m_child(command(folder, more)) {
        check(m_child.waitForLine("qor-agent listening on"), "the agent does not start: " + m_child.output());
    }
    const std::string& socket() const { return m_socket; }
    test::HttpAnswer get(const std::string& target) const { return test::HttpClient(m_socket).get(target); }
    std::string post(const std::string& target, const std::string& body) const {
        return test::HttpClient(m_socket).post(target, body).body;
    }
    /// Where it listens beside its socket, when it was told to.
    std::string url() {
        const std::string begin = "qor-agent listening on http:";
        check(m_child.waitForLine(begin), "the agent does not listen there");
        const std::string output = m_child.output();
        const std::size_t at = output.find(begin) + begin.size() - std::string("http:").size();
        return output.substr(at, output.find('\n', at) - at);
    }

private:
    std::vector<std::string> command(const std::filesystem::path& folder, const std::vector<std::string>& more) const {
        std::vector<std::string> command{(test::programDirectory() / "qor-agent").string(),
                                         "--database",
                                         optionsOf(folder / "agent.db").connectionString,
                                         "--socket",
                                         m_socket,
                                         "--log-file",
                                         (folder / "agent.log").string()};
        command.insert(command.end(), more.begin(), more.end());
        return command;
    }

    const std::string m_socket;
    test::ChildProcess m_child;
};

double importThroughAgent(const std::filesystem::path& lines) {
    const test::TemporaryDirectory folder;
    const Agent agent(folder.path());
    return runImport({"--socket", agent.socket()}, lines);
}

void compareCommands(Figures& figures) {
    const test::TemporaryDirectory folder;
    const std::uint64_t count = figures.smallest() ? 2000 : 100'000;
    writeLines(folder / "lines", 0, count, span);
    const Turns turns = takeTurns(
        figures.smallest() ? 1 : 7, [&] { return importAlone(folder / "lines"); },
        [&] { return importThroughAgent(folder / "lines"); });
    figures.printRates("import through the agent", turns, static_cast<double>(count), Goal::atLeast(0.9));
}

// ---- another agent

/// The agent that others send to, with an identity for whoever does.
class Central {
public:
    Central() {
        m_agent.post("/v1/identities/add", R"({"name":"sender","kind":"token","access":"full"})");
        const std::string made = m_agent.post("/v1/tokens/create", R"({"name":"sender"})");
        const std::size_t token = made.find("qor_");
        check(token != std::string::npos, "no token: " + made);
        std::ofstream(tokenFile()) << made.substr(token, made.find('"', token) - token) << '\n';
    }

    /// Operations from that number on, brought by the command. \returns seconds
    double bring(std::uint64_t count) {
        const std::filesystem::path lines = m_folder / "lines";
        writeLines(lines, m_stored, count, size);
        const double seconds = runImport({"--socket", m_agent.socket()}, lines);
        stored(count);
        return seconds;
    }
    /// The same, which an agent has that begins to send them. \returns seconds from its start on
    double forward(std::uint64_t count) {
        const test::TemporaryDirectory folder;
        openEmpty(folder / "agent.db");
        std::uint64_t first = m_stored;
        storeNext({}, first, count, size);
        QORRdbms::instance().shutdown();
        const auto start = Clock::now();
        const Agent host(folder.path(), {"--forward", m_url, "--forward-token", tokenFile().string()});
        while (host.get("/v1/status").body.find(R"("behind":0,"behindSeconds")") == std::string::npos)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const double seconds = secondsSince(start);
        stored(count);
        return seconds;
    }

private:
    static constexpr std::uint64_t size = 10'000'000;  ///< of the year of which both store parts

    std::filesystem::path tokenFile() const { return m_folder / "token"; }
    void stored(std::uint64_t count) {
        m_stored += count;
        const std::string status = m_agent.get("/v1/status").body;
        check(status.find("\"vOpLog\":" + std::to_string(m_stored) + ",") != std::string::npos,
              "the operations have not arrived: " + status);
    }

    test::TemporaryDirectory m_folder;
    Agent m_agent{m_folder.path(), {"--listen", "http://127.0.0.1:0"}};
    const std::string m_url = m_agent.url();
    std::uint64_t m_stored = 0;
};

void compareSenders(Figures& figures) {
    Central central;
    const std::uint64_t count = figures.smallest() ? 2000 : 50'000;
    const Turns turns = takeTurns(
        figures.smallest() ? 1 : 7, [&] { return central.bring(count); }, [&] { return central.forward(count); });
    figures.printRates("sent on by an agent, beside qorctl import there", turns, static_cast<double>(count),
                       Goal::none());
}

void run(Figures& figures) {
    QORRdbms::prepareProcess();
    compareStores(figures, 1000, 0.8, 9);
    compareStores(figures, 1, 0.7, 31);
    compareCommands(figures);
    compareSenders(figures);
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_import [--smallest] [--check]", run);
}
