#include "host/QORMaintenance.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORTime.h"
#include "ingest/QORIngest.h"
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
    runSql("CREATE TABLE qor_operation (seq INTEGER PRIMARY KEY, time text, eid text)");
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

/// A database with records of all kinds, ten days of the logs.
class MaintainedDatabase : public testing::Test {
protected:
    void SetUp() override {
        m_database.open();
        std::string lines =
            R"({"kind":"environment","eid":"aaaaaaaa-0000-4000-8000-000000000001","config":{"hostname":"h"}})"
            "\n";
        for (int day = 1; day <= 10; ++day) {
            const std::string time =
                "\"time\":\"2024-05-" + std::string(day < 10 ? "0" : "") + std::to_string(day) + "\"";
            const std::string number = std::to_string(day);
            lines +=
                R"({"kind":"operation","id":"o)" + number + "\"," + time +
                R"(,"eid":"aaaaaaaa-0000-4000-8000-000000000001","eids":["bbbbbbbb-0000-4000-8000-000000000002"],)" +
                R"("message":{"package":"p"}})" + "\n" + R"({"kind":"event","source":"s","category":"c",)" + time +
                R"(,"info":{"a":"1"}})" + "\n" + R"({"kind":"backup","id":"b)" + number + "\"," + time +
                R"(,"info":{"veid":"1"}})" + "\n";
        }
        const QORIngestResult result = QORIngest().importBatch(lines);
        ASSERT_EQ(result.accepted(), 31U) << (result.failure ? result.failure->reason : "");
    }
    static std::size_t faults(bool mend = false) {
        std::size_t found = 0;
        for (const std::string& part : checkParts())
            found += checkDatabase(part, mend).size();
        return found;
    }

    HostDatabase m_database{TestTables::Own};
};

TEST_F(MaintainedDatabase, IsSound) {
    EXPECT_EQ(faults(), 0U);
}

TEST_F(MaintainedDatabase, WithCountersThatDoNotAgreeIsFoundAndMended) {
    runSql("UPDATE qor_operation_count SET n = n + 1");
    runSql("DELETE FROM qor_event_count");
    ASSERT_EQ(checkDatabase("counters", false).size(), 2U);
    for (const QORCheckFinding& finding : checkDatabase("counters", true))
        EXPECT_TRUE(finding.mended) << finding.text;
    EXPECT_EQ(faults(), 0U);
}

TEST_F(MaintainedDatabase, WithoutAnIndexIsFoundAndMended) {
    runSql("DROP INDEX qor_operation_time");
    ASSERT_EQ(checkDatabase("schema", false).size(), 1U);
    EXPECT_EQ(checkDatabase("schema", true).front().text, "qor_operation_time is missing or not what it was");
    EXPECT_EQ(faults(), 0U);
}

TEST_F(MaintainedDatabase, WithADocumentThatCannotBeReadSaysSo) {
    runSql("UPDATE qor_event SET info = '<a' WHERE seq = 3");
    const auto findings = checkDatabase("documents", false);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].text, "1 documents in qor_event.info cannot be read");
}

TEST_F(MaintainedDatabase, LosesWhatIsOlderAndStaysSound) {
    const std::int64_t sixth = *parseTime("2024-05-06");
    for (const char* const kind : {"operations", "events", "backups"})
        EXPECT_EQ(pruneDatabase(kind, sixth).done, 5U) << kind;
    for (const char* const table : {"qor_operation", "qor_operation_environment", "qor_event", "qor_backup"}) {
        EXPECT_EQ(queryText("SELECT count(*) FROM " + std::string(table)), "5") << table;
        EXPECT_EQ(queryText("SELECT min(time) FROM " + std::string(table)), "2024-05-06 00:00:00") << table;
    }
    EXPECT_EQ(faults(), 0U);
}

TEST_F(MaintainedDatabase, IsWrittenAnewByItsOwnerAloneOnAServer) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    EXPECT_EQ(refusalOf([] { pruneDatabase("compact", 0); }),
              "400 PostgreSQL writes tables anew itself: VACUUM FULL, by their owner");
}

}  // namespace
}  // namespace QOR::test
