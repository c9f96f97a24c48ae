// Statements that change rows: compiled once, telling what they changed, firing the triggers that they should.
#include <sqlite3.h>

#include <string>
#include <vector>

#include "libs/rdbmspp/DatabaseFixture.h"

namespace QOR::test {
namespace {

using ::testing::HasSubstr;

/// How often the engine compiled a statement for the connections that were opened while it lives: it asks then, and
/// only then, what the statement may do.
class Compilations {
public:
    Compilations() {
        questions = 0;
        sqlite3_auto_extension(extension());
    }
    ~Compilations() { sqlite3_cancel_auto_extension(extension()); }
    Compilations(const Compilations&) = delete;
    Compilations& operator=(const Compilations&) = delete;

    template <class Work>
    static unsigned during(Work work) {
        const unsigned before = questions;
        work();
        return questions - before;
    }

private:
    static int watch(sqlite3* connection, const char**, const void*) {
        return sqlite3_set_authorizer(connection, &count, nullptr);
    }
    static int count(void*, int, const char*, const char*, const char*, const char*) {
        ++questions;
        return SQLITE_OK;
    }
    static void (*extension())() { return reinterpret_cast<void (*)()>(&watch); }

    static inline unsigned questions = 0;
};

class ChangesTest : public DatabaseTest {
protected:
    static constexpr const char* watched =
        "CREATE TABLE t (a INTEGER PRIMARY KEY, b INT); CREATE TABLE fired (what TEXT);"
        "CREATE TRIGGER came AFTER INSERT ON t BEGIN INSERT INTO fired VALUES ('came'); END;"
        "CREATE TRIGGER went AFTER DELETE ON t BEGIN INSERT INTO fired VALUES ('went'); END;"
        "CREATE TRIGGER became AFTER UPDATE ON t BEGIN INSERT INTO fired VALUES ('became'); END";

    void openOne(const std::string& sql) {
        Engine(path()).run(sql);
        ASDatabaseOptions one = options();
        one.maxConnections = 1;
        QORRdbms::instance().configure(one);
    }
    std::string fired() const { return Engine(path()).cell("SELECT coalesce(group_concat(what), '') FROM fired"); }
};

TEST_F(ChangesTest, StatementIsCompiledOnceHoweverOftenItRuns) {
    const Compilations compilations;
    openOne("CREATE TABLE t (a INTEGER PRIMARY KEY, b INT)");
    QORRdbmsTran tran(ASAccess::Write);
    for (const char* sql :
         {"INSERT INTO t (a) VALUES (?)", "update t SET b = 1 WHERE a = ?", "INSERT OR IGNORE INTO t (a) VALUES (?)",
          "\n REPLACE INTO t (a) VALUES (?)", "DELETE FROM t WHERE a = ?", "SELECT b FROM t WHERE a = ?"}) {
        const auto run = [&](std::int64_t a) {
            ASStatement& statement = tran->prepare(sql);
            statement.bind(1, a).execute();
            statement.close();
        };
        EXPECT_GT(compilations.during([&] { run(1); }), 0U) << sql;
        EXPECT_EQ(compilations.during([&] {
            for (std::int64_t a = 2; a < 20; ++a)
                run(a);
        }),
                  0U)
            << sql;
    }
}

TEST_F(ChangesTest, RowsThatChangedAreCounted) {
    openOne("CREATE TABLE t (a INTEGER PRIMARY KEY, b INT)");
    QORRdbmsTran tran(ASAccess::Write);
    const std::vector<std::pair<const char*, std::int64_t>> all{
        {"INSERT INTO t (a) VALUES (1), (2), (3)", 3},
        {"INSERT INTO t (a) VALUES (3) ON CONFLICT DO NOTHING", 0},
        {"INSERT OR IGNORE INTO t (a) VALUES (3), (4)", 1},
        {"REPLACE INTO t (a) VALUES (4)", 1},
        {"UPDATE t SET b = a WHERE a > 1", 3},
        {"UPDATE t SET b = a WHERE a > 10", 0},
        {"WITH x AS (SELECT 5 AS a) INSERT INTO t (a) SELECT a FROM x", 1},
        {"DELETE FROM t WHERE a > 10", 0},
        {"DELETE FROM t", 5},
    };
    for (const auto& [sql, rows] : all) {
        tran->prepare(sql).execute();
        EXPECT_EQ(tran->changes(), rows) << sql;
    }
    tran.commit();
    EXPECT_EQ(Engine(path()).cell("SELECT count(*) FROM t"), "0");
}

TEST_F(ChangesTest, RefusedChangeSaysWhyAndTheStatementGoesOn) {
    openOne("CREATE TABLE t (a INTEGER PRIMARY KEY, b INT NOT NULL)");
    QORRdbmsTran tran(ASAccess::Write);
    const auto insert = [&](std::int64_t a) {
        tran->prepare("INSERT INTO t VALUES (?, ?)").bind(1, a).bind(2, a).execute();
    };
    insert(1);
    try {
        insert(1);
        ADD_FAILURE() << "the same key twice";
    } catch (const AException& error) {
        EXPECT_EQ(error.text(), "UNIQUE constraint failed: t.a");
        EXPECT_EQ(error.statement(), "INSERT INTO t VALUES (?, ?)");
    }
    insert(2);
    EXPECT_EQ(tran->changes(), 1);
    EXPECT_EQ(failure([&] { tran->prepare("INSERT INTO missing VALUES (1)").execute(); }), "no such table: missing");
}

TEST_F(ChangesTest, StatementOutlivesAChangeOfItsTable) {
    openOne("CREATE TABLE t (a INTEGER PRIMARY KEY)");
    QORRdbmsTran tran(ASAccess::Write);
    const auto insert = [&] { tran->prepare("INSERT INTO t (a) VALUES (NULL)").execute(); };
    insert();
    tran->execute("ALTER TABLE t ADD COLUMN b INT DEFAULT 7");
    insert();
    tran->execute("ALTER TABLE t RENAME TO other");
    EXPECT_EQ(failure(insert), "no such table: t");
    tran->execute("ALTER TABLE other RENAME TO t");
    insert();
    tran.commit();
    EXPECT_EQ(Engine(path()).cell("SELECT group_concat(a || ':' || b) FROM t"), "1:7,2:7,3:7");
}

TEST_F(ChangesTest, TriggersFireUnlessTheExecutionSaysOtherwise) {
    openOne(watched);
    QORRdbmsTran tran(ASAccess::Write);
    ASStatement& insert = tran->prepare("INSERT INTO t (b) VALUES (1)");
    ASStatement& remove = tran->prepare("DELETE FROM t WHERE a = (SELECT max(a) FROM t)");
    insert.execute(ASTriggers::Skip);
    insert.execute();
    insert.execute(ASTriggers::Skip);
    remove.execute();
    remove.execute(ASTriggers::Skip);
    tran->execute("UPDATE t SET b = 2");
    tran.commit();
    EXPECT_EQ(fired(), "came,went,became");
}

TEST_F(ChangesTest, WhateverMayFireATriggerFiresItBehindOnesThatWereSkipped) {
    openOne(watched);
    QORRdbmsTran tran(ASAccess::Write);
    std::string expected;
    for (const char* sql : {"INSERT INTO t (b) VALUES (1)", "  insert into t (b) values (1)",
                            "WITH x AS (SELECT 1 AS b) INSERT INTO t (b) SELECT b FROM x",
                            "-- a remark\nINSERT INTO t (b) VALUES (1)", "/* another */ INSERT INTO t (b) VALUES (1)",
                            "INSERT INTO t (b) VALUES (1) RETURNING a", "REPLACE INTO t (b) VALUES (1)"}) {
        for (const bool prepared : {true, false}) {
            SCOPED_TRACE(sql);
            tran->prepare("DELETE FROM t").execute(ASTriggers::Skip);
            if (prepared) {
                ASStatement& statement = tran->prepare(sql);
                statement.execute();
                statement.close();
            } else {
                tran->execute(sql);
            }
            expected += expected.empty() ? "came" : ",came";
        }
    }
    tran.commit();
    EXPECT_EQ(fired(), expected);
}

TEST_F(ChangesTest, NextTransactionOfTheConnectionFiresTriggersHoweverTheLastOneEnded) {
    openOne(watched);
    const auto skip = [](QORRdbmsTran& tran) {
        tran->prepare("INSERT INTO t (b) VALUES (1)").execute(ASTriggers::Skip);
    };
    const auto fire = [](int number) {
        QORRdbmsTran tran(ASAccess::Write);
        tran->prepare("INSERT INTO t (a) VALUES (?)").bind(1, std::int64_t{number}).execute();
        tran.commit();
    };
    {
        QORRdbmsTran tran(ASAccess::Write);
        skip(tran);
        tran.commit();
    }
    fire(100);
    {
        QORRdbmsTran tran(ASAccess::Write);
        skip(tran);
    }
    fire(200);
    EXPECT_THROW(
        {
            QORRdbmsTran tran(ASAccess::Write);
            skip(tran);
            tran->prepare("INSERT INTO t (a) VALUES (100)").execute(ASTriggers::Skip);
        },
        AException);
    fire(300);
    EXPECT_EQ(fired(), "came,came,came");
}

TEST_F(ChangesTest, ReadingBetweenChangesWithoutTriggersHasNothingCompiledAnew) {
    const Compilations compilations;
    openOne(watched);
    const auto run = [] {
        QORRdbmsTran tran(ASAccess::Write);
        tran->prepare("INSERT INTO t (b) VALUES (1)").execute(ASTriggers::Skip);
        ASStatement& select = tran->prepare("SELECT count(*) FROM t");
        select.execute();
        EXPECT_TRUE(select.fetch());
        select.close();
        tran->prepare("UPDATE t SET b = 2 WHERE a = 1").execute(ASTriggers::Skip);
        tran.commit();
    };
    run();
    EXPECT_EQ(compilations.during(run), compilations.during([] { QORRdbmsTran(ASAccess::Write).commit(); }));
}

TEST_F(ChangesTest, WhileSomethingIsOwedForSkippedTriggersNoneFireAndNothingIsCommitted) {
    openOne(watched);
    {
        QORRdbmsTran tran(ASAccess::Write);
        tran->prepare("INSERT INTO t (b) VALUES (1)").execute(ASTriggers::Skip);
        tran->setOwing(true);
        const std::string refusal = "triggers cannot fire before what is owed for those that were skipped is written";
        EXPECT_EQ(failure([&] { tran->prepare("INSERT INTO t (b) VALUES (1)").execute(); }), refusal);
        EXPECT_EQ(failure([&] { tran->execute("DELETE FROM t"); }), refusal);
        EXPECT_THAT(failure([&] { tran.commit(); }), HasSubstr("nothing is committed before what is owed"));
        tran->prepare("UPDATE t SET b = 2").execute(ASTriggers::Skip);
        EXPECT_EQ(tran->changes(), 1);
    }
    EXPECT_EQ(Engine(path()).cell("SELECT count(*) FROM t"), "0");
    QORRdbmsTran tran(ASAccess::Write);
    tran->execute("INSERT INTO t (b) VALUES (1)");
    tran->setOwing(true);
    tran->setOwing(false);
    tran.commit();
    EXPECT_EQ(fired(), "came") << "what was owed is forgotten with its transaction";
}

}  // namespace
}  // namespace QOR::test
