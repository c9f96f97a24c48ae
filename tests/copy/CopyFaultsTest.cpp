// qorctl copy when something is in its way: ended at any point, wrong databases, values that cannot be kept.
#include <chrono>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

#include "copy/CopyPlaces.h"
#include "support/AgentProcess.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* goesOn = "what was copied stays, and the same command goes on where it stood";

CtlProcess begin(const Place& from, const Place& to) {
    Words command = copyCommand(from, to);
    command.insert(command.begin(), ctlProgram());
    return CtlProcess(command);
}

class CopyFaults : public testing::TestWithParam<ASEngine> {
protected:
    static const Place& filled() {
        static const Place* const place = [] {
            static const Place made(ASEngine::SQLite);
            fillSource(made);
            return &made;
        }();
        return *place;
    }

    /// A source of the test's own.
    static void fill(const Place& place) { std::filesystem::copy_file(filled().file(), place.file()); }

    /// Ends a copy when it has put records into a table. Repeated where it was done before the end came.
    static void endInTheMiddle(const Place& from, std::unique_ptr<Place>& to, int signal, CtlResult* result = nullptr) {
        for (;;) {
            CtlProcess copying = begin(from, *to);
            while (to->count("qor_operation") == 0 && to->count("qor_operation_count") == 0 && copying.isRunning())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            copying.signal(signal);
            CtlResult ended = copying.finish();
            if (result != nullptr) *result = ended;
            if (to->count("qor_copy") > 0) return;
            to = std::make_unique<Place>(to->engine());
        }
    }

    std::unique_ptr<Place> m_to = std::make_unique<Place>(GetParam());
};

TEST_P(CopyFaults, KilledAtAnyPointItIsGoneOnWithAndNothingIsDoubled) {
    std::mt19937 random(20260);
    const auto began = std::chrono::steady_clock::now();
    {
        const Place whole(GetParam());
        ASSERT_EQ(copy(filled(), whole).status, 0);
    }
    const auto duration =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - began).count();
#ifdef QOR_SANITIZED
    constexpr int kills = 4;  // each takes ten times as long
#else
    constexpr int kills = 6;
#endif
    for (int run = 0; run < kills; ++run) {
        CtlProcess copying = begin(filled(), *m_to);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % static_cast<unsigned long>(duration)));
        copying.signal(SIGKILL);
        if (copying.finish().status == 0) {
            EXPECT_EQ(m_to->contents(), filled().contents());
            m_to = std::make_unique<Place>(GetParam());
        }
    }
    if (m_to->count("qor_copy") == 0) endInTheMiddle(filled(), m_to, SIGKILL);
    const CtlResult last = copy(filled(), *m_to);
    EXPECT_EQ(last.status, 0) << last.err;
    EXPECT_EQ(m_to->contents(), filled().contents());
    EXPECT_EQ(m_to->count("qor_copy"), 0);
}

TEST_P(CopyFaults, InterruptedItSaysThatItGoesOn) {
    CtlResult result;
    endInTheMiddle(filled(), m_to, SIGINT, &result);
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.err, std::string("qorctl: stopped; ") + goesOn + "\n");
    EXPECT_EQ(copy(filled(), *m_to).status, 0);
    EXPECT_EQ(m_to->contents(), filled().contents());
}

TEST_P(CopyFaults, NobodyElseTakesWhatIsThereForAWholeDatabase) {
    endInTheMiddle(filled(), m_to, SIGKILL);
    for (const Words& command : {Words{"select", "--view", "vOpLog", "-f", "id"}, Words{"import"},
                                 Words{"select", "--read-only", "--view", "vOpLog", "-f", "id"}}) {
        Words words = command;
        words.insert(words.end(), {"--standalone", "--database", m_to->name()});
        const CtlResult result = runCtl(words);
        EXPECT_EQ(result.status, 3);
        EXPECT_THAT(result.err, HasSubstr("holds a part of another one: a copy into it has not ended"));
    }
    const auto [status, output] = runProgram({(programDirectory() / "qor-agent").string(), "--database", m_to->name(),
                                              "--socket", (TemporaryDirectory() / "agent.sock").string()});
    EXPECT_EQ(status, 1);
    EXPECT_THAT(output, HasSubstr("a copy into it has not ended"));
    const CtlResult asSource = copy(*m_to, Place(ASEngine::SQLite));
    EXPECT_EQ(asSource.status, 3);
    EXPECT_THAT(asSource.err, HasSubstr("holds a part of another database"));
}

TEST_P(CopyFaults, ASourceThatChangedMeanwhileIsNoticed) {
    const Place from(ASEngine::SQLite);
    fill(from);
    endInTheMiddle(from, m_to, SIGKILL);
    from.run("UPDATE qor_event SET source = 'other' WHERE seq = 17");
    const CtlResult result = copy(from, *m_to);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("has changed since the copy began (qor_event had 5000 records and has 5000)"));
    constexpr int copiedTables = 13;
    EXPECT_EQ(m_to->count("qor_copy"), copiedTables) << "nothing of the copy was thrown away";
}

TEST_P(CopyFaults, AnotherSourceDoesNotGoOnWithIt) {
    const Place other(ASEngine::SQLite);
    endInTheMiddle(filled(), m_to, SIGKILL);
    ASSERT_EQ(copy(filled(), other).status, 0);
    const CtlResult result = copy(other, *m_to);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("holds a part of another source than"));
}

TEST_P(CopyFaults, ATargetWithRecordsIsRefusedAndStaysAsItIs) {
    ASSERT_EQ(runCtl({"import", "--standalone", "--database", m_to->name()}, R"({"kind":"event","time":1})"
                                                                             "\n")
                  .status,
              0);
    const Contents before = m_to->contents();
    const CtlResult result = copy(filled(), *m_to);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("holds records (qor_event): a copy needs a database without any"));
    EXPECT_EQ(m_to->contents(), before);
}

TEST_P(CopyFaults, AnotherProgramsTargetIsRefused) {
    m_to->run("CREATE TABLE theirs (a int)");
    const CtlResult result = copy(filled(), *m_to);
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.err, HasSubstr("belongs to another program"));
    EXPECT_EQ(m_to->count("theirs"), 0);
}

TEST_P(CopyFaults, ATargetWithASchemaAndNoRecordsIsTaken) {
    ASSERT_EQ(runCtl({"import", "--standalone", "--database", m_to->name()}).status, 0);
    EXPECT_EQ(copy(filled(), *m_to).status, 0);
    EXPECT_EQ(m_to->contents(), filled().contents());
}

TEST_P(CopyFaults, ADatabaseIsNotCopiedIntoItself) {
    ASSERT_EQ(runCtl({"import", "--standalone", "--database", m_to->name()}).status, 0);
    const CtlResult result = copy(*m_to, *m_to);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("is the source itself"));
}

TEST_P(CopyFaults, WhatSomebodyElseWroteIntoTheTargetIsFound) {
    endInTheMiddle(filled(), m_to, SIGKILL);
    m_to->run("UPDATE qor_environment SET title = 'other' WHERE rowid = 3");
    const CtlResult result = copy(filled(), *m_to);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("is not what the source is: qor_environment holds 40 records with the digest "));
    EXPECT_EQ(runCtl({"import", "--standalone", "--database", m_to->name()}).status, 3) << "it stays refused";
}

TEST_P(CopyFaults, WrongCountersAreCopiedAndTold) {
    const Place from(ASEngine::SQLite);
    fill(from);
    from.run("UPDATE qor_operation_count SET n = n + 1 WHERE scope = '' AND level = 24 AND split = 0");
    const CtlResult result = copy(from, *m_to);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("1 groups of records are counted wrong, as they are in the source"));
    EXPECT_EQ(m_to->contents(), from.contents());
}

TEST_P(CopyFaults, ValuesThatCannotBeKeptAreNamedBeforeAnythingIsWritten) {
    struct Case {
        const char* change;
        const char* complaint;
    };
    std::vector<Case> cases{
        {"UPDATE qor_operation SET message = CAST(x'610062' AS TEXT) WHERE seq = 5",
         "qor_operation, seq \"5\": one of its texts has a NUL byte in it, or is bytes that are no text"},
        {"UPDATE qor_operation SET message = x'6162' WHERE seq = 5", "qor_operation, seq \"5\": one of its texts"},
        {"UPDATE qor_backup SET time = 'yesterday' WHERE seq = 5",
         "qor_backup, seq \"5\": time \"yesterday\" is no time of the form YYYY-MM-DD HH:MM:SS"},
        {"UPDATE qor_backup SET eid = 'me' WHERE seq = 5",
         "qor_backup, seq \"5\": eid \"me\" is no GUID in lower case with hyphens"},
        {"UPDATE qor_backup SET size = 'large' WHERE seq = 5",
         "qor_backup, seq \"5\": size \"large\" is no whole number"},
    };
    if (GetParam() == ASEngine::PostgreSQL) {
        cases.push_back({"UPDATE qor_backup SET name = CAST(x'61FF' AS TEXT) WHERE seq = 5",
                         "is no text of UTF-8, which the target cannot keep"});
        cases.push_back({"UPDATE qor_backup SET time = '0000-01-01 00:00:00' WHERE seq = 5",
                         "time \"0000-01-01 00:00:00\" is a time before the year 1, which the target cannot keep"});
        cases.push_back({"UPDATE qor_backup SET type = 3000000000 WHERE seq = 5",
                         "type \"3000000000\" is no whole number of 32 bits, which the target cannot keep"});
    }
    for (const Case& one : cases) {
        const Place from(ASEngine::SQLite);
        fill(from);
        from.run(one.change);
        const CtlResult result = copy(from, *m_to);
        EXPECT_EQ(result.status, 1) << one.change;
        EXPECT_THAT(result.err, HasSubstr(one.complaint));
        EXPECT_EQ(m_to->count("qor_environment"), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Engines, CopyFaults, testing::Values(ASEngine::SQLite, ASEngine::PostgreSQL),
                         [](const auto& made) { return made.param == ASEngine::SQLite ? "ToSQLite" : "ToPostgreSQL"; });

std::string bytesOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

TEST(CopySource, OfAnOlderVersionIsRefusedAndStaysAsItIs) {
    const Place from(ASEngine::SQLite);
    std::ifstream dump(QOR_PROJECT_DIR "/tests/libs/QORDBSchema/data/version3.sql");
    from.run({std::istreambuf_iterator<char>(dump), {}});
    const std::string before = bytesOf(from.file());
    const Place to(ASEngine::PostgreSQL);
    const CtlResult result = copy(from, to);
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.err, HasSubstr("has version 3 of the schema, and this program copies version"));
    EXPECT_THAT(result.err, HasSubstr("start this version's qor-agent on it once, which brings it up to date"));
    EXPECT_EQ(bytesOf(from.file()), before);
    EXPECT_EQ(to.cell("SELECT count(*) FROM pg_class WHERE relname LIKE 'qor%'"), "0") << "the target is not touched";
}

TEST(CopySource, ThatIsNoneIsRefused) {
    const Place to(ASEngine::SQLite);
    const CtlResult missing = copy(Place(ASEngine::SQLite), to);
    EXPECT_EQ(missing.status, 3);
    EXPECT_THAT(missing.err, HasSubstr("there is no such file"));
    const CtlResult empty = copy(Place(ASEngine::PostgreSQL), to);
    EXPECT_EQ(empty.status, 3);
    EXPECT_THAT(empty.err, HasSubstr("is empty: there is nothing to copy"));
    const Place foreign(ASEngine::SQLite);
    foreign.run("CREATE TABLE theirs (a int)");
    const CtlResult theirs = copy(foreign, to);
    EXPECT_EQ(theirs.status, 3);
    EXPECT_THAT(theirs.err, HasSubstr("is another program's"));
    EXPECT_FALSE(std::filesystem::exists(to.file()));
    EXPECT_EQ(runCtl({"copy", "--from", foreign.name()}).status, 2);
}

TEST(CopyTarget, ThatAnAgentServesIsRefused) {
    const AgentProcess agent;
    const Place from(ASEngine::SQLite);
    ASSERT_EQ(runCtl({"import", "--standalone", "--database", from.name()}).status, 0);
    const CtlResult result = runCtl({"copy", "--from", from.name(), "--to", agent.databasePath().string()});
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.err, HasSubstr("another agent, process " + std::to_string(agent.pid())));
}

TEST(CopyTarget, ThatAnAgentServesOnAServerIsRefusedUntilItIsStopped) {
    const Place from(ASEngine::SQLite);
    const Place to(ASEngine::PostgreSQL);
    fillSource(from);
    {
        AgentSettings settings;
        settings.database = to.name();
        const AgentProcess agent(settings);
        const CtlResult result = runCtl({"copy", "--from", from.name(), "--to", to.name()});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("is open in an agent or another qorctl, with "));
        EXPECT_EQ(to.count("qor_operation"), 0);
        EXPECT_EQ(to.cell("SELECT count(*) FROM pg_class WHERE relname = 'qor_copy'"), "0");
    }
    // A server knows a program that has ended for a moment more.
    while (to.cell("SELECT count(*) FROM pg_stat_activity WHERE datname = current_database() AND "
                   "application_name = 'qor'") != "0")
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const CtlResult result = runCtl({"copy", "--from", from.name(), "--to", to.name()});
    EXPECT_EQ(result.status, 0) << result.err;
}

TEST(CopyTarget, WhereTheRoleMayMakeNothingIsRefused) {
    const Place from(ASEngine::SQLite);
    const Place to(ASEngine::PostgreSQL);
    fillSource(from);
    to.run("DROP ROLE IF EXISTS guest; CREATE ROLE guest LOGIN");
    const std::string guest = to.name() + ";UID=guest";
    const std::string name = guest.substr(0, guest.find(";UID=")) + ";UID=guest";
    const CtlResult result = runCtl({"copy", "--from", from.name(), "--to", name});
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.err, HasSubstr("permission denied for schema public"));
}

TEST(CopyTarget, WithoutRoomIsGoneOnWithWhenThereIsSome) {
    const Place from(ASEngine::SQLite);
    const Place to(ASEngine::SQLite);
    fillSource(from);
    // Blocks of 512 bytes.
    Words command{"sh", "-c", "trap '' XFSZ; ulimit -f 4000; exec \"$0\" \"$@\"", ctlProgram()};
    const Words arguments = copyCommand(from, to);
    command.insert(command.end(), arguments.begin(), arguments.end());
    CtlProcess process(command);
    const CtlResult full = process.finish();
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.err, HasSubstr(goesOn));
    EXPECT_GT(to.count("qor_copy"), 0);
    const CtlResult again = copy(from, to);
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(to.contents(), from.contents());
}

TEST(CopyServer, ThatEndsMeanwhileIsGoneOnWithWhenItIsBack) {
    PostgresServer& server = PostgresServer::shared();
    const Place from(ASEngine::SQLite);
    fillSource(from);
    auto target = std::make_unique<Place>(ASEngine::PostgreSQL);
    CtlResult ended;
    for (;; target = std::make_unique<Place>(ASEngine::PostgreSQL)) {
        CtlProcess copying = begin(from, *target);
        while (target->count("qor_environment") == 0 && copying.isRunning())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        server.crash();
        ended = copying.finish();
        server.start();
        if (ended.status != 0) break;  // a copy that was done before the end came is no proof
    }
    const Place& to = *target;
    EXPECT_EQ(ended.status, 3) << ended.err;
    EXPECT_THAT(ended.err, HasSubstr(goesOn));
    const CtlResult again = copy(from, to);
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(to.contents(), from.contents());
}

}  // namespace
}  // namespace QOR::test
