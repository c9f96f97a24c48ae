#include "QORServers/QORServers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QORCommon/QORException.h"
#include "rdbmspp/engine/ASFaults.h"
#include "support/HostDatabase.h"

namespace QOR::test {
namespace {

using ::testing::HasSubstr;

class QORServersTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { QORRdbms::prepareProcess(); }
    void TearDown() override {
        QORServers::instance().close();
        QORRdbms::instance().shutdown();
    }

    static ASDatabaseOptions options(const std::string& connectionString) {
        ASDatabaseOptions options;
        options.connectionString = connectionString;
        options.busyTimeoutMs = 200;
        return options;
    }
    void open() const { QORRdbms::instance().configure(options(home.connectionString())); }
    /// What home says of its servers.
    void divide() const {
        home.connect().run(
            "CREATE TABLE IF NOT EXISTS qor_server (name text PRIMARY KEY, number int UNIQUE NOT NULL, "
            "connection text NOT NULL, modulus int NOT NULL, remainder int NOT NULL);"
            "CREATE TABLE IF NOT EXISTS qor_placement (epoch bigint NOT NULL);"
            "INSERT INTO qor_placement SELECT 0 WHERE NOT EXISTS (SELECT FROM qor_placement)");
    }
    void add(const std::string& name, int number, const std::string& connection, int modulus, int remainder) const {
        home.connect().run("INSERT INTO qor_server VALUES ('" + name + "', " + std::to_string(number) + ", '" +
                           connection + "', " + std::to_string(modulus) + ", " + std::to_string(remainder) +
                           "); UPDATE qor_placement SET epoch = epoch + 1");
    }
    static std::string nameOf(QORRdbms& database) {
        QORRdbmsTran tran(database, ASAccess::ReadOne);
        ASStatement& select = tran->prepare("SELECT current_database()");
        select.execute();
        select.fetch();
        std::string name(select.text(1));
        select.close();
        return name;
    }

    PostgresDatabase home;
    PostgresDatabase first;
    PostgresDatabase second;
};

TEST_F(QORServersTest, ADatabaseThatSaysNothingOfServersHasNone) {
    open();
    EXPECT_TRUE(QORServers::instance().placement()->none());
    EXPECT_TRUE(QORServers::instance().refresh()->none());
    EXPECT_FALSE(QORServers::instance().placement()->isHidden());
    divide();
    open();
    EXPECT_TRUE(QORServers::instance().placement()->none());
}

TEST_F(QORServersTest, WhoMayNotAskIsToldOfNoneAndThatTheyAreHidden) {
    divide();
    add("s1", 1, first.connectionString(), 1, 0);
    home.connect().run("CREATE ROLE qor_nobody LOGIN; GRANT SELECT ON qor_server TO qor_nobody");
    std::string string = home.connectionString();
    const auto at = string.find("UID=");
    ASSERT_NE(at, std::string::npos);
    string.replace(at, string.find(';', at) - at, "UID=qor_nobody");
    QORRdbms::instance().configure(options(string));
    EXPECT_TRUE(QORServers::instance().placement()->none());
    EXPECT_TRUE(QORServers::instance().placement()->isHidden());
    EXPECT_TRUE(QORServers::instance().refresh()->isHidden());
    home.connect().run("GRANT SELECT ON qor_placement TO qor_nobody");
    EXPECT_EQ(QORServers::instance().refresh()->servers().size(), 1U);
    EXPECT_FALSE(QORServers::instance().placement()->isHidden());
    QORServers::instance().close();
    QORRdbms::instance().shutdown();
    home.connect().run("DROP OWNED BY qor_nobody; DROP ROLE qor_nobody");
}

TEST_F(QORServersTest, AChangeOfTheDivisionIsSeenByWhoRefreshes) {
    divide();
    add("s1", 1, first.connectionString(), 1, 0);
    open();
    QORServers& servers = QORServers::instance();
    EXPECT_EQ(servers.placement()->servers().size(), 1U);
    home.connect().run("UPDATE qor_server SET modulus = 2");
    add("s2", 2, second.connectionString(), 2, 1);
    EXPECT_EQ(servers.placement()->servers().size(), 1U);
    EXPECT_EQ(servers.refresh()->servers().size(), 2U);
    EXPECT_EQ(servers.placement()->epoch(), 2);
    EXPECT_EQ(servers.refresh(), servers.placement());
}

TEST_F(QORServersTest, AnotherHomeHasItsOwn) {
    divide();
    add("s1", 1, first.connectionString(), 1, 0);
    open();
    EXPECT_FALSE(QORServers::instance().placement()->none());
    QORRdbms::instance().configure(options(second.connectionString()));
    EXPECT_TRUE(QORServers::instance().placement()->none());
}

TEST_F(QORServersTest, AServersDatabaseIsKeptAndReachedAsHomeIs) {
    divide();
    const std::string string = first.connectionString();
    const auto uid = string.find("UID=");
    std::string without = string;
    without.erase(uid, string.find(';', uid) - uid + 1);
    add("s1", 1, without, 2, 0);
    add("s2", 2, second.connectionString(), 2, 1);
    open();
    QORServers& servers = QORServers::instance();
    EXPECT_EQ(nameOf(servers.database("s1")), first.name());
    EXPECT_EQ(nameOf(servers.database("s2")), second.name());
    EXPECT_EQ(&servers.database("s1"), &servers.database("s1"));
    home.connect().run("UPDATE qor_server SET connection = '" + first.connectionString() + "' WHERE name = 's2'; " +
                       "UPDATE qor_placement SET epoch = epoch + 1");
    servers.refresh();
    EXPECT_EQ(nameOf(servers.database("s2")), first.name());
    try {
        servers.database("s3");
        FAIL();
    } catch (const QORException& error) {
        EXPECT_EQ(error.message(), "there is no server \"s3\"");
    }
}

TEST_F(QORServersTest, AServerThatIsAwayIsNamedByWhoeverUsesItAndIsThatServersFault) {
    divide();
    add("s1", 1, "Driver=PostgreSQL Unicode;Server=/nowhere;Database=x", 1, 0);
    open();
    QORServers& servers = QORServers::instance();
    QORRdbms& away = servers.database("s1");
    try {
        const QORRdbmsTran tran(away, ASAccess::Read);
        FAIL();
    } catch (const AException& error) {
        EXPECT_EQ(error.failure(), ASFailure::Unreachable);
        EXPECT_THAT(error.text(), HasSubstr("\"s1\""));
    }
    EXPECT_EQ(away.faults().current().size(), 1U);
    EXPECT_TRUE(ASFaults::instance().current().empty());
}

TEST_F(QORServersTest, AFailedStatementIsNamedAfterItsServer) {
    divide();
    add("s1", 1, first.connectionString(), 1, 0);
    open();
    QORServers& servers = QORServers::instance();
    const auto placement = servers.placement();
    try {
        servers.run(placement->servers().front(), [](QORRdbms& database) {
            QORRdbmsTran tran(database, ASAccess::Read);
            tran->execute("SELECT * FROM nothing");
        });
        FAIL();
    } catch (const AException& error) {
        EXPECT_THAT(error.text(), HasSubstr("server \"s1\": "));
        EXPECT_THAT(error.text(), HasSubstr("nothing"));
    }
}

// A connection that was lost while it lay idle is replaced for a single read, by one to the same database.
TEST_F(QORServersTest, ALostConnectionIsReplacedByOneToTheSameServer) {
    divide();
    add("s1", 1, first.connectionString(), 1, 0);
    open();
    QORRdbms& database = QORServers::instance().database("s1");
    EXPECT_EQ(nameOf(database), first.name());
    first.connect().run(
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = current_database() "
        "AND pid <> pg_backend_pid()");
    EXPECT_EQ(nameOf(database), first.name());
}

TEST_F(QORServersTest, TheHashIsThatOfTheEnginesPartitions) {
    PostgresConnection engine = home.connect();
    engine.run("CREATE TABLE parted (eid uuid) PARTITION BY HASH (eid); CREATE TABLE told (eid uuid, hash numeric)");
    constexpr int blocks = 100;
    constexpr int perBlock = 1000;
    for (int block = 0; block < blocks; ++block) {
        std::string values;
        for (int i = 0; i < perBlock; ++i) {
            const QOREID eid(QORGUIDBase::random());
            values += (values.empty() ? "('" : ", ('") + eid.toString() + "', " +
                      std::to_string(QORPlacement::hash(eid)) + ")";
        }
        engine.run("INSERT INTO told VALUES " + values);
    }
    engine.run("INSERT INTO told VALUES (NULL, " + std::to_string(QORPlacement::hash(QOREID())) + ")");
    for (const std::string modulus : {"1", "3", "8", "1000"}) {
        EXPECT_EQ(engine.cell("SELECT count(*) FROM told WHERE satisfies_hash_partition('parted'::regclass, " +
                              modulus + ", (hash % " + modulus + ")::int, eid)"),
                  std::to_string(blocks * perBlock + 1));
    }
}

}  // namespace
}  // namespace QOR::test
