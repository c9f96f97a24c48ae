// Many importers at once through one agent: they wait for each other, and none is turned away.
#include <fstream>
#include <memory>
#include <string>
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
    const TestDatabase stored;
    // Each waits for all others: longer than a request may take by default where a sanitizer makes all of them slow.
    const AgentProcess agent({.database = stored.connectionString(), .more = {"--deadline", "1000"}});
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

}  // namespace
}  // namespace QOR::test
