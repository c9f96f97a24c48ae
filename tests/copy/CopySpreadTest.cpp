// A database whose records several servers keep is not copied, and nothing is copied into it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "QORCommon/QORException.h"
#include "QORDBSchema/QORDBSchema.h"
#include "copy/QORDatabaseCopy.h"
#include "support/ShardedPostgres.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {
namespace {

using ::testing::HasSubstr;

std::string refusalOf(const std::string& from, const std::string& to) {
    try {
        QORDatabaseCopy copy({.from = from, .to = to, .progress = {}, .stop = {}});
        copy.run();
    } catch (const QORException& error) {
        return error.message();
    }
    return "(not refused)";
}

TEST(CopySpread, HomeAndItsServersAreRefused) {
    QORRdbms::prepareProcess();
    const ShardedPostgres servers(2);
    const TemporaryDirectory folder;
    const std::string file = "Driver=SQLite3;Database=" + (folder / "a.db").string();
    QORDBSchema::open({.connectionString = file}, QORSchemaMode::Own);
    const std::string home = "has its records with several servers";
    const std::string server = "is a server that keeps a part of the records of another database";
    EXPECT_THAT(refusalOf(servers.connectionString(), file), HasSubstr("the source "));
    EXPECT_THAT(refusalOf(servers.connectionString(), file), HasSubstr(home));
    EXPECT_THAT(refusalOf(servers.connectionString(2), file), HasSubstr(server));
    EXPECT_THAT(refusalOf(file, servers.connectionString()), HasSubstr("the target "));
    EXPECT_THAT(refusalOf(file, servers.connectionString()), HasSubstr(home));
    EXPECT_THAT(refusalOf(file, servers.connectionString(1)), HasSubstr(server));
    QORRdbms::instance().shutdown();
}

}  // namespace
}  // namespace QOR::test
