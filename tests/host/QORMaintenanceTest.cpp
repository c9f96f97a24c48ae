#include "host/QORMaintenance.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "QORCommon/QORException.h"
#include "support/HostDatabase.h"

namespace QOR::test {
namespace {

template <class Work>
std::string refusalOf(Work work) {
    try {
        work();
    } catch (const QORException& error) {
        return std::to_string(error.code()) + " " + error.message();
    }
    return "not refused";
}

TEST(Maintenance, OfAnotherProgramsDatabaseIsRefused) {
    const HostDatabase database;
    database.configure();
    runSql("CREATE TABLE qor_operation (seq INTEGER PRIMARY KEY, time, eid)");
    runSql("INSERT INTO qor_operation VALUES (1, '2000-01-01 00:00:00', NULL)");
    const std::string refusal = "400 the database is not one that this program keeps records in";
    for (const std::string& kind : pruneKinds())
        EXPECT_EQ(refusalOf([&] { pruneDatabase(kind, 2'000'000'000); }), refusal) << kind;
    for (const std::string& part : checkParts())
        EXPECT_EQ(refusalOf([&] { checkDatabase(part, true); }), refusal) << part;
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_operation"), "1");
}

TEST(Maintenance, OfWhatThereIsNotIsRefused) {
    const HostDatabase database;
    database.open();
    EXPECT_EQ(refusalOf([] { pruneDatabase("environments", 0); }), "400 \"environments\" cannot be pruned");
    EXPECT_EQ(refusalOf([] { checkDatabase("all", false); }), "400 there is no part \"all\" to check");
}

TEST(Maintenance, AgesHaveAUnit) {
    const std::pair<const char*, std::int64_t> ages[] = {{"0s", 0},      {"90s", 90},      {"45m", 2700},
                                                         {"12h", 43200}, {"30d", 2592000}, {"8w", 4838400}};
    for (const auto& [text, seconds] : ages)
        EXPECT_EQ(parseAge(text), seconds) << text;
    for (const char* text : {"", "s", "5", "5y", "-5s", "1.5h", " 5s", "99999999999d"})
        EXPECT_EQ(parseAge(text), std::nullopt) << text;
}

}  // namespace
}  // namespace QOR::test
