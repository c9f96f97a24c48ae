// Exports through qorctl: rows without bound, and errors in the middle that nobody can take for the end.
#include <csignal>
#include <string>

#include "ctl/BothWays.h"
#include "support/LargeView.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr int rows = 250'000;
constexpr int brokenAt = 150'000;

std::size_t linesOf(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

class StreamCommand : public BothWays {
protected:
    void SetUp() override {
        makeLargeView(database(), rows, brokenAt);
        begin({"--read-only"});
    }
};
INSTANTIATE_TEST_SUITE_P(Ctl, StreamCommand, bothWays, nameOfWay);

TEST_P(StreamCommand, MoreRowsThanAnAnswerMayHaveAreExported) {
    const CtlResult result = runCtl(where({"select", "--view", "vMany", "-f", "id", "name", "-o", "csv", "--count"}));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(linesOf(result.out), 1U + rows);
    EXPECT_THAT(result.err, HasSubstr("250000"));
}

TEST_P(StreamCommand, ARequestIsStreamedToo) {
    const CtlResult result =
        runCtl(where({"request", "-"}), R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vMany"],)"
                                        R"([1741,"id"]]]})");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, StartsWith(R"({"response":[[1744,[[1026,"id"],[1739,)"));
    EXPECT_THAT(result.out.substr(result.out.size() - 50), testing::EndsWith("]]]]]}\n"));
}

TEST_P(StreamCommand, AnErrorInTheMiddleIsTheStatusBehindTheRows) {
    const CtlResult result = runCtl(where({"select", "--view", "vBroken", "-f", "id", "name", "-o", "csv"}));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "qorctl: error 1: " + oneOf("a sum is beyond 64 bits of SQLite", "bigint out of range") + "\n");
    // The names and every row before it, whole; of PostgreSQL's, rows that come together fail together.
    const std::size_t together = testEngine() == ASEngine::SQLite ? 0 : 40'000;
    EXPECT_LE(linesOf(result.out), static_cast<std::size_t>(brokenAt));
    EXPECT_GE(linesOf(result.out) + together, static_cast<std::size_t>(brokenAt));
    EXPECT_THAT(result.out, testing::EndsWith("\n"));
}

TEST_P(StreamCommand, AReaderOfTheOutputThatGoesEndsTheExport) {
    CtlProcess process([&] {
        Words command = where({"select", "--view", "vMany", "-f", "id", "name", "-o", "csv"});
        command.insert(command.begin(), ctlProgram());
        return command;
    }());
    EXPECT_EQ(process.readLine(), "id,name\r");
    process.signal(SIGTERM);
    EXPECT_NE(process.finish().status, 0);
}

TEST(StreamBreak, AnAnswerThatBreaksOffIsAnError) {
    const TestDatabase database;
    makeLargeView(database.connectionString(), rows, brokenAt);
    AgentSettings settings;
    settings.database = database.connectionString();
    settings.more = {"--read-only"};
    AgentProcess agent(settings);
    CtlProcess process(
        {ctlProgram(), "select", "--view", "vMany", "-f", "id", "name", "-o", "csv", "--socket", agent.socketPath()});
    EXPECT_EQ(process.readLine(), "id,name\r");
    agent.kill();
    const CtlResult result = process.finish();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("broke off"));
    EXPECT_LT(linesOf(result.out), static_cast<std::size_t>(rows));
}

}  // namespace
}  // namespace QOR::test
