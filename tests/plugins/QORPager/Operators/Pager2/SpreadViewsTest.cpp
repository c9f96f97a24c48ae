// Whoever spreads records over servers gets the same answers to the same requests, and no server is asked for more than
// an answer needs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "QORCommon/QORLogger.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "QORServers/QORServers.h"
#include "plugins/QORPager/Operators/Pager2/MadeSelects.h"
#include "support/OperatorClient.h"
#include "support/Pager2Harness.h"
#include "support/ShardedPostgres.h"
#include "support/WaitingRequest.h"

namespace QOR::test {
namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;

using Kind = MadeSelects::Kind;

const std::vector<MadeSelects::View>& hostViews() {
    static const std::vector<MadeSelects::View> all{
        {"vOpLog",
         {{"id", Kind::Text},
          {"parent_id", Kind::Text},
          {"op", Kind::Text},
          {"status", Kind::Whole},
          {"time", Kind::Time},
          {"eid", Kind::Guid},
          {"package", Kind::Text},
          {"message", Kind::Text},
          {"securableObjId", Kind::Guid}}},
        {"vEventLog",
         {{"id", Kind::Whole},
          {"time", Kind::Time},
          {"eid", Kind::Guid},
          {"source", Kind::Text},
          {"category", Kind::Text}}},
        {"vBackupInfo",
         {{"id", Kind::Text},
          {"eid", Kind::Guid},
          {"storage_eid", Kind::Guid},
          {"time", Kind::Time},
          {"size", Kind::Whole},
          {"type", Kind::Whole},
          {"name", Kind::Text}}},
        {"vEnvironment", {{"eid", Kind::Guid}, {"hostname", Kind::Text}, {"state", Kind::Whole}}},
    };
    return all;
}

constexpr const char* environments = R"sql(
CREATE TEMP TABLE envs AS SELECT * FROM (VALUES (0, NULL::uuid), (1, 'aaaaaaaa-0000-0000-0000-000000000001'),
    (2, 'bbbbbbbb-0000-0000-0000-000000000002'), (3, 'cccccccc-0000-0000-0000-000000000003'),
    (4, 'ffffffff-ffff-ffff-ffff-ffffffffffff'), (5, '11111111-1111-1111-1111-111111111111'),
    (6, '00000000-0000-0000-0000-000000000000')) AS e (k, eid);
INSERT INTO qor_environment (eid, state, transition, hostname, updated)
    SELECT eid, k, 0, 'Host ' || k, '2024-01-01' FROM envs WHERE eid IS NOT NULL AND %1;
)sql";

/// Two hundred records of each kind, of those environments for which a condition holds.
std::string records(const std::string& condition, const std::string& environment) {
    std::string sql = environments;
    sql.replace(sql.find("%1"), 2, environment);
    const std::string words = "(ARRAY['Ann','ann','Änn','a','b  ','','b','10','Z',NULL])[1 + n % 10]";
    const std::string times =
        "CASE n % 7 WHEN 0 THEN timestamp '2024-01-01' WHEN 1 THEN '0001-01-01' WHEN 2 THEN '9999-12-31 23:59:59' ELSE "
        "'2024-06-30'::timestamp + make_interval(hours => n) END";
    const std::string from =
        " FROM (SELECT n, e.eid FROM generate_series(1, 200) n JOIN envs e ON e.k = n * n % 7) r WHERE " + condition;
    sql +=
        "INSERT INTO qor_operation (seq, id, parent_id, op, status, time, eid, package, message) SELECT n, 'op-' || "
        "n, " +
        words + ", 'o' || n % 3, n % 13 - 2, " + times + ", eid, " + words + ", 'text ' || n" + from + ";";
    sql += "INSERT INTO qor_event (seq, time, eid, source, category) SELECT 1000 + n, " + times + ", eid, " + words +
           ", 'c' || n % 4" + from + ";";
    sql +=
        "INSERT INTO qor_backup (seq, id, eid, storage_eid, time, size, type, name) SELECT 2000 + n, 'b' || n, eid, "
        "(SELECT e.eid FROM envs e WHERE e.k = n % 7), " +
        times + ", n * 5000000000, n % 5, " + words + from + ";";
    return sql;
}

class SpreadViews : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        QORRdbms::prepareProcess();
        spread = new ShardedPostgres;
        for (unsigned number = 1; number <= spread->size(); ++number)
            PostgresConnection(spread->conninfo(number))
                .run(records("EXISTS (SELECT FROM qor_held h WHERE satisfies_hash_partition('qor_spread'::regclass, "
                             "h.modulus, h.remainder, r.eid))",
                             "false"));
        PostgresConnection home(spread->conninfo());
        home.run(records("false", "true"));
        home.run("ALTER DATABASE " + home.cell("SELECT current_database()") + " SET log_statement = 'all'");
    }
    static void TearDownTestSuite() {
        delete spread;
        spread = nullptr;
    }
    void TearDown() override {
        QORServers::instance().close();
        QORRdbms::instance().shutdown();
        forgetMetadata();
    }

    /// As a host opens its database.
    static void open(const std::string& connectionString) {
        ASDatabaseOptions options;
        options.connectionString = connectionString;
        QORDBSchema::open(options, QORSchemaMode::Own);
        forgetMetadata();
        setLogLevel(0);
        const QORClientContextScope scope(restricted({}));
        SelectStmnt::getMetaTablesMap();
    }
    static void openSpread() { open(spread->connectionString()); }

    /// What home is asked for a request, in its log's words: how it shall plan, and the select.
    static std::pair<std::string, std::string> askedFor(const std::string& request, const QORClientContextPtr& as) {
        std::ifstream log(ShardedPostgres::server(1).folder() + "/log");
        log.seekg(0, std::ios::end);
        EXPECT_EQ(Pager2Client().errorOf(request, as), "");
        std::string settings;
        std::string select;
        for (std::string line; std::getline(log, line);) {
            const std::size_t setting = line.find("SET enable_");
            if (setting != std::string::npos && select.empty()) settings = line.substr(setting);
            const std::size_t at = line.find(": SELECT ");
            if (line.find("execute ") < at && line.find(R"(."vOpLog")") != std::string::npos && select.empty())
                select = line.substr(at + 2);
        }
        return {settings, select};
    }
    /// How home would run that. \param given its parameters
    static std::string planOf(const std::string& request, const std::string& given,
                              const QORClientContextPtr& as = fullAccess()) {
        const auto [settings, sql] = askedFor(request, as);
        PostgresConnection home(spread->conninfo());
        home.run(settings);
        home.run("PREPARE asked AS " + sql);
        std::string plan = sql + "\n";
        for (const auto& row : home.rows("EXPLAIN (VERBOSE, COSTS OFF) EXECUTE asked (" + given + ")"))
            plan += row.at(0) + "\n";
        return plan;
    }
    static std::size_t timesIn(const std::string& text, const std::string& part) {
        std::size_t times = 0;
        for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            ++times;
        return times;
    }

    static inline ShardedPostgres* spread = nullptr;
};

QORClientContextPtr standingFor(const std::vector<const char*>& eids) {
    std::vector<QORLocalSID> sids;
    for (const char* eid : eids)
        sids.push_back({0, 1, QOREID(*QORGUIDBase::parse(eid))});
    return restricted(sids);
}

constexpr const char* guidA = "aaaaaaaa-0000-0000-0000-000000000001";
constexpr const char* guidB = "bbbbbbbb-0000-0000-0000-000000000002";
constexpr const char* guidC = "cccccccc-0000-0000-0000-000000000003";

TEST_F(SpreadViews, MadeRequestsAreAnsweredAsOneDatabaseAnswersThem) {
    const PostgresDatabase one;
    {
        ASDatabaseOptions options;
        options.connectionString = one.connectionString();
        QORDBSchema::open(options, QORSchemaMode::Own);
        one.connect().run(records("true", "true"));
    }
#ifdef QOR_SANITIZED
    constexpr int wanted = 300;
#else
    constexpr int wanted = 1500;
#endif
    const char* const seed = std::getenv("QOR_TEST_SEED");
    MadeSelects selects(seed != nullptr ? std::strtoull(seed, nullptr, 10) : 1, hostViews());
    std::vector<std::string> asked;
    for (int i = 0; i < wanted; ++i)
        asked.push_back(selects.next());
    const QORClientContextPtr clients[] = {fullAccess(), standingFor({guidA}), standingFor({guidA, guidB, guidC}),
                                           standingFor({})};
    std::vector<std::string> answers[2];
    for (const bool servers : {false, true}) {
        servers ? openSpread() : open(one.connectionString());
        Pager2Client client;
        for (std::size_t i = 0; i < asked.size(); ++i)
            answers[servers].push_back(normalized(client.ask(asked[i], clients[i % std::size(clients)])));
    }
    std::size_t withRows = 0;
    std::size_t different = 0;
    for (std::size_t i = 0; i < asked.size(); ++i) {
        if (answers[0][i].find("1739") != std::string::npos) ++withRows;
        if (answers[0][i] == answers[1][i]) continue;
        if (++different > 5) continue;
        EXPECT_EQ(answers[1][i], answers[0][i]) << i % std::size(clients) << " " << asked[i];
    }
    EXPECT_EQ(different, 0U);
    EXPECT_GT(withRows, asked.size() / 4);
}

std::string page(const std::string& more, const std::string& limit = R"(["size","20"])") {
    return R"(["select",[["view","vOpLog"],["field","id"],["field","time"],["sort",[["field","time"],["descending"]]],)"
           R"(["limit",[)" +
           limit + "]]" + more + "]]";
}

TEST_F(SpreadViews, APageOfOneEnvironmentIsAskedOfItsServerAlone) {
    openSpread();
    const std::string plan =
        planOf(page(R"(,["where",[["eq",[["field","eid"],["value",")" + std::string(guidA) + R"("]]]]])",
                    R"(["size","20"],["offset","5"])"),
               "'" + std::string(guidA) + "', 20, 5");
    EXPECT_EQ(timesIn(plan, "Foreign Scan"), 1U) << plan;
    EXPECT_THAT(plan, HasSubstr("LIMIT 20::bigint OFFSET 5::bigint")) << "the server looks for no more rows";
}

TEST_F(SpreadViews, ThePageOfAClientIsAskedOfTheServersOfItsEnvironments) {
    openSpread();
    const auto placement = QORServers::instance().placement();
    std::set<int> numbers;
    for (const char* eid : {guidA, guidB, guidC})
        numbers.insert(placement->of(QOREID(*QORGUIDBase::parse(eid))).number);
    const std::string list = "'" + std::string(guidA) + "','" + guidB + "','" + guidC + "', 20, 0, ";
    std::string given;
    for (std::size_t i = 0; i < numbers.size(); ++i)
        given += list;
    const std::string plan = planOf(page(""), given + "20, 0", standingFor({guidA, guidB, guidC}));
    EXPECT_EQ(timesIn(plan, "Foreign Scan"), numbers.size()) << plan;
}

TEST_F(SpreadViews, TheNewestPageOfAllTakesAtMostAPageFromEach) {
    openSpread();
    const std::string plan = planOf(page("", R"(["size","20"],["offset","40"])"), "60, 0, 60, 0, 60, 0, 20, 40");
    EXPECT_EQ(timesIn(plan, "LIMIT 60::bigint"), 3U) << plan;
    EXPECT_EQ(timesIn(plan, "Foreign Scan"), 3U) << plan;
    EXPECT_THAT(plan, HasSubstr("ORDER BY \"time\" DESC NULLS LAST"));
}

TEST_F(SpreadViews, ATotalIsASumOfWhatEachCounts) {
    openSpread();
    const std::string request =
        R"(["select",[["view","vOpLog"],["field",[["function",[["name","count"],["field","id"]]]]],)"
        R"(["where",[["like",[["field","op"],["value","o%"]]]]]]])";
    const std::string plan = planOf(request, "'o%', 'o%', 'o%'");
    EXPECT_EQ(timesIn(plan, "Remote SQL: SELECT count(id) FROM"), 3U) << plan;
    EXPECT_THAT(plan, Not(HasSubstr("GROUP BY")));
}

TEST_F(SpreadViews, APageFarBackIsTakenFromAllAsItIsNeeded) {
    openSpread();
    const std::string plan = planOf(page("", R"(["size","20"],["offset","20000"])"), "20, 20000");
    EXPECT_THAT(plan, AllOf(HasSubstr("Merge Append"), Not(HasSubstr("LIMIT 20"))));
    EXPECT_EQ(valuesOf(Pager2Client().ask(page("", R"(["size","20"],["offset","190"])"))).size(), 10U);
}

/// An environment whose records a server keeps that is not home's.
const char* environmentOf(int server) {
    const auto placement = QORServers::instance().placement();
    for (const char* eid :
         {guidA, guidB, guidC, "ffffffff-ffff-ffff-ffff-ffffffffffff", "11111111-1111-1111-1111-111111111111"}) {
        if (placement->of(QOREID(*QORGUIDBase::parse(eid))).number == server) return eid;
    }
    throw std::logic_error("no environment is there");
}

std::string pageOf(const char* eid) {
    return page(R"(,["where",[["eq",[["field","eid"],["value",")" + std::string(eid) + R"("]]]]])");
}

TEST_F(SpreadViews, AServerThatIsDownFailsThoseWhoNeedItAndNobodyElse) {
    openSpread();
    Pager2Client client;
    const std::string needed = pageOf(environmentOf(3));
    const std::string other = pageOf(environmentOf(1));
    EXPECT_EQ(client.errorOf(needed), "");
    ShardedPostgres::server(3).crash();
    EXPECT_THAT(client.errorOf(needed), HasSubstr("qor_s3"));
    EXPECT_THAT(client.errorOf(page("")), HasSubstr("qor_s3"));
    EXPECT_EQ(client.errorOf(other), "");
    ShardedPostgres::server(3).start();
    EXPECT_EQ(client.errorOf(needed), "");
    EXPECT_EQ(client.errorOf(page(R"(,["statistics"])")), "");
}

TEST_F(SpreadViews, AServerThatHangsIsWaitedForAsLongAsTheRequestMayGoOn) {
    openSpread();
    Pager2Client client;
    const std::string needed = pageOf(environmentOf(3));
    const std::string other = pageOf(environmentOf(1));
    EXPECT_EQ(client.errorOf(needed), "");
    ShardedPostgres::server(3).suspend();
    const auto inTime = [&](const std::string& request) {
        return toldWhileWaiting([&] { return client.errorOf(request); }, std::chrono::milliseconds(300));
    };
    // Where home had to connect first, it may be the one that gives up.
    const auto named = AnyOf(HasSubstr("rows of qor_at_s3 were asked for"), HasSubstr("qor_s3"));
    EXPECT_THAT(inTime(needed), named);
    EXPECT_EQ(client.errorOf(other), "");
    EXPECT_THAT(inTime(page("")), AnyOf(named, HasSubstr("qor_at_s3")));
    EXPECT_EQ(client.errorOf(other), "");
    ShardedPostgres::server(3).resume();
    EXPECT_EQ(client.errorOf(needed), "");
    EXPECT_EQ(client.errorOf(page("")), "");
}

}  // namespace
}  // namespace QOR::test
