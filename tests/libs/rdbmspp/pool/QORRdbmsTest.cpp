// Connections, transactions, and databases that are not there, not well or not ours.
#include "rdbmspp/pool/QORRdbms.h"

#include <atomic>
#include <fstream>
#include <mutex>
#include <optional>
#include <thread>

#include "libs/rdbmspp/DatabaseFixture.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/pool/ASNumbers.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class QORRdbmsTest : public DatabaseTest {
protected:
    static constexpr const char* schema =
        "CREATE TABLE t (a INT, s NVARCHAR(20)); INSERT INTO t VALUES (1, 'one'), (2, 'two');"
        "CREATE VIEW v AS SELECT * FROM t";

    std::vector<std::string> all() const { return select(a.attribute, {}, {ASOrder(a.attribute)}, 100); }
    void insert(int value) const {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->prepare("INSERT INTO t (a) VALUES (?)").bind(1, std::int64_t(value)).execute();
        transaction.commit();
    }

    ASDomainPtr v = domainOf("v");
    Column a = column(v, "a", ASType::Int);
};

TEST_F(QORRdbmsTest, HostStatementsBindAndRead) {
    open("CREATE TABLE t (i BIGINT, d DOUBLE, s TEXT, b BLOB)");
    QORRdbmsTran transaction(ASAccess::Write);
    auto& insert = transaction->prepare("INSERT INTO t VALUES (?, ?, ?, ?)");
    const std::string bytes("\0\xffX'", 4);
    insert.bind(1, std::int64_t(5000000000)).bind(2, 0.5).bind(3, "it's").bindBinary(4, bytes).execute();
    EXPECT_EQ(transaction->changes(), 1);
    auto& again = transaction->prepare("INSERT INTO t VALUES (?, ?, ?, ?)");
    again.bindNull(1).execute();
    transaction->execute("UPDATE t SET d = 2");
    EXPECT_EQ(transaction->changes(), 2);
    auto& query = transaction->prepare("SELECT i, d, s, b FROM t ORDER BY rowid");
    query.execute();
    ASSERT_TRUE(query.fetch());
    EXPECT_EQ(query.integer(1), 5000000000);
    EXPECT_EQ(query.text(3), "it's");
    EXPECT_EQ(query.bytes(4), bytes);
    EXPECT_THROW(query.integer(3), AException);
    ASSERT_TRUE(query.fetch());
    for (const unsigned column : {1u, 3u, 4u})
        EXPECT_TRUE(query.isNull(column)) << column;
    EXPECT_FALSE(query.fetch());
    query.execute();
    EXPECT_TRUE(query.fetch());
}

TEST_F(QORRdbmsTest, FailureCarriesTheStatement) {
    open(schema);
    QORRdbmsTran transaction(ASAccess::ReadOne);
    try {
        transaction->execute("SELECT missing FROM t");
        FAIL();
    } catch (const AException& error) {
        EXPECT_EQ(error.text(), "no such column: missing");
        EXPECT_EQ(error.statement(), "SELECT missing FROM t");
    }
    EXPECT_THROW(transaction->prepare("SELECT"), AException);
    EXPECT_THROW(transaction->execute("DELETE FROM t; DELETE FROM t"), AException);
}

TEST_F(QORRdbmsTest, WriteIsKeptOnlyWhenCommitted) {
    open(schema);
    insert(3);
    {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->execute("INSERT INTO t (a) VALUES (4)");
    }
    EXPECT_THAT(all(), ElementsAre("1", "2", "3"));
}

TEST_F(QORRdbmsTest, ReadSeesOneState) {
    open(schema);
    QORRdbmsTran reading(ASAccess::Read);
    const auto read = [&] {
        ASCursor cursor(*reading);
        cursor.Filter().Project() << a.attribute;
        while (cursor.Fetch()) {
        }
        return cursor.GetAmount();
    };
    EXPECT_EQ(read(), 2);
    insert(3);
    EXPECT_EQ(read(), 2);
    EXPECT_EQ(all().size(), 3u);
}

/// How many rows there are, and a number that is another one each time that it is asked for.
constexpr const char* rowsAndRandom = "SELECT count(*), random() FROM t";

TEST_F(QORRdbmsTest, NumbersAreAskedForOnceWhileTheDatabaseIsAsItWas) {
    open(schema);
    const auto read = [](ASSession& session) {
        readNumbers(session, "SELECT count(*) FROM v", 1);  // which state it is shows once something was read
        return readNumbers(session, rowsAndRandom, 2);
    };
    const auto readAnew = [&] { return read(*QORRdbmsTran(ASAccess::Read)); };
    const auto numbers = readAnew();
    EXPECT_EQ(numbers.at(0), 2);
    EXPECT_EQ(readAnew(), numbers);
    insert(3);
    EXPECT_EQ(readAnew().at(0), 3);
    Engine(path()).run("INSERT INTO t (a) VALUES (4)");
    EXPECT_EQ(readAnew().at(0), 4) << "of another program";
    {
        QORRdbmsTran reading(ASAccess::Read);
        const auto before = read(*reading);
        insert(5);
        EXPECT_EQ(read(*reading), before);
    }
    EXPECT_EQ(readAnew().at(0), 5);
    {
        QORRdbmsTran writing(ASAccess::Write);
        EXPECT_EQ(read(*writing).at(0), 5);
        writing->execute("INSERT INTO t (a) VALUES (6)");
        EXPECT_EQ(read(*writing).at(0), 6);
    }
    EXPECT_EQ(readAnew().at(0), 5);
}

TEST_F(QORRdbmsTest, NumbersAreWholeOnes) {
    open(schema);
    QORRdbmsTran reading(ASAccess::Read);
    EXPECT_THAT(readNumbers(*reading, "SELECT NULL, -7", 2), ElementsAre(0, -7));
    EXPECT_TRUE(readNumbers(*reading, "SELECT a FROM t WHERE a > 9", 1).empty());
    EXPECT_EQ(failure([&] { readNumbers(*reading, "SELECT s FROM t ORDER BY a", 1); }), "\"one\" is no integer");
}

TEST_F(QORRdbmsTest, ConnectionsAreKeptAndReused) {
    open(schema);
    ASSession* first = nullptr;
    {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        first = &*transaction;
    }
    QORRdbmsTran transaction(ASAccess::Read);
    EXPECT_EQ(&*transaction, first);
}

TEST_F(QORRdbmsTest, RequestBeyondTheMostWaitsItsTurn) {
    Engine(path()).run(schema);
    auto limited = options();
    limited.maxConnections = 2;
    QORRdbms::instance().configure(limited);
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                QORRdbmsTran transaction(ASAccess::ReadOne);
                const int now = ++inside;
                for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
                }
                std::this_thread::yield();
                --inside;
                ++done;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(done, 400);
    EXPECT_LE(most, 2);
}

TEST_F(QORRdbmsTest, WaitersAreServedInTheirOrder) {
    Engine(path()).run(schema);
    auto limited = options();
    limited.maxConnections = 1;
    QORRdbms::instance().configure(limited);
    std::mutex mutex;
    std::vector<int> order;
    std::vector<std::thread> threads;
    {
        std::optional<QORRdbmsTran> held(std::in_place, ASAccess::ReadOne);
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                QORRdbmsTran transaction(ASAccess::ReadOne);
                const std::lock_guard lock(mutex);
                order.push_back(t);
            });
            while (QORRdbms::instance().waiting() < static_cast<std::size_t>(t) + 1)
                std::this_thread::yield();
        }
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_THAT(order, ElementsAre(0, 1, 2, 3));
}

TEST_F(QORRdbmsTest, ThreadThatHoldsEveryConnectionIsToldInsteadOfWaitingForItself) {
    Engine(path()).run(schema);
    auto limited = options();
    limited.maxConnections = 1;
    QORRdbms::instance().configure(limited);
    QORRdbmsTran held(ASAccess::ReadOne);
    EXPECT_EQ(failure([] { QORRdbmsTran another(ASAccess::ReadOne); }),
              "this thread already uses every connection there may be");
}

TEST_F(QORRdbmsTest, ThreadsReadAndWriteAtOnce) {
    Engine(path()).run(schema);
    auto patient = options();
    patient.busyTimeoutMs = 20000;
    QORRdbms::instance().configure(patient);
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const auto domain = domainOf("v");
            const Column mine = column(domain, "a", ASType::Int);
            for (int i = 0; i < 40; ++i) {
                try {
                    if (t == 0) {
                        insert(100 + i);
                    } else if (select(mine.attribute, mine.attribute <= ASInt(2), {}, i % 2 ? 20 : 0).size() != 2) {
                        ++failures;
                    }
                } catch (const std::exception&) {
                    ++failures;
                }
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(all().size(), 42u);
}

TEST_F(QORRdbmsTest, StatementWithRowsRunsToItsEnd) {
    open(schema);
    QORRdbmsTran transaction(ASAccess::ReadOne);
    transaction->execute("PRAGMA user_version = 7");
    transaction->execute("INSERT INTO t (a) VALUES (3) RETURNING a");
    auto& version = transaction->prepare("PRAGMA user_version");
    version.execute();
    ASSERT_TRUE(version.fetch());
    EXPECT_EQ(version.integer(1), 7);
    EXPECT_EQ(all().size(), 3u);
}

TEST_F(QORRdbmsTest, FileNamesOfEveryKindAreTaken) {
    for (const char* name : {"with space.db", "M\xC3\xBCnchen.db", "it's.db", "a=b%20.db"}) {
        Engine(m_folder.file(name)).run(schema);
        auto named = options();
        named.connectionString = "driver = SQLite3; database = " + m_folder.file(name) + " ;";
        QORRdbms::instance().configure(named);
        EXPECT_EQ(all().size(), 2u) << name;
        QORRdbms::instance().shutdown();
    }
}

TEST_F(QORRdbmsTest, ReconfiguringServesThoseWhoWait) {
    Engine(path()).run(schema);
    auto limited = options();
    limited.maxConnections = 1;
    QORRdbms::instance().configure(limited);
    std::optional<QORRdbmsTran> held(std::in_place, ASAccess::ReadOne);
    std::thread waiter([] { QORRdbmsTran transaction(ASAccess::ReadOne); });
    while (QORRdbms::instance().waiting() == 0)
        std::this_thread::yield();
    QORRdbms::instance().configure(limited);
    waiter.join();
    held.reset();
    EXPECT_EQ(all().size(), 2u);
}

TEST_F(QORRdbmsTest, WithoutConfigurationThereIsAFailure) {
    EXPECT_EQ(failure([] { QORRdbmsTran transaction(ASAccess::ReadOne); }), "no database is configured");
    EXPECT_FALSE(QORRdbms::instance().isConfigured());
}

TEST_F(QORRdbmsTest, ConfiguringAgainLeavesTheOldDatabase) {
    open(schema);
    EXPECT_EQ(all().size(), 2u);
    const std::string other = m_folder.file("other.db");
    Engine(other).run("CREATE TABLE t (a INT); INSERT INTO t VALUES (9); CREATE VIEW v AS SELECT * FROM t");
    auto next = options();
    next.connectionString = "Driver=SQLite3;Database=" + other;
    {
        QORRdbmsTran held(ASAccess::ReadOne);
        QORRdbms::instance().configure(next);
    }
    EXPECT_THAT(all(), ElementsAre("9"));
}

TEST_F(QORRdbmsTest, ConnectionsAreDurableAndKeepForeignKeys) {
    open(schema);
    QORRdbmsTran transaction(ASAccess::ReadOne);
    const auto pragma = [&](const std::string& name) {
        auto& statement = transaction->prepare("SELECT * FROM pragma_" + name);
        statement.execute();
        return statement.fetch() ? std::string(statement.text(1)) : "(none)";
    };
    EXPECT_EQ(pragma("synchronous"), "2");
    EXPECT_EQ(pragma("journal_mode"), "wal");
    EXPECT_EQ(pragma("foreign_keys"), "1");
}

TEST_F(QORRdbmsTest, MissingDatabaseIsCreatedOnceOnly) {
    open();
    EXPECT_TRUE(std::filesystem::exists(path()));
    {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->execute("CREATE TABLE t (a INT)");
        transaction->execute("CREATE VIEW v AS SELECT a FROM t");
        transaction.commit();
    }
    EXPECT_TRUE(all().empty());
    for (const char* ending : {"", "-wal", "-shm"})
        std::filesystem::remove(path() + ending);
    EXPECT_EQ(failure([&] { all(); }), "database \"" + path() + "\": its file is gone");
    EXPECT_FALSE(std::filesystem::exists(path()));
    Engine(path()).run(schema);
    open();
    EXPECT_THAT(all(), ElementsAre("1", "2"));
}

TEST_F(QORRdbmsTest, ReplacedDatabaseIsRefusedUntilItIsConfiguredAnew) {
    open(schema);
    EXPECT_EQ(all().size(), 2u);
    const std::string other = m_folder.file("other.db");
    Engine(other).run("CREATE TABLE t (a INT); INSERT INTO t VALUES (7); CREATE VIEW v AS SELECT * FROM t");
    for (const char* ending : {"-wal", "-shm"})
        std::filesystem::remove(path() + ending);
    std::filesystem::rename(other, path());
    EXPECT_THAT(failure([&] { all(); }), HasSubstr("its file was replaced by another one"));
    EXPECT_THAT(failure([&] { insert(3); }), HasSubstr("its file was replaced by another one"));
    open();
    EXPECT_THAT(all(), ElementsAre("7"));
}

TEST_F(QORRdbmsTest, DatabaseThatAnswersOtherwiseThanExpectedIsRefused) {
    open(schema);
    QORRdbms::instance().expect("SELECT count(*) FROM t", "2");
    EXPECT_EQ(all().size(), 2u);
    Engine(path()).run("DROP VIEW v; DROP TABLE t");
    const QORRdbmsTran held(ASAccess::ReadOne);  // the connection that was open already
    EXPECT_THAT(failure([&] { all(); }), HasSubstr("what is in its file was replaced"));
}

TEST_F(QORRdbmsTest, WhatCannotBeOpenedIsNamed) {
    std::ofstream(m_folder.file("no.db")) << std::string(2000, 'x');
    const struct {
        std::string connection;
        std::string name;
        std::string reason;
    } cases[] = {
        {"Driver=SQLite3;Database=" + m_folder.file("no/such/folder.db"), "folder.db",
         "the folder \"" + m_folder.file("no/such") + "\" does not exist"},
        {"Driver=SQLite3;Database=" + m_folder.file("no.db"), "no.db", "file is not a database"},
        {"Driver=SQLite3;Database=" + m_folder.file(""), "qor-test", "it is a folder"},
        {"Driver=NoSuchDriver;Database=x.db", "NoSuchDriver", "file not found"},
    };
    for (const auto& c : cases) {
        auto wrong = options();
        wrong.connectionString = c.connection;
        const std::string text = failure([&] { QORRdbms::instance().configure(wrong); });
        EXPECT_THAT(text, StartsWith("cannot open the database \""));
        EXPECT_THAT(text, HasSubstr(c.name));
        EXPECT_THAT(text, HasSubstr(c.reason));
    }
    open(schema);
    EXPECT_EQ(all().size(), 2u);
}

TEST_F(QORRdbmsTest, ADriverThatIsNotInstalledIsNamedWithThePackageThatBringsIt) {
    const struct {
        std::string connection;
        std::string advice;
    } cases[] = {
        {"Driver=SQLite9;Database=x.db", "on Debian it is in the package libsqliteodbc, and is called \"SQLite3\""},
        {"Driver=PostgreSQL Runes;Server=x;Database=x",
         "on Debian it is in the package odbc-postgresql, and is called \"PostgreSQL Unicode\""},
        {"Driver=Nope;Database=x", "there is no driver of this name (\"odbcinst -q -d\" lists those that there are)"},
        {"DSN=nope", "neither odbc.ini nor the user's .odbc.ini has a data source of this name"},
    };
    for (const auto& c : cases) {
        auto wrong = options();
        wrong.connectionString = c.connection;
        EXPECT_THAT(failure([&] { QORRdbms::instance().configure(wrong); }), HasSubstr(c.advice)) << c.connection;
    }
}

TEST_F(QORRdbmsTest, AnotherDatabaseBesideTheProcesssOwnIsReadAndWrittenOnItsOwn) {
    open(schema);
    QORRdbms other;
    auto elsewhere = options();
    elsewhere.connectionString = "Driver=SQLite3;Database=" + m_folder.file("other.db");
    other.configure(elsewhere);
    other.write([](ASSession& session) { session.execute("CREATE TABLE t (a INT)"); });
    const QORRdbmsTran there(other, ASAccess::Write);
    insert(3);
    EXPECT_EQ(all().size(), 3u);
    QORRdbmsTran reading(other, ASAccess::Read);
    ASStatement& count = reading->prepare("SELECT count(*) FROM t");
    count.execute();
    ASSERT_TRUE(count.fetch());
    EXPECT_EQ(count.integer(1), 0);
}

TEST_F(QORRdbmsTest, LockedDatabaseIsAFailureAndTheNextRequestWorks) {
    open(schema);
    {
        Engine locker(path());
        locker.run("BEGIN IMMEDIATE");
        try {
            insert(3);
            FAIL();
        } catch (const AException& error) {
            EXPECT_EQ(error.failure(), ASFailure::Locked);
            EXPECT_EQ(error.text(), "database \"" + path() + "\": database is locked");
        }
        EXPECT_EQ(all().size(), 2u);
    }
    insert(3);
    EXPECT_EQ(all().size(), 3u);
}

TEST_F(QORRdbmsTest, LockedForReadersToo) {
    Engine(path()).run(schema);
    auto rollback = options();
    rollback.connectionString += ";JournalMode=DELETE";
    QORRdbms::instance().configure(rollback);
    {
        Engine locker(path());
        locker.run("BEGIN EXCLUSIVE");
        EXPECT_THAT(failure([&] { all(); }), HasSubstr("locked"));
        EXPECT_THAT(failure([&] { QORRdbms::instance().configure(rollback); }), HasSubstr("locked"));
    }
    EXPECT_EQ(all().size(), 2u);
}

TEST_F(QORRdbmsTest, ReadOnlyWritesNothing) {
    Engine(path()).run(schema);
    auto reading = options();
    reading.readOnly = true;
    QORRdbms::instance().configure(reading);
    EXPECT_EQ(all().size(), 2u);
    EXPECT_NE(failure([&] { insert(3); }), "(no failure)");
    {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        EXPECT_THAT(failure([&] { transaction->execute("INSERT INTO t (a) VALUES (5)"); }), HasSubstr("readonly"));
        EXPECT_THAT(failure([&] { transaction->execute("CREATE TABLE u (a INT)"); }), HasSubstr("readonly"));
    }
    QORRdbms::instance().shutdown();
    EXPECT_EQ(Engine(path()).rows("PRAGMA journal_mode").at(0).at(0), "delete") << "its journal mode was changed";
    EXPECT_EQ(Engine(path()).rows("SELECT count(*) FROM t").at(0).at(0), "2");
}

TEST_F(QORRdbmsTest, ReadOnlyDoesNotCreateADatabase) {
    auto reading = options();
    reading.readOnly = true;
    EXPECT_THAT(failure([&] { QORRdbms::instance().configure(reading); }), HasSubstr(path()));
    EXPECT_FALSE(std::filesystem::exists(path()));
}

/// Fills pages of the file, from the given part of it on, with bytes that mean nothing.
void spoil(const std::string& file, double from) {
    const auto size = std::filesystem::file_size(file);
    std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
    const auto page = static_cast<std::streamoff>(static_cast<double>(size) * from) / 4096 * 4096;
    out.seekp(page);
    out << std::string(size - static_cast<std::size_t>(page), '\xee');
}

TEST_F(QORRdbmsTest, CorruptionHalfWayThroughAFetchIsAFailureAndTheNextRequestWorks) {
    Engine(path()).run(
        "CREATE TABLE t (a INT, s NVARCHAR(200)); CREATE VIEW v AS SELECT * FROM t;"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 5000)"
        " INSERT INTO t SELECT i, printf('%150d', i) FROM n;"
        "CREATE TABLE u (a INT); INSERT INTO u VALUES (1)");
    const std::string sound = m_folder.file("sound.db");
    std::filesystem::copy_file(path(), sound);
    spoil(path(), 0.5);
    auto plain = options();
    plain.connectionString += ";JournalMode=DELETE";
    QORRdbms::instance().configure(plain);
    for (const int limit : {0, 10000, 900}) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        ASCursor cursor(*transaction);
        cursor.Filter().Project() << a.attribute;
        cursor.Filter().Set(a.attribute != ASInt(0));
        if (limit > 0) cursor.Limit(limit, limit == 900 ? 3000 : 0);
        const std::string text = failure([&] {
            while (cursor.Fetch()) {
            }
        });
        EXPECT_EQ(text, "database \"" + path() + "\": database disk image is malformed") << limit;
        EXPECT_FALSE(cursor.Fetch());
    }
    std::filesystem::copy_file(sound, path(), std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(select(a.attribute).size(), 5000u);
}

TEST_F(QORRdbmsTest, FullDatabaseIsAFailureAndTheNextRequestWorks) {
    open(schema);
    {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->execute("PRAGMA max_page_count = 4");
        auto& insert = transaction->prepare("INSERT INTO t (s) VALUES (?)");
        EXPECT_THAT(failure([&] {
                        for (int i = 0; i < 100; ++i)
                            insert.bind(1, std::string(4000, 'x')).execute();
                    }),
                    HasSubstr("full"));
    }
    EXPECT_EQ(all().size(), 2u);
    insert(3);
    EXPECT_EQ(all().size(), 3u);
}

TEST_F(QORRdbmsTest, DatabaseInMemoryIsOneDatabase) {
    auto memory = options();
    memory.connectionString = "Driver=SQLite3;Database=:memory:";
    QORRdbms::instance().configure(memory);
    for (const char* sql : {"CREATE TABLE t (a INT)", "INSERT INTO t VALUES (4)", "CREATE VIEW v AS SELECT a FROM t"}) {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->execute(sql);
        transaction.commit();
    }
    EXPECT_THAT(all(), ElementsAre("4"));
}

}  // namespace
}  // namespace QOR::test
