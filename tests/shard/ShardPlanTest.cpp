// What home leaves to the servers, and which of them it asks: by the engine's own plans.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "shard/ShardRecordsOf.h"
#include "support/ShardedPostgres.h"

namespace QOR::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class ShardPlan : public testing::Test {
protected:
    static void SetUpTestSuite() {
        database = new ShardedPostgres;
        store(*database, 3, 1, 3000);
        for (unsigned number = 1; number <= 3; ++number)
            PostgresConnection(database->conninfo(number)).run("ANALYZE");
    }
    static void TearDownTestSuite() { delete database; }

    void SetUp() override {
        m_home.run("SET search_path = qor_all, public; SET plan_cache_mode = force_custom_plan; SET enable_sort = off");
    }

    std::string plan(const std::string& select) {
        std::string text;
        for (const auto& line : m_home.rows("EXPLAIN (VERBOSE, COSTS OFF) " + select))
            text += line.front() + '\n';
        return text;
    }
    /// The schemas of the foreign tables that a plan reads.
    static std::set<std::string> serversOf(const std::string& plan) {
        std::set<std::string> servers;
        constexpr std::string_view mark = "qor_at_";
        for (std::size_t at = plan.find(mark); at != std::string::npos; at = plan.find(mark, at + 1))
            servers.insert(plan.substr(at, plan.find('.', at) - at));
        return servers;
    }
    /// Of an environment that lies with the server.
    std::string eidAt(unsigned number) {
        return "'" +
               PostgresConnection(database->conninfo(number))
                   .cell("SELECT eid FROM qor_event WHERE eid IS NOT NULL LIMIT 1") +
               "'";
    }
    /// What is sent to servers.
    static std::vector<std::string> sentBy(const std::string& plan) {
        std::vector<std::string> statements;
        constexpr std::string_view mark = "Remote SQL: ";
        for (std::size_t at = plan.find(mark); at != std::string::npos; at = plan.find(mark, at + 1))
            statements.push_back(plan.substr(at + mark.size(), plan.find('\n', at) - at - mark.size()));
        return statements;
    }

    static ShardedPostgres* database;
    PostgresConnection m_home{database->conninfo()};
};
ShardedPostgres* ShardPlan::database = nullptr;

constexpr const char* newestFirst = " ORDER BY time DESC NULLS LAST LIMIT 20";

TEST_F(ShardPlan, OneEnvironmentIsOneServersWithItsConditionAndItsOrder) {
    const std::string text = plan("SELECT id, time FROM \"vOpLog\" WHERE eid = " + eidAt(2) + newestFirst);
    EXPECT_THAT(serversOf(text), ElementsAre("qor_at_s2"));
    ASSERT_THAT(sentBy(text), SizeIs(1)) << text;
    EXPECT_THAT(sentBy(text)[0], HasSubstr("eid = "));
    EXPECT_THAT(sentBy(text)[0], HasSubstr("ORDER BY \"time\" DESC NULLS LAST"));
    EXPECT_THAT(text, Not(HasSubstr("Sort")));
}

TEST_F(ShardPlan, AListOfEnvironmentsIsTheirServersOnly) {
    const std::string in = "SELECT id FROM \"vEventLog\" WHERE eid IN (" + eidAt(1) + ", " + eidAt(3) + ")";
    EXPECT_THAT(serversOf(plan(in + newestFirst)), ElementsAre("qor_at_s1", "qor_at_s3"));
    m_home.run("PREPARE listed (uuid[]) AS SELECT id FROM \"vEventLog\" WHERE eid = ANY ($1)" +
               std::string(newestFirst));
    EXPECT_THAT(serversOf(plan("EXECUTE listed (ARRAY[" + eidAt(3) + "::uuid])")), ElementsAre("qor_at_s3"));
    // Records without an environment are the first server's.
    EXPECT_THAT(serversOf(plan("SELECT id FROM \"vEventLog\" WHERE eid IS NULL")), ElementsAre("qor_at_s1"));
}

TEST_F(ShardPlan, EachServerSortsByItsIndexAndTheyAreMerged) {
    const std::string text = plan("SELECT id, time FROM \"vOpLog\"" + std::string(newestFirst));
    EXPECT_THAT(text, HasSubstr("Merge Append"));
    ASSERT_THAT(sentBy(text), SizeIs(3)) << text;
    for (const std::string& sent : sentBy(text))
        EXPECT_THAT(sent, HasSubstr("ORDER BY \"time\" DESC NULLS LAST"));
    const std::string byText = plan("SELECT id FROM \"vOpLog\" ORDER BY id COLLATE \"C\" NULLS FIRST LIMIT 20");
    for (const std::string& sent : sentBy(byText))
        EXPECT_THAT(sent, HasSubstr("ORDER BY id ASC NULLS FIRST")) << byText;
}

TEST_F(ShardPlan, AUnionOfLeavesSendsTheLimit) {
    std::string select;
    for (const char* const leaf : {"qor_at_s1", "qor_at_s2", "qor_at_s3"})
        select += (select.empty() ? "(" : " UNION ALL (") + std::string("SELECT id, time FROM ") + leaf +
                  ".\"vOpLog\"" + newestFirst + ")";
    const std::string text = plan("SELECT * FROM (" + select + ") AS leaves" + newestFirst);
    ASSERT_THAT(sentBy(text), SizeIs(3)) << text;
    for (const std::string& sent : sentBy(text))
        EXPECT_THAT(sent, HasSubstr("LIMIT 20"));
}

TEST_F(ShardPlan, CountsOfLeavesAreMadeThere) {
    const std::string text = plan(
        "SELECT sum(n) FROM (SELECT count(*) AS n FROM qor_at_s1.\"vEventLog\" WHERE category = 'c1' UNION ALL "
        "SELECT count(*) FROM qor_at_s2.\"vEventLog\" WHERE category = 'c1') AS leaves");
    ASSERT_THAT(sentBy(text), SizeIs(2)) << text;
    for (const std::string& sent : sentBy(text))
        EXPECT_THAT(sent, HasSubstr("SELECT count(*) FROM public.qor_event WHERE ((category = 'c1'))"));
}

TEST_F(ShardPlan, WhatAnAdministratorMadeOfTheViewsAnswersForAllServers) {
    m_home.run(
        "CREATE VIEW public.busy AS SELECT o.eid, e.hostname, count(*) AS n FROM public.\"vOpLog\" o LEFT JOIN "
        "public.qor_environment e ON e.eid = o.eid GROUP BY 1, 2");
    m_home.run("CREATE VIEW public.busiest AS SELECT * FROM public.busy WHERE n > 30");
    database->spread(3);
    EXPECT_EQ(m_home.cell("SELECT sum(n) FROM busy"), "3000");
    EXPECT_EQ(m_home.cell("SELECT count(*) FROM public.busy"), "0");
    EXPECT_EQ(m_home.cell("SELECT count(*) FROM busiest"), m_home.cell("SELECT count(*) FROM busy WHERE n > 30"));
    EXPECT_EQ(m_home.cell("SELECT count(*) FROM pg_class WHERE relname = 'busy'"), "3") << "of no leaf";
}

TEST_F(ShardPlan, WhoMayReadAViewMayReadItOfAllServers) {
    m_home.run("DO $$ BEGIN CREATE ROLE looks; EXCEPTION WHEN duplicate_object THEN END $$");
    m_home.run("GRANT SELECT ON public.\"vOpLog\" TO looks");
    database->spread(3);
    m_home.run("SET ROLE looks");
    EXPECT_EQ(m_home.cell("SELECT count(*) FROM \"vOpLog\""), "3000");
    EXPECT_THROW(m_home.rows("SELECT 1 FROM qor_all.\"vEventLog\""), std::runtime_error);
    m_home.run("RESET ROLE");
}

}  // namespace
}  // namespace QOR::test
