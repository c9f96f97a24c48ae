#include "host/QORHostPaths.h"

#include <gtest/gtest.h>

namespace QOR::test {
namespace {

TEST(HostPaths, ConnectionStringIsTakenAsItStands) {
    for (const char* const text :
         {"Driver=SQLite3;Database=/var/lib/qor/agent.db", "DSN=qor", "driver = SQLite3; database = x"})
        EXPECT_EQ(connectionStringOf(text), text);
}

TEST(HostPaths, AnyOtherDatabaseIsAFileOfSqlite) {
    for (const char* const path : {"agent.db", "/var/lib/qor/agent.db", "./a=b.db"})
        EXPECT_EQ(connectionStringOf(path), sqliteConnectionString(path)) << path;
    EXPECT_EQ(sqliteConnectionString("agent.db"), "Driver=SQLite3;Database=agent.db");
}

TEST(HostPaths, FileWithASemicolonStaysOneValue) {
    EXPECT_EQ(connectionStringOf("/srv/a=b;c/agent.db"), "Driver=SQLite3;Database={/srv/a=b;c/agent.db}");
}

TEST(HostPaths, NoDatabaseStaysNone) {
    EXPECT_EQ(connectionStringOf(""), "");
}

}  // namespace
}  // namespace QOR::test
