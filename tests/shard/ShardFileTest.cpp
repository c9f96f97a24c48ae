// The file that names servers.
#include "shard/ShardFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QORCommon/QORException.h"
#include "QORServers/QORServers.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;

std::string refusalOf(const std::string& text) {
    try {
        parseShardFile(text, "servers");
    } catch (const QORException& error) {
        return error.message();
    }
    return "read";
}

TEST(ShardFile, HasALineAServerAndTheReaderApart) {
    const auto servers = parseShardFile(
        "# of the north\n\n"
        "s1 Server=db1;Database=qor;Reader=qor_reader;ReaderPWD={a;b}\r\n"
        "  s2\tDriver=PostgreSQL Unicode;Server=db2;Database=qor",
        "servers");
    ASSERT_EQ(servers.size(), 2U);
    EXPECT_EQ(servers[0].name, "s1");
    EXPECT_EQ(servers[0].connection, "Server=db1;Database=qor;");
    EXPECT_EQ(servers[0].reader, "qor_reader");
    EXPECT_EQ(servers[0].readerPassword, "a;b");
    EXPECT_EQ(servers[1].connection, "Driver=PostgreSQL Unicode;Server=db2;Database=qor;");
    EXPECT_EQ(servers[1].reader, "");
}

TEST(ShardFile, IsRefusedByItsLine) {
    EXPECT_EQ(refusalOf("# none\n"), "servers names no server");
    EXPECT_THAT(refusalOf("\nS1 Server=a;Database=b"), HasSubstr("servers, line 2: the name \"S1\""));
    EXPECT_THAT(refusalOf("a_long Server=a;Database=b"), HasSubstr("not to end in _long"));
    EXPECT_THAT(refusalOf("a.b Server=a;Database=b"), HasSubstr("line 1: the name"));
    EXPECT_THAT(refusalOf("s1"), HasSubstr("line 1: a connection string is missing behind \"s1\""));
    EXPECT_THAT(refusalOf("s1 Server=a"), HasSubstr("does not say Database="));
    EXPECT_THAT(refusalOf("s1 DSN=a"), HasSubstr("does not say Server="));
    EXPECT_THAT(refusalOf("s1 Server=a;Database=b;PWD=c"), HasSubstr("has a password"));
    EXPECT_THAT(refusalOf("s1 Server=a;Database=b;pqopt={password=c}"), HasSubstr("has a password"));
    EXPECT_THAT(refusalOf("s1 Server=a;Database=b\ns1 Server=c;Database=b"),
                HasSubstr("line 2: the name \"s1\" stands"));
    EXPECT_THAT(refusalOf("s1 Server=a;Database=b\ns2 Server=a;Database=b"),
                HasSubstr("line 2: \"s2\" is the same database as \"s1\""));
}

TEST(ShardFile, LeavesOutWhoIsMeantWhereThatIsWhoHomeKnows) {
    EXPECT_EQ(QORServers::connectionString("Server=a;Database=b;", "Driver=d;UID=u;PWD={p;q}"),
              "Server=a;Database=b;UID=u;PWD={p;q};");
    EXPECT_EQ(QORServers::connectionString("Server=a;UID=v;", "Driver=d;UID=u"), "Server=a;UID=v;");
}

}  // namespace
}  // namespace QOR::test
