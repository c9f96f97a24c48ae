// The moments of a hand-over: who stores and asks meanwhile, and what becomes of it when its command ends in between.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <optional>
#include <thread>

#include "QORDBSchema/QORDBSchema.h"
#include "QORDBSchema/QORSpreadViews.h"
#include "QORServers/QORServers.h"
#include "ingest/QORIngest.h"
#include "ingest/QORRecordExport.h"
#include "ingest/ServerFollower.h"
#include "shard/QORShard.h"
#include "shard/ShardRecordsOf.h"
#include "support/ClientContexts.h"
#include "support/ShardedPostgres.h"

namespace QOR::test {
namespace {

/// Has a transaction wait, at a point that a trigger decides and for however long, until it is let go.
class Pause {
public:
    /// \param trigger "CREATE ... TRIGGER pause ..." up to what it executes
    Pause(const std::string& conninfo, const std::string& trigger) : m_connection(conninfo) {
        m_connection.run("SELECT pg_advisory_lock(77)");
        m_connection.run(
            "CREATE FUNCTION pauses() RETURNS trigger LANGUAGE plpgsql SET lock_timeout = 0 AS $$ BEGIN "
            "PERFORM pg_advisory_xact_lock_shared(77); RETURN NULL; END $$");
        m_connection.run(trigger + " EXECUTE FUNCTION pauses()");
    }
    /// Until somebody waits there.
    void await() {
        while (m_connection.rows(waiting).empty())
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    void go() { m_connection.run("SELECT pg_advisory_unlock(77)"); }
    /// What waits is undone.
    void end() {
        for (const auto& row : m_connection.rows(waiting))
            m_connection.run("SELECT pg_terminate_backend(" + row[0] + ", 60000)");
        go();
    }

private:
    static constexpr const char* waiting =
        "SELECT pid FROM pg_stat_activity WHERE datname = current_database() AND wait_event = 'advisory'";
    PostgresConnection m_connection;
};

constexpr const char* beforeHomesCommit =
    "CREATE CONSTRAINT TRIGGER pause AFTER UPDATE ON qor_placement DEFERRABLE INITIALLY DEFERRED FOR EACH ROW";
constexpr const char* beforeTheServersCommit =
    "CREATE CONSTRAINT TRIGGER pause AFTER UPDATE ON qor_held DEFERRABLE INITIALLY DEFERRED FOR EACH ROW";
constexpr const char* whileRecordsAreRemoved = "CREATE TRIGGER pause AFTER DELETE ON qor_event FOR EACH STATEMENT";

class Handover : public testing::Test {
protected:
    Handover() {
        m_database.spread(2);
        store(m_database, 2, 1, 1000);
        m_home.run("SELECT setval('qor_arrival', 100000)");
        m_before = recordsOf(m_home, "qor_all.");
    }
    ~Handover() override {
        QORServers::instance().close();
        QORRdbms::instance().shutdown();
    }

    QORShardReport move() const {
        return QORShard({.home = m_database.connectionString(),
                         .servers = parseShardFile(m_database.file(3), "servers"),
                         .split = "s1"})
            .run();
    }
    /// Has a third server take half of the first one's environments, in a process that is killed while it waits.
    void killAt(Pause& pause) const {
        const pid_t child = ::fork();
        if (child == 0) {
            try {
                move();
            } catch (const std::exception&) {
            }
            ::_exit(0);
        }
        pause.await();
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    /// The records have gone, and home does not say so.
    void killBetween() {
        Pause pause(m_database.conninfo(), beforeHomesCommit);
        killAt(pause);
        pause.end();
        m_home.run("DROP TRIGGER pause ON qor_placement");
        ASSERT_EQ(m_home.cell("SELECT count(*) FROM qor_server"), "2");
        ASSERT_NE(m_home.cell("SELECT count(*) FROM qor_all.qor_event"), "1000") << "who asks past the agent sees it";
    }
    void openHome() const {
        QORDBSchema::open({.connectionString = m_database.connectionString(), .busyTimeoutMs = 30'000},
                          QORSchemaMode::Own);
    }
    void expectSettled() {
        EXPECT_EQ(m_home.rows("SELECT name, number, modulus, remainder FROM qor_server ORDER BY number"),
                  (Rows{{"s1", "1", "4", "0"}, {"s2", "2", "2", "1"}, {"s3", "3", "4", "2"}}));
        EXPECT_EQ(m_home.cell("SELECT epoch || '/' || (SELECT count(*) FROM qor_handover) FROM qor_placement"), "2/0");
        EXPECT_EQ(recordsOf(m_home, "qor_all."), m_before);
        EXPECT_THAT(move().faults, testing::IsEmpty());
    }
    /// Of an environment that goes to the third server.
    std::string eidThatMoves() {
        return m_home.cell(
            "SELECT eid FROM (SELECT eid FROM qor_all.qor_event WHERE eid IS NOT NULL OFFSET 0) e WHERE "
            "satisfies_hash_partition('qor_spread'::regclass, 4, 2, eid) LIMIT 1");
    }

    ShardedPostgres m_database{3, false};
    PostgresConnection m_home{m_database.conninfo()};
    Rows m_before;
};

// It came again there, kept its number, and nobody else has been told yet.
TEST_F(Handover, ARecordThatMovesIsNotRemovedByWhatItsServerNotedOfIt) {
    PostgresConnection first(m_database.conninfo(1));
    PostgresConnection third(m_database.conninfo(3));
    const std::string id = first.cell(
        "SELECT id FROM qor_operation WHERE satisfies_hash_partition('qor_spread'::regclass, 4, 2, eid) LIMIT 1");
    first.run("INSERT INTO qor_removal (server, source, ids) VALUES ('*', 'qor_operation', '[[\"" + id +
              "\",200000]]')");
    EXPECT_THAT(move().faults, testing::IsEmpty());
    openHome();
    ServerUpkeep upkeep;
    const char* const notes = "SELECT count(*) FROM qor_removal";
    while (first.cell(notes) != "0" || third.cell(notes) != "0")
        upkeep.turn();
    EXPECT_EQ(third.cell("SELECT count(*) FROM qor_operation WHERE id = '" + id + "'"), "1");
}

TEST_F(Handover, KilledBetweenTheTwoCommitsAnAgentSaysTheRest) {
    killBetween();
    openHome();
    ServerUpkeep upkeep;
    while (m_home.cell("SELECT count(*) FROM qor_server") != "3")
        upkeep.turn();
    expectSettled();
}

TEST_F(Handover, KilledBetweenTheTwoCommitsWhoAsksFirstSaysTheRestAndSeesAll) {
    killBetween();
    openHome();
    QORSpreadViews& views = QORSpreadViews::instance();
    const auto places = views.places();
    EXPECT_EQ(places->count(), 2U);
    EXPECT_FALSE(views.isCurrent(*places)) << "what was found is half of it";
    const auto now = views.places();
    EXPECT_EQ(now->count(), 3U);
    EXPECT_TRUE(views.isCurrent(*now));
    expectSettled();
}

TEST_F(Handover, KilledBetweenTheTwoCommitsWhoStoresFirstSaysTheRestAndStores) {
    const std::string eid = eidThatMoves();
    killBetween();
    openHome();
    const QORIngestResult result =
        QORIngest().importBatch(R"({"kind":"event","time":1,"category":"late","eid":")" + eid + "\"}\n");
    EXPECT_FALSE(result.failure) << result.failure->reason;
    PostgresConnection third(m_database.conninfo(3));
    EXPECT_EQ(third.cell("SELECT count(*) FROM qor_event WHERE category = 'late'"), "1");
    third.run("DELETE FROM qor_event WHERE category = 'late'");
    expectSettled();
}

/// The identifiers of operations in lines of an export.
std::vector<std::string> exportedOperations(const std::string& lines) {
    const std::string begin = R"({"kind":"operation","id":")";
    std::vector<std::string> ids;
    for (std::size_t at = lines.find(begin); at != std::string::npos; at = lines.find(begin, at + 1))
        ids.push_back(lines.substr(at + begin.size(), lines.find('"', at + begin.size()) - at - begin.size()));
    return ids;
}

/// What they are where recordStatements() stored so many.
std::vector<std::string> operationsUpTo(int last) {
    std::vector<std::string> ids;
    for (int number = 1; number <= last; ++number)
        ids.push_back("o" + std::to_string(number));
    return ids;
}

/// Of all that it stored.
std::array<std::uint64_t, recordKindCount> countsOf(std::uint64_t records) {
    return {0, records, records, records / 5};
}

std::string restOf(QORRecordExport& records) {
    std::string all;
    for (std::string lines = records.next(); !lines.empty(); lines = records.next())
        all += lines;
    return all;
}

QORRowAccess seesAll() {
    return QORRowAccess(*fullAccess());
}

TEST_F(Handover, KilledBetweenTheTwoCommitsAnExportThatWasBegunBeforeHasEachRecordOnce) {
    openHome();
    std::string all;
    std::string position;
    {
        QORRecordExport begun({}, seesAll());
        all = begun.next() + begun.next();
        position = begun.position().text();
    }
    EXPECT_EQ(exportedOperations(all), operationsUpTo(500)) << "of both servers, in the order of their arrival";
    QORServers::instance().close();
    QORRdbms::instance().shutdown();
    killBetween();
    openHome();
    QORRecordExport rest(QORExportPosition::ofText(position), seesAll());
    all += restOf(rest);
    EXPECT_EQ(exportedOperations(all), operationsUpTo(1000));
    EXPECT_EQ(rest.position().counts, countsOf(1000));
    expectSettled();
}

TEST(HandoverOfHome, AnExportThatWasBegunBeforeHasEachRecordOnce) {
    const ShardedPostgres database{3, false};
    QORDBSchema::open({.connectionString = database.connectionString()}, QORSchemaMode::Own);
    {
        PostgresConnection home(database.conninfo());
        for (const std::string& statement : recordStatements(1, 1200))
            home.run(statement);
        QORRecordExport records({}, seesAll());
        std::string all = records.next() + records.next();
        EXPECT_EQ(exportedOperations(all), operationsUpTo(500));
        database.spread(3);
        EXPECT_EQ(home.cell("SELECT count(*) FROM qor_operation"), "0");
        all += restOf(records);
        EXPECT_EQ(exportedOperations(all), operationsUpTo(1200));
        EXPECT_EQ(records.position().counts, countsOf(1200));
    }
    QORServers::instance().close();
    QORRdbms::instance().shutdown();
}

TEST_F(Handover, KilledBetweenTheTwoCommitsTheSameCommandSaysTheRestAndNothingElse) {
    killBetween();
    const QORShardReport report = move();
    EXPECT_THAT(report.done, testing::IsEmpty());
    expectSettled();
}

TEST_F(Handover, KilledBeforeTheServersCommitNothingHasHappenedAndTheCommandGoesOn) {
    Pause pause(m_database.conninfo(1), beforeTheServersCommit);
    killAt(pause);
    pause.end();
    PostgresConnection(m_database.conninfo(1)).run("DROP TRIGGER pause ON qor_held");
    openHome();
    ServerUpkeep().turn();
    EXPECT_EQ(m_home.cell("SELECT count(*) FROM qor_server"), "2");
    EXPECT_EQ(m_home.cell("SELECT count(*) FROM qor_handover"), "1") << "it had begun";
    const auto places = QORSpreadViews::instance().places();
    EXPECT_TRUE(QORSpreadViews::instance().isCurrent(*places)) << "all is where it was";
    EXPECT_EQ(recordsOf(m_home, "qor_all."), m_before);
    EXPECT_EQ(move().done.size(), 1U);
    expectSettled();
}

TEST_F(Handover, KilledWhileTheServerCommitsAnAgentFindsOutThatItDid) {
    Pause pause(m_database.conninfo(1), beforeTheServersCommit);
    killAt(pause);
    openHome();
    ServerUpkeep upkeep;
    upkeep.turn();
    EXPECT_EQ(m_home.cell("SELECT count(*) FROM qor_server"), "2") << "it has not been committed yet";
    pause.go();
    while (m_home.cell("SELECT count(*) FROM qor_server") != "3")
        upkeep.turn();
    PostgresConnection(m_database.conninfo(1)).run("DROP TRIGGER pause ON qor_held");
    expectSettled();
}

TEST_F(Handover, WhileRecordsAreRemovedOthersStoreAndSeeAllOfThemOnce) {
    const std::string eid = eidThatMoves();
    Pause pause(m_database.conninfo(1), whileRecordsAreRemoved);
    std::optional<QORShardReport> report;
    std::string trouble;
    std::thread mover([&] {
        try {
            report = move();
        } catch (const std::exception& error) {
            trouble = error.what();
        }
    });
    pause.await();
    EXPECT_EQ(recordsOf(m_home, "qor_all."), m_before);
    openHome();
    const QORIngestResult result =
        QORIngest().importBatch(R"({"kind":"event","time":1,"category":"late","eid":")" + eid + "\"}\n" +
                                R"({"kind":"operation","id":"o1000","time":1,"status":7,"eid":")" + eid + "\"}\n");
    EXPECT_FALSE(result.failure) << result.failure->reason;
    EXPECT_EQ(m_home.cell("SELECT count(*) FROM qor_all.qor_event"), "1001");
    pause.go();
    mover.join();
    EXPECT_EQ(trouble, "");
    ASSERT_TRUE(report);
    EXPECT_THAT(report->faults, testing::IsEmpty());
    EXPECT_EQ(m_home.cell("SELECT string_agg(DISTINCT e.category || o.status, '') FROM qor_at_s3.qor_event e, "
                          "qor_at_s3.qor_operation o WHERE e.category = 'late' AND o.id = 'o1000'"),
              "late7");
    EXPECT_EQ(m_home.cell("SELECT count(*) FROM qor_all.qor_event"), "1001");
    EXPECT_EQ(m_home.cell("SELECT count(*) || '/' || count(DISTINCT id) FROM qor_all.qor_operation"), "1000/1000");
}

/// What a server was told in the transaction that kept everybody from storing, from there to its commit.
std::size_t statementsBehindTheFence(const std::string& file) {
    std::ifstream log(file);
    std::size_t statements = 0;
    bool behind = false;
    for (std::string line; std::getline(log, line);) {
        if (line.find("SHARE ROW EXCLUSIVE MODE") != std::string::npos) {
            behind = true;
            statements = 0;
        }
        const bool isStatement =
            line.find("statement: ") != std::string::npos || line.find("execute ") != std::string::npos;
        if (behind && isStatement) ++statements;
        if (behind && line.find("UPDATE qor_held") != std::string::npos) return statements;
    }
    return 0;
}

TEST_F(Handover, HowLongOthersWaitDoesNotGrowWithWhatMoves) {
    store(m_database, 2, 1001, 9000);
    PostgresConnection first(m_database.conninfo(1));
    first.run("ALTER DATABASE " + first.cell("SELECT current_database()") + " SET log_statement = 'all'");
    const QORShardReport report = move();
    EXPECT_THAT(report.faults, testing::IsEmpty());
    EXPECT_GT(std::stoi(m_home.cell("SELECT (SELECT count(*) FROM qor_at_s3.qor_event) + "
                                    "(SELECT count(*) FROM qor_at_s3.qor_operation)")),
              2000);
    // The newest of three tables, of which some do not move.
    EXPECT_LE(report.waited, 600U);
    const std::size_t statements = statementsBehindTheFence(ShardedPostgres::server(1).folder() + "/log");
    EXPECT_GT(statements, 5U);
    EXPECT_LE(statements, 40U);
}

}  // namespace
}  // namespace QOR::test
