// A database of an earlier version, in which documents of backups were stored with the length of another one, is mended
// without losing anything else; what cannot be mended is known from then on.
#include "QORDBSchema/QORStoredDocuments.h"

#include <gmock/gmock.h>

#include <fstream>
#include <map>
#include <set>
#include <stdexcept>

#include "QORDBSchema/QORDBSchema.h"
#include "QORLibAgent/QORInfo.h"
#include "support/HostDatabase.h"
#include "support/SqliteFile.h"

namespace QOR {
namespace {

using test::HostDatabase;
using test::queryRows;
using test::queryText;
using test::Row;
using test::runSql;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Unreadable = QORUnreadableDocuments;

/// What a program of version 3 has written.
std::string version3() {
    std::ifstream file(std::string(QOR_TEST_DATA_DIR) + "/data/version3.sql");
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Every value of every row of a table, apart from one column.
std::set<Row> rowsOf(const std::string& table, const std::string& without = {}) {
    std::vector<Row> columns = queryRows("SELECT name FROM pragma_table_info('" + table + "')", 1);
    std::erase(columns, Row{without});
    std::string list;
    for (const Row& column : columns)
        list += (list.empty() ? "" : ", ") + ("quote(" + column[0] + ")");
    const auto rows = queryRows("SELECT " + list + " FROM " + table, static_cast<unsigned>(columns.size()));
    return {rows.begin(), rows.end()};
}

const std::map<std::string, std::string> tables{
    {"qor_environment", ""}, {"qor_environment_address", ""},   {"qor_operation", ""},
    {"qor_event", ""},       {"qor_operation_environment", ""}, {"qor_operation_count", ""},
    {"qor_event_count", ""}, {"qor_operation_scope", ""},       {"qor_backup", "info"}};

std::map<std::string, std::set<Row>> everything() {
    std::map<std::string, std::set<Row>> all;
    for (const auto& [table, without] : tables)
        all[table] = rowsOf(table, without);
    return all;
}

std::optional<std::vector<Unreadable>> unreadable() {
    QORRdbmsTran tran(ASAccess::Read);
    return unreadableDocuments(*tran);
}

QORDocumentCheck checked(QORDocumentCheck::Mode mode) {
    QORDocumentCheck check(mode);
    for (bool more = true; more;) {
        QORRdbmsTran tran(mode == QORDocumentCheck::Mode::Mend ? ASAccess::Write : ASAccess::Read);
        more = check.step(*tran);
        tran.commit();
    }
    return check;
}

constexpr const char* documents = "SELECT id, CAST(info AS nvarchar), typeof(info), length(info) FROM qor_backup";

class Version3 : public testing::Test {
protected:
    void SetUp() override { test::SqliteFile(m_database.file()).run(version3()); }
    HostDatabase m_database;
};

TEST_F(Version3, DocumentsLoseWhatStandsBehindThemAndNothingElse) {
    m_database.configure();
    ASSERT_EQ(queryText("SELECT length(info) FROM qor_backup WHERE id = 'b1'"), "81");
    const auto before = everything();
    {
        QORRdbmsTran tran(ASAccess::Write);
        EXPECT_EQ(QORDBSchema::migrate(*tran, 4), 3);
        tran.commit();
    }
    EXPECT_EQ(everything(), before);
    EXPECT_EQ(m_database.open().found.version, 4);
    EXPECT_THAT(
        queryRows(documents, 4),
        UnorderedElementsAre(
            Row{"a1", "<info><title>replaced</title></info>", "blob", "36"},
            Row{"a2", "<info><title>a long secret of web 1 that nobody else may ever read</title></info>", "blob",
                "81"},
            Row{"b1", "<info><title>b</title></info>", "blob", "29"}, Row{"b2", "<null>", "null", "<null>"},
            Row{"b3", "<info><title>a longer document of shop's own</title></info>", "blob", "59"},
            Row{"b4", "<info/>", "blob", "7"},
            Row{"b5", "<info><name>\u00e9qual title dec</name></info>", "blob", "42"},
            Row{"b6", "<info><title>a document of shop that is a little longer than that secret</title><", "blob",
                "81"},
            Row{"b7", "<info><title>the document of shop which is nearly as long as may fit in</title></", "blob",
                "81"},
            Row{"b8", "<info><note>&lt;info&gt;&lt;title&gt;x&lt;/title&gt;&lt;/info&gt;</note></info>", "blob", "79"},
            Row{"b9",
                "<info><list>1</list><list>2</list><list><deep>yes</deep></list><nul encoding=\"base64\">YQBi</nul>"
                "</info>",
                "blob", "103"},
            Row{"b10", "<info><name>short</name></info>", "blob", "31"}));
    EXPECT_EQ(queryText("PRAGMA integrity_check"), "ok");
}

TEST_F(Version3, DocumentsThatCannotBeReadAreKnown) {
    m_database.open();
    EXPECT_THAT(*unreadable(), ElementsAre(Unreadable{"qor_backup", "info", 2}));
    EXPECT_EQ(describe(*unreadable()), "2 in qor_backup.info");
}

TEST_F(Version3, ADocumentThatWasReplacedOrRemovedIsForgotten) {
    m_database.open();
    runSql("UPDATE qor_backup SET size = 0");
    EXPECT_THAT(*unreadable(), ElementsAre(Unreadable{"qor_backup", "info", 2}));
    runSql("UPDATE qor_backup SET info = X'3C696E666F2F3E' WHERE id = 'b6'");
    EXPECT_THAT(*unreadable(), ElementsAre(Unreadable{"qor_backup", "info", 1}));
    runSql("DELETE FROM qor_backup WHERE id = 'b7'");
    EXPECT_THAT(*unreadable(), IsEmpty());
}

TEST_F(Version3, NothingIsKnownOfAnOlderVersionThatIsOnlyRead) {
    m_database.open(QORSchemaMode::Reading, true);
    EXPECT_EQ(unreadable(), std::nullopt);
    EXPECT_EQ(queryText("SELECT length(info) FROM qor_backup WHERE id = 'b1'"), "81");
}

/// Texts of every column with something wrong with them, beside sound ones.
TEST_F(Version3, DocumentsOfEveryColumnAreMended) {
    test::SqliteFile(m_database.file())
        .run(
            "UPDATE qor_operation SET message = '<info><a>1</a></info>' || char(0) || '</info>' WHERE id = 'op-1';"
            "UPDATE qor_operation SET message = '<info><a>1</a><b>' WHERE id = 'op-2';"
            "UPDATE qor_event SET info = '<info/>x' WHERE seq = 1;"
            "UPDATE qor_event SET info = '' WHERE seq = 2;"
            "UPDATE qor_environment SET config = '<?xml version=\"1.0\"?><info><a/></info> <!-- by hand -->',"
            " virtual_config = '<info a=\">\"><b/></info></info>' WHERE title = 'web 1';"
            "UPDATE qor_environment SET config = 'none', virtual_config = '<info' WHERE title = 'shop'");
    m_database.open();
    EXPECT_EQ(queryRows("SELECT id, message, typeof(message), length(CAST(message AS BLOB)) FROM qor_operation "
                        "ORDER BY id LIMIT 2",
                        4),
              (std::vector<Row>{{"op-1", "<info><a>1</a></info>", "text", "21"},
                                {"op-2", "<info><a>1</a><b>", "text", "17"}}));
    EXPECT_EQ(queryRows("SELECT info, typeof(info) FROM qor_event ORDER BY seq", 2),
              (std::vector<Row>{{"<info/>", "text"}, {"", "text"}, {"<null>", "null"}}));
    EXPECT_EQ(
        queryRows("SELECT config, virtual_config FROM qor_environment ORDER BY title DESC", 2),
        (std::vector<Row>{{"<?xml version=\"1.0\"?><info><a/></info> <!-- by hand -->", "<info a=\">\"><b/></info>"},
                          {"none", "<info"}}));
    EXPECT_THAT(*unreadable(),
                ElementsAre(Unreadable{"qor_backup", "info", 2}, Unreadable{"qor_environment", "config", 1},
                            Unreadable{"qor_environment", "virtual_config", 1}, Unreadable{"qor_event", "info", 1},
                            Unreadable{"qor_operation", "message", 1}));
    runSql("DELETE FROM qor_environment WHERE title = 'shop'");
    runSql("UPDATE qor_event SET info = NULL WHERE seq = 2");
    runSql("DELETE FROM qor_operation WHERE id = 'op-2'");
    EXPECT_THAT(*unreadable(), ElementsAre(Unreadable{"qor_backup", "info", 2}));
}

TEST(DocumentCheck, FindsWhatWasDamagedLaterAndForgetsWhatIsWellAgain) {
    const HostDatabase database;
    database.open();
    runSql(
        "INSERT INTO qor_event (time, info) VALUES ('2024-01-01 00:00:00', '<info/>x'), "
        "('2024-01-01 00:00:00', '<info>'), ('2024-01-01 00:00:00', '<info/>')");
    EXPECT_THAT(*unreadable(), IsEmpty());
    const auto looked = checked(QORDocumentCheck::Mode::Look);
    EXPECT_THAT(*unreadable(), IsEmpty());
    EXPECT_EQ(queryText("SELECT info FROM qor_event"), "<info/>x");
    for (const auto& check : {looked, checked(QORDocumentCheck::Mode::Mend)}) {
        const auto& events = check.columns()[3];
        EXPECT_EQ(events.table + '.' + events.column, "qor_event.info");
        EXPECT_EQ(events.read, 3U);
        EXPECT_EQ(events.trimmed, 1U);
        EXPECT_EQ(events.unreadable, 1U);
    }
    EXPECT_THAT(*unreadable(), ElementsAre(Unreadable{"qor_event", "info", 1}));
    EXPECT_EQ(queryText("SELECT info FROM qor_event"), "<info/>");
    const auto again = checked(QORDocumentCheck::Mode::Mend);
    EXPECT_EQ(again.columns()[3].trimmed, 0U);
    EXPECT_THAT(*unreadable(), ElementsAre(Unreadable{"qor_event", "info", 1}));
}

TEST(DocumentCheck, GoesOnWhereItWasUntilAllHaveBeenRead) {
    const HostDatabase database;
    database.open();
    runSql(
        "INSERT INTO qor_event (seq, time, info) WITH RECURSIVE n(i) AS (VALUES (-1200) UNION ALL SELECT i + 1 FROM n "
        "WHERE i < 1200) SELECT i, '2024-01-01 00:00:00', CASE WHEN i % 100 = 0 THEN '<info>' "
        "WHEN (i + 1200) % 500 = 1 THEN '<info>' || hex(zeroblob(1500000)) || '</info>.' "
        "WHEN i % 7 = 0 THEN NULL ELSE '<info/>' END FROM n");
    QORDocumentCheck check(QORDocumentCheck::Mode::Mend);
    int steps = 0;
    for (bool more = true; more; ++steps) {
        QORRdbmsTran tran(ASAccess::Write);
        more = check.step(*tran);
        tran.commit();
    }
    EXPECT_GE(steps, 6);
    const auto& events = check.columns()[3];
    EXPECT_EQ(std::to_string(events.read), queryText("SELECT count(*) FROM qor_event WHERE info IS NOT NULL"));
    EXPECT_EQ(events.unreadable, 25U);
    EXPECT_EQ(events.trimmed, 5U);
    EXPECT_THAT(*unreadable(), ElementsAre(Unreadable{"qor_event", "info", 25}));
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event WHERE length(info) = 3000013 OR info LIKE '%.'"), "5");
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event WHERE info LIKE '%.'"), "0");
}

}  // namespace
}  // namespace QOR
