// The cache of environments follows what anybody does to them in the database.
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "LogDatabase.h"
#include "QORLibAgent/QOREnvCache.h"
#include "rdbmspp/engine/AException.h"
#include "support/HostDatabase.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Listed = std::vector<std::pair<QOREID, std::string>>;

Listed listOf(const QOREnvCache& cache) {
    const QORClientContextScope scope(fullAccess());
    Listed listed;
    const auto list = cache.getEnvList();
    for (const auto& env : *list)
        listed.emplace_back(env->getEID(), env->getTitle().value_or("(none)"));
    EXPECT_EQ(listed.size(), list->size());
    return listed;
}

std::string inserted(std::uint64_t number, const std::string& title) {
    return "INSERT INTO qor_environment (eid, title, state, transition, updated) VALUES (" + quotedEid(number) + ", '" +
           title + "', 0, 0, '2024-05-01 00:00:00')";
}

class EnvChangesTest : public LogDatabaseTest {
protected:
    void SetUp() override {
        LogDatabaseTest::SetUp();
        m_cache.load();
    }
    void TearDown() override {
        setEnvCache(nullptr);
        LogDatabaseTest::TearDown();
    }
    Listed refreshed() {
        m_cache.refresh();
        return listOf(m_cache);
    }
    static Listed loaded() {
        QOREnvCache all;
        all.load();
        return listOf(all);
    }

    QOREnvCache m_cache;
};

TEST_F(EnvChangesTest, WhatAnyProgramDoesIsTakenInByARefresh) {
    runSql(inserted(2, "two"));
    runSql(inserted(1, "one"));
    EXPECT_THAT(listOf(m_cache), IsEmpty());
    EXPECT_THAT(refreshed(), ElementsAre(std::pair(eidOf(1), "one"), std::pair(eidOf(2), "two")));
    runSql("UPDATE qor_environment SET title = 'new' WHERE eid = " + quotedEid(2));
    EXPECT_THAT(refreshed(), ElementsAre(std::pair(eidOf(1), "one"), std::pair(eidOf(2), "new")));
    runSql("UPDATE qor_environment SET eid = " + quotedEid(3) + " WHERE eid = " + quotedEid(1));
    EXPECT_THAT(refreshed(), ElementsAre(std::pair(eidOf(2), "new"), std::pair(eidOf(3), "one")));
    runSql("DELETE FROM qor_environment WHERE eid = " + quotedEid(2));
    EXPECT_THAT(refreshed(), ElementsAre(std::pair(eidOf(3), "one")));
    runSql("DELETE FROM qor_environment");
    EXPECT_THAT(refreshed(), IsEmpty());
}

TEST_F(EnvChangesTest, WhatIsReplacedByAConflictIsTakenIn) {
    runSql(inserted(1, "one"));
    refreshed();
    runSql(testEngine() == ASEngine::SQLite
               ? "REPLACE" + inserted(1, "new").substr(6)
               : inserted(1, "new") + " ON CONFLICT (eid) DO UPDATE SET title = excluded.title");
    EXPECT_THAT(refreshed(), ElementsAre(std::pair(eidOf(1), "new")));
}

TEST_F(EnvChangesTest, OnlyWhatChangedIsReadAnew) {
    for (unsigned number = 1; number <= 3; ++number)
        runSql(inserted(number, "t"));
    refreshed();
    const QORClientContextScope scope(fullAccess());
    const auto before = m_cache.getEnvList();
    refreshed();
    EXPECT_EQ(m_cache.getEnvList(), before) << "nothing changed";
    runSql("UPDATE qor_environment SET title = 'x' WHERE eid = " + quotedEid(2));
    refreshed();
    EXPECT_EQ(m_cache.getEnvCopy(eidOf(1)), before->find(eidOf(1)));
    EXPECT_NE(m_cache.getEnvCopy(eidOf(2)), before->find(eidOf(2)));
}

TEST_F(EnvChangesTest, WhatWasRolledBackIsNotTakenIn) {
    {
        QORRdbmsTran tran(ASAccess::Write);
        tran->execute(inserted(1, "one"));
    }
    EXPECT_THAT(refreshed(), IsEmpty());
    runSql(inserted(2, "two"));
    EXPECT_THAT(refreshed(), ElementsAre(std::pair(eidOf(2), "two")));
}

TEST_F(EnvChangesTest, AnIdentifierThatIsNoneMakesAllBeReadAnew) {
    QOR_ONLY_ON(ASEngine::SQLite);
    runSql(inserted(1, "one"));
    refreshed();
    for (const char* eid : {"'no identifier'", "'6ba7b810-9dad-11d1-80b4-00000000000x'", "x'00ff'"}) {
        runSql("INSERT INTO qor_environment (eid, title, state, transition, updated) VALUES (" + std::string(eid) +
               ", 't', 0, 0, '2024-05-01 00:00:00')");
        EXPECT_EQ(refreshed(), loaded()) << eid;
    }
}

/// Changes as any program may make them.
class EnvChanges {
public:
    explicit EnvChanges(unsigned seed) : m_random(seed) {}

    std::string next() {
        const std::string one = quotedEid(m_random() % 60);
        switch (m_random() % 40) {
            case 0:
                return testEngine() == ASEngine::SQLite ? "DELETE FROM qor_environment"
                                                        : "TRUNCATE qor_environment CASCADE";
            case 1:
                return "UPDATE qor_environment SET title = 'all " + std::to_string(m_random() % 9) + "'";
            case 2:
            case 3:
                return "UPDATE qor_environment SET eid = " + one + " WHERE eid = " + quotedEid(m_random() % 60) +
                       " AND NOT EXISTS (SELECT 1 FROM qor_environment WHERE eid = " + one + ")";
            default:
                break;
        }
        if (m_random() % 4 == 0) return "DELETE FROM qor_environment WHERE eid = " + one;
        return inserted(m_random() % 60, std::to_string(m_random() % 99)) +
               " ON CONFLICT (eid) DO UPDATE SET title = excluded.title";
    }

private:
    std::mt19937 m_random;
};

TEST_F(EnvChangesTest, ARefreshLeavesWhatALoadWould) {
    EnvChanges changes(1);
    std::mt19937 random(2);
    // More at a time than are kept, too.
    for (const unsigned most : {3U, 30U, 30U, 1500U, 3U, 30U}) {
        const auto count = most < 1000 ? 1 + random() % most : most;
        QORRdbmsTran tran(ASAccess::Write);
        for (unsigned i = 0; i < count; ++i)
            tran->execute(changes.next());
        tran.commit();
        ASSERT_EQ(refreshed(), loaded());
    }
    EXPECT_LT(std::stoi(queryText("SELECT count(*) FROM qor_environment_change")), 1300);
    ASSERT_EQ(refreshed(), loaded());
}

TEST_F(EnvChangesTest, AProcessThatFollowsStepByStepSeesWhatCameInASingleOne) {
    QOREnvCache often;
    often.load();
    EnvChanges changes(7);
    for (int i = 0; i < 200; ++i) {
        runSql(changes.next());
        often.refresh();
        ASSERT_EQ(listOf(often), loaded()) << i;
    }
    EXPECT_EQ(refreshed(), listOf(often));
}

TEST_F(EnvChangesTest, ManyWhoStoreAtOnceLeaveTheCacheAsTheDatabaseIs) {
    setEnvCache(&m_cache);
    std::atomic<bool> ended = false;
    std::jthread others([&] {
        EnvChanges changes(3);
        while (!ended) {
            try {
                runSql(changes.next());
            } catch (const AException& error) {
                // An identifier that somebody is about to store stays theirs, and of a circle of locks one gives way.
                EXPECT_THAT(error.sqlState(), ::testing::AnyOf("23505", "40P01")) << error.text();
            }
        }
    });
    {
        std::vector<std::jthread> storing;
        for (unsigned writer = 0; writer < 4; ++writer) {
            storing.emplace_back([writer] {
                for (unsigned i = 0; i < 25; ++i) {
                    const unsigned number = (writer * 7 + i) % 20;
                    const std::string title = std::to_string(writer) + "-" + std::to_string(i);
                    import(R"({"kind":"environment","eid":")" + eidOf(number).toString() + R"(","title":")" + title +
                           "\"}");
                }
            });
        }
    }
    ended = true;
    others.join();
    EXPECT_EQ(refreshed(), loaded());
}

TEST_F(EnvChangesTest, WhatOneStoresItKnowsAtOnce) {
    setEnvCache(&m_cache);
    for (unsigned i = 0; i < 300; ++i) {
        const std::string title = std::to_string(i);
        import(R"({"kind":"environment","eid":")" + eidOf(i % 7).toString() + R"(","title":")" + title + "\"}");
        const QORClientContextScope scope(fullAccess());
        const auto env = m_cache.getEnvCopy(eidOf(i % 7));
        ASSERT_TRUE(env);
        ASSERT_EQ(env->getTitle(), title);
    }
    EXPECT_EQ(listOf(m_cache), loaded());
}

TEST_F(EnvChangesTest, ChangesAreNumberedInTheOrderOfTheirCommits) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    PostgresConnection first(m_database.conninfo());
    PostgresConnection second(m_database.conninfo());
    first.run("BEGIN; " + inserted(1, "early"));
    second.run("BEGIN; " + inserted(2, "late") + "; COMMIT");
    EXPECT_THAT(refreshed(), ElementsAre(std::pair(eidOf(2), "late")));
    first.run("COMMIT");
    EXPECT_THAT(refreshed(), ElementsAre(std::pair(eidOf(1), "early"), std::pair(eidOf(2), "late")));
    EXPECT_EQ(queryText("SELECT string_agg(environments, ',' ORDER BY n) FROM qor_environment_change WHERE n > 0"),
              eidOf(2).toString() + "," + eidOf(1).toString());
}

TEST_F(EnvChangesTest, WritersOfOtherRecordsDoNotWaitForThoseOfEnvironments) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    PostgresConnection other(m_database.conninfo());
    other.run("BEGIN; " + inserted(1, "open"));
    EXPECT_EQ(import(R"({"kind":"event","time":1,"category":"c"})").accepted(), 1U);
    EXPECT_EQ(import(R"({"kind":"environment","eid":")" + eidOf(2).toString() + "\"}").accepted(), 1U);
    EXPECT_THAT(refreshed(), ElementsAre(std::pair(eidOf(2), "(none)")));
}

TEST_F(EnvChangesTest, WhatBringsAnOlderDatabaseUpToDateMakesItsChangesKnown) {
    QORRdbms::instance().shutdown();
    const TestDatabase older;
    ASDatabaseOptions at;
    at.connectionString = older.connectionString();
    QORRdbms::instance().configure(at);
    {
        QORRdbmsTran tran(ASAccess::Write);
        QORDBSchema::migrate(*tran, 6);
        tran->execute(inserted(1, "before"));
        tran.commit();
    }
    at.readOnly = true;
    ASSERT_EQ(QORDBSchema::open(at, QORSchemaMode::Reading).version, 6);
    m_cache.load();
    EXPECT_THAT(refreshed(), ElementsAre(std::pair(eidOf(1), "before"))) << "it is read all the same";
    at.readOnly = false;
    ASSERT_EQ(QORDBSchema::open(at, QORSchemaMode::Own).found.version, 6);
    m_cache.load();
    EXPECT_THAT(listOf(m_cache), ElementsAre(std::pair(eidOf(1), "before")));
    runSql("UPDATE qor_environment SET title = 'after'");
    EXPECT_THAT(refreshed(), ElementsAre(std::pair(eidOf(1), "after")));
    QORRdbmsTran tran(ASAccess::Read);
    EXPECT_THAT(QORDBSchema::missingParts(*tran), IsEmpty());
}

}  // namespace
}  // namespace QOR::test
