#include "ingest/QORIngest.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>

#include "QORLibAgent/QOREnvCache.h"
#include "QORLibAgent/QORSecurity.h"
#include "rdbmspp/engine/AException.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

using test::HostDatabase;
using test::queryRows;
using test::queryText;
using test::Row;
using test::runSql;

constexpr const char* eidA = "aaaaaaaa-0000-4000-8000-000000000001";
constexpr const char* eidB = "bbbbbbbb-0000-4000-8000-000000000002";

std::string eventLine(int time) {
    return R"({"kind":"event","time":)" + std::to_string(time) + "}\n";
}

std::string operationLine(const std::string& id, int time, const std::string& more = {}) {
    return R"({"kind":"operation","id":")" + id + R"(","time":)" + std::to_string(time) + more + "}\n";
}

class QORIngestTest : public ::testing::Test {
protected:
    void SetUp() override { m_database.open(); }
    HostDatabase m_database{test::TestTables::Own};
    QORIngest m_ingest;
};

bool onSqlite() {
    return test::testEngine() == ASEngine::SQLite;
}

/// A column of bytes that are a text, as one.
std::string textOfBytes(const std::string& column) {
    return onSqlite() ? "CAST(" + column + " AS nvarchar)" : "convert_from(" + column + ", 'UTF8')";
}

/// "blob" for bytes.
std::string typeOfValue(const std::string& column) {
    return onSqlite() ? "typeof(" + column + ")" : "replace(CAST(pg_typeof(" + column + ") AS text), 'bytea', 'blob')";
}

/// Names of a table's columns, commas between them. \param without literals of some that are left out
std::string columnsOf(const std::string& table, const std::string& without) {
    return queryText(onSqlite()
                         ? "SELECT group_concat(name, ', ') FROM pragma_table_info('" + table +
                               "') WHERE name NOT IN (" + without + ")"
                         : "SELECT string_agg(column_name, ', ') FROM information_schema.columns WHERE table_schema = "
                           "current_schema() AND table_name = '" +
                               table + "' AND column_name NOT IN (" + without + ")");
}

TEST_F(QORIngestTest, EveryKindIsStoredInItsForm) {
    QOR_NOT_WITH_SERVERS("numbers of arrival are those of each server");
    const auto result = m_ingest.importBatch(
        R"({"kind":"environment","eid":"AAAAAAAA-0000-4000-8000-000000000001","title":"web 1","state":6,"config":{"hostname":"web1","ip":["10.0.0.1","10.0.0.2"],"os":{"name":"Debian"},"memory":512,"boot_time":0},"virtual_config":{"ip":["10.1.0.1"]}})"
        "\n"
        R"({"kind":"operation","id":"op-1","op":"install","status":0,"time":"2024-02-29 12:00:00","eid":"aaaaaaaa-0000-4000-8000-000000000001","message":{"package":{"name":"curl","version":"7.88"}}})"
        "\n"
        R"({"kind":"event","time":1709208000,"eid":"aaaaaaaa-0000-4000-8000-000000000001","source":"agent","category":"env_status","info":{"new_state":6}})"
        "\n"
        R"({"kind":"backup","id":"b-1","eid":"aaaaaaaa-0000-4000-8000-000000000001","time":1709208000,"size":5000000000,"type":1,"info":{"veid":"101"}})");
    EXPECT_EQ(result.accepted(), 4U);
    EXPECT_EQ(result.refused, 0U);
    EXPECT_EQ(result.lastLine, 4U);
    EXPECT_EQ(queryRows("SELECT eid, parent_eid, title, state, transition, hostname, os_name, ip, memory, boot_time, "
                        "config, virtual_config, \"securableObjId\" FROM \"vEnvironment\"",
                        13),
              (std::vector<Row>{{eidA, "<null>", "web 1", "6", "0", "web1", "Debian", "10.0.0.1", "512",
                                 "1970-01-01 00:00:00",
                                 "<info><hostname>web1</hostname><ip>10.0.0.1</ip><ip>10.0.0.2</ip><os><name>Debian"
                                 "</name></os><memory>512</memory><boot_time>0</boot_time></info>",
                                 "<info><ip>10.1.0.1</ip></info>", eidA}}));
    EXPECT_EQ(queryRows("SELECT source, position, address FROM qor_environment_address ORDER BY 1, 2", 3),
              (std::vector<Row>{{"0", "0", "10.0.0.1"}, {"0", "1", "10.0.0.2"}, {"1", "0", "10.1.0.1"}}));
    EXPECT_EQ(queryRows("SELECT id, parent_id, op, status, time, eid, package, version, message FROM \"vOpLog\"", 9),
              (std::vector<Row>{{"op-1", "<null>", "install", "0", "2024-02-29 12:00:00", eidA, "curl", "7.88",
                                 "<info><package><name>curl</name><version>7.88</version></package></info>"}}));
    EXPECT_EQ(queryRows("SELECT id, time, eid, source, category, info FROM \"vEventLog\"", 6),
              (std::vector<Row>{
                  {"1", "2024-02-29 12:00:00", eidA, "agent", "env_status", "<info><new_state>6</new_state></info>"}}));
    EXPECT_EQ(queryRows("SELECT id, eid, storage_eid, time, size, type, description, name, hostname, " +
                            typeOfValue("info") + ", " + textOfBytes("info") + " FROM \"vBackupInfo\"",
                        11),
              (std::vector<Row>{{"b-1", eidA, "<null>", "2024-02-29 12:00:00", "5000000000", "1", "<null>", "<null>",
                                 "<null>", "blob", "<info><veid>101</veid></info>"}}));
}

TEST_F(QORIngestTest, EveryMemberOfAConfigurationReachesItsColumnAndTheEnvironment) {
    std::string members;
    std::string os;
    std::string columns;
    Row texts;
    for (const QOREnvMemberRow& row : envMembers) {
        std::string& group = row.group.empty() ? members : os;
        texts.push_back("text of " + std::string(row.column));
        group += "\"" + std::string(row.name) + "\":\"" + texts.back() + "\",";
        columns += (columns.empty() ? "" : ", ") + std::string(row.column);
    }
    os.pop_back();
    QOREnvCache cache;
    setEnvCache(&cache);
    const auto result = m_ingest.importBatch(std::string(R"({"kind":"environment","eid":")") + eidA +
                                             "\",\"config\":{" + members + "\"os\":{" + os + "}}}");
    EXPECT_EQ(result.accepted(), 1U);
    EXPECT_EQ(queryRows("SELECT " + columns + " FROM \"vEnvironment\"", envMemberCount), (std::vector<Row>{texts}));
    const auto everybody = std::make_shared<QORClientContext>();
    everybody->fullAccess = true;
    const QORClientContextScope scope(everybody);
    const auto stored = cache.getEnvCopy(QOREID(*QORGUIDBase::parse(eidA)));
    QOREnvCache read;
    read.load();
    const auto again = read.getEnvCopy(QOREID(*QORGUIDBase::parse(eidA)));
    ASSERT_TRUE(stored && again);
    for (std::size_t i = 0; i < envMemberCount; ++i) {
        EXPECT_EQ(stored->getConfig()->text(envMembers[i].member), texts[i]);
        EXPECT_EQ(again->getConfig()->text(envMembers[i].member), texts[i]);
    }
}

TEST_F(QORIngestTest, DocumentsOfBackupsAreNeitherCutNorMixed) {
    const auto line = [](const std::string& id, const std::string& title) {
        return R"({"kind":"backup","id":")" + id + R"(","time":1,"info":{"title":")" + title + "\"}}\n";
    };
    m_ingest.importBatch(line("a1", "x") + line("a2", "a long secret of A that nobody else may read") + line("b", "y") +
                         R"({"kind":"backup","id":"none","time":1})"
                         "\n" +
                         line("c", "another"));
    m_ingest.importBatch(line("a2", "short") + line("b", "longer than before, and then some"));
    EXPECT_EQ(queryRows("SELECT id, " + textOfBytes("info") + " FROM \"vBackupInfo\" ORDER BY id", 2),
              (std::vector<Row>{{"a1", "<info><title>x</title></info>"},
                                {"a2", "<info><title>short</title></info>"},
                                {"b", "<info><title>longer than before, and then some</title></info>"},
                                {"c", "<info><title>another</title></info>"},
                                {"none", "<null>"}}));
}

TEST_F(QORIngestTest, LinesThatAreNoRecordsEndTheReadingAfterAWhile) {
    QORIngestOptions options;
    options.refusedInARow = 10;
    std::string bad;
    for (int i = 0; i < 9; ++i)
        bad += "x\n";
    // A good line between them begins the count anew; blank lines do not count.
    const auto enough = QORIngest(options).importBatch(bad + eventLine(1) + bad + "\n\n" + eventLine(2));
    EXPECT_EQ(enough.refused, 18U);
    EXPECT_EQ(enough.accepted(), 2U);
    EXPECT_FALSE(enough.failure);
    const auto tooMany = QORIngest(options).importBatch(eventLine(3) + bad + "\nx\nx\nx\n" + eventLine(4), 101);
    EXPECT_EQ(tooMany.refused, 10U);
    EXPECT_EQ(tooMany.accepted(), 1U);
    EXPECT_EQ(tooMany.lastLine, 112U);
    ASSERT_TRUE(tooMany.failure);
    EXPECT_EQ(tooMany.failure->firstLine, 113U);
    EXPECT_EQ(tooMany.failure->reason, "the 10 lines before it are no records; the rest was not read");
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "3");
}

TEST_F(QORIngestTest, SecurityColumnsHoldTheNumberInTheirName) {
    m_ingest.importBatch(std::string(R"({"kind":"environment","eid":")") + eidA + "\"}\n" + operationLine("a", 1) +
                         eventLine(1) + R"({"kind":"backup","id":"b","time":1})");
    EXPECT_EQ(queryText("SELECT \"securityOperation_1\" FROM \"vEnvironment\""), "1");
    EXPECT_EQ(queryText("SELECT \"securityOperation_2\" FROM \"vOpLog\""), "2");
    EXPECT_EQ(queryText("SELECT \"securityOperation_3\" FROM \"vEventLog\""), "3");
    EXPECT_EQ(queryText("SELECT \"securityOperation_4\" FROM \"vBackupInfo\""), "4");
    EXPECT_EQ(queryText("SELECT \"securableObjId\" FROM \"vOpLog\""), "<null>");
}

TEST_F(QORIngestTest, AnEnvironmentReplacesTheOneWithItsEid) {
    const std::string eid = std::string(R"({"kind":"environment","eid":")") + eidA + "\"";
    m_ingest.importBatch(eid + R"(,"title":"old","state":6,"config":{"hostname":"old","ip":["1.1.1.1","2.2.2.2"]}})");
    const auto result = m_ingest.importBatch(eid + R"(,"title":"new","config":{"ip":["3.3.3.3"]}})");
    EXPECT_EQ(result.of(QORRecordKind::Environment).added, 0U);
    EXPECT_EQ(result.of(QORRecordKind::Environment).replaced, 1U);
    EXPECT_EQ(queryRows("SELECT title, state, hostname, ip FROM \"vEnvironment\"", 4),
              (std::vector<Row>{{"new", "0", "<null>", "3.3.3.3"}}));
    EXPECT_EQ(queryRows("SELECT address FROM qor_environment_address", 1), (std::vector<Row>{{"3.3.3.3"}}));
}

TEST_F(QORIngestTest, AnOperationReplacesTheOneWithItsIdAndKeepsItsPlaceInTheOrderOfArrival) {
    QOR_NOT_WITH_SERVERS("numbers of arrival are those of each server");
    m_ingest.importBatch(operationLine("first", 100, std::string(R"(,"status":1,"eid":")") + eidA + "\"") +
                         operationLine("second", 100));
    const auto result =
        m_ingest.importBatch(operationLine("first", 200, std::string(R"(,"op":"stop","eids":[")") + eidB + "\"]") +
                             operationLine("third", 100));
    EXPECT_EQ(result.of(QORRecordKind::Operation).added, 1U);
    EXPECT_EQ(result.of(QORRecordKind::Operation).replaced, 1U);
    EXPECT_EQ(queryRows("SELECT id, op, status, time, eid FROM qor_operation ORDER BY seq", 5),
              (std::vector<Row>{{"first", "stop", "0", "1970-01-01 00:03:20", "<null>"},
                                {"second", "<null>", "0", "1970-01-01 00:01:40", "<null>"},
                                {"third", "<null>", "0", "1970-01-01 00:01:40", "<null>"}}));
    EXPECT_EQ(queryRows("SELECT operation, position, eid, time FROM qor_operation_environment", 4),
              (std::vector<Row>{
                  {queryText("SELECT seq FROM qor_operation WHERE id = 'first'"), "0", eidB, "1970-01-01 00:03:20"}}));
}

// Of every column, so that one that is added later has its turn too.
TEST_F(QORIngestTest, AReplacedRecordHasNothingOfTheOneBefore) {
    QOR_NOT_WITH_SERVERS("what home keeps of a table is not all of it");
    const std::string eid(eidA, 35);  // but for its last digit
    std::string members;
    std::string os;
    for (const QOREnvMemberRow& row : envMembers)
        (row.group.empty() ? members : os) += "\"" + std::string(row.name) + "\":\"x\",";
    const struct {
        std::string table;
        std::string key;
        std::string begin;  ///< with an identifier, but for its last character
        std::string full;
    } kinds[] = {
        {"qor_environment", "eid", R"({"kind":"environment","eid":")" + eid,
         R"(,"parent_eid":")" + std::string(eidB) + R"(","title":"x","state":6,"transition":1,"config":{)" + members +
             "\"os\":{" + os.substr(0, os.size() - 1) +
             R"(},"ip":["10.0.0.1"],"memory":5,"boot_time":5},"virtual_config":{"ip":["10.0.0.2"]})"},
        {"qor_operation", "id", R"({"kind":"operation","time":1,"id":"x)",
         R"(,"parent_id":"x","op":"x","status":1,"eid":")" + std::string(eidB) +
             R"(","message":{"package":{"name":"x","version":"x"}})"},
        {"qor_backup", "id", R"({"kind":"backup","time":1,"id":"x)",
         R"(,"eid":")" + std::string(eidB) + R"(","storage_eid":")" + eidB +
             R"(","size":1,"type":1,"description":"x","name":"x","hostname":"x","info":{"x":"x"})"},
    };
    for (const auto& kind : kinds) {
        const std::string columns = columnsOf(kind.table, "'rowid', 'seq', 'time', 'updated', '" + kind.key + "'");
        const auto rows = [&] {
            return queryRows("SELECT " + columns + " FROM " + kind.table + " ORDER BY " + kind.key,
                             static_cast<unsigned>(1 + std::count(columns.begin(), columns.end(), ',')));
        };
        QORIngestOptions reported;
        reported.reporter = "x";
        EXPECT_EQ(QORIngest(reported).importBatch(kind.begin + "1\"" + kind.full + "}").accepted(), 1U);
        EXPECT_EQ(m_ingest.importBatch(kind.begin + "2\"}").accepted(), 1U);
        const auto before = rows();
        for (std::size_t column = 0; column < before[0].size(); ++column)
            EXPECT_NE(before[0][column], before[1][column]) << kind.table << ", column " << column << " of " << columns;
        EXPECT_EQ(m_ingest.importBatch(kind.begin + "1\"}").total().replaced, 1U);
        const auto after = rows();
        EXPECT_EQ(after[0], after[1]) << kind.table << ": " << columns;
    }
}

TEST_F(QORIngestTest, AnEventWithAnIdentifierIsStoredOnce) {
    QOR_NOT_WITH_SERVERS("changes are told by each server");
    const std::string first = R"({"kind":"event","time":1,"category":"c","id":"AAAAAAAA-0000-4000-8000-00000000000)";
    const std::string lines =
        first + "1\"}\n" + first + "1\"}\n" + R"({"kind":"event","time":1,"category":"c"})" + "\n";
    auto result = m_ingest.importBatch(lines);
    EXPECT_EQ(result.of(QORRecordKind::Event).added, 2U);
    EXPECT_EQ(result.of(QORRecordKind::Event).unchanged, 1U);
    result = m_ingest.importBatch(lines + first + "2\",\"source\":\"new\"}\n");
    EXPECT_EQ(result.of(QORRecordKind::Event).added, 2U);
    EXPECT_EQ(result.of(QORRecordKind::Event).unchanged, 2U);
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "4");
    EXPECT_EQ(queryText("SELECT count(DISTINCT uid) FROM qor_event"), "2");
    EXPECT_EQ(queryText("SELECT sum(last - first + 1) FROM qor_record_change WHERE kind = 2"), "4");
    EXPECT_EQ(queryText("SELECT max(seq) FROM qor_event WHERE source = 'new'"),
              queryText("SELECT max(seq) FROM qor_event"));
}

TEST_F(QORIngestTest, TheEnvironmentsThatAnOperationTouchesAreThoseOfItsList) {
    QOR_NOT_WITH_SERVERS("numbers of arrival are those of each server");
    m_ingest.importBatch(
        operationLine("own", 1, std::string(R"(,"eid":")") + eidA + R"(","eids":[")" + eidB + "\"]") +
        operationLine("listed", 2,
                      std::string(R"(,"eid":")") + eidA + R"(","eids":[")" + eidB + R"(",")" + eidA + "\"]"));
    EXPECT_EQ(queryRows("SELECT operation, position, eid, own FROM qor_operation_environment ORDER BY 1, 2", 4),
              (std::vector<Row>{{"1", "0", eidB, eidA}, {"2", "0", eidB, eidA}, {"2", "1", eidA, eidA}}));
}

/// A line for an operation of many environments.
std::string wideOperation(unsigned environments) {
    std::string line = R"({"kind":"operation","id":"wide","time":1,"eid":")" + std::string(eidA) + R"(","eids":[)";
    for (unsigned number = 0; number < environments; ++number) {
        char eid[48];
        std::snprintf(eid, sizeof eid, "%s\"%08x-0000-4000-8000-000000000000\"", number == 0 ? "" : ",", number + 1);
        line += eid;
    }
    return line + "]}\n";
}

/// Bytes that the database's log has grown by when an operation of many environments is stored.
std::uintmax_t writtenFor(unsigned environments) {
    const HostDatabase database(test::TestTables::Own);
    database.open();
    runSql("PRAGMA wal_autocheckpoint = 0");
    const auto size = [&] { return std::filesystem::file_size(database.file().string() + "-wal"); };
    const std::uintmax_t before = size();
    const QORIngestResult result = QORIngest().importBatch(wideOperation(environments));
    EXPECT_EQ(result.accepted(), 1U);
    return size() - before;
}

TEST(WideOperations, CostWhatTheirEnvironmentsCost) {
    QOR_ONLY_ON(ASEngine::SQLite);
    const std::uintmax_t few = writtenFor(1000);
    const std::uintmax_t many = writtenFor(8000);
    EXPECT_LT(many, 12 * few) << few << " bytes written for 1000, " << many << " for 8000";
    EXPECT_LT(many, std::uintmax_t{32} * 1024 * 1024);
}

TEST_F(QORIngestTest, AnOperationOfTooManyEnvironmentsIsRefused) {
    EXPECT_EQ(m_ingest.importBatch(wideOperation(10000)).accepted(), 1U);
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_operation_environment"), "10000");
    const auto result = m_ingest.importBatch(wideOperation(10001));
    ASSERT_EQ(result.refused, 1U);
    EXPECT_EQ(result.refusedLines[0].reason, "member \"eids\": an operation touches at most 10000 environments");
}

TEST_F(QORIngestTest, DocumentsOfReplacedRecordsAreNoLongerKnownAsUnreadable) {
    QOR_NOT_WITH_SERVERS("documents that cannot be read are noted at their server");
    const std::string environment = std::string(R"({"kind":"environment","eid":")") + eidA + '"';
    const std::string backup = R"({"kind":"backup","id":"b","time":1)";
    m_ingest.importBatch(environment + "}\n" + backup + "}\n" + operationLine("o", 1) + operationLine("left", 1));
    runSql(std::string("INSERT INTO qor_unreadable_document (source, part, record) VALUES "
                       "('qor_environment', 'config', '") +
           eidA + "'), ('qor_backup', 'info', 1), ('qor_operation', 'message', 1), ('qor_operation', 'message', 2)");
    m_ingest.importBatch(environment + R"(,"config":{"hostname":"h"}})" + "\n" + backup + R"(,"info":{"veid":"1"}})" +
                         "\n" + operationLine("o", 1, R"(,"message":{"package":"p"})"));
    EXPECT_EQ(queryRows("SELECT source, record FROM qor_unreadable_document", 2),
              (std::vector<Row>{{"qor_operation", "2"}}));
}

TEST_F(QORIngestTest, EventsAreAppended) {
    QOR_NOT_WITH_SERVERS("numbers of arrival are those of each server");
    m_ingest.importBatch(eventLine(1) + eventLine(1));
    const auto result = m_ingest.importBatch(eventLine(1));
    EXPECT_EQ(result.of(QORRecordKind::Event).added, 1U);
    EXPECT_EQ(queryRows("SELECT id FROM \"vEventLog\" ORDER BY id", 1), (std::vector<Row>{{"1"}, {"2"}, {"3"}}));
}

TEST_F(QORIngestTest, ABackupReplacesTheOneWithItsId) {
    m_ingest.importBatch(R"({"kind":"backup","id":"b","time":1,"size":1,"name":"old","info":{"veid":"1"}})");
    const auto result = m_ingest.importBatch(R"({"kind":"backup","id":"b","time":2,"size":2})");
    EXPECT_EQ(result.of(QORRecordKind::Backup).replaced, 1U);
    EXPECT_EQ(queryRows("SELECT id, time, size, name, info FROM \"vBackupInfo\"", 5),
              (std::vector<Row>{{"b", "1970-01-01 00:00:02", "2", "<null>", "<null>"}}));
}

TEST_F(QORIngestTest, WithinOneBatchTheLastRecordStays) {
    QOR_NOT_WITH_SERVERS("numbers of arrival are those of each server");
    const auto result = m_ingest.importBatch(operationLine("a", 1) + operationLine("a", 2) + operationLine("b", 3));
    EXPECT_EQ(result.of(QORRecordKind::Operation).added, 2U);
    EXPECT_EQ(result.of(QORRecordKind::Operation).replaced, 1U);
    EXPECT_EQ(queryRows("SELECT seq, id FROM qor_operation WHERE id = 'b'", 2), (std::vector<Row>{{"2", "b"}}));
}

TEST_F(QORIngestTest, ABadLineStopsNothingElseAndIsNamed) {
    std::istringstream lines(eventLine(1) + "{]\n\n" + R"({"kind":"dog"})" + "\r\n" + eventLine(2) + "junk");
    const auto result = m_ingest.importLines(lines);
    EXPECT_EQ(result.of(QORRecordKind::Event).added, 2U);
    EXPECT_EQ(result.lastLine, 6U);
    EXPECT_EQ(result.refused, 3U);
    ASSERT_EQ(result.refusedLines.size(), 3U);
    EXPECT_EQ(result.refusedLines[0].line, 2U);
    EXPECT_EQ(result.refusedLines[1].line, 4U);
    EXPECT_EQ(result.refusedLines[1].reason, "unknown kind \"dog\"");
    EXPECT_EQ(result.refusedLines[2].line, 6U);
    EXPECT_FALSE(result.failure);
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "2");
}

TEST_F(QORIngestTest, RefusedLinesAreAllCountedAndSomeNamed) {
    QORIngestOptions options;
    options.refusedKept = 2;
    const auto result = QORIngest(options).importBatch("x\ny\nz\n", 101);
    EXPECT_EQ(result.refused, 3U);
    ASSERT_EQ(result.refusedLines.size(), 2U);
    EXPECT_EQ(result.refusedLines[0].line, 101U);
}

TEST_F(QORIngestTest, ALineTooLongIsRefused) {
    QORIngestOptions options;
    options.maxLineBytes = 100;
    std::istringstream lines(R"({"kind":"event","time":1,"source":")" + std::string(200000, 'x') + "\"}\n" +
                             eventLine(1));
    const auto result = QORIngest(options).importLines(lines);
    ASSERT_EQ(result.refusedLines.size(), 1U);
    EXPECT_EQ(result.refusedLines[0].reason, "longer than 100 bytes");
    EXPECT_EQ(result.of(QORRecordKind::Event).added, 1U);
}

TEST_F(QORIngestTest, ProgressIsToldAfterEveryBatch) {
    QORIngestOptions options;
    options.batchRecords = 10;
    std::string lines;
    for (int i = 0; i < 25; ++i)
        lines += eventLine(i);
    std::istringstream stream(lines);
    std::vector<std::uint64_t> told;
    std::vector<std::string> stored;
    QORIngest(options).importLines(stream, [&](const QORIngestResult& result) {
        told.push_back(result.accepted());
        stored.push_back(queryText("SELECT count(*) FROM qor_event"));
    });
    EXPECT_EQ(told, (std::vector<std::uint64_t>{10, 20, 25}));
    EXPECT_EQ(stored, (std::vector<std::string>{"10", "20", "25"}));
}

TEST_F(QORIngestTest, BatchesAreBoundedInBytesToo) {
    QORIngestOptions options;
    options.batchBytes = 100;
    std::istringstream stream(eventLine(1) + eventLine(2) + eventLine(3) + eventLine(4) + eventLine(5));
    int batches = 0;
    QORIngest(options).importLines(stream, [&](const QORIngestResult&) { ++batches; });
    EXPECT_EQ(batches, 2);
}

TEST_F(QORIngestTest, AStopKeepsWhatWasRead) {
    QORIngestOptions options;
    options.batchRecords = 10;
    std::string lines;
    for (int i = 0; i < 100; ++i)
        lines += eventLine(i);
    std::istringstream stream(lines);
    std::stop_source stop;
    const auto result = QORIngest(options).importLines(
        stream,
        [&](const QORIngestResult& done) {
            if (done.accepted() == 20) stop.request_stop();
        },
        stop.get_token());
    EXPECT_TRUE(result.stopped);
    EXPECT_EQ(result.accepted(), 20U);
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "20");
}

TEST_F(QORIngestTest, ALockedDatabaseEndsTheRunAndNamesTheLinesThatAreNotStored) {
    QOR_NOT_WITH_SERVERS("what keeps home from storing keeps no server from it");
    ASDatabaseOptions impatient = m_database.options();
    impatient.busyTimeoutMs = 50;
    QORRdbms::instance().configure(impatient);
    QORIngestOptions options;
    options.batchRecords = 2;
    std::string lines;
    for (int i = 0; i < 6; ++i)
        lines += eventLine(i);
    std::istringstream stream(lines);
    std::optional<QORRdbmsTran> lock;
    std::stop_source release;
    std::jthread other;
    std::mutex mutex;
    std::condition_variable_any changed;
    bool locked = false;
    const auto lockFromAnotherThread = [&] {
        other = std::jthread([&] {
            QORRdbmsTran tran(ASAccess::Write);
            if (test::testEngine() == ASEngine::PostgreSQL) tran->execute("LOCK TABLE qor_event");
            std::unique_lock guard(mutex);
            locked = true;
            changed.notify_all();
            changed.wait(guard, [&] { return release.stop_requested(); });
        });
        std::unique_lock guard(mutex);
        changed.wait(guard, [&] { return locked; });
    };
    const auto result = QORIngest(options).importLines(stream, [&](const QORIngestResult& done) {
        if (done.accepted() == 2) lockFromAnotherThread();
    });
    EXPECT_EQ(result.accepted(), 2U);
    ASSERT_TRUE(result.failure);
    EXPECT_EQ(result.failure->firstLine, 3U);
    EXPECT_EQ(result.failure->lastLine, 4U);
    EXPECT_NE(result.failure->reason, "");
    {
        std::lock_guard guard(mutex);
        release.request_stop();
        changed.notify_all();
    }
    other.join();
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "2");
    EXPECT_EQ(m_ingest.importBatch(eventLine(9)).accepted(), 1U) << "the database works again";
}

TEST_F(QORIngestTest, ABatchThatFailsHalfWayIsNotStoredInPart) {
    QOR_NOT_WITH_SERVERS("the table is bounded at home, and its records are not there");
    test::limitEvents(3);
    const auto result = m_ingest.importBatch(eventLine(1) + eventLine(2) + eventLine(3) + eventLine(4));
    EXPECT_EQ(result.accepted(), 0U);
    ASSERT_TRUE(result.failure);
    EXPECT_EQ(result.failure->firstLine, 1U);
    EXPECT_EQ(result.failure->lastLine, 4U);
    EXPECT_NE(result.failure->reason.find(onSqlite() ? "malformed JSON" : "no room"), std::string::npos)
        << result.failure->reason;
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "0");
    EXPECT_EQ(m_ingest.importBatch(eventLine(1)).accepted(), 1U);
}

TEST_F(QORIngestTest, AReadOnlyDatabaseTakesNothing) {
    m_database.open(QORSchemaMode::Reading, true);
    const auto result = m_ingest.importBatch(eventLine(1));
    EXPECT_EQ(result.accepted(), 0U);
    EXPECT_TRUE(result.failure);
}

TEST_F(QORIngestTest, NothingIsWrittenForBlankInput) {
    const auto result = m_ingest.importBatch("\n  \n\t\n");
    EXPECT_EQ(result.accepted(), 0U);
    EXPECT_EQ(result.refused, 0U);
    EXPECT_EQ(result.lastLine, 3U);
}

TEST_F(QORIngestTest, TextsOfEveryKindComeBackAsTheyWere) {
    for (const std::string text : {"", "it's", "\\\"quoted\\\"", "größe €", "100%", "a;b--c", "?", "\\n\\t"}) {
        m_ingest.importBatch(R"({"kind":"backup","id":"b","time":1,"name":")" + text + "\"}");
        std::string expected = text;
        for (const auto& [escaped, plain] : {std::pair{"\\\"", "\""}, std::pair{"\\n", "\n"}, std::pair{"\\t", "\t"}}) {
            for (std::size_t at; (at = expected.find(escaped)) != std::string::npos;)
                expected.replace(at, 2, plain);
        }
        EXPECT_EQ(queryText("SELECT name FROM \"vBackupInfo\""), expected);
    }
}

TEST_F(QORIngestTest, LongTextsAreNotCut) {
    const std::string text(100000, 'x');
    m_ingest.importBatch(R"({"kind":"event","time":1,"source":")" + text + R"(","info":{"p":")" + text + "\"}}");
    EXPECT_EQ(queryText("SELECT source FROM \"vEventLog\""), text);
    EXPECT_EQ(queryText("SELECT info FROM \"vEventLog\""), "<info><p>" + text + "</p></info>");
}

TEST_F(QORIngestTest, TwoImportsAtOnceTakeTurns) {
    std::vector<QORIngestResult> results(2);
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < results.size(); ++i) {
            threads.emplace_back([&, i] {
                QORIngestOptions options;
                options.batchRecords = 20;
                std::string lines;
                for (int n = 0; n < 200; ++n)
                    lines += operationLine(std::to_string(i) + "-" + std::to_string(n), n);
                results[i] = QORIngest(options).importBatch(lines);
            });
        }
    }
    for (const auto& result : results) {
        EXPECT_FALSE(result.failure) << result.failure->reason;
        EXPECT_EQ(result.of(QORRecordKind::Operation).added, 200U);
    }
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_operation"), "400");
    if (test::hasTestServers()) return;  // each counts its own arrivals
    EXPECT_EQ(queryText("SELECT max(seq) FROM qor_operation"), "400");
}

/// Imports events without end in a process of its own, and writes the number that is stored after every batch.
pid_t importInChild(const HostDatabase& database, const int (&report)[2]) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    ::close(report[0]);
    database.open();
    QORIngestOptions options;
    options.batchRecords = 50;
    std::string lines;
    for (int i = 0; i < 50; ++i)
        lines += eventLine(i);
    for (std::uint64_t stored = 0;;) {
        stored += QORIngest(options).importBatch(lines).accepted();
        if (::write(report[1], &stored, sizeof stored) != sizeof stored) ::_exit(1);
    }
}

TEST(QORIngestKilled, WhatWasAcknowledgedIsThere) {
    const HostDatabase database(test::TestTables::Own);
    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    const pid_t child = importInChild(database, report);
    ::close(report[1]);
    std::uint64_t acknowledged = 0;
    while (acknowledged < 500)
        ASSERT_EQ(::read(report[0], &acknowledged, sizeof acknowledged), 8);
    ::kill(child, SIGKILL);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    while (::read(report[0], &acknowledged, sizeof acknowledged) == 8) {
    }
    ::close(report[0]);
    database.open();
    const std::uint64_t found = std::stoull(queryText("SELECT count(*) FROM \"vEventLog\""));
    EXPECT_GE(found, acknowledged);
    EXPECT_EQ(found % 50, 0U) << "batches are stored whole";
}

TEST(QORIngestResultTest, ResultsOfSeveralRunsAddUp) {
    QORIngestResult one;
    one.lastLine = 10;
    one.counts[0] = {1, 2, 3};
    one.refused = 1;
    one.refusedLines.push_back({4, "bad"});
    QORIngestResult two;
    two.lastLine = 20;
    two.counts[0] = {10, 20, 30};
    two.failure = QORIngestFailure{11, 20, "locked"};
    one.merge(two);
    EXPECT_EQ(one.lastLine, 20U);
    EXPECT_EQ(one.accepted(), 66U);
    EXPECT_EQ(one.refused, 1U);
    ASSERT_TRUE(one.failure);
    EXPECT_EQ(one.failure->reason, "locked");
}

}  // namespace
}  // namespace QOR
