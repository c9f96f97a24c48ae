// Where a real agent's lines go under a service manager.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <iterator>
#include <string>

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace QOR {
namespace {

using test::ChildProcess;
using testing::HasSubstr;
using testing::Not;

TEST(AgentService, TheJournalIsToldPrioritiesAndNoTime) {
    const test::TemporaryDirectory folder;
    const std::string journal = folder.file("journal");
    ChildProcess agent({"bash", "-c",
                        "exec 2>'" + journal + "'; export JOURNAL_STREAM=$(stat -c %d:%i '" + journal + "'); exec '" +
                            (test::programDirectory() / "qor-agent").string() + "' --database '" +
                            folder.file("agent.db") + "' --socket '" + folder.file("agent.sock") + "'"});
    ASSERT_TRUE(agent.waitForLine("qor-agent listening on ")) << agent.output();
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait(), 0) << agent.output();
    std::ifstream file(journal);
    const std::string lines{std::istreambuf_iterator<char>(file), {}};
    EXPECT_THAT(lines, HasSubstr("<5>2 QORAgent qor/agent/main serve: listening on "));
    EXPECT_THAT(lines, Not(HasSubstr("+0000 2 QORAgent")));
}

}  // namespace
}  // namespace QOR
