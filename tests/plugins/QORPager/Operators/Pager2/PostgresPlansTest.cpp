// How PostgreSQL is asked: pages in one way there and back, in orders that indexes have, with conditions of clients
// without full access that indexes serve.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QORDBSchema/QORDBSchema.h"
#include "QORPager/Operators/Pager2/QORViewMetadata.h"
#include "support/OperatorClient.h"
#include "support/PostgresGate.h"
#include "support/PostgresServer.h"

namespace QOR::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class PostgresPlans : public ::testing::Test {
protected:
    static void SetUpTestSuite() { QORRdbms::prepareProcess(); }
    void SetUp() override {
        ASDatabaseOptions options;
        options.connectionString = m_database.connectionStringThrough(m_gate.folder());
        QORDBSchema::open(options, QORSchemaMode::Own);
        forgetMetadata();
        // What is known of the views is learned with the first question of a client that may not see all.
        client.ask(R"(["select",[["view","vOpLog"],["field","id"],["limit",[["size","1"]]]]])", accessTo({0}));
    }
    void TearDown() override {
        QORRdbms::instance().shutdown();
        forgetMetadata();
    }
    /// The ways to the server that a request takes when it is asked for the second time.
    std::vector<std::string> waysOf(const std::string& request, const QORClientContextPtr& as) {
        client.ask(request, as);
        m_gate.asked();
        EXPECT_EQ(client.errorOf(request, as), "");
        return m_gate.asked();
    }
    /// How the server would run what a request makes of it when it may neither sort nor read a whole table.
    /// \param given its parameters
    std::string planOf(const std::string& request, const std::string& given,
                       const QORClientContextPtr& as = fullAccess()) {
        EXPECT_EQ(client.errorOf(request, as), "");
        auto engine = m_database.connect();
        const std::string sql = engine.cell(
            "SELECT query FROM pg_stat_activity WHERE datname = current_database() AND application_name = 'qor' "
            "AND query LIKE 'SELECT %' ORDER BY query_start DESC LIMIT 1");
        engine.run("SET enable_sort = off; SET enable_seqscan = off; SET enable_bitmapscan = off; PREPARE page AS " +
                   sql);
        std::string plan = sql + "\n";
        for (const auto& row : engine.rows("EXPLAIN (COSTS OFF) EXECUTE page (" + given + ")"))
            plan += row.at(0) + "\n";
        return plan;
    }

    const PostgresDatabase m_database;
    PostgresGate m_gate{PostgresServer::shared().folder()};
    Pager2Client client;
};

std::string page(const std::string& view, const std::string& key, bool descending, const std::string& where = {}) {
    return R"(["select",[["view",")" + view + R"("],["field",")" + key + R"("],["sort",[["field",")" + key + R"("])" +
           (descending ? R"(,["descending"])" : "") + R"(]],["limit",[["size","20"]]])" +
           (where.empty() ? "" : R"(,["where",[)" + where + "]]") + "]]";
}

TEST_F(PostgresPlans, APageIsOneWayThereAndBack) {
    const std::string request =
        R"(["select",[["view","vOpLog"],["field","id"],["field","message"],["where",[["like",[["field","op"],)"
        R"(["value","i%"]]]]],["sort",[["field","time"]]],["limit",[["size","20"]]]]])";
    EXPECT_THAT(waysOf(request, fullAccess()), ElementsAre("prepared"));
    EXPECT_THAT(waysOf(request, accessTo({0, 1})), ElementsAre("prepared"));
}

TEST_F(PostgresPlans, APageWithItsTotalSeesOneState) {
    const std::string request =
        R"(["select",[["view","vOpLog"],["field","id"],["limit",[["size","20"]]],["statistics"]]])";
    EXPECT_THAT(waysOf(request, fullAccess()),
                ElementsAre("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY", "prepared", "prepared", "ROLLBACK"));
}

TEST_F(PostgresPlans, WhatAViewComputesStandsInATransactionForReading) {
    m_database.connect().run(
        "CREATE TABLE noted (i int); CREATE FUNCTION note() RETURNS int LANGUAGE sql AS 'INSERT INTO noted VALUES (1) "
        "RETURNING i'; CREATE VIEW \"vNoting\" AS SELECT note() AS i;"
        "CREATE VIEW \"vUndoing\" AS SELECT set_config('default_transaction_read_only', 'off', false)::varchar(9) AS "
        "s");
    forgetMetadata();
    client.ask(R"(["select",[["view","vOpLog"],["field","id"]]])", accessTo({0}));
    const std::string undo = R"(["select",[["view","vUndoing"],["field","s"],["limit",[["size","9"]]]]])";
    EXPECT_THAT(waysOf(undo, fullAccess()),
                ElementsAre("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY", "prepared", "ROLLBACK"));
    EXPECT_THAT(client.errorOf(R"(["select",[["view","vNoting"],["field","i"],["limit",[["size","9"]]]]])"),
                HasSubstr("read-only"));
    EXPECT_EQ(m_database.connect().cell("SELECT count(*) FROM noted"), "0");
}

struct Key {
    const char* view;
    const char* column;
};

TEST_F(PostgresPlans, PagesInTheOrderOfAnIndexAreNotSorted) {
    for (const auto& [view, column] :
         {Key{"vEnvironment", "eid"}, Key{"vEnvironment", "parent_eid"}, Key{"vEnvironment", "hostname"},
          Key{"vEnvironment", "securableObjId"}, Key{"vOpLog", "id"}, Key{"vOpLog", "time"}, Key{"vOpLog", "eid"},
          Key{"vEventLog", "id"}, Key{"vEventLog", "time"}, Key{"vEventLog", "eid"}, Key{"vEventLog", "category"},
          Key{"vBackupInfo", "id"}, Key{"vBackupInfo", "time"}, Key{"vBackupInfo", "eid"},
          Key{"vBackupInfo", "storage_eid"}}) {
        for (const bool descending : {false, true}) {
            const std::string plan = planOf(page(view, column, descending), "20, 0");
            EXPECT_THAT(plan, Not(HasSubstr("Sort"))) << view << " " << column;
            EXPECT_THAT(plan, HasSubstr(descending ? "Scan Backward using" : "Scan using")) << view << " " << column;
        }
    }
    EXPECT_THAT(planOf(page("vOpLog", "op", false), "20, 0"), HasSubstr("Sort")) << "the test would notice";
}

TEST_F(PostgresPlans, PagesOfOneEnvironmentByTimeAreNotSorted) {
    const std::string eid = "'" + eidOf(7).toString() + "'";
    for (const char* const view : {"vOpLog", "vEventLog", "vBackupInfo"}) {
        for (const bool descending : {false, true}) {
            const std::string where = R"(["eq",[["field","eid"],["value",")" + eidOf(7).toString() + R"("]]])";
            EXPECT_THAT(planOf(page(view, "time", descending, where), eid + ", 20, 0"), Not(HasSubstr("Sort"))) << view;
            const std::string own = planOf(page(view, "time", descending), eid + ", 20, 0", accessTo({7}));
            EXPECT_THAT(own, Not(HasSubstr("Sort"))) << view;
            EXPECT_THAT(own, HasSubstr("Index Cond")) << view;
        }
    }
}

// Without full access, what a client asks stands where an index finds it, unless it could fail on a row that the client
// may not see.
TEST_F(PostgresPlans, ConditionsOfARestrictedClientAreServedByIndexes) {
    const std::string eid = "'" + eidOf(7).toString() + "'";
    const std::string time =
        R"(["between",[["field","time"],["value","2020-10-01 00:00:00"],["value","2021-03-01 00:00:00"]]])";
    const std::string span = "'2020-10-01 00:00:00', '2021-03-01 00:00:00'";
    EXPECT_THAT(planOf(page("vOpLog", "time", true, time), eid + ", " + span + ", 20, 0", accessTo({7})),
                HasSubstr("Index Cond: ((eid = '" + eidOf(7).toString() + "'::uuid) AND (\"time\" >= "));
    const std::string like = R"(["like",[["field","op"],["value","%o%"]]])";
    const std::string both = planOf(page("vOpLog", "time", true, R"(["and",[)" + time + "," + like + "]]"),
                                    eid + ", " + span + ", " + eid + ", '%o%', 20, 0", accessTo({7}));
    EXPECT_THAT(both, HasSubstr("\"time\" <= "));
    EXPECT_THAT(both, HasSubstr("Filter: CASE WHEN (eid = ")) << "what is no plain comparison stays inside";
}

}  // namespace
}  // namespace QOR::test
