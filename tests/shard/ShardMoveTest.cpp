// Records on their way to other servers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

#include "QORCommon/QORException.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORLibAgent/QORLogCheck.h"
#include "shard/ShardRecordsOf.h"
#include "support/ShardedPostgres.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

/// Groups of records that a server has counted wrong.
std::size_t miscounted(const std::string& connection) {
    QORRdbms database;
    database.configure({.connectionString = connection});
    QORRdbmsTran tran(database, ASAccess::Read);
    return findMiscountedScopes(*tran, QORLogKind::Operations).size() +
           findMiscountedScopes(*tran, QORLogKind::Events).size();
}

class ShardMove : public testing::Test {
protected:
    ~ShardMove() override { QORRdbms::instance().shutdown(); }

    /// Makes home an ordinary database that has records.
    void fillHome(int records) {
        QORDBSchema::open({.connectionString = m_database.connectionString()}, QORSchemaMode::Own);
        QORRdbms::instance().shutdown();
        PostgresConnection home(m_database.conninfo());
        for (const std::string& statement : recordStatements(1, records))
            home.run(statement);
    }
    void expectSound(unsigned servers) {
        for (unsigned number = 1; number <= servers; ++number)
            EXPECT_EQ(miscounted(m_database.connectionString(number)), 0U) << number;
        PostgresConnection home(m_database.conninfo());
        // Whoever looks for what touches an environment asks its own server and those that are noted.
        EXPECT_EQ(
            home.rows(
                "SELECT e.eid, e.operation FROM qor_all.qor_operation_environment e "
                "JOIN qor_server h ON satisfies_hash_partition('qor_spread'::regclass, h.modulus, h.remainder, e.own) "
                "WHERE e.eid IS DISTINCT FROM e.own "
                "AND NOT satisfies_hash_partition('qor_spread'::regclass, h.modulus, h.remainder, e.eid) "
                "AND NOT EXISTS (SELECT FROM qor_touched_server t WHERE t.eid = e.eid AND t.server = h.name)"),
            Rows());
    }
    /// Whether records are noted any more.
    std::string watchers(unsigned number) const {
        return PostgresConnection(m_database.conninfo(number))
            .cell("SELECT count(*) FROM pg_trigger WHERE tgname LIKE 'qor_moved%'");
    }

    ShardedPostgres m_database{3, false};
};

TEST_F(ShardMove, RecordsOfHomeGoToTheServersWhole) {
    fillHome(3000);
    PostgresConnection home(m_database.conninfo());
    home.run("INSERT INTO qor_unreadable_document VALUES ('qor_event', 'info', '7')");
    const Rows before = recordsOf(home, "");
    m_database.spread(3);
    EXPECT_EQ(recordsOf(home, "qor_all."), before);
    EXPECT_EQ(home.cell("SELECT count(*) FROM qor_operation_count"), "0");
    EXPECT_EQ(home.cell("SELECT nextval('qor_arrival') > 3000"), "t");
    int unreadable = 0;
    for (unsigned number = 1; number <= 3; ++number)
        unreadable += std::stoi(
            PostgresConnection(m_database.conninfo(number)).cell("SELECT count(*) FROM qor_unreadable_document"));
    EXPECT_EQ(unreadable, 1);
    expectSound(3);
}

TEST_F(ShardMove, ANewServerTakesHalfOfOnesEnvironments) {
    m_database.spread(2);
    store(m_database, 2, 1, 3000);
    PostgresConnection home(m_database.conninfo());
    const Rows before = recordsOf(home, "qor_all.");
    PostgresConnection second(m_database.conninfo(2));
    second.run("INSERT INTO qor_request (key, digest, last_line, result, time) VALUES ('k', 'd', 3, '{}', 1)");
    m_database.spread(3, "s2");
    EXPECT_EQ(home.rows("SELECT name, number, modulus, remainder FROM qor_server ORDER BY number"),
              (Rows{{"s1", "1", "2", "0"}, {"s2", "2", "4", "1"}, {"s3", "3", "4", "3"}}));
    EXPECT_EQ(home.cell("SELECT epoch FROM qor_placement"), "2");
    EXPECT_EQ(recordsOf(home, "qor_all."), before);
    EXPECT_NE(home.cell("SELECT count(*) FROM qor_at_s3.qor_event"), "0");
    EXPECT_EQ(PostgresConnection(m_database.conninfo(3)).cell("SELECT key FROM qor_request"), "k");
    EXPECT_EQ(watchers(2), "0");
    expectSound(3);
}

TEST_F(ShardMove, TheLargestServerGivesUnlessAnotherIsNamed) {
    m_database.spread(2);
    PostgresConnection(m_database.conninfo(2)).run(recordStatements(1, 50, belongsHere)[2]);
    m_database.spread(3);
    PostgresConnection home(m_database.conninfo());
    EXPECT_EQ(home.cell("SELECT modulus FROM qor_server WHERE name = 's2'"), "4");
    EXPECT_THROW(m_database.spread(3, "s9"), std::exception) << "nothing to add, but the name is wrong";
}

/// Runs the set-up in a process of its own, which is killed after so long. \returns whether it had ended before
bool spreadFor(const ShardedPostgres& database, unsigned servers, int milliseconds) {
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            database.spread(servers);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
            ::_exit(1);
        }
        ::_exit(0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(ShardMove, KilledAtAnyPointTheSameCommandGoesOn) {
    fillHome(3000);
    PostgresConnection home(m_database.conninfo());
    const Rows before = recordsOf(home, "");
    std::mt19937 random(7);
    for (const unsigned servers : {2U, 3U}) {
        int wait = 300;
        while (!spreadFor(m_database, servers, wait))
            wait += 150 + static_cast<int>(random() % 200);
        m_database.spread(servers);
        EXPECT_EQ(recordsOf(home, "qor_all."), before) << servers;
        expectSound(servers);
    }
}

TEST_F(ShardMove, EndedBetweenTheTwoCommitsTheSameCommandGoesOn) {
    m_database.spread(2);
    store(m_database, 2, 1, 1000);
    PostgresConnection home(m_database.conninfo());
    const Rows before = recordsOf(home, "qor_all.");
    home.run("CREATE FUNCTION fail() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN RAISE 'no commit'; END $$");
    home.run(
        "CREATE CONSTRAINT TRIGGER late AFTER UPDATE ON qor_placement DEFERRABLE INITIALLY DEFERRED FOR EACH ROW "
        "EXECUTE FUNCTION fail()");
    EXPECT_THROW(m_database.spread(3, "s1"), std::exception);
    EXPECT_EQ(home.cell("SELECT count(*) FROM qor_server"), "2");
    EXPECT_EQ(PostgresConnection(m_database.conninfo(1)).cell("SELECT modulus FROM qor_held"), "4")
        << "who goes by the old placement finds that it is old";
    home.run("DROP TRIGGER late ON qor_placement");
    m_database.spread(3);
    EXPECT_EQ(recordsOf(home, "qor_all."), before);
    EXPECT_EQ(watchers(1), "0");
    expectSound(3);
}

/// An agent's way to store: by the placement, behind the fence, again where that has changed.
class Writer {
public:
    explicit Writer(const ShardedPostgres& database) : m_home(database.conninfo()) {
        for (unsigned number = 1; number <= database.size(); ++number)
            m_servers.push_back(std::make_unique<PostgresConnection>(database.conninfo(number)));
    }

    void store(int number) {
        const std::string eid = "md5('e" + std::to_string(number % 97) + "')::uuid";
        while (true) {
            const Rows place = m_home.rows(
                "SELECT number, modulus, remainder FROM qor_server WHERE "
                "satisfies_hash_partition('qor_spread'::regclass, modulus, remainder, " +
                eid + ")");
            PostgresConnection& server = *m_servers.at(std::stoul(place.at(0).at(0)) - 1);
            server.run("BEGIN");
            const Rows held = server.rows("SELECT modulus, remainder FROM qor_held FOR SHARE");
            if (held.at(0) == std::vector<std::string>{place[0][1], place[0][2]}) {
                const std::string text = std::to_string(number);
                server.run("INSERT INTO qor_event (seq, time, eid, category) VALUES (" + text + ", '2024-06-01', " +
                           eid + ", 'new')");
                server.run(
                    "INSERT INTO qor_operation (seq, id, status, time, eid) VALUES (" + text + ", 'w" +
                    std::to_string(number % 97) + "', 0, '2024-06-01', " + eid +
                    ") ON CONFLICT (id) DO UPDATE SET seq = excluded.seq, time = excluded.time, eid = excluded.eid");
                server.run("COMMIT");
                return;
            }
            server.run("ROLLBACK");
            ++again;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    int again = 0;  ///< how often it was too late

private:
    PostgresConnection m_home;
    std::vector<std::unique_ptr<PostgresConnection>> m_servers;
};

TEST_F(ShardMove, ClientsStoreAndAskMeanwhileAndNothingIsLostOrDoubled) {
    m_database.spread(2);
    store(m_database, 2, 1, 5000);
    std::atomic<bool> ended = false;
    std::atomic<int> asked = 0;
    int stored = 0;
    std::string trouble;
    std::thread writer([&] {
        try {
            Writer agent(m_database);
            for (; !ended || stored < 500; ++stored)
                agent.store(100'000 + stored);
        } catch (const std::exception& error) {
            trouble = error.what();
        }
    });
    std::thread reader([&] {
        PostgresConnection home(m_database.conninfo());
        while (!ended) {
            EXPECT_EQ(home.cell("SELECT count(*) FROM qor_all.\"vBackupInfo\""), "1000");
            EXPECT_EQ(home.cell("SELECT count(*) || ' ' || count(DISTINCT id) FROM qor_all.\"vEventLog\" WHERE "
                                "category <> 'new'"),
                      "5000 5000");
            ++asked;
        }
    });
    while (asked == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::string failure;
    try {
        m_database.spread(3);
    } catch (const std::exception& error) {
        failure = error.what();
    }
    ended = true;
    writer.join();
    reader.join();
    ASSERT_EQ(failure, "");
    EXPECT_EQ(trouble, "");
    PostgresConnection home(m_database.conninfo());
    EXPECT_EQ(
        home.cell("SELECT count(*) || ' ' || count(DISTINCT id) FROM qor_all.\"vEventLog\" WHERE category = 'new'"),
        std::to_string(stored) + " " + std::to_string(stored));
    EXPECT_EQ(home.cell("SELECT count(*) - count(DISTINCT id) FROM qor_all.\"vOpLog\""), "0");
    m_database.spread(3);
    expectSound(3);
}

}  // namespace
}  // namespace QOR::test
