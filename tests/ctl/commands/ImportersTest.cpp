// Many importers at once through one agent: they wait for each other, and none is turned away.
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"
#include "support/DirectDatabase.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int importers = 32;
constexpr int recordsOfEach = 1200;  // more than one batch of each kind

std::string recordsOf(int importer) {
    std::string lines;
    for (int number = 0; number < recordsOfEach; ++number) {
        const std::string id = std::to_string(importer) + "-" + std::to_string(number);
        const std::string time = std::to_string(1700000000 + number % 300);
        lines += R"({"kind":"operation","id":")" + id + R"(","time":)" + time +
                 R"(,"eid":"11111111-1111-1111-1111-1111111111)" + std::to_string(10 + number % 7) +
                 R"(","eids":["22222222-2222-2222-2222-2222222222)" + std::to_string(10 + importer % 5) + "\"]}\n" +
                 R"({"kind":"event","source":")" + id + R"(","category":"env_status","time":)" + time + "}\n";
    }
    // All of them replace this one.
    return lines + R"({"kind":"backup","id":"shared","time":1,"description":")" + std::to_string(importer) + "\"}\n";
}

TEST(Importers, ManyAtOnceStoreEveryRecordOnceAndNoneIsRefused) {
    const TestDatabase stored(TestTables::Own);
    // Each waits for all others: longer than a request may take by default where a sanitizer makes all of them slow.
    // So does what the agent writes by itself, which would give up after seconds otherwise and say so.
    const AgentProcess agent(
        {.database = stored.connectionString() + oneOf(";Timeout=1000000", ""), .more = {"--deadline", "1000"}});
    const TemporaryDirectory directory;
    DirectDatabase database(stored);
    database.run(
        oneOf("BEGIN IMMEDIATE", "BEGIN; LOCK TABLE qor_operation IN EXCLUSIVE MODE"));  // until all of them have come
    std::vector<std::unique_ptr<CtlProcess>> processes;
    for (int importer = 0; importer < importers; ++importer) {
        const std::string file = (directory / std::to_string(importer)).string();
        std::ofstream(file) << recordsOf(importer);
        processes.push_back(std::make_unique<CtlProcess>(
            std::vector<std::string>{ctlProgram(), "import", file, "--socket", agent.socketPath()}));
    }
    database.run("ROLLBACK");
    const std::string each = std::to_string(recordsOfEach);
    for (const auto& process : processes) {
        const CtlResult result = process->finish();
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(result.out, HasSubstr("operation: " + each + " added, 0 replaced\nevent: " + each + " added, 0 "));
        EXPECT_THAT(result.out, HasSubstr("refused: 0\n"));
    }
    const std::string all = std::to_string(importers * recordsOfEach);
    EXPECT_EQ(database.cell("SELECT count(*) || ' ' || count(DISTINCT id) FROM qor_operation"), all + " " + all);
    EXPECT_EQ(database.cell("SELECT count(*) || ' ' || count(DISTINCT source) FROM qor_event"), all + " " + all);
    EXPECT_EQ(database.cell("SELECT count(*) FROM qor_operation_environment"), all);
    EXPECT_EQ(database.cell("SELECT count(*) FROM qor_backup"), "1");
    const CtlResult check = runCtl({"check", "--socket", agent.socketPath()});
    EXPECT_EQ(check.status, 0) << check.out;
    EXPECT_THAT(
        runCtl({"rows", "-f", "pager.op_log.id", "--limit", "1", "--count", "--socket", agent.socketPath()}).out,
        HasSubstr(all));
    EXPECT_THAT(agent.log(), Not(HasSubstr("locked")));
}

/// What is said of a file with this in it, and what is made of a database that is not there yet.
struct OtherFile {
    explicit OtherFile(const std::string& contents) {
        const TemporaryDirectory folder;
        const std::string file = (folder / "f").string();
        std::ofstream(file, std::ios::binary) << contents;
        result = runCtl({"import", file, "--standalone", "--database", (folder / "new.db").string()});
        madeDatabase = std::filesystem::exists(folder / "new.db");
        if (const std::size_t at = result.err.find(file); at != std::string::npos)
            result.err.replace(at, file.size(), "f");
    }
    CtlResult result;
    bool madeDatabase = false;
};

TEST(WrongFiles, AreToldApartAndNothingIsMade) {
    const std::pair<std::string, const char*> files[] = {
        {"BZh91AY and so on", "f is compressed with bzip2; take it apart first: bzip2 -dc FILE | qorctl import -"},
        {"\x1f\x8b\x08 and so on", "f is compressed with gzip; take it apart first: gunzip -c FILE | qorctl import -"},
        {std::string("SQLite format 3\0", 16),
         "f is a database of SQLite; qorctl copy --from FILE moves what is in it"},
        {std::string("\xff\xfe{\0", 4), "f is a text in UTF-16; records are in UTF-8"},
        {std::string("\x7f"
                     "ELF\0",
                     5),
         "f is a binary file; records are one JSON object a line"},
        {"[\n{}]", "f begins with a list; records are one JSON object a line, without anything around them"}};
    for (const auto& [contents, said] : files) {
        const OtherFile given(contents);
        EXPECT_EQ(given.result.status, 2);
        EXPECT_EQ(given.result.err, std::string("qorctl: ") + said + "\n");
        EXPECT_EQ(given.result.out, "");
        EXPECT_FALSE(given.madeDatabase) << said;
    }
    const CtlResult folder = runCtl({"import", "/"});
    EXPECT_EQ(folder.status, 2);
    EXPECT_EQ(folder.err, "qorctl: cannot read /: Is a directory\n");
}

TEST(WrongFiles, AnEmptyOneStoresNothingAndSaysSo) {
    const OtherFile given("");
    EXPECT_EQ(given.result.status, 0);
    EXPECT_EQ(given.result.err, "qorctl: note: f is empty; there is nothing to store\n");
    EXPECT_THAT(given.result.out, HasSubstr("operation: 0 added"));
}

}  // namespace
}  // namespace QOR::test
