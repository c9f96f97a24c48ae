// Records out again: what import takes, in whole or gone on with, over a real agent and in qorctl's own process.
#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "ctl/BothWays.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* guestEid = "22222222-2222-2222-2222-222222222222";

const std::string exportedRecords =
    R"({"kind":"environment","eid":"11111111-1111-1111-1111-111111111111","state":6,"transition":0,"config":{"hostname":"h","ip":["10.0.0.1"],"memory":2048}})"
    "\n"
    R"({"kind":"environment","eid":"22222222-2222-2222-2222-222222222222","parent_eid":"11111111-1111-1111-1111-111111111111","title":"","state":0,"transition":0})"
    "\n"
    R"({"kind":"operation","id":"late","op":"install","status":0,"time":"2024-05-02 00:00:00","eid":"11111111-1111-1111-1111-111111111111","eids":["22222222-2222-2222-2222-222222222222","11111111-1111-1111-1111-111111111111"],"message":{"package":{"name":"curl"},"a":"x","a":""}})"
    "\n"
    R"({"kind":"operation","id":"early","parent_id":"late","status":-3,"time":"2024-05-01 00:00:00","eid":"22222222-2222-2222-2222-222222222222","eids":[]})"
    "\n"
    R"({"kind":"event","id":"33333333-3333-3333-3333-333333333333","time":"2024-05-03 00:00:00","eid":"22222222-2222-2222-2222-222222222222","source":"s","category":"env_status","info":{}})"
    "\n"
    R"({"kind":"event","time":"2024-05-01 12:00:00"})"
    "\n"
    R"({"kind":"backup","id":"b","eid":"11111111-1111-1111-1111-111111111111","storage_eid":"22222222-2222-2222-2222-222222222222","time":"2024-05-04 00:00:00","size":7,"type":1,"description":"d","info":{"veid":"101"}})"
    "\n";

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeTo(const std::filesystem::path& file, std::string_view content) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

bool isRecord(const std::string& line) {
    return line.starts_with(R"({"kind":)");
}

/// Lines of records alone.
std::string recordsIn(const std::string& lines) {
    std::string records;
    for (std::size_t at = 0; at < lines.size();) {
        const std::size_t end = lines.find('\n', at) + 1;
        if (const std::string line = lines.substr(at, end - at); isRecord(line)) records += line;
        at = end;
    }
    return records;
}

/// The lines of these places among the records above.
std::string exportedLines(const std::vector<int>& places) {
    std::string chosen;
    for (const int place : places) {
        std::size_t at = 0;
        for (int line = 0; line < place; ++line)
            at = exportedRecords.find('\n', at) + 1;
        chosen += exportedRecords.substr(at, exportedRecords.find('\n', at) + 1 - at);
    }
    return chosen;
}

class Export : public BothWays {
protected:
    void SetUp() override { begin(); }
    std::string path(const char* name) const { return (m_directory / name).string(); }
    void importAll(const std::string& records) const {
        const CtlResult result = run({"import"}, records);
        ASSERT_EQ(result.status, 0) << result.err;
    }
    std::string exported(Words options = {}) const {
        options.insert(options.begin(), "export");
        return recordsIn(outputOf(options));
    }
};
INSTANTIATE_TEST_SUITE_P(Ctl, Export, bothWays, nameOfWay);

TEST_P(Export, GivesWhatImportTakes) {
    importAll(exportedRecords);
    const std::string all = outputOf({"export"});
    EXPECT_EQ(recordsIn(all), exportedRecords);
    EXPECT_THAT(all, StartsWith(R"({"position":{"at":"environments",)"));
    EXPECT_THAT(all,
                testing::EndsWith(
                    "\n{\"end\":{\"counts\":{\"environments\":2,\"operations\":2,\"events\":2,\"backups\":1}}}\n"));
    const CtlResult again = run({"import"}, all);
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(again.out,
              "environment: 0 added, 2 replaced\noperation: 0 added, 2 replaced\n"
              "event: 1 added, 0 replaced, 1 unchanged\nbackup: 0 added, 1 replaced\nrefused: 0\n");
}

TEST_P(Export, IsOfTheKindsTimesAndEnvironmentThatAreAskedFor) {
    importAll(exportedRecords);
    EXPECT_EQ(exported({"--kinds", "backups,environments"}), exportedLines({0, 1, 6}));
    EXPECT_EQ(exported({"--since", "2024-05-01 12:00", "--until", "2024-05-03", "--kinds", "operations,events"}),
              exportedLines({2, 4, 5}));
    EXPECT_EQ(exported({"--until", "2024-05-01"}), exportedLines({0, 1, 3}));
    EXPECT_EQ(exported({"-e", guestEid}), exportedLines({1, 3, 4}));
    EXPECT_EQ(exported({"-e", "99999999-9999-4999-8999-999999999999"}), "");
}

TEST_P(Export, ToldWhatIsNoneItSaysSoAndWritesNothing) {
    const std::pair<Words, const char*> mistakes[] = {
        {{"--kinds", "operation"}, "operations"},
        {{"--since", "soon"}, "--since \"soon\" is no time"},
        {{"-e", "host"}, "--environment \"host\" is no identifier"},
        {{"--resume"}, "--output FILE"},
    };
    for (const auto& [options, said] : mistakes) {
        Words words{"export"};
        words.insert(words.end(), options.begin(), options.end());
        const CtlResult result = run(words);
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, HasSubstr(said));
        EXPECT_EQ(result.out, "");
    }
}

/// Pieces have at most 500 records.
constexpr int manyRecords = 1300;

std::string manyExported() {
    std::string lines;
    for (int number = 0; number < manyRecords; ++number)
        lines +=
            R"({"kind":"operation","id":"o)" + std::to_string(number) +
            R"(","status":0,"time":"2024-05-02 00:00:00","eid":"11111111-1111-1111-1111-111111111111","eids":[]})" +
            "\n";
    return lines;
}

TEST_P(Export, GoesOnWhereAFileEnds) {
    importAll(manyExported() + exportedRecords);
    const std::string file = path("part");
    EXPECT_EQ(outputOf({"export", "-o", file}), "");
    const std::string whole = contentOf(file);
    EXPECT_EQ(recordsIn(whole), exportedLines({0, 1}) + manyExported() + exportedLines({2, 3, 4, 5, 6}));
    const std::size_t firstEnd = whole.find('\n') + 1;
    const std::size_t middle = whole.find(R"("id":"o777")");
    const std::size_t end = whole.find(R"({"end":)");
    ASSERT_NE(middle, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    for (const std::size_t size :
         {std::size_t{5}, firstEnd, middle, whole.find('\n', middle) + 1, end, whole.size() - 1}) {
        writeTo(file, whole.substr(0, size));
        EXPECT_EQ(outputOf({"export", "-o", file, "--resume"}), "");
        EXPECT_EQ(contentOf(file) == whole, true) << "from " << size << " of " << whole.size() << " bytes on";
    }
    const CtlResult done = run({"export", "-o", file, "--resume"});
    EXPECT_EQ(done.status, 0);
    EXPECT_THAT(done.err, HasSubstr("is whole already"));
    std::filesystem::remove(file);
    EXPECT_EQ(outputOf({"export", "-o", file, "--resume"}), "");
    EXPECT_EQ(contentOf(file) == whole, true);
}

TEST_P(Export, WhatWasStoredBehindThePositionComesToo) {
    importAll(manyExported());
    const std::string file = path("part");
    EXPECT_EQ(outputOf({"export", "-o", file}), "");
    const std::string whole = contentOf(file);
    writeTo(file, whole.substr(0, whole.find(R"("id":"o777")")));
    importAll(R"({"kind":"operation","id":"new","status":0,"time":"2024-05-02 00:00:00","eids":[]})");
    EXPECT_EQ(outputOf({"export", "-o", file, "--resume"}), "");
    EXPECT_EQ(
        recordsIn(contentOf(file)),
        manyExported() + R"({"kind":"operation","id":"new","status":0,"time":"2024-05-02 00:00:00","eids":[]})" + "\n");
}

TEST_P(Export, WhatIsNotItsOwnIsNotGoneOnWith) {
    importAll(exportedRecords);
    const std::string file = path("other");
    for (const std::string& content : {exportedRecords, std::string("notes\n"),
                                       std::string(R"({"position":{"at":"planets"}})"
                                                   "\n"),
                                       std::string(R"({"position":{"at":"operations","after":"1 OR 1"}})"
                                                   "\n")}) {
        writeTo(file, content);
        const CtlResult result = run({"export", "-o", file, "--resume"});
        EXPECT_EQ(result.status, 2) << result.err;
        EXPECT_THAT(result.err, HasSubstr(file));
        EXPECT_EQ(contentOf(file), content);
    }
    writeTo(file, R"({"position":{"at":"events","server":"s1","after":"7","counts":{}}})"
                  "\n");
    const CtlResult earlier = run({"export", "-o", file, "--resume"});
    EXPECT_EQ(earlier.status, 2);
    EXPECT_THAT(earlier.err, HasSubstr("it is one of an earlier version, which exported one server after the other: "
                                       "export to another file, from the beginning"));
    EXPECT_EQ(outputOf({"export", "-o", file, "--kinds", "events"}), "");
    const std::string events = contentOf(file);
    writeTo(file, events.substr(0, events.find(R"({"end":)")));
    const CtlResult result = run({"export", "-o", file, "--resume"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("is an export of something else"));
    EXPECT_EQ(run({"import", file}).err,
              "qorctl: note: " + file +
                  " is an export that was not written to its end; qorctl export --resume goes on with it\n");
}

TEST_P(Export, APositionOfAnotherDatabaseIsNotGoneOnWith) {
    importAll(exportedRecords);
    const std::string file = path("part");
    EXPECT_EQ(outputOf({"export", "-o", file}), "");
    const std::string whole = contentOf(file);
    const std::string mark = R"("database":")";
    constexpr std::size_t digits = 16;
    const std::string here = whole.substr(whole.find(mark) + mark.size(), digits);
    const std::string other(digits, here.front() == '0' ? '1' : '0');
    std::string content = whole.substr(0, whole.find(R"({"end":)"));
    for (std::size_t at = content.find(mark); at != std::string::npos; at = content.find(mark, at + 1))
        content.replace(at + mark.size(), digits, other);
    writeTo(file, content);
    const CtlResult result = run({"export", "-o", file, "--resume"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err,
                HasSubstr("the position is one of database \"" + other + "\", and this is \"" + here + "\""));
    EXPECT_EQ(contentOf(file), content);
}

// The rows of a table that has very many, of which few are wanted.
TEST_P(Export, PositionsComeWhereNothingIsWantedToo) {
    std::string events;
    for (const char* const time : {"1", "2", "3"})
        events += R"({"kind":"event","time":)" + std::string(time) + "}\n";
    importAll(events);
    for (const char* const time : {"1", "2", "3"})
        direct().run("UPDATE qor_event SET seq = " + std::string(time) + "00000 WHERE seq = " + time);
    const std::string found = outputOf({"export", "--kinds", "events", "--since", "1970-01-01 00:00:03"});
    std::vector<std::string> afters;
    const std::string after = R"("after":")";
    for (std::size_t at = found.find(after); at != std::string::npos; at = found.find(after, at + 1))
        afters.push_back(found.substr(at + after.size(), found.find('"', at + after.size()) - at - after.size()));
    EXPECT_EQ(afters, (std::vector<std::string>{"149999", "249999", "300000"}));
    EXPECT_THAT(recordsIn(found), HasSubstr("1970-01-01 00:00:03"));
    EXPECT_THAT(found, HasSubstr(R"({"end":{"counts":{"events":1}}})"));
}

TEST_P(Export, GoesOnWithTheTimesThatItWasBegunWith) {
    importAll(exportedRecords);
    const std::string file = path("part");
    EXPECT_EQ(outputOf({"export", "-o", file, "--since", "2024-05-03", "--until", "now"}), "");
    const std::string whole = contentOf(file);
    EXPECT_EQ(recordsIn(whole), exportedLines({0, 1, 4, 6}));
    const std::string begun = whole.substr(0, whole.find(R"({"end":)"));
    for (const Words& times :
         {Words{"--since", "2024-05-02", "--until", "now"}, Words{"--until", "now"}, Words{"--since", "2024-05-03"},
          Words{"--since", "2024-05-03", "--until", "2024-05-04"}}) {
        writeTo(file, begun);
        Words command{"export", "-o", file, "--resume"};
        command.insert(command.end(), times.begin(), times.end());
        const CtlResult result = run(command);
        EXPECT_EQ(result.status, 2) << result.err;
        EXPECT_THAT(result.err, HasSubstr("is an export of something else"));
        EXPECT_EQ(contentOf(file), begun);
    }
    EXPECT_EQ(outputOf({"export", "-o", file, "--resume", "--since", "2024-05-03T02:00+02:00", "--until", "now"}), "");
    EXPECT_EQ(contentOf(file), whole);
}

TEST_P(Export, AFileOfSomethingElseIsNotWrittenOver) {
    importAll(exportedRecords);
    const std::string other = path("other");
    writeTo(other, "notes\n");
    Words files{other};
    if (testEngine() == ASEngine::SQLite) files.push_back(file().string());
    for (const std::string& name : files) {
        const CtlResult result = run({"export", "-o", name});
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, HasSubstr(name + " holds something else than records"));
    }
    EXPECT_EQ(contentOf(other), "notes\n");
    const std::string whole = outputOf({"export"});
    for (const std::string& content : {std::string(), std::string("{\"pos"), exportedRecords, whole + whole}) {
        writeTo(other, content);
        EXPECT_EQ(outputOf({"export", "-o", other}), "");
        EXPECT_EQ(contentOf(other), whole);
    }
}

TEST_P(Export, ANewFileIsForItsUserAlone) {
    importAll(exportedRecords);
    EXPECT_EQ(outputOf({"export", "-o", path("own")}), "");
    EXPECT_EQ(std::filesystem::status(path("own")).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_P(Export, WhatMayNotHaveReachedTheDiskIsAnError) {
    importAll(exportedRecords);
    const std::string file = path("out");
    writeTo(path("fault"), "sync\n" + file + "\n");
    ::setenv("QOR_FAILING_DISK", path("fault").c_str(), 1);
    ::setenv("LD_PRELOAD", QOR_FAILING_DISK_LIBRARY, 1);
    ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
    const CtlResult result = run({"export", "-o", file});
    ::unsetenv("LD_PRELOAD");
    ::unsetenv("QOR_FAILING_DISK");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("cannot write " + file + " to the disk: Input/output error\n"));
    EXPECT_THAT(result.err, HasSubstr("export it anew"));
}

TEST_P(Export, WhatWasANumberAndIsNoneInItsDocumentIsAText) {
    importAll(exportedRecords);
    direct().run("UPDATE qor_environment SET config = replace(config, '2048', 'much')");
    EXPECT_THAT(exported({"--kinds", "environments"}), HasSubstr(R"("memory":"much")"));
}

TEST_P(Export, ADocumentThatCannotBeReadIsMissingAndSaidToBe) {
    importAll(exportedRecords);
    direct().run("UPDATE qor_operation SET message = 'torn' WHERE id = 'late'");
    const CtlResult result = run({"export", "--kinds", "operations"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err,
              "qorctl: 1 records lack a document, which cannot be read in the database; \"qorctl check\" names them\n");
    EXPECT_THAT(result.out, HasSubstr(R"("operations":2},"unreadable":1)"));
    EXPECT_THAT(result.out, Not(HasSubstr("message")));
}

TEST_P(Export, TellsHowFarItIs) {
    importAll(manyExported());
    const CtlResult result = run({"export", "-o", path("out"), "--progress"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr("exporting: 100%, 1300 of 1300 records"));
}

/// More than pipes and sockets hold, so that it cannot be at its end while nobody reads.
std::string endlessExport() {
    std::string lines;
    for (int number = 0; number < 80; ++number)
        lines += R"({"kind":"operation","id":"o)" + std::to_string(number) + R"(","time":1,"message":{"text":")" +
                 std::string(100'000, 'x') + "\"}}\n";
    return lines;
}

TEST(ExportEnds, WithTheAgentAndWithCtrlC) {
    AgentProcess agent;
    ASSERT_EQ(runCtl({"import", "--socket", agent.socketPath()}, endlessExport()).status, 0);
    const Words command{ctlProgram(), "export", "--socket", agent.socketPath()};
    CtlProcess interrupted(command);
    EXPECT_THAT(interrupted.readLine(), StartsWith(R"({"position":)"));
    interrupted.signal(SIGINT);
    const CtlResult ended = interrupted.finish();
    EXPECT_EQ(ended.status, 130);
    EXPECT_THAT(ended.err, HasSubstr("qorctl: interrupted; what came of it is not whole\n"));
    CtlProcess left(command);
    EXPECT_THAT(left.readLine(), StartsWith(R"({"position":)"));
    agent.kill();
    const CtlResult result = left.finish();
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_THAT(result.err, HasSubstr("broke off"));
    EXPECT_THAT(result.out, Not(HasSubstr(R"({"end":)")));
    const CtlResult gone = runCtl({"export", "--socket", agent.socketPath(), "-o", "/dev/null"});
    EXPECT_EQ(gone.status, 3);
}

}  // namespace
}  // namespace QOR::test
