// A server is not a file: connections to it get lost, others undo one's transactions, and what the driver says of a
// transaction is not always so.
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORRequestControl.h"
#include "QORDBSchema/QORDBSchema.h"
#include "libs/rdbmspp/Columns.h"
#include "libs/rdbmspp/PostgresFixture.h"
#include "support/PostgresGate.h"
#include "support/WaitingRequest.h"

namespace QOR::test {
namespace {

using std::chrono::milliseconds;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class PostgresPool : public PostgresTest {
protected:
    /// The pool's: those of the test may be there a moment longer than their objects.
    std::string connections() const {
        return engine().cell(
            "SELECT count(*) FROM pg_stat_activity WHERE datname = current_database() AND application_name = 'qor'");
    }
    void endConnections() const {
        engine().rows(
            "SELECT pg_terminate_backend(pid, 60000) FROM pg_stat_activity WHERE datname = current_database()"
            " AND pid <> pg_backend_pid()");
    }
    /// The only cell of a view's column i by a single read. \param known whether it is known to compute nothing
    static std::string single(const std::string& view, bool known) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        const Column i = column(ASDomain::view(view, {}, {}, known), "i", ASType::Int);
        ASCursor cursor(*transaction);
        cursor.Filter().Project() << i.attribute;
        cursor.Limit(20, 0);
        return cursor.Fetch() ? test::cell(*i.data) : "(no row)";
    }
    /// \param patience ms for which it is asked what became of a lost commit
    void openThrough(const PostgresGate& gate, unsigned patience = 60'000) const {
        ASDatabaseOptions through = options();
        through.busyTimeoutMs = patience;
        through.connectionString = database.connectionStringThrough(gate.folder());
        QORRdbms::instance().configure(through);
    }
    /// Has several connections lie idle.
    static void openSome(std::size_t count) {
        std::vector<std::unique_ptr<QORRdbmsTran>> transactions;
        for (std::size_t i = 0; i < count; ++i)
            transactions.push_back(std::make_unique<QORRdbmsTran>());
    }
};

// The engine would otherwise plan a statement anew for each value that promises a better plan, for longer than it runs.
TEST_F(PostgresPool, WhatTheHostKnowsIsPlannedOnceForAllValues) {
    prepare(
        "CREATE TABLE t (i int); INSERT INTO t SELECT 7 FROM generate_series(1, 1000); CREATE INDEX ON t (i); "
        "ANALYZE t");
    const auto customPlans = [](ASAccess access, const std::string& name) {
        QORRdbmsTran transaction(access);
        for (int value = 0; value < 9; ++value) {
            ASStatement& select =
                transaction->prepare("SELECT count(*) AS " + name + " FROM t WHERE i < CAST(? AS int)");
            select.bind(1, std::int64_t{value}).execute();
            EXPECT_TRUE(select.fetch());
            select.close();
        }
        ASStatement& plans = transaction->prepare(
            "SELECT custom_plans FROM pg_prepared_statements WHERE statement LIKE 'SELECT count(%) AS " + name + " %'");
        plans.execute();
        EXPECT_TRUE(plans.fetch());
        return plans.integer(1);
    };
    EXPECT_EQ(customPlans(ASAccess::ReadKnown, "known"), 0);
    EXPECT_GE(customPlans(ASAccess::Read, "other"), 5) << "the test would notice";
}

TEST_F(PostgresPool, ASessionMeansWhatTheLayerMeansWhateverServerAndRoleSay) {
    const std::string role = "ALTER DATABASE " + database.name() + " SET ";
    engine().run(role + "standard_conforming_strings = off;" + role + "TimeZone = 'Asia/Tokyo';" + role +
                 "bytea_output = escape;" + role + "IntervalStyle = iso_8601;" + role + "extra_float_digits = -5");
    open();
    EXPECT_EQ(cell("SHOW standard_conforming_strings"), "on");
    EXPECT_EQ(cell("SHOW TimeZone"), "UTC");
    EXPECT_EQ(cell("SHOW bytea_output"), "hex");
    EXPECT_EQ(cell("SHOW IntervalStyle"), "postgres");
    EXPECT_EQ(cell("SHOW application_name"), "qor");
    EXPECT_EQ(cell("SELECT 0.1::float8 + 0.2::float8"), "0.30000000000000004");
}

TEST_F(PostgresPool, WhatTheAdministratorTellsTheClientLibraryCounts) {
    open(";pqopt={application_name=mine}");
    EXPECT_EQ(cell("SHOW application_name"), "mine");
}

TEST_F(PostgresPool, ASettingThatContradictsTheLayerIsRefusedByItsName) {
    EXPECT_THAT(failureOf([&] { open(";Protocol=7.4-1"); }).text(), HasSubstr("Protocol=7.4-1, which has to be 7.4-0"));
    EXPECT_THAT(failureOf([&] { open(";usedeclarefetch=1"); }).text(), HasSubstr("UseDeclareFetch=1"));
    EXPECT_THAT(failureOf([&] { open(";ConnSettings=set+x"); }).text(), HasSubstr("ConnSettings"));
    EXPECT_THAT(failureOf([&] { open(";A1=7.4-2"); }).text(), HasSubstr("\"A1\""));
    EXPECT_THAT(failureOf([&] { open(";cx=1"); }).text(), HasSubstr("\"cx\""));
    EXPECT_THAT(failureOf([&] { open(";CommLog=1"); }).text(), HasSubstr("CommLog=1, which has to be 0"));
    open(";Protocol=7.4-0;LFConversion=0");
    EXPECT_EQ(cell("SELECT 1"), "1");
}

TEST_F(PostgresPool, ADatabaseThatIsNotThereIsNamed) {
    ASDatabaseOptions none = options();
    none.connectionString = PostgresServer::shared().connectionString("nowhere");
    const AException failure = failureOf([&] { QORRdbms::instance().configure(none); });
    EXPECT_EQ(failure.failure(), ASFailure::Unreachable);
    EXPECT_THAT(failure.text(),
                HasSubstr("cannot open the database \"nowhere\" with the driver \"PostgreSQL Unicode\""));
    EXPECT_THAT(failure.text(), HasSubstr("does not exist"));
}

TEST_F(PostgresPool, ATransactionOfWhichAStatementFailedCommitsNothingAndSaysSo) {
    prepare("CREATE TABLE t (i int PRIMARY KEY)");
    const AException failure = failureOf([] {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->execute("INSERT INTO t VALUES (1)");
        EXPECT_EQ(failureOf([&] { transaction->execute("INSERT INTO t VALUES (1)"); }).sqlState(), "23505");
        EXPECT_EQ(failureOf([&] { transaction->execute("INSERT INTO t VALUES (2)"); }).failure(), ASFailure::Aborted);
        transaction.commit();
    });
    EXPECT_EQ(failure.failure(), ASFailure::Aborted);
    EXPECT_THAT(failure.text(), HasSubstr("duplicate key"));
    EXPECT_EQ(engine().cell("SELECT count(*) FROM t"), "0");
    write("INSERT INTO t VALUES (3)");
    EXPECT_EQ(engine().cell("SELECT i FROM t"), "3") << "the connection is as good as before";
}

TEST_F(PostgresPool, AFailureSpeaksOfTheStatementAndNotOfRows) {
    prepare("CREATE TABLE t (s text PRIMARY KEY); INSERT INTO t VALUES ('secret'), ('12x')");
    const AException twice = failureOf([] { write("INSERT INTO t VALUES ('secret')"); });
    EXPECT_EQ(twice.text(), "duplicate key value violates unique constraint \"t_pkey\"");
    const AException unreadable = failureOf([] { cell("SELECT s::int FROM t WHERE s <> 'secret'"); });
    EXPECT_EQ(unreadable.text(), "invalid input syntax for type integer");
    prepare(
        "CREATE TABLE v (s text); INSERT INTO v VALUES ('3000000001'); CREATE TABLE w (s text); INSERT INTO w VALUES "
        "('secret')");
    const auto textOf = [](const char* sql) { return failureOf([sql] { cell(sql); }).text(); };
    EXPECT_EQ(textOf("SELECT s::int FROM v"), "a number is out of range for its type");
    EXPECT_EQ(textOf("SELECT to_date(s, 'YYYY') FROM w"), "a value is no date or time");
    EXPECT_EQ(textOf("SELECT s::timestamp FROM w"), "a value is no date or time");
    EXPECT_EQ(textOf("SELECT ('2024-13-' || length(s))::date FROM w"), "a date or time is out of range");
    for (const char* const sql :
         {"SELECT s::json FROM w", "SELECT s::uuid FROM w", "SELECT 'a' ~ ('(' || s) FROM w", "SELECT s::inet FROM w",
          "SELECT decode(s, 'hex') FROM w", "SELECT s::xml FROM w", "SELECT 'a' LIKE (s || '\\') FROM w",
          "SELECT ('{' || s)::int[] FROM w", "SELECT convert_from(s::bytea || '\\xff', 'UTF8') FROM w",
          "SELECT set_config('work_mem', s, true) FROM w", "SELECT s::bit(4) FROM w", "SELECT to_number(s, '9') FROM w",
          "SELECT s::money FROM w", "SELECT s::interval FROM w", "SELECT s::jsonpath FROM w",

          "SELECT s::boolean FROM w", "SELECT s::point FROM w", "SELECT s::tsquery FROM w",
          "SELECT s::int4range FROM w"})
        EXPECT_EQ(textOf(sql).find("secret"), std::string::npos) << sql << ": " << textOf(sql);
    EXPECT_EQ(failureOf([] { cell("SELECT * FROM nowhere"); }).text(), "relation \"nowhere\" does not exist");
}

TEST_F(PostgresPool, NoReadCanBeMadeToWrite) {
    prepare(
        "CREATE TABLE t (i int); CREATE FUNCTION f() RETURNS int LANGUAGE sql AS 'INSERT INTO t VALUES (1) RETURNING "
        "i';"
        "CREATE VIEW v AS SELECT f() AS i");
    for (const ASAccess access : {ASAccess::ReadOne, ASAccess::Read}) {
        EXPECT_EQ(failureOf([&] { cell("SELECT i FROM v", access); }).failure(), ASFailure::ReadOnly);
        EXPECT_EQ(failureOf([&] {
                      QORRdbmsTran transaction(access);
                      ASStatement& undo =
                          transaction->prepare("SELECT set_config('transaction_read_only', 'off', false)");
                      undo.execute();
                  }).sqlState(),
                  "25001");
    }
    EXPECT_EQ(engine().cell("SELECT count(*) FROM t"), "0");
}

TEST_F(PostgresPool, NoReadWithoutATransactionCanBeMadeToWrite) {
    prepare(
        "CREATE TABLE t (i int); CREATE FUNCTION f() RETURNS int LANGUAGE sql AS 'INSERT INTO t VALUES (1) RETURNING "
        "i'; CREATE VIEW v AS SELECT f() AS i;"
        "CREATE VIEW u AS SELECT length(set_config('transaction_read_only', 'off', false)) AS i;"
        "CREATE VIEW w AS SELECT length(set_config('default_transaction_read_only', 'off', false)) AS i");
    // As if nothing were computed in them.
    EXPECT_EQ(failureOf([] { single("v", true); }).failure(), ASFailure::ReadOnly);
    EXPECT_EQ(failureOf([] { single("u", true); }).sqlState(), "25001");
    // What is computed is undone with the transaction that it gets.
    EXPECT_EQ(single("w", false), "3");
    EXPECT_EQ(failureOf([] { single("v", true); }).failure(), ASFailure::ReadOnly);
    EXPECT_EQ(cell("SELECT current_setting('default_transaction_read_only')"), "on");
    EXPECT_EQ(engine().cell("SELECT count(*) FROM t"), "0");
}

TEST_F(PostgresPool, ASingleReadThatComputesNothingIsOneWayThereAndBack) {
    engine().run("CREATE TABLE t (i int); INSERT INTO t VALUES (7); CREATE VIEW v AS SELECT i FROM t");
    PostgresGate gate(PostgresServer::shared().folder());
    openThrough(gate);
    for (const bool known : {true, false})
        EXPECT_EQ(single("v", known), "7");
    gate.asked();
    EXPECT_EQ(single("v", true), "7");
    EXPECT_THAT(gate.asked(), ElementsAre("prepared"));
    EXPECT_EQ(single("v", false), "7");
    EXPECT_THAT(gate.asked(), ElementsAre("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY", "prepared", "ROLLBACK"));
    EXPECT_EQ(cell("SELECT i FROM v"), "7");
    EXPECT_THAT(gate.asked(), Contains(HasSubstr("READ ONLY"))) << "nobody knows what the host's own text computes";
    const QORRequestScope scope(std::make_shared<QORRequestControl>(std::chrono::seconds(30)));
    EXPECT_EQ(single("v", true), "7");
    EXPECT_THAT(gate.asked(), ElementsAre("SET statement_timeout = 32768; SET lock_timeout = 0", "prepared"));
    EXPECT_EQ(single("v", true), "7");
    EXPECT_THAT(gate.asked(), ElementsAre("prepared")) << "the bound of one request serves the next";
    QORRdbms::instance().shutdown();
}

TEST_F(PostgresPool, WhatBoundsOneRequestBoundsNobodyElse) {
    prepare(
        "CREATE VIEW v AS SELECT CAST(extract(epoch FROM CAST(current_setting('statement_timeout') AS interval)) AS "
        "int) AS i");
    const auto within = [](std::chrono::seconds deadline, bool known) {
        const QORRequestScope scope(std::make_shared<QORRequestControl>(deadline));
        return single("v", known);
    };
    EXPECT_EQ(single("v", true), "0");
    EXPECT_EQ(within(std::chrono::seconds(60), true), "66");
    EXPECT_EQ(single("v", false), "0") << "a transaction of nobody's request";
    EXPECT_EQ(within(std::chrono::seconds(60), true), "66");
    EXPECT_EQ(within(std::chrono::seconds(2), true), "4") << "much wider than the request is not kept";
    EXPECT_EQ(within(std::chrono::seconds(600), true), "1049");
    EXPECT_EQ(single("v", true), "0");
    EXPECT_EQ(cell("SHOW lock_timeout"), "200ms");
}

TEST_F(PostgresPool, ASingleReadOnAConnectionThatWasEndedIsDoneOnANewOne) {
    prepare("CREATE TABLE t (i int); INSERT INTO t VALUES (7); CREATE VIEW v AS SELECT i FROM t");
    for (const bool known : {true, false}) {
        openSome(5);
        EXPECT_EQ(single("v", known), "7");
        endConnections();
        EXPECT_EQ(single("v", known), "7");
        EXPECT_EQ(connections(), "1") << "the other four are not tried one by one";
        endConnections();
        EXPECT_EQ(cell("SELECT i FROM v"), "7");
    }
    openSome(2);
    PostgresServer::shared().crash();
    const AException failure = failureOf([] { single("v", true); });
    PostgresServer::shared().start();
    EXPECT_EQ(failure.failure(), ASFailure::Unreachable);
    EXPECT_EQ(single("v", true), "7");
}

TEST_F(PostgresPool, ASingleReadThatHasBegunIsNotDoneAgain) {
    prepare("CREATE TABLE t (i int); INSERT INTO t VALUES (7); CREATE VIEW v AS SELECT i FROM t");
    const AException failure = failureOf([&] {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        const Column i = column(ASDomain::view("v", {}, {}, true), "i", ASType::Int);
        for (int run = 0; run < 2; ++run) {
            ASCursor cursor(*transaction);
            cursor.Filter().Project() << i.attribute;
            cursor.Limit(20, 0);
            cursor.Fetch();
            endConnections();
        }
    });
    EXPECT_EQ(failure.failure(), ASFailure::Unreachable);
}

TEST_F(PostgresPool, ADatabaseThatIsOpenedForReadingIsNeverWritten) {
    engine().run("CREATE TABLE t (i int)");
    ASDatabaseOptions reading = options();
    reading.readOnly = true;
    QORRdbms::instance().configure(reading);
    EXPECT_EQ(failureOf([] { write("INSERT INTO t VALUES (1)"); }).failure(), ASFailure::ReadOnly);
    EXPECT_EQ(cell("SELECT count(*) FROM t"), "0");
}

TEST_F(PostgresPool, SeveralSelectsSeeOneState) {
    prepare("CREATE TABLE t (i int)");
    QORRdbmsTran transaction(ASAccess::Read);
    ASStatement& count = transaction->prepare("SELECT count(*) FROM t");
    for (const char* sql : {"INSERT INTO t VALUES (1)", "INSERT INTO t VALUES (2)"}) {
        count.execute();
        ASSERT_TRUE(count.fetch());
        EXPECT_EQ(count.integer(1), 0);
        engine().run(sql);
    }
}

TEST_F(PostgresPool, ConnectionsThatWereEndedAreReplacedBeforeARequestNotices) {
    open();
    openSome(5);
    ASSERT_EQ(connections(), "5");
    endConnections();
    EXPECT_EQ(cell("SELECT 1"), "1");
    EXPECT_EQ(connections(), "1") << "the other four are not tried one by one";
    endConnections();
    prepare("CREATE TABLE t (i int)");
    endConnections();
    write("INSERT INTO t VALUES (1)");
    EXPECT_EQ(engine().cell("SELECT count(*) FROM t"), "1");
}

TEST_F(PostgresPool, AServerThatWasDownIsUsedAgainWithoutANewStart) {
    open();
    openSome(3);
    PostgresServer::shared().crash();
    const AException failure = failureOf([] { cell("SELECT 1"); });
    PostgresServer::shared().start();
    EXPECT_EQ(failure.failure(), ASFailure::Unreachable);
    EXPECT_THAT(failure.text(), HasSubstr("database \"" + database.name() + "\""));
    EXPECT_EQ(cell("SELECT 1"), "1");
}

TEST_F(PostgresPool, AConnectionThatIsLostWithinATransactionIsAFailureOfIt) {
    prepare("CREATE TABLE t (i int)");
    const AException failure = failureOf([&] {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->execute("INSERT INTO t VALUES (1)");
        endConnections();
        transaction->execute("INSERT INTO t VALUES (2)");
        transaction.commit();
    });
    EXPECT_EQ(failure.failure(), ASFailure::Unreachable);
    EXPECT_EQ(engine().cell("SELECT count(*) FROM t"), "0");
    write("INSERT INTO t VALUES (3)");
    EXPECT_EQ(engine().cell("SELECT i FROM t"), "3");
}

class LostCommit : public PostgresPool, public ::testing::WithParamInterface<bool> {
protected:
    /// With tokens or without.
    void SetUp() override {
        if (GetParam()) {
            QORDBSchema::open(options(), QORSchemaMode::Own);
            QORRdbms::instance().shutdown();
        }
        engine().run("CREATE TABLE t (i int)");
    }
};
INSTANTIATE_TEST_SUITE_P(PostgresPool, LostCommit, ::testing::Bool());

TEST_P(LostCommit, IsSettled) {
    PostgresGate gate(PostgresServer::shared().folder());
    openThrough(gate);
    gate.loseAnswerTo("COMMIT");
    write("INSERT INTO t VALUES (1)");
    EXPECT_EQ(engine().cell("SELECT count(*) FROM t"), "1");
    gate.loseRequest("COMMIT");
    const AException failure = failureOf([] { write("INSERT INTO t VALUES (2)"); });
    EXPECT_EQ(failure.failure(), ASFailure::Unreachable);
    EXPECT_THAT(failure.text(), HasSubstr("nothing was committed"));
    EXPECT_EQ(engine().cell("SELECT count(*) FROM t"), "1");
    openThrough(gate, 200);
    EXPECT_EQ(cell("SELECT count(*) FROM t"), "1");
    gate.loseAnswerTo("COMMIT");
    gate.close();
    EXPECT_EQ(failureOf([] { write("INSERT INTO t VALUES (3)"); }).failure(), ASFailure::Undecided);
}

TEST_F(PostgresPool, ATransactionThatACrashTookIsNotTakenForTheOneThatGotItsNumber) {
    QORDBSchema::open(options(), QORSchemaMode::Own);
    engine().run("CREATE TABLE t (i int)");
    engine().run("CHECKPOINT");
    PostgresGate gate(PostgresServer::shared().folder());
    openThrough(gate);
    unsigned taken = 0;
    for (int attempt = 0; attempt < 5 && taken == 0; ++attempt) {
        std::string lost;
        gate.onLoss([&] {
            PostgresServer::shared().crash();
            PostgresServer::shared().start();
            // What the engine had not written to the disk yet it has not heard of.
            while (std::stoll(engine().cell("SELECT pg_snapshot_xmax(pg_current_snapshot())")) <= std::stoll(lost)) {
                if (engine().cell("INSERT INTO t VALUES (0) RETURNING pg_current_xact_id()") == lost) ++taken;
            }
        });
        gate.loseRequest("COMMIT");
        const AException failure = failureOf([&] {
            QORRdbmsTran transaction(ASAccess::Write);
            ASStatement& insert = transaction->prepare("INSERT INTO t VALUES (1) RETURNING pg_current_xact_id()");
            insert.execute();
            ASSERT_TRUE(insert.fetch());
            lost = insert.text(1);
            insert.close();
            transaction.commit();
        });
        EXPECT_EQ(failure.failure(), ASFailure::Unreachable) << failure.text();
        EXPECT_EQ(engine().cell("SELECT count(*) FROM t WHERE i = 1"), "0");
    }
    EXPECT_GT(taken, 0U) << "nothing was tested: the engine gave no number out again";
}

TEST_F(PostgresPool, TokensOfCommitsAreLeftByWhoWritesAndGoAfterAnHour) {
    QORDBSchema::open(options(), QORSchemaMode::Own);
    const auto tokens = [&] { return std::stoi(engine().cell("SELECT count(*) FROM qor_commit")); };
    const int before = tokens();
    write("INSERT INTO qor_change (n) VALUES (1)");
    EXPECT_EQ(tokens(), before + 1);
    write("SELECT 1");
    EXPECT_EQ(tokens(), before + 1) << "nothing was written";
    engine().run(
        "INSERT INTO qor_commit (token, time) SELECT 'old' || i, now() - interval '2 hours' FROM "
        "generate_series(1, 1000) i");
    PostgresConnection look = engine();
    const auto old = [&] { return look.cell("SELECT count(*) FROM qor_commit WHERE token LIKE 'old%'"); };
    for (int i = 0; i < 5000 && old() != "0"; ++i)
        write("UPDATE qor_change SET n = n + 1");
    EXPECT_EQ(old(), "0");
}

TEST_F(PostgresPool, ATransactionThatIsUndoneForAnotherOnesSakeIsRunAgain) {
    prepare("CREATE TABLE t (i int PRIMARY KEY, n int); INSERT INTO t VALUES (1, 0), (2, 0)");
    PostgresConnection other = engine();
    other.run("SET deadlock_timeout = '60s'; BEGIN; UPDATE t SET n = n + 10 WHERE i = 2");
    unsigned runs = 0;
    std::future<void> waiting;
    QORRdbms::instance().write([&](ASSession& session) {
        // Else it could come before the other one again.
        if (++runs == 2) waiting.get();
        session.execute("SET LOCAL deadlock_timeout = '1ms'; SET LOCAL lock_timeout = 0");
        session.execute("UPDATE t SET n = n + 1 WHERE i = 1");
        if (runs == 1) {
            waiting = std::async(std::launch::async, [&] { other.run("UPDATE t SET n = n + 10 WHERE i = 1; COMMIT"); });
            while (engine().cell("SELECT count(*) FROM pg_locks WHERE NOT granted") == "0")
                std::this_thread::sleep_for(milliseconds(1));
        }
        session.execute("UPDATE t SET n = n + 1 WHERE i = 2");
    });
    EXPECT_EQ(runs, 2U);
    EXPECT_EQ(engine().cell("SELECT string_agg(n::text, ' ' ORDER BY i) FROM t"), "11 11");
}

TEST_F(PostgresPool, ALockIsWaitedForAsLongAsTheOptionsSay) {
    prepare("CREATE TABLE t (i int); INSERT INTO t VALUES (1)");
    PostgresConnection other = engine();
    other.run("BEGIN; UPDATE t SET i = 2");
    const AException failure = failureOf([] { write("UPDATE t SET i = 3"); });
    EXPECT_EQ(failure.failure(), ASFailure::Locked);
    EXPECT_THAT(failure.text(), HasSubstr("lock timeout"));
    other.run("COMMIT");
    write("UPDATE t SET i = 3");
}

TEST_F(PostgresPool, WhoHoldsLocksIsLoggedWhereAWriterHasWaitedUntilItsDeadline) {
    engine().run("CREATE TABLE t (i int); INSERT INTO t VALUES (1)");
    ASDatabaseOptions patient = options();
    patient.busyTimeoutMs = 60'000;  // which is what the end of a transaction may take
    PostgresGate gate(PostgresServer::shared().folder());
    patient.connectionString = database.connectionStringThrough(gate.folder());
    QORRdbms::instance().configure(patient);
    PostgresConnection other = engine();
    other.run("SET application_name = 'theirs'; BEGIN; UPDATE t SET i = 2 WHERE 'secret' <> ''");
    std::string told;
    // On a busy machine the deadline may pass before anything was sent.
    while (told.empty()) {
        std::vector<std::string> lines;
        setLogSink([&](const QORLogRecord& record) { lines.emplace_back(record.text); });
        gate.asked();
        const QORRequestScope scope(std::make_shared<QORRequestControl>(milliseconds(300)));
        EXPECT_ANY_THROW(QORRdbms::instance().write([](ASSession& session) { session.execute("UPDATE t SET i = 3"); }));
        setLogSink({});
        for (const std::string& line : lines) {
            if (line.find("locks are held by") != std::string::npos) told = line;
        }
    }
    EXPECT_THAT(told, HasSubstr("session " + other.cell("SELECT pg_backend_pid()") + " (\"theirs\", role \""));
    EXPECT_THAT(told, HasSubstr("\", idle in transaction, in a transaction for "));
    EXPECT_THAT(told, HasSubstr(" s) on t"));
    EXPECT_THAT(told, Not(HasSubstr("secret")));
    EXPECT_THAT(gate.asked(), testing::Contains("ROLLBACK").Times(1));
    QORRdbms::instance().shutdown();  // the gate goes when nobody is in it
}

TEST_F(PostgresPool, AStatementEndsWithItsRequest) {
    open();
    const auto ended = [](auto call) {
        try {
            call();
        } catch (const QORException& error) {
            EXPECT_EQ(error.code(), errDeadline);
            return error.message();
        }
        return std::string("done");
    };
    {
        const QORRequestScope scope(std::make_shared<QORRequestControl>(milliseconds(100)));
        EXPECT_EQ(ended([] { cell("SELECT pg_sleep(600)"); }), "the request's deadline of 100 ms has passed");
    }
    const auto control = std::make_shared<QORRequestControl>();
    const QORRequestScope scope(control);
    const auto client = std::async(std::launch::async, [&] {
        while (engine().cell("SELECT count(*) FROM pg_stat_activity WHERE query LIKE 'SELECT pg_sleep(700)%'") == "0")
            std::this_thread::sleep_for(milliseconds(1));
        control->cancel(QORRequestControl::End::Gone);
    });
    EXPECT_NE(ended([] { cell("SELECT pg_sleep(700)"); }), "done");
    client.wait();
    const QORRequestScope none(nullptr);
    EXPECT_EQ(cell("SELECT 1"), "1");
    EXPECT_EQ(connections(), "1") << "the connection is as good as before";
}

/// A server whose processes hang, for as long as the object lives.
class Suspended {
public:
    Suspended() { PostgresServer::shared().suspend(); }
    ~Suspended() { PostgresServer::shared().resume(); }
    Suspended(const Suspended&) = delete;
    Suspended& operator=(const Suspended&) = delete;
};

/// What a request is told in the end that waits for the server until its deadline.
template <class Work>
std::string toldInTime(Work work) {
    return toldWhileWaiting([&]() -> std::string {
        try {
            work();
        } catch (const QORException& error) {
            EXPECT_EQ(error.code(), errDeadline);
            return error.message();
        }
        return "(no failure)";
    });
}

TEST_F(PostgresPool, AServerThatHangsIsWaitedForAsLongAsTheRequestMayGoOn) {
    prepare("CREATE TABLE t (i int); INSERT INTO t VALUES (1)");
    openSome(3);
    const std::string told = ": database \"" + database.name() + "\" does not answer";
    {
        const Suspended suspended;
        EXPECT_EQ(toldInTime([] { cell("SELECT i FROM t"); }), told) << "a statement";
        EXPECT_EQ(toldInTime([] { QORRdbmsTran transaction(ASAccess::Read); }), told) << "a transaction's beginning";
        EXPECT_EQ(toldInTime([] { QORRdbmsTran transaction(ASAccess::Write); }), told);
        EXPECT_THAT(toldInTime([] { cell("SELECT i FROM t"); }), HasSubstr("does not answer")) << "a new connection";
    }
    EXPECT_EQ(cell("SELECT i FROM t"), "1");
    write("INSERT INTO t VALUES (2)");
    EXPECT_EQ(engine().cell("SELECT count(*) FROM t"), "2");
}

TEST_F(PostgresPool, AServerThatBeginsToHangWithinATransactionKeepsNobody) {
    prepare("CREATE TABLE t (i int); INSERT INTO t VALUES (1)");
    EXPECT_THAT(toldInTime([] {
                    QORRdbmsTran transaction(ASAccess::Write);
                    transaction->execute("INSERT INTO t VALUES (2)");
                    const Suspended suspended;
                    transaction->execute("INSERT INTO t VALUES (3)");
                    transaction.commit();
                }),
                HasSubstr("does not answer"));
    {
        auto transaction = std::make_unique<QORRdbmsTran>(ASAccess::Write);
        (*transaction)->execute("INSERT INTO t VALUES (4)");
        const Suspended suspended;
        transaction.reset();
    }
    EXPECT_EQ(cell("SELECT count(*) FROM t"), "1");
}

TEST_F(PostgresPool, ConnectionsToAServerThatHangsAreClosedWithoutIt) {
    open();
    for (const char* sql : {"SELECT 1", "SELECT 2", "SELECT 3"})
        cell(sql);
    const Suspended suspended;
    QORRdbms::instance().shutdown();
}

TEST_F(PostgresPool, AStatementWhoseViewHasChangedIsPreparedAgain) {
    prepare("CREATE VIEW v AS SELECT 1 AS i, 'a'::text AS s");
    const auto both = [] {
        QORRdbmsTran transaction(ASAccess::Read);
        std::string all;
        for (const char* sql : {"SELECT * FROM v", "SELECT * FROM v ORDER BY 1"}) {
            ASStatement& statement = transaction->prepare(sql);
            statement.execute();
            all += statement.fetch() ? std::string(statement.text(1)) + " " : "- ";
            statement.close();
        }
        return all;
    };
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(both(), "1 1 ");
    engine().run("DROP VIEW v; CREATE VIEW v AS SELECT 'b'::text AS i, 2.5::numeric AS s");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(both(), "b b ");
}

TEST_F(PostgresPool, ValuesComeAndGoExactly) {
    prepare("CREATE TABLE t (d float8, b bytea, s text, n bigint, x numeric)");
    const std::string longText(300'000, 'x');
    const std::string bytes("\0\x01X'00'\xff", 8);
    {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->prepare("INSERT INTO t VALUES (?, ?, ?, ?, ?)")
            .bind(1, 0.1 + 0.2)
            .bindBinary(2, bytes)
            .bind(3, longText)
            .bind(4, std::int64_t{-9223372036854775807 - 1})
            .bind(5, "12345678901234567890123456.789")
            .execute();
        EXPECT_EQ(transaction->changes(), 1);
        transaction.commit();
    }
    QORRdbmsTran transaction;
    ASStatement& row = transaction->prepare("SELECT d, b, s, n, x FROM t");
    row.execute();
    ASSERT_TRUE(row.fetch());
    EXPECT_EQ(row.text(1), "0.30000000000000004");
    EXPECT_EQ(row.bytes(2), bytes);
    EXPECT_EQ(row.text(3), longText);
    EXPECT_EQ(row.integer(4), -9223372036854775807 - 1);
    EXPECT_EQ(row.text(5), "12345678901234567890123456.789");
}

TEST_F(PostgresPool, AStatementThatChangesNothingIsNoFailure) {
    prepare("CREATE TABLE t (i int)");
    QORRdbmsTran transaction(ASAccess::Write);
    ASStatement& none = transaction->prepare("UPDATE t SET i = ? WHERE i = 7");
    none.bind(1, std::int64_t{1}).execute();
    EXPECT_EQ(transaction->changes(), 0);
    transaction->execute("DELETE FROM t");
    transaction.commit();
}

}  // namespace
}  // namespace QOR::test
