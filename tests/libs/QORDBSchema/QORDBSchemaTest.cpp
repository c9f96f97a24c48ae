#include "QORDBSchema/QORDBSchema.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <fstream>
#include <thread>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORDBSchema/SchemaTable.h"
#include "rdbmspp/engine/AException.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

using test::HostDatabase;
using test::queryRows;
using test::queryText;
using test::runSql;

constexpr const char* eid = "12345678-1234-1234-1234-1234567890ab";

std::string bytesOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::string messageOfOpen(const HostDatabase& database, QORSchemaMode mode, bool readOnly = false) {
    try {
        database.open(mode, readOnly);
    } catch (const QORException& error) {
        EXPECT_EQ(error.code(), errFailure);
        return error.message();
    }
    return {};
}

/// Without the write-ahead log, as another program may keep it: then the file itself tells whether it was written to.
void makeForeign(const HostDatabase& database) {
    ASDatabaseOptions options = database.options();
    options.connectionString += ";JournalMode=DELETE";
    QORRdbms::instance().configure(options);
    runSql("CREATE TABLE people (name varchar(20))");
    runSql("CREATE VIEW vPeople AS SELECT name FROM people");
    QORRdbms::instance().shutdown();
}

TEST(QORDBSchemaTest, AMissingDatabaseIsCreatedToKeepRecordsIn) {
    const HostDatabase database;
    const QORSchemaReport report = database.open();
    EXPECT_EQ(report.found.kind, QORSchemaState::Kind::Empty);
    EXPECT_EQ(report.version, QORDBSchema::currentVersion());
    EXPECT_FALSE(report.readOnly);
    EXPECT_EQ(queryText("SELECT count(*) FROM vEnvironment"), "0");
    EXPECT_EQ(queryText("SELECT count(*) FROM vOpLog"), "0");
    EXPECT_EQ(queryText("SELECT purpose FROM qor_secret WHERE length(secret) = 64 AND secret NOT GLOB '*[^0-9a-f]*'"),
              "pages");
    EXPECT_EQ(queryText("SELECT count(*) FROM vEventLog"), "0");
    EXPECT_EQ(queryText("SELECT count(*) FROM vBackupInfo"), "0");
}

TEST(QORDBSchemaTest, AMissingOrEmptyDatabaseIsNotCreatedToAskIt) {
    const HostDatabase database;
    EXPECT_EQ(messageOfOpen(database, QORSchemaMode::Reading),
              "database \"" + database.file().string() + "\" does not exist");
    EXPECT_TRUE(std::filesystem::is_empty(database.folder().path()));
    std::ofstream(database.file()).close();
    EXPECT_EQ(messageOfOpen(database, QORSchemaMode::Reading),
              "database \"" + database.file().string() + "\" is empty: there is nothing to ask it");
    EXPECT_EQ(std::filesystem::file_size(database.file()), 0U);
}

TEST(QORDBSchemaTest, AFileWhoseNameWouldBeCutIsRefused) {
    const test::TemporaryDirectory folder;
    ASDatabaseOptions options;
    options.connectionString = "Driver=SQLite3;Database={" + (folder.path() / "a;b.db").string() + "}";
    for (const bool readOnly : {false, true}) {
        options.readOnly = readOnly;
        try {
            QORDBSchema::open(options, QORSchemaMode::Own);
            ADD_FAILURE() << "opened";
        } catch (const QORException& error) {
            EXPECT_THAT(error.what(), testing::HasSubstr("a;b.db\": the name of its file holds a semicolon"));
        }
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(QORDBSchemaTest, FilesOfTheDatabaseAreForTheirUserAlone) {
    const auto modeOf = [](const std::filesystem::path& file) {
        return static_cast<unsigned>(std::filesystem::status(file).permissions());
    };
    const HostDatabase database;
    const mode_t before = ::umask(0);
    database.open();
    runSql("CREATE TABLE one (x int)");
    for (const char* suffix : {"", "-wal", "-shm"})
        EXPECT_EQ(modeOf(database.file().string() + suffix), 0600U) << suffix;
    std::vector<std::string> lines;
    setLogSink([&](const QORLogRecord& record) { lines.emplace_back(record.text); });
    for (const char* suffix : {"", "-wal", "-shm"})
        std::filesystem::permissions(database.file().string() + suffix, std::filesystem::perms(0664));
    database.open(QORSchemaMode::Reading);
    EXPECT_EQ(modeOf(database.file()), 0664U) << "who only asks changes nothing";
    EXPECT_TRUE(lines.empty());
    database.open();
    runSql("CREATE TABLE two (x int)");
    setLogSink({});
    ::umask(before);
    for (const char* suffix : {"", "-wal", "-shm"})
        EXPECT_EQ(modeOf(database.file().string() + suffix), 0600U) << suffix;
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), database.file().string() + " had mode 0664, so that others could read it; it is 0600 now");
}

TEST(QORDBSchemaTest, ADatabaseIsNotReachedThroughAnothersLinkOrBesideAnothersLog) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    constexpr uid_t stranger = 65534;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        const HostDatabase database;
        std::filesystem::permissions(database.folder().path(), std::filesystem::perms(01777));
        const std::string link = database.file().string() + suffix;
        std::filesystem::create_symlink(database.folder() / "elsewhere", link);
        ASSERT_EQ(::lchown(link.c_str(), stranger, stranger), 0);
        EXPECT_NE(messageOfOpen(database, QORSchemaMode::Own).find("belongs to another user"), std::string::npos)
            << suffix;
        EXPECT_FALSE(std::filesystem::exists(database.folder() / "elsewhere"));
        std::filesystem::remove(link);
        std::ofstream(link) << "";
        ASSERT_EQ(::lchown(link.c_str(), stranger, stranger), 0);
        EXPECT_NE(messageOfOpen(database, QORSchemaMode::Own).find("belongs to another user"), std::string::npos)
            << suffix;
    }
}

TEST(QORDBSchemaTest, AnEmptyFileIsTakenForAnEmptyDatabase) {
    const HostDatabase database;
    std::ofstream(database.file()).close();
    EXPECT_EQ(database.open().found.kind, QORSchemaState::Kind::Empty);
    EXPECT_EQ(queryText("SELECT count(*) FROM vEnvironment"), "0");
}

TEST(QORDBSchemaTest, OpeningAgainChangesNothing) {
    const HostDatabase database;
    database.open();
    const auto before = queryRows("SELECT version, mark, applied FROM qor_schema_version ORDER BY version", 3);
    const QORSchemaReport report = database.open();
    EXPECT_EQ(report.found.kind, QORSchemaState::Kind::Ours);
    EXPECT_EQ(report.found.version, QORDBSchema::currentVersion());
    EXPECT_EQ(queryRows("SELECT version, mark, applied FROM qor_schema_version ORDER BY version", 3), before);
}

TEST(QORDBSchemaTest, AnOlderVersionIsMigratedAndKeepsItsRecords) {
    const HostDatabase database;
    database.configure();
    {
        QORRdbmsTran tran(ASAccess::Write);
        EXPECT_EQ(QORDBSchema::migrate(*tran, 1), 0);
        tran->execute(std::string("INSERT INTO qor_environment (eid, state, transition, hostname, updated) VALUES ('") +
                      eid + "', 6, 0, 'web1', '2024-01-01 00:00:00')");
        tran.commit();
    }
    EXPECT_EQ(queryText("SELECT count(*) FROM sqlite_master WHERE name = 'vOpLog'"), "0");
    const QORSchemaReport report = database.open();
    EXPECT_EQ(report.found.kind, QORSchemaState::Kind::Ours);
    EXPECT_EQ(report.found.version, 1);
    EXPECT_EQ(report.version, QORDBSchema::currentVersion());
    EXPECT_EQ(queryText("SELECT hostname FROM vEnvironment"), "web1");
    EXPECT_EQ(queryText("SELECT count(*) FROM vOpLog"), "0");
    EXPECT_EQ(queryText("SELECT max(version) FROM qor_schema_version"), std::to_string(QORDBSchema::currentVersion()));
}

TEST(QORDBSchemaTest, WhoStoodForAnEnvironmentDoesNotWriteAboutItAfterwards) {
    const HostDatabase database;
    database.configure();
    {
        QORRdbmsTran tran(ASAccess::Write);
        QORDBSchema::migrate(*tran, 13);
        tran->execute("INSERT INTO qor_identity (name, kind, subject, full_access) VALUES ('x', 3, 'x', 0)");
        tran->execute(
            std::string("INSERT INTO qor_identity_environment (name, position, eid, below) VALUES ('x', 0, '") + eid +
            "', 1)");
        tran.commit();
    }
    database.open();
    EXPECT_EQ(queryRows("SELECT name, eid, below, writes FROM qor_identity_environment", 4),
              (std::vector<test::Row>{{"x", eid, "1", "0"}}));
}

TEST(QORDBSchemaTest, EachDatabaseHasASecretOfItsOwn) {
    const auto secretOf = [](const HostDatabase& database) {
        database.open();
        return queryText("SELECT secret FROM qor_secret");
    };
    const HostDatabase one;
    const HostDatabase other;
    const std::string secret = secretOf(one);
    EXPECT_NE(secret, secretOf(other));
    EXPECT_EQ(secret, secretOf(one)) << "opened again";
}

TEST(QORDBSchemaTest, AMigrationThatFailsLeavesTheOlderVersionWhole) {
    const HostDatabase database;
    database.configure();
    {
        QORRdbmsTran tran(ASAccess::Write);
        QORDBSchema::migrate(*tran, 1);
        tran->execute("CREATE TABLE qor_event (in_the_way int)");
        tran.commit();
    }
    EXPECT_THROW(database.open(), AException);
    EXPECT_EQ(queryText("SELECT max(version) FROM qor_schema_version"), "1");
    EXPECT_EQ(queryText("SELECT count(*) FROM sqlite_master WHERE name = 'qor_operation'"), "0");
    runSql("DROP TABLE qor_event");
    EXPECT_EQ(database.open().version, QORDBSchema::currentVersion());
}

TEST(QORDBSchemaTest, ANewerVersionIsRefusedUnlessOnlyRead) {
    const HostDatabase database;
    database.open();
    runSql(
        "INSERT INTO qor_schema_version (version, mark, applied) SELECT 1000, mark, applied FROM qor_schema_version "
        "WHERE version = 1");
    for (const auto mode : {QORSchemaMode::Own, QORSchemaMode::Reading}) {
        const std::string message = messageOfOpen(database, mode);
        EXPECT_NE(message.find("has version 1000 of the schema"), std::string::npos) << message;
        EXPECT_NE(message.find(database.file().string()), std::string::npos) << message;
    }
    EXPECT_EQ(database.open(QORSchemaMode::Reading, true).version, 1000);
}

TEST(QORDBSchemaTest, AnotherProgramsDatabaseIsRefusedForKeepingRecords) {
    const HostDatabase database;
    makeForeign(database);
    const std::string before = bytesOf(database.file());
    const std::string message = messageOfOpen(database, QORSchemaMode::Own);
    EXPECT_NE(message.find(database.file().string()), std::string::npos) << message;
    EXPECT_NE(message.find("--read-only"), std::string::npos) << message;
    QORRdbms::instance().shutdown();
    EXPECT_EQ(bytesOf(database.file()), before);
}

TEST(QORDBSchemaTest, AnotherProgramsDatabaseIsReadWithoutWritingToIt) {
    for (const bool readOnly : {false, true}) {
        const HostDatabase database;
        makeForeign(database);
        const std::string before = bytesOf(database.file());
        const QORSchemaReport report = database.open(QORSchemaMode::Reading, readOnly);
        EXPECT_EQ(report.found.kind, QORSchemaState::Kind::Foreign);
        EXPECT_EQ(report.version, 0);
        EXPECT_TRUE(report.readOnly);
        {
            QORRdbmsTran tran(ASAccess::Read);
            const auto views = readViews(*tran);
            ASSERT_EQ(views.size(), 1U);
            EXPECT_EQ(views[0].view, "vPeople");
        }
        EXPECT_THROW(runSql("CREATE TABLE more (x int)"), AException);
        QORRdbms::instance().shutdown();
        EXPECT_EQ(bytesOf(database.file()), before);
    }
}

TEST(QORDBSchemaTest, ATableOfTheSameNameIsNotOurMark) {
    for (const char* table : {"CREATE TABLE qor_schema_version (x int)",
                              "CREATE TABLE qor_schema_version (version int, mark varchar(20))"}) {
        const HostDatabase database;
        database.configure();
        runSql(table);
        EXPECT_NE(messageOfOpen(database, QORSchemaMode::Own), "") << table;
        EXPECT_EQ(database.open(QORSchemaMode::Reading).found.kind, QORSchemaState::Kind::Foreign) << table;
    }
}

TEST(QORDBSchemaTest, ReadOnlyNeedsADatabaseThatExists) {
    const HostDatabase database;
    EXPECT_THROW(database.open(QORSchemaMode::Reading, true), AException);
    EXPECT_FALSE(std::filesystem::exists(database.file()));
}

TEST(QORDBSchemaTest, ReadOnlyMigratesNothing) {
    const HostDatabase database;
    database.configure();
    {
        QORRdbmsTran tran(ASAccess::Write);
        QORDBSchema::migrate(*tran, 1);
        tran.commit();
    }
    EXPECT_EQ(database.open(QORSchemaMode::Reading, true).version, 1);
    EXPECT_EQ(queryText("SELECT max(version) FROM qor_schema_version"), "1");
}

TEST(QORDBSchemaTest, AFileThatIsNoDatabaseIsAnErrorAndStaysAsItIs) {
    const HostDatabase database;
    const std::string bytes(4096, 'x');
    std::ofstream(database.file()) << bytes;
    for (const auto mode : {QORSchemaMode::Own, QORSchemaMode::Reading}) {
        EXPECT_THROW(database.open(mode), AException);
        EXPECT_EQ(bytesOf(database.file()), bytes);
    }
}

TEST(QORDBSchemaTest, AMissingFolderIsAnError) {
    ASDatabaseOptions options;
    options.connectionString = "Driver=SQLite3;Database=/nonexistent/folder/agent.db";
    EXPECT_THROW(QORDBSchema::open(options, QORSchemaMode::Own), AException);
}

/// Opens in a process of its own, as soon as the pipe's writing end is closed. \returns its id
pid_t openInChild(const HostDatabase& database, const int (&startPipe)[2]) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    ::close(startPipe[1]);
    char byte = 0;
    while (::read(startPipe[0], &byte, 1) > 0) {
    }
    int status = 1;
    try {
        ASDatabaseOptions options = database.options();
        options.busyTimeoutMs = 60'000;  // all others may come first
        const QORSchemaReport report = QORDBSchema::open(options, QORSchemaMode::Own);
        QORRdbmsTran tran(ASAccess::Write);
        tran->execute("INSERT INTO qor_event (time, source) VALUES ('2024-01-01 00:00:00', 'child')");
        tran.commit();
        status = report.version == QORDBSchema::currentVersion() ? 0 : 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
    ::_exit(status);
}

TEST(QORDBSchemaTest, ProcessesThatCreateAtOnceWaitForEachOther) {
    for (int round = 0; round < 5; ++round) {
        const HostDatabase database;
        int startPipe[2];
        ASSERT_EQ(::pipe(startPipe), 0);
        std::vector<pid_t> children;
        for (int i = 0; i < 4; ++i) {
            children.push_back(openInChild(database, startPipe));
        }
        ::close(startPipe[0]);
        ::close(startPipe[1]);
        for (const pid_t child : children) {
            int status = -1;
            ASSERT_EQ(::waitpid(child, &status, 0), child);
            EXPECT_EQ(status, 0);
        }
        database.open();
        EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "4");
        EXPECT_EQ(queryText("SELECT count(*) FROM qor_schema_version"), std::to_string(QORDBSchema::currentVersion()));
    }
}

TEST(QORDBSchemaTest, ThreadsThatMigrateAtOnceWaitForEachOther) {
    const HostDatabase database;
    database.configure();
    std::barrier start(3);
    std::vector<int> found(3, -1);
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < found.size(); ++i) {
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                QORRdbmsTran tran(ASAccess::Write);
                found[i] = QORDBSchema::migrate(*tran);
                tran.commit();
            });
        }
    }
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector<int>{0, QORDBSchema::currentVersion(), QORDBSchema::currentVersion()}));
}

struct ColumnCase {
    const char* view;
    std::vector<std::string> columns;
};

TEST(QORDBSchemaTest, ViewsHaveTypedColumns) {
    const HostDatabase database;
    database.open();
    const std::vector<ColumnCase> cases{
        {"vBackupInfo",
         {"id nvarchar 128", "eid uniqueidentifier 0", "storage_eid uniqueidentifier 0", "time datetime 0",
          "size bigint 0", "type int 0", "description nvarchar 0", "name nvarchar 255", "hostname nvarchar 255",
          "info image 0", "securityOperation_4 int 0", "securableObjId uniqueidentifier 0", "reporter nvarchar 255"}},
        {"vEnvironment",
         {"eid uniqueidentifier 0",
          "parent_eid uniqueidentifier 0",
          "title nvarchar 255",
          "state int 0",
          "transition int 0",
          "name nvarchar 255",
          "description nvarchar 0",
          "domain nvarchar 255",
          "hostname nvarchar 255",
          "architecture nvarchar 64",
          "type nvarchar 64",
          "os_name nvarchar 128",
          "os_platform nvarchar 64",
          "os_version nvarchar 64",
          "os_kernel nvarchar 128",
          "ip nvarchar 64",
          "memory bigint 0",
          "boot_time datetime 0",
          "config nvarchar 0",
          "virtual_config nvarchar 0",
          "updated datetime 0",
          "securityOperation_1 int 0",
          "securableObjId uniqueidentifier 0",
          "reporter nvarchar 255"}},
        {"vEventLog",
         {"id bigint 0", "time datetime 0", "eid uniqueidentifier 0", "source nvarchar 255", "category nvarchar 128",
          "info nvarchar 0", "securityOperation_3 int 0", "securableObjId uniqueidentifier 0",
          "reporter nvarchar 255"}},
        {"vOpLog",
         {"id nvarchar 128", "parent_id nvarchar 128", "op nvarchar 128", "status int 0", "time datetime 0",
          "eid uniqueidentifier 0", "package nvarchar 255", "version nvarchar 128", "message nvarchar 0",
          "securityOperation_2 int 0", "securableObjId uniqueidentifier 0", "reporter nvarchar 255"}},
    };
    QORRdbmsTran tran(ASAccess::Read);
    std::vector<std::string> found;
    for (const QORViewColumn& column : readViews(*tran)) {
        found.push_back(column.view + "." + column.column + " " + column.type + " " + std::to_string(column.length));
    }
    std::vector<std::string> expected;
    for (const ColumnCase& one : cases) {
        for (const std::string& column : one.columns)
            expected.push_back(std::string(one.view) + "." + column);
    }
    EXPECT_EQ(found, expected);
}

TEST(QORDBSchemaTest, TheViewForPeopleShowsWhatTheDomainShows) {
    const HostDatabase database;
    database.open();
    EXPECT_EQ(
        queryRows("SELECT viewName, name, type, length, charSet, collation FROM SchemaTable WHERE name = 'title'", 6),
        (std::vector<test::Row>{{"vEnvironment", "title", "nvarchar", "255", "UTF-8", "BINARY"}}));
    EXPECT_EQ(queryText("SELECT count(*) FROM SchemaTable WHERE viewName = 'SchemaTable'"), "0");
}

struct NameCase {
    const char* connection;
    const char* name;
};

TEST(QORDBSchemaTest, DatabasesAreNamedWithoutTheRestOfTheConnectionString) {
    for (const auto& [connection, name] :
         {NameCase{"Driver=SQLite3;Database=./agent.db", "./agent.db"},
          NameCase{"DATABASE = {x;1.db};Driver=SQLite3", "x;1.db"}, NameCase{"DSN=records;PWD=secret", "records"},
          NameCase{"DSN=records;Database=host;PWD=secret", "host"}, NameCase{"PWD=secret;;nonsense", ""},
          NameCase{"", ""}}) {
        EXPECT_EQ(QORDBSchema::databaseName(connection), name) << connection;
    }
}

}  // namespace
}  // namespace QOR
