// How PostgreSQL is asked for pages of the logs: in how many ways there and back, and through which indexes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QORDBSchema/QORDBSchema.h"
#include "QORFunctionality/QORAccess.h"
#include "QORLibAgent/QORLogCounters.h"
#include "QORLibAgent/QORLogs.h"
#include "QORLibAgent/QORSecurity.h"
#include "ingest/QORIngest.h"
#include "support/ClientContexts.h"
#include "support/PostgresGate.h"
#include "support/PostgresServer.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* begin =
    "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY; SET LOCAL plan_cache_mode = force_generic_plan";

/// So many operations an environment that positions have to be looked for; some of the others' touch the first.
class PostgresLogPlans : public ::testing::Test {
protected:
    static void SetUpTestSuite() { QORRdbms::prepareProcess(); }
    void SetUp() override {
        ASDatabaseOptions options;
        options.connectionString = m_database.connectionStringThrough(m_gate.folder());
        QORDBSchema::open(options, QORSchemaMode::Own);
        store();
        m_database.connect().run("VACUUM ANALYZE");
    }
    void TearDown() override { QORRdbms::instance().shutdown(); }

    /// The ways to the server of a page with its total, asked for the second time.
    std::vector<std::string> waysOf(const QOREnvSelection& envs, std::size_t offset) {
        ask(envs, offset);
        m_gate.asked();
        ask(envs, offset);
        return m_gate.asked();
    }
    static void ask(const QOREnvSelection& envs, std::size_t offset) {
        QOROpLogResult result;
        ASSERT_EQ(QOROpLogAgent().getOps(result, envs, nullptr, "", "", 0, 0, 1'000'000, 0, lastSecond), 0)
            << getErrorMessage();
        ASSERT_GT(result.size(), offset + pageSize);
        for (std::size_t i = offset; i < offset + pageSize; ++i)
            ASSERT_FALSE(result.at(i).id.empty());
    }
    /// How the server finds the newest records of some environments, whatever values it is given.
    /// \param each see QORLogScopes::records()
    std::string planOf(const std::vector<unsigned>& owners, std::size_t each) {
        QORRdbmsTran tran(ASAccess::ReadKnown);
        QORLogScopes scopes(*tran, QORLogKind::Operations);
        for (const unsigned owner : owners)
            scopes.add(operationScope(eidOf(owner)));
        const QORLogScopes::Records records = scopes.records(0, lastSecond, nullptr, each);
        std::string sql;
        unsigned parameters = 0;
        for (const char c : records.sql)
            sql += c == '?' ? "$" + std::to_string(++parameters) : std::string(1, c);
        std::string given;
        for (const std::string& parameter : records.parameters)
            given += (given.empty() ? "'" : ", '") + parameter + "'";
        auto engine = m_database.connect();
        engine.run("SET plan_cache_mode = force_generic_plan; PREPARE page AS SELECT seq FROM (" + sql +
                   ") r ORDER BY time DESC NULLS LAST, seq DESC LIMIT 20");
        std::string plan;
        for (const auto& row : engine.rows("EXPLAIN (COSTS OFF) EXECUTE page (" + given + ")"))
            plan += row.at(0) + "\n";
        return plan;
    }

    static constexpr int lastSecond = 2'147'483'647;
    static constexpr std::size_t pageSize = 20;
    const PostgresDatabase m_database;
    PostgresGate m_gate{PostgresServer::shared().folder()};

private:
    static void store() {
        constexpr std::int64_t firstSecond = std::int64_t{1621} << 20;  // where wide buckets begin
        constexpr unsigned environments = 4;
        constexpr unsigned each = 3000;
        std::vector<QORRecord> records;
        for (unsigned i = 0; i < environments * each; ++i) {
            QOROperationRecord record;
            record.id = std::to_string(i);
            record.op = "start";
            record.time = firstSecond + 25 * std::int64_t{i};
            record.eid = eidOf(i % environments);
            if (i % environments != 0 && i % 10 == 0) record.eids.push_back(eidOf(0));
            records.emplace_back(std::move(record));
        }
        const QORIngestResult result = QORIngest().store(records, false);
        ASSERT_FALSE(result.failure) << result.failure->reason;
    }
};

TEST_F(PostgresLogPlans, TheNewestPageWithItsTotalAsksForCountersAndRecords) {
    const QORClientContextScope all(fullAccess());
    EXPECT_THAT(waysOf(QOREnvSelection::all(), 0), ElementsAre(begin, "prepared", "prepared", "ROLLBACK"));
    EXPECT_THAT(waysOf(eidOf(0), 0), ElementsAre(begin, "prepared", "prepared", "ROLLBACK"));
    const QORClientContextScope some(accessTo({0, 2, 3}));
    EXPECT_THAT(waysOf(QOREnvSelection::all(), 0), ElementsAre(begin, "prepared", "prepared", "ROLLBACK"));
}

TEST_F(PostgresLogPlans, APlaceIsLookedForOnceForBothEndsOfAPage) {
    const QORClientContextScope all(fullAccess());
    EXPECT_THAT(waysOf(eidOf(0), 1500), ElementsAre(begin, "prepared", "prepared", "prepared", "prepared", "ROLLBACK"));
}

TEST_F(PostgresLogPlans, RecordsOfSeveralEnvironmentsAreFoundInEachOfThem) {
    for (const std::size_t each : {0U, 25U}) {
        const std::string plan = planOf({0, 2, 3}, each);
        EXPECT_THAT(plan, HasSubstr("qor_operation_eid")) << plan;
        EXPECT_THAT(plan, Not(HasSubstr("qor_operation_time"))) << plan;
    }
}

TEST_F(PostgresLogPlans, TheFirstOfEachEnvironmentAreReadInTheirOrder) {
    EXPECT_THAT(planOf({0, 2, 3}, 25), HasSubstr("Index Only Scan Backward using qor_operation_eid"));
}

}  // namespace
}  // namespace QOR::test
