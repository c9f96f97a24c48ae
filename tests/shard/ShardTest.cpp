// A database whose records are spread over servers: made, checked and asked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QORCommon/QORException.h"
#include "QORLibAgent/QORRecordChanges.h"
#include "QORServers/QORServers.h"
#include "shard/QORShard.h"
#include "shard/ShardRecordsOf.h"
#include "support/ShardedPostgres.h"

namespace QOR::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// What a statement is refused with; "taken" when it is not.
std::string refusalOf(PostgresConnection& connection, const std::string& sql) {
    try {
        connection.run(sql);
    } catch (const std::exception& error) {
        return error.what();
    }
    return "taken";
}

class Shard : public testing::Test {
protected:
    ShardedPostgres m_database;
};

TEST_F(Shard, AnswersForAllServersTogetherAndForEachAlone) {
    store(m_database, 3, 1, 300);
    PostgresConnection home(m_database.conninfo());
    EXPECT_EQ(home.rows("SELECT name, number, modulus, remainder FROM qor_server ORDER BY number"),
              (Rows{{"s1", "1", "3", "0"}, {"s2", "2", "3", "1"}, {"s3", "3", "3", "2"}}));
    home.run("SET search_path = qor_all, public");
    EXPECT_EQ(home.cell("SELECT count(*) FROM \"vOpLog\""), "300");
    EXPECT_EQ(home.cell("SELECT count(*) FROM qor_all_long.\"vEventLog\""), "300");
    EXPECT_EQ(home.cell("SELECT id FROM \"vOpLog\" WHERE eid = md5('e17')::uuid ORDER BY time LIMIT 1"), "o17");
    EXPECT_EQ(home.cell("SELECT sum(n) FROM (SELECT count(*) AS n FROM qor_at_s1.\"vOpLog\" UNION ALL SELECT count(*) "
                        "FROM qor_at_s2.\"vOpLog\" UNION ALL SELECT count(*) FROM qor_at_s3.\"vOpLog\") AS leaves"),
              "300");
    EXPECT_EQ(home.cell("SELECT count(*) FROM qor_at_s2.qor_operation_environment e JOIN qor_at_s2.qor_operation o "
                        "ON o.seq = e.operation"),
              home.cell("SELECT 2 * count(*) FROM qor_at_s2.\"vOpLog\""));
}

TEST_F(Shard, WhoMayNoLongerAskWhichServersThereAreForgetsNone) {
    store(m_database, 3, 1, 30);
    const std::string own = m_database.connectionString();
    const auto configure = [](const std::string& connection) {
        ASDatabaseOptions options;
        options.connectionString = connection;
        QORRdbms::instance().configure(options);
    };
    configure(own);
    const QORChangePosition end = QORChangeReader::end();
    EXPECT_EQ(end.size(), 4U);
    PostgresConnection home(m_database.conninfo());
    home.run(
        "DROP ROLE IF EXISTS follows; CREATE ROLE follows LOGIN; GRANT SELECT ON qor_record_number, qor_record_change, "
        "qor_server TO follows");
    const auto user = own.find("UID=");
    configure(std::string(own).replace(user, own.find(';', user) - user, "UID=follows"));
    QORClientContext context;
    context.fullAccess = true;
    QORChangeReader reader({QORChangeKind::Event}, end);
    try {
        reader.read(QORRowAccess(context), 10);
        ADD_FAILURE() << "servers that cannot be seen are taken for gone";
    } catch (const QORException& refusal) {
        EXPECT_THAT(refusal.what(), HasSubstr("which servers keep records cannot be read"));
    }
    EXPECT_EQ(reader.position(), end);
    QORChangeReader atHome({QORChangeKind::Event}, {{"", end.at("")}});
    EXPECT_TRUE(atHome.read(QORRowAccess(context), 10).atEnd) << "who never read of servers misses none";
    QORServers::instance().close();
    QORRdbms::instance().shutdown();
    home.run("DROP OWNED BY follows; DROP ROLE follows");
}

TEST_F(Shard, NobodyWritesThroughHomeNorToIt) {
    store(m_database, 3, 1, 10);
    PostgresConnection home(m_database.conninfo());
    EXPECT_THAT(refusalOf(home, "INSERT INTO qor_event (time) VALUES ('2024-05-01')"),
                HasSubstr("records of qor_event are kept by the servers"));
    EXPECT_THAT(refusalOf(home, "INSERT INTO qor_all.qor_event (seq, time) VALUES (1, '2024-05-01')"),
                HasSubstr("read-only transaction"));
    EXPECT_THAT(refusalOf(home, "DELETE FROM qor_all_long.qor_event"), HasSubstr("read-only transaction"));
    EXPECT_THAT(refusalOf(home, "UPDATE qor_all.qor_operation SET status = 1"), HasSubstr("read-only transaction"));
    // Where the reader may write after all, a record is not left behind where nobody looks for it.
    for (unsigned number = 1; number <= 3; ++number)
        home.run("ALTER SERVER qor_" + ShardedPostgres::nameOf(number) + " OPTIONS (SET options '')");
    EXPECT_EQ(refusalOf(home, "UPDATE qor_all.qor_operation SET status = 1"), "taken");
    EXPECT_THAT(refusalOf(home, "UPDATE qor_all.qor_operation SET eid = NULL"),
                HasSubstr("remove it and store it again"));
    EXPECT_THAT(refusalOf(home, "UPDATE qor_at_s1.qor_operation_environment SET own = gen_random_uuid()"),
                HasSubstr("remove it and store it again"));
    EXPECT_EQ(home.cell("SELECT count(*) FROM qor_all.\"vOpLog\" WHERE eid IS NOT NULL"), "9");
}

TEST_F(Shard, NumbersOfOtherProgramsAreTheirServersOwn) {
    PostgresConnection second(m_database.conninfo(2));
    EXPECT_EQ(second.cell("INSERT INTO qor_event (time) VALUES ('2024-05-01') RETURNING seq"),
              std::to_string(std::int64_t{2} << 44));
}

TEST_F(Shard, SetUpAgainStaysAsItIs) {
    store(m_database, 3, 1, 10);
    PostgresConnection home(m_database.conninfo());
    const std::string before = "SELECT s.*, epoch FROM qor_server s, qor_placement ORDER BY number";
    const Rows rows = home.rows(before);
    m_database.spread(3);
    EXPECT_EQ(home.rows(before), rows);
    EXPECT_EQ(home.cell("SELECT count(*) FROM qor_all.\"vOpLog\""), "10");
}

}  // namespace
}  // namespace QOR::test
