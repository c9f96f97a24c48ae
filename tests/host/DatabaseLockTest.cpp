#include "host/QORDatabaseLock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "QORCommon/QORException.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;

TEST(DatabaseLock, OfAFileIsHeldByOne) {
    const TemporaryDirectory folder;
    const std::string database = "Driver=SQLite3;Database=" + (folder / "agent.db").string();
    const QORDatabaseLock first(database);
    try {
        const QORDatabaseLock second(database);
        FAIL() << "held twice";
    } catch (const QORException& error) {
        EXPECT_THAT(error.message(), HasSubstr("another agent, process "));
    }
}

TEST(DatabaseLock, OfADatabaseOnAServerIsNoFileWhateverLiesHere) {
    const TemporaryDirectory folder;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    std::ofstream("records") << "a file of the same name";
    { const QORDatabaseLock lock("Driver=PostgreSQL Unicode;Server=/nowhere;Database=records"); }
    const bool made = std::filesystem::exists("records.lock");
    std::filesystem::current_path(before);
    EXPECT_FALSE(made);
}

}  // namespace
}  // namespace QOR::test
