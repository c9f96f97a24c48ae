// `qorctl database shard`, as an administrator uses it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "ctl/CtlProcess.h"
#include "shard/ShardRecordsOf.h"
#include "support/ShardedPostgres.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class ShardCommand : public testing::Test {
protected:
    CtlResult shard(const std::string& servers, const Words& more = {}, std::string home = {}) const {
        const auto file = m_folder / "servers";
        std::ofstream(file) << servers;
        Words words{"database",  "shard",      "--database", home.empty() ? m_database.connectionString() : home,
                    "--servers", file.string()};
        words.insert(words.end(), more.begin(), more.end());
        return runCtl(words);
    }
    PostgresConnection home() const { return PostgresConnection(m_database.conninfo()); }

    TemporaryDirectory m_folder;
    ShardedPostgres m_database{3, false};
};

TEST_F(ShardCommand, SetsUpAddsAServerAndChecks) {
    CtlResult result = shard(m_database.file(2));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "spread over 2 servers\nchecked: 2 servers, sound\n");
    result = shard(m_database.file(2));
    EXPECT_EQ(result.out, "checked: 2 servers, sound\n");
    store(m_database, 2, 1, 500);
    result = shard(m_database.file(3), {"--split", "s1", "--progress"});
    EXPECT_EQ(result.out, "server \"s3\" has half of the environments of \"s1\"\nchecked: 3 servers, sound\n");
    EXPECT_THAT(result.err, HasSubstr("moving to s3: "));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(home().cell("SELECT count(*) FROM qor_all.\"vEventLog\""), "500");
}

TEST_F(ShardCommand, WhatCannotBeSetUpIsNamedAndHomeStaysAsItWas) {
    EXPECT_THAT(shard("s1 Server=/nowhere").err,
                HasSubstr("line 1: the connection string of \"s1\" does not say Database="));
    const CtlResult away = shard(m_database.file(2) + "s3 Server=/nowhere;Database=qor");
    EXPECT_EQ(away.status, 3);
    EXPECT_THAT(away.err, StartsWith("qorctl: server \"s3\": cannot open the database"));
    EXPECT_THAT(shard("s1 " + m_database.connectionString()).err, HasSubstr("server \"s1\" is home itself"));
    PostgresConnection(m_database.conninfo(2)).run("CREATE TABLE theirs (n int)");
    EXPECT_THAT(shard(m_database.file(2)).err, HasSubstr("server \"s2\" belongs to another program"));
    EXPECT_THAT(shard("s1 Server=x;Database=y", {}, "Driver=SQLite3;Database=" + (m_folder / "a.db").string()).err,
                HasSubstr("home is not PostgreSQL's"));
    EXPECT_EQ(home().cell("SELECT count(*) FROM qor_server"), "0");
    EXPECT_EQ(home().cell("SELECT count(*) FROM pg_namespace WHERE nspname LIKE 'qor%'"), "0");
}

TEST_F(ShardCommand, ADatabaseThatHoldsRecordsOrIsAnothersServerIsNoServer) {
    ASSERT_EQ(shard(m_database.file(1)).status, 0);
    PostgresConnection(m_database.conninfo(1)).run("INSERT INTO qor_event (time) VALUES ('2024-05-01')");
    const ShardedPostgres other(1, false);
    EXPECT_THAT(shard(m_database.file(1), {}, other.connectionString()).err,
                HasSubstr("server \"s1\" is a server of another database"));
    const ShardedPostgres third(1, true);
    EXPECT_THAT(shard(m_database.file(1) + "s2 " + third.connectionString()).err,
                HasSubstr("server \"s2\" is itself one whose records are spread"));
    PostgresConnection(third.conninfo(1))
        .run("UPDATE qor_held SET home = ''; INSERT INTO qor_event (time) VALUES ('2024-05-01')");
    EXPECT_THAT(shard(m_database.file(1) + "s2 " + third.connectionString(1)).err,
                HasSubstr("server \"s2\" holds records of its own"));
    EXPECT_THAT(shard("s9 " + third.connectionString(1)).err,
                HasSubstr("home has the server \"s1\", which is not named"));
}

TEST_F(ShardCommand, TellsWhatIsNotAsItShouldBe) {
    ASSERT_EQ(shard(m_database.file(3)).status, 0);
    PostgresConnection second(m_database.conninfo(2));
    second.run(
        "INSERT INTO qor_event (time, eid) SELECT '2024-05-01', md5(n::text)::uuid FROM generate_series(1, 9) n");
    second.run("DROP INDEX qor_event_time");
    PostgresConnection(m_database.conninfo(3)).run("UPDATE qor_held SET remainder = 0");
    const CtlResult result = shard(m_database.file(3));
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, AllOf(HasSubstr("records of qor_event belong to another server\n"),
                                  HasSubstr("server \"s2\": qor_event_time is missing"),
                                  HasSubstr("server \"s3\": holds 3/0, and home says 3/2\n")));
    EXPECT_THAT(result.out, Not(HasSubstr("\"s1\"")));
}

TEST_F(ShardCommand, ARoleWithoutRightsIsToldWhatASuperuserHasToDo) {
    PostgresConnection all = home();
    const std::string name = all.cell("SELECT current_database()");
    all.run("DO $$ BEGIN CREATE ROLE plain LOGIN; EXCEPTION WHEN duplicate_object THEN END $$");
    all.run("GRANT CREATE ON SCHEMA public TO plain");
    PostgresConnection first(m_database.conninfo(1));
    first.run("GRANT CREATE ON SCHEMA public TO plain");
    const auto as = [](std::string connection) { return connection.replace(connection.find("UID="), 7, "UID=plain"); };
    const std::string servers = "s1 " + as(m_database.connectionString(1)) + "\n";
    CtlResult result = shard(servers, {}, as(m_database.connectionString()));
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("lacks the extension postgres_fdw, which a superuser has to make there: CREATE "
                                      "EXTENSION IF NOT EXISTS postgres_fdw; GRANT USAGE ON FOREIGN DATA WRAPPER "
                                      "postgres_fdw TO plain; GRANT CREATE ON DATABASE " +
                                      name + " TO plain"));
    all.run(
        "CREATE EXTENSION IF NOT EXISTS postgres_fdw; GRANT USAGE ON FOREIGN DATA WRAPPER postgres_fdw TO plain; "
        "GRANT CREATE ON DATABASE " +
        name + " TO plain");
    result = shard(servers, {}, as(m_database.connectionString()));
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("have a superuser say at home: ALTER USER MAPPING FOR PUBLIC"));
    for (const char* const server : {"qor_s1", "qor_s1_long"})
        all.run("ALTER USER MAPPING FOR PUBLIC SERVER " + std::string(server) +
                " OPTIONS (ADD password_required 'false')");
    result = shard(servers, {}, as(m_database.connectionString()));
    EXPECT_EQ(result.out, "checked: 1 servers, sound\n") << result.err;
}

TEST_F(ShardCommand, AReaderHasNoMoreThanTheRightToRead) {
    PostgresConnection first(m_database.conninfo(1));
    first.run("DO $$ BEGIN CREATE ROLE reads LOGIN; EXCEPTION WHEN duplicate_object THEN END $$");
    std::string servers = m_database.file(1);
    servers.insert(servers.size() - 1, ";Reader=reads");
    EXPECT_EQ(shard(servers).out, "spread over 1 servers\nchecked: 1 servers, sound\n");
    EXPECT_EQ(first.cell("SELECT has_table_privilege('reads', 'qor_event', 'SELECT')::text || "
                         "has_table_privilege('reads', 'qor_event', 'INSERT,UPDATE,DELETE,TRUNCATE')::text"),
              "truefalse");
    servers.insert(servers.size() - 1, "_not");
    EXPECT_THAT(shard(servers).err, HasSubstr("server \"s1\" has no role \"reads_not\" for home to read by"));
}

TEST_F(ShardCommand, PrintsStatementsThatSetUpTheSame) {
    EXPECT_THAT(shard(m_database.file(2), {"--print"}).err, HasSubstr("have an agent open it once"));
    ASSERT_EQ(runCtl({"import", "--standalone", "--database", m_database.connectionString()}).status, 0);
    const CtlResult result = shard(m_database.file(2), {"--print"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(home().cell("SELECT count(*) FROM qor_server"), "0");
    // Each part goes to the database that its heading names.
    const std::size_t second = result.out.find("-- server s2");
    const std::size_t last = result.out.find("-- home");
    ASSERT_LT(second, last);
    PostgresConnection(m_database.conninfo(1)).run(result.out.substr(0, second));
    PostgresConnection(m_database.conninfo(2)).run(result.out.substr(second, last - second));
    home().run(result.out.substr(last));
    EXPECT_EQ(shard(m_database.file(2)).out, "checked: 2 servers, sound\n");
}

}  // namespace
}  // namespace QOR::test
