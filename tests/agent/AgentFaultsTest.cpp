// The agent on a database that fails: what it answers, what it says in its log and in its health, and what is there
// when the fault has ended.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include "rdbmspp/pool/QORRdbms.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/SqliteFile.h"

namespace QOR {
namespace {

using test::AgentProcess;
using test::AgentSettings;
using test::HttpClient;
using test::SqliteFile;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

std::string event(const std::string& source) {
    return R"({"kind":"event","time":1,"category":"env_status","source":")" + source + "\"}\n";
}

/// The sources of all events, one behind the other.
std::string eventsIn(const std::filesystem::path& file) {
    return SqliteFile(file).cell(
        "SELECT coalesce(group_concat(source, ' '), '') FROM (SELECT source FROM qor_event ORDER BY seq)");
}

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t number = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++number;
    return number;
}

/// An agent whose disk fails when it is told to.
class FailingDisk : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("QOR_FAILING_DISK", control.c_str(), 1);
        ::setenv("LD_PRELOAD", QOR_FAILING_DISK_LIBRARY, 1);
        ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
        agent.emplace();
        ::unsetenv("LD_PRELOAD");
        EXPECT_THAT(send("before"), HasSubstr(R"("accepted":1)"));
    }

    /// \param ending of the files that are concerned: "-wal" or ""
    void fail(const std::string& how, const std::string& ending = "-wal") const {
        const std::string next = control.string() + ".next";
        std::ofstream(next) << how << '\n' << agent->databasePath().string() << ending << '\n';
        std::filesystem::rename(next, control);
    }
    void work() const { std::filesystem::remove(control); }

    std::string send(const std::string& source) const {
        return HttpClient(agent->socketPath()).post("/v1/records", event(source)).body;
    }
    /// Sends until it is taken: attempts to write again are some time apart.
    void sendUntilTaken(const std::string& source) const {
        while (send(source).find(R"("accepted":1)") == std::string::npos)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::string health() const { return HttpClient(agent->socketPath()).get("/v1/health").body; }
    std::string read() const {
        return HttpClient(agent->socketPath())
            .message(R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],[1741,"source"]]]})");
    }

    test::TemporaryDirectory folder;
    std::filesystem::path control = folder / "fault";
    std::optional<AgentProcess> agent;
};

TEST_F(FailingDisk, WhatCouldNotBeSynchronisedIsNotThereAfterACrash) {
    fail("sync");
    EXPECT_THAT(send("lost"), AllOf(HasSubstr(R"("accepted":0)"), HasSubstr("disk I/O error")));
    EXPECT_THAT(health(), AllOf(HasSubstr(R"("status":"failing")"), HasSubstr("synchronisation")));
    EXPECT_THAT(send("refused"), AllOf(HasSubstr(R"("accepted":0)"), HasSubstr("nothing is stored until")));
    EXPECT_THAT(read(), AllOf(HasSubstr("before"), Not(HasSubstr("lost"))));
    agent->kill();
    work();
    EXPECT_EQ(eventsIn(agent->databasePath()), "before");
}

TEST_F(FailingDisk, WhatCouldNotBeSynchronisedIsNotThereWhenTheDiskWorksAgain) {
    fail("sync");
    EXPECT_THAT(send("lost"), HasSubstr(R"("accepted":0)"));
    EXPECT_THAT(agent->log(), HasSubstr("Input/output error"));
    work();
    sendUntilTaken("after");
    EXPECT_THAT(health(), HasSubstr(R"("status":"ok")"));
    EXPECT_THAT(agent->log(), HasSubstr("the database works again"));
    agent->kill();
    EXPECT_EQ(eventsIn(agent->databasePath()), "before after");
}

TEST_F(FailingDisk, AFullDiskIsSaidOnceAndUntilAWriteSucceeds) {
    fail("full");
    for (int number = 0; number < 5; ++number)
        EXPECT_THAT(send("lost"), AllOf(HasSubstr(R"("accepted":0)"), HasSubstr("database or disk is full")));
    EXPECT_THAT(health(),
                AllOf(HasSubstr(R"("status":"failing")"), HasSubstr(R"("fault":"full")"), HasSubstr(R"("count":5)")));
    EXPECT_EQ(occurrences(agent->log(), "database or disk is full"), 1U);
    EXPECT_THAT(read(), HasSubstr("before"));
    EXPECT_THAT(health(), HasSubstr(R"("status":"failing")")) << "reading does not end it";
    work();
    sendUntilTaken("after");
    EXPECT_THAT(health(), AllOf(HasSubstr(R"("status":"ok")"), HasSubstr(R"("faults":[])")));
    EXPECT_THAT(agent->log(), HasSubstr("\"full\" has ended after 5 failures"));
}

TEST_F(FailingDisk, AFailingReadIsSaidUntilOneSucceeds) {
    std::string many;  // more than a connection keeps in memory
    for (int number = 0; number < 3000; ++number) {
        many +=
            R"({"kind":"event","time":1,"category":"env_status","info":{"text":")" + std::string(2000, 'x') + "\"}}\n";
    }
    EXPECT_THAT(HttpClient(agent->socketPath()).post("/v1/records", many).body, HasSubstr(R"("accepted":3000)"));
    fail("read", "");
    // What the agent itself reads now and then, from memory, succeeds in between and ends the fault.
    do {
        EXPECT_THAT(HttpClient(agent->socketPath())
                        .message(R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],)"
                                 R"([1741,"info"],[1742,[[2231,[[1741,"info"],[1018,"%none%"]]]]]]]})"),
                    HasSubstr("error"));
    } while (health().find(R"("status":"failing")") == std::string::npos);
    work();
    EXPECT_THAT(read(), HasSubstr("before"));
    // What the agent itself began to read when nothing could be read may fail after that: the next that is read is
    // well. A file that could be read in part may have looked corrupt, which ends when all of it was looked at.
    while (health().find(R"("status":"ok")") == std::string::npos) {
        EXPECT_THAT(read(), HasSubstr("before"));
        EXPECT_THAT(HttpClient(agent->socketPath()).post("/v1/check?part=integrity", "").body, HasSubstr("findings"));
    }
}

TEST(AgentFaults, ALockThatIsKeptIsHeard) {
    AgentProcess agent({.more = {"--deadline", "6"}});
    HttpClient client(agent.socketPath());
    {
        SqliteFile locker(agent.databasePath());
        locker.run("BEGIN IMMEDIATE");
        EXPECT_THAT(client.post("/v1/records", event("late")).body, HasSubstr("database is locked"));
        EXPECT_EQ(client.post("/v1/identities/add", R"({"name":"x","kind":"token"})").status, 503);
        EXPECT_THAT(client.get("/v1/health").body,
                    AllOf(HasSubstr(R"("status":"failing")"), HasSubstr(R"("fault":"locked")")));
        EXPECT_EQ(occurrences(agent.log(), "database is locked"), 1U);
    }
    EXPECT_THAT(client.post("/v1/records", event("after")).body, HasSubstr(R"("accepted":1)"));
    EXPECT_THAT(client.get("/v1/health").body, HasSubstr(R"("status":"ok")"));
}

TEST(AgentFaults, ReadersAndHealthGoOnWhileAllWritersWait) {
    AgentProcess agent;
    SqliteFile locker(agent.databasePath());
    locker.run("BEGIN IMMEDIATE");
    std::vector<HttpClient> writers;
    for (int number = 0; number < 40; ++number) {
        writers.emplace_back(agent.socketPath());
        writers.back().send(HttpClient::compose("POST", "/v1/records", event("late")));
    }
    HttpClient reader(agent.socketPath());
    for (int round = 0; round < 50; ++round) {
        EXPECT_THAT(reader.get("/v1/health").body, HasSubstr("status"));
        EXPECT_THAT(reader.get("/v1/views").body, HasSubstr("vEventLog"));
        EXPECT_EQ(reader.get("/v1/nothing").status, 404);
    }
    locker.run("ROLLBACK");
    for (HttpClient& writer : writers)
        EXPECT_THAT(writer.receive().body, HasSubstr(R"("accepted":1)"));
}

/// The page in which a small table lies, damaged and mended by hand.
class TablePage {
public:
    TablePage(std::filesystem::path file, const std::string& table) : m_file(std::move(file)) {
        SqliteFile database(m_file);
        const std::size_t size = std::stoul(database.cell("PRAGMA page_size"));
        m_begin =
            size * (std::stoul(database.cell("SELECT rootpage FROM sqlite_master WHERE name = '" + table + "'")) - 1);
        m_bytes.resize(size);
        std::ifstream(m_file, std::ios::binary)
            .seekg(static_cast<std::streamoff>(m_begin))
            .read(m_bytes.data(), static_cast<std::streamsize>(size));
    }
    void damage() const { write(std::string(m_bytes.size(), 'x')); }
    void mend() const { write(m_bytes); }

private:
    void write(const std::string& bytes) const {
        std::fstream file(m_file, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(static_cast<std::streamoff>(m_begin))
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

    std::filesystem::path m_file;
    std::size_t m_begin = 0;
    std::string m_bytes;
};

TEST(AgentFaults, CorruptionIsSaidUntilTheWholeFileIsFoundSound) {
    AgentProcess agent;
    EXPECT_THAT(HttpClient(agent.socketPath()).post("/v1/records", event("old")).body, HasSubstr(R"("accepted":1)"));
    EXPECT_EQ(agent.stop(), 0);
    const TablePage page(agent.databasePath(), "qor_event");
    page.damage();
    agent.start();
    HttpClient client(agent.socketPath());
    const auto corrupt = AllOf(HasSubstr(R"("status":"failing")"), HasSubstr(R"("fault":"corrupt")"));
    EXPECT_THAT(client.message(
                    R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],[1741,"source"]]]})"),
                HasSubstr("malformed"));
    EXPECT_EQ(client.get("/v1/views/vEventLog/rows").status, 500) << "that does not pass by itself";
    EXPECT_THAT(client.get("/v1/health").body, corrupt);
    EXPECT_THAT(client.post("/v1/records", R"({"kind":"backup","id":"b","time":1})").body,
                HasSubstr(R"("accepted":1)"));
    EXPECT_THAT(client.get("/v1/health").body, corrupt) << "what was written is elsewhere";
    EXPECT_THAT(client.post("/v1/check?part=integrity", "").body, Not(HasSubstr(R"({"findings":[]})")));
    EXPECT_THAT(client.get("/v1/health").body, corrupt);
    page.mend();
    SqliteFile(agent.databasePath()).run("UPDATE qor_backup SET size = 2");  // so that nobody goes on with old pages
    EXPECT_THAT(client.post("/v1/check?part=integrity", "").body, HasSubstr(R"({"findings":[]})"));
    EXPECT_THAT(client.get("/v1/health").body, HasSubstr(R"("status":"ok")"));
    EXPECT_THAT(agent.log(), HasSubstr("\"corrupt\" has ended"));
}

class ChangedFile : public testing::Test {
protected:
    std::string ask() {
        return HttpClient(agent.socketPath())
            .message(R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],[1741,"source"]]]})");
    }
    std::string send() { return HttpClient(agent.socketPath()).post("/v1/records", event("new")).body; }
    void expectRefused(const std::string& reason) {
        for (const char* target : {"/v1/views/vEventLog/rows", "/v1/rows?fields=pager.op_log.id", "/v1/status"}) {
            const test::HttpAnswer rows = HttpClient(agent.socketPath()).get(target);
            EXPECT_EQ(rows.status, 503) << target << rows.body;
            EXPECT_THAT(rows.body, AllOf(HasSubstr(R"("code":"database_away")"), HasSubstr(reason)));
            EXPECT_EQ(rows.headers.at("retry-after"), "2");
        }
        EXPECT_THAT(ask(), HasSubstr(reason));
        EXPECT_THAT(send(), AllOf(HasSubstr(R"("accepted":0)"), HasSubstr(reason)));
        EXPECT_THAT(HttpClient(agent.socketPath()).get("/v1/health").body,
                    AllOf(HasSubstr(R"("status":"failing")"), HasSubstr(R"("fault":"missing")"), HasSubstr(reason)));
        EXPECT_THAT(agent.log(), HasSubstr(reason));
    }

    AgentProcess agent;
};

TEST_F(ChangedFile, AMissingOneIsNotBegunAnew) {
    std::filesystem::rename(agent.databasePath(), agent.directory() / "away.db");
    expectRefused("its file is gone");
    EXPECT_FALSE(std::filesystem::exists(agent.databasePath()));
    std::filesystem::rename(agent.directory() / "away.db", agent.databasePath());
    EXPECT_THAT(send(), HasSubstr(R"("accepted":1)"));
    EXPECT_THAT(HttpClient(agent.socketPath()).get("/v1/health").body, HasSubstr(R"("status":"ok")"));
}

TEST_F(ChangedFile, AnotherOneUnderItsNameIsRefused) {
    {
        const AgentProcess other;
        EXPECT_EQ(HttpClient(other.socketPath()).get("/v1/health").status, 200);
        std::filesystem::copy_file(other.databasePath(), agent.directory() / "other.db");
    }
    std::filesystem::rename(agent.directory() / "other.db", agent.databasePath());
    expectRefused("its file was replaced by another one");
}

TEST_F(ChangedFile, AnEmptiedOneIsRefused) {
    EXPECT_THAT(send(), HasSubstr(R"("accepted":1)"));
    std::filesystem::resize_file(agent.databasePath(), 0);
    expectRefused("its file was emptied");
    EXPECT_EQ(std::filesystem::file_size(agent.databasePath()), 0U);
}

TEST(DatabaseLock, ASecondAgentOnTheSameDatabaseIsRefused) {
    const AgentProcess first;
    for (const char* detour : {"", "./"}) {
        AgentSettings settings;
        settings.database = "Driver=SQLite3;Database=" + first.directory().string() + "/" + detour + "agent.db";
        try {
            const AgentProcess second(settings);
            ADD_FAILURE() << "it started";
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), AllOf(HasSubstr(first.databasePath().string()), HasSubstr("another agent"),
                                            HasSubstr(std::to_string(first.pid()))));
        }
    }
    AgentSettings reading;
    reading.database = first.connectionString();
    reading.more = {"--read-only"};
    const AgentProcess beside(reading);
    EXPECT_THAT(HttpClient(beside.socketPath()).get("/v1/health").body, HasSubstr(R"("status":"ok")"));
}

TEST(DatabaseLock, EndsWithItsHolder) {
    AgentProcess agent;
    agent.kill();
    agent.start();
    EXPECT_THAT(HttpClient(agent.socketPath()).post("/v1/records", event("new")).body, HasSubstr(R"("accepted":1)"));
}

/// A folder of its own file system, which this process and its children alone see.
class OwnFileSystem {
public:
    OwnFileSystem() {
        if (::unshare(CLONE_NEWNS) != 0) throw std::runtime_error("cannot have a file system of its own");
        if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", m_folder.path().c_str(), "tmpfs", 0, nullptr) != 0) {
            throw std::runtime_error("cannot mount");
        }
    }
    ~OwnFileSystem() { ::umount2(m_folder.path().c_str(), MNT_DETACH); }
    void makeReadOnly() const {
        if (::mount("tmpfs", m_folder.path().c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
            throw std::runtime_error("cannot remount");
        }
    }
    const std::filesystem::path& path() const { return m_folder.path(); }

private:
    test::TemporaryDirectory m_folder;
};

class ReadOnlyFileSystem : public testing::Test {
protected:
    void SetUp() override {
        try {
            disk.emplace();
        } catch (const std::runtime_error& error) {  // root in a container neither
            GTEST_SKIP() << error.what() << ": this user may not mount";
        }
        settings.database = "Driver=SQLite3;Database=" + (disk->path() / "a b%c?.db").string();
        const AgentProcess agent(settings);
        EXPECT_THAT(HttpClient(agent.socketPath()).post("/v1/records", event("kept")).body,
                    HasSubstr(R"("accepted":1)"));
    }

    std::optional<OwnFileSystem> disk;
    AgentSettings settings;
};

TEST_F(ReadOnlyFileSystem, ADatabaseWithoutALogIsRead) {
    disk->makeReadOnly();
    settings.more = {"--read-only"};
    const AgentProcess agent(settings);
    HttpClient client(agent.socketPath());
    for (int round = 0; round < 3; ++round) {
        EXPECT_THAT(
            client.message(
                R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],[1741,"source"]]]})"),
            HasSubstr("kept"));
    }
    EXPECT_THAT(client.post("/v1/records", event("new")).body, HasSubstr(R"("accepted":0)"));
    EXPECT_THAT(client.get("/v1/health").body, HasSubstr(R"("status":"ok")"));
}

TEST_F(ReadOnlyFileSystem, ALogThatCannotBeReadIsNamedWithWhatToDo) {
    const std::string file = (disk->path() / "a b%c?.db").string();
    {
        SqliteFile engine(file);
        engine.run("UPDATE qor_event SET source = 'changed'");
        std::filesystem::copy_file(file + "-wal", file + "-kept");
    }
    std::filesystem::rename(file + "-kept", file + "-wal");
    disk->makeReadOnly();
    settings.more = {"--read-only"};
    try {
        const AgentProcess agent(settings);
        FAIL() << "it started without the changes";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), AllOf(HasSubstr(file + "-wal"), HasSubstr("copy both files")));
    }
}

}  // namespace
}  // namespace QOR
