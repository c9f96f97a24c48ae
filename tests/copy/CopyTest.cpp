// qorctl copy: between both engines and within one, and what it leaves behind.
#include <array>
#include <tuple>

#include "copy/CopyPlaces.h"
#include "support/AgentProcess.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

std::string nameOf(ASEngine engine) {
    return engine == ASEngine::SQLite ? "SQLite" : "PostgreSQL";
}

/// One source for all tests that only read it.
const Place& filled() {
    static const Place* const place = [] {
        static const Place made(ASEngine::SQLite);
        fillSource(made);
        return &made;
    }();
    return *place;
}

class Copy : public testing::TestWithParam<std::tuple<ASEngine, ASEngine>> {
protected:
    /// A source of the first engine.
    void SetUp() override {
        if (m_from.engine() == ASEngine::SQLite) {
            std::filesystem::copy_file(filled().file(), m_from.file());
        } else {
            const CtlResult result = copy(filled(), m_from);
            ASSERT_EQ(result.status, 0) << result.err;
        }
    }

    Place m_from{std::get<0>(GetParam())};
    Place m_to{std::get<1>(GetParam())};
};

TEST_P(Copy, EveryTableIsWhatItWas) {
    const Contents before = m_from.contents();
    const CtlResult result = copy(m_from, m_to);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "") << "a pipe is told nothing";
    EXPECT_EQ(m_to.contents(), filled().contents());
    EXPECT_EQ(m_from.contents(), before);
    for (const char* own : {"SELECT id FROM qor_database", "SELECT secret FROM qor_secret"})
        EXPECT_NE(m_to.cell(own), m_from.cell(own)) << own;
    EXPECT_THAT(result.out, HasSubstr("qor_request: 2 records, sha256 "));
    EXPECT_THAT(result.out, HasSubstr(" records, the same on both sides\n"));
}

TEST_P(Copy, TheCopyIsSoundAndTakesFurtherRecords) {
    // What SQLite's engine can make of some of the odd documents, no check would call sound.
    m_from.run("UPDATE qor_operation SET message = NULL WHERE seq < 13");
    m_from.run("UPDATE qor_backup SET info = NULL WHERE seq < 5");
    m_from.run("DELETE FROM qor_unreadable_document");
    ASSERT_EQ(copy(m_from, m_to).status, 0);
    const CtlResult check = runCtl({"check", "--standalone", "--database", m_to.name()});
    EXPECT_EQ(check.status, 0) << check.out;
    const std::string last = m_to.cell("SELECT max(seq) FROM qor_operation");
    const CtlResult import =
        runCtl({"import", "--standalone", "--database", m_to.name()},
               R"({"kind":"operation","id":"new","time":"2024-05-01","eids":["0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10"]})"
               "\n"
               R"({"kind":"event","category":"env_status","time":"2024-05-01"})"
               "\n"
               R"({"kind":"environment","eid":"0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10"})"
               "\n");
    EXPECT_EQ(import.status, 0) << import.err;
    EXPECT_EQ(m_to.cell("SELECT seq FROM qor_operation WHERE id = 'new'"), std::to_string(std::stoi(last) + 1));
    EXPECT_EQ(runCtl({"check", "--standalone", "--database", m_to.name()}).status, 0) << "triggers count again";
}

INSTANTIATE_TEST_SUITE_P(Engines, Copy,
                         testing::Combine(testing::Values(ASEngine::SQLite, ASEngine::PostgreSQL),
                                          testing::Values(ASEngine::SQLite, ASEngine::PostgreSQL)),
                         [](const auto& made) {
                             return nameOf(std::get<0>(made.param)) + "To" + nameOf(std::get<1>(made.param));
                         });

TEST(CopyThereAndBack, GivesTheSameBytes) {
    const Place there(ASEngine::PostgreSQL);
    const Place back(ASEngine::SQLite);
    ASSERT_EQ(copy(filled(), there).status, 0);
    ASSERT_EQ(copy(there, back).status, 0);
    SqliteFile first(filled().file());
    SqliteFile second(back.file());
    for (const PlaceTable& table : placeTables()) {
        std::string list;
        for (const std::string& column : table.columns) {
            const std::string name = column[0] == '#' ? column.substr(1) : column;
            list += (list.empty() ? "" : ", ") + std::string("typeof(") + name + "), quote(" + name + ")";
        }
        const std::string sql = "SELECT " + list + " FROM " + table.name + " ORDER BY " +
                                (table.columns[0] == "rowid" ? "rowid" : "1, 2, 3, 4, 5, 6");
        EXPECT_EQ(first.rows(sql), second.rows(sql)) << table.name;
    }
}

TEST(CopyOfASchemaWithoutRecords, HasNoneEither) {
    for (const ASEngine engine : {ASEngine::SQLite, ASEngine::PostgreSQL}) {
        const Place from(ASEngine::SQLite);
        const Place to(engine);
        ASSERT_EQ(runCtl({"import", "--standalone", "--database", from.name()}).status, 0);
        const CtlResult result = copy(from, to);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(result.out, HasSubstr("copied: 0 records"));
        EXPECT_EQ(runCtl({"check", "--standalone", "--database", to.name()}).status, 0);
    }
}

TEST(CopyProgress, TellsHowFarItIsWhenAsked) {
    const Place to(ASEngine::PostgreSQL);
    const CtlResult result = copy(filled(), to, {"--progress"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("reading the source: 0%, 0 of "));
    EXPECT_THAT(result.err, HasSubstr("copying: 100%, "));
    EXPECT_THAT(result.err, HasSubstr(" a second, 0 s left\nmaking indexes and triggers\n"));
    EXPECT_THAT(result.err, HasSubstr("checking counters\n"));
}

TEST(CopyBesideAnAgent, IsOfOneMomentAndSaysThatTheSourceWentOn) {
    TemporaryDirectory folder;
    AgentSettings settings;
    settings.database = "Driver=SQLite3;Database=" + (folder / "place.db").string();
    std::filesystem::copy_file(filled().file(), folder / "place.db");
    const AgentProcess agent(settings);
    // Each batch has as many operations as it has events, so that a torn copy would show.
    const auto batch = [](int number) {
        std::string lines;
        for (int i = 0; i < 200; ++i)
            lines += R"({"kind":"operation","id":"n)" + std::to_string(number * 1000 + i) +
                     R"(","op":"counted","time":"2024-05-01"})" + "\n" +
                     R"({"kind":"event","source":"counted","category":"c","time":"2024-05-01"})" + "\n";
        return lines;
    };
    std::unique_ptr<Place> target;
    CtlResult result;
    int batches = 0;
    for (bool seen = false; !seen;) {  // a copy that was done before it was seen at work is made again
        target = std::make_unique<Place>(ASEngine::PostgreSQL);
        CtlProcess copying({ctlProgram(), "copy", "--from", settings.database, "--to", target->name()});
        while (!seen && copying.isRunning()) {
            ASSERT_EQ(runCtl({"import", "--socket", agent.socketPath()}, batch(++batches)).status, 0);
            if (target->count("qor_copy") == 0) continue;
            // Behind the moment that is copied, and before the copy looks whether its source went on.
            ASSERT_EQ(runCtl({"import", "--socket", agent.socketPath()}, batch(++batches)).status, 0);
            seen = target->count("qor_copy") > 0;
        }
        result = copying.finish();
        ASSERT_EQ(result.status, 0) << result.err;
    }
    const Place& to = *target;
    EXPECT_THAT(result.err, HasSubstr("the source was written to meanwhile, and is not any more what was copied: "));
    EXPECT_EQ(to.cell("SELECT count(*) FROM qor_operation WHERE op = 'counted'"),
              to.cell("SELECT count(*) FROM qor_event WHERE source = 'counted'"));
    EXPECT_LT(to.count("qor_operation"), 6000 + 200 * batches);
}

TEST(CopyMemory, DoesNotDependOnTheSizeOfTheDocuments) {
#if defined(QOR_SANITIZED) || !defined(NDEBUG)
    GTEST_SKIP() << "a sanitizer takes memory of its own, and what is not optimised takes minutes";
#else
    const Place from(ASEngine::SQLite);
    ASSERT_EQ(runCtl({"import", "--standalone", "--database", from.name()}).status, 0);
    from.run(
        "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 60) INSERT INTO qor_backup "
        "(id, time, size, type, info) SELECT i, '2024-05-01 00:00:00', 0, 0, randomblob(1500000) FROM n");
    for (const ASEngine engine : {ASEngine::PostgreSQL, ASEngine::SQLite}) {
        const Place to(engine);
        // 90 MB of documents, with which a process that held them would end: it takes 90 MB without them.
        Words command{"sh", "-c", "ulimit -d 140000; exec \"$0\" \"$@\"", ctlProgram()};
        const Words arguments = copyCommand(from, to);
        command.insert(command.end(), arguments.begin(), arguments.end());
        CtlProcess process(command);
        const CtlResult result = process.finish();
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(to.count("qor_backup"), 60);
    }
#endif
}

}  // namespace
}  // namespace QOR::test
