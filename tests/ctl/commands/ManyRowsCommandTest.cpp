// What shows more than a million rows on a terminal asks first, with rows of real databases.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <string>
#include <string_view>

#include "ctl/CtlProcess.h"
#include "ctl/CtlTerminal.h"
#include "support/AgentProcess.h"
#include "support/LargeView.h"
#include "support/TemporaryDirectory.h"
#include "support/TestDatabase.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr int aboveMany = 1'000'001;

TerminalResult rollOver(Words command, const Words& more, std::string_view answer) {
    command.insert(command.end(), more.begin(), more.end());
    return runOnTerminal(command, 80, {"QOR_PAGER="}, answer);
}

std::string endOf(const std::string& text, std::size_t size) {
    return text.substr(text.size() - std::min(size, text.size()));
}

TEST(RowsOnATerminal, ThatAreMoreThanAMillionComeWhenThePersonWantsThem) {
    const TestDatabase database;
    makeLargeView(database.connectionString(), aboveMany, aboveMany);
    const Words select{"select", "vMany", "-f",           "id",         "--no-header",
                       "-o",     "csv",   "--standalone", "--database", database.connectionString()};
    const std::string last = std::to_string(aboveMany) + "\r";
    const TerminalResult refused = rollOver(select, {}, "n\n");
    EXPECT_EQ(refused.status, 0);
    EXPECT_THAT(refused.out, HasSubstr("[y/N] "));
    EXPECT_EQ(refused.out.find(last), std::string::npos);
    EXPECT_NE(rollOver(select, {}, "y\n").out.find(last), std::string::npos);
    EXPECT_EQ(rollOver(select, {}, "\x03").status, 130);
    for (const Words& more : {Words{"--yes"}, Words{"--limit", "1000000"}})
        EXPECT_EQ(rollOver(select, more, "n\n").out.find("[y/N]"), std::string::npos);
    const CtlResult piped = runCtl(select);
    EXPECT_EQ(piped.err, "");
    EXPECT_TRUE(piped.out.ends_with(last + "\n"));
}

TEST(RowsOnATerminal, AreAskedAboutByWhateverShowsThem) {
    const TemporaryDirectory directory;
    const AgentProcess agent;
    const Words socket{"--socket", agent.socketPath()};
    ASSERT_EQ(runCtl({"sample", "--events", std::to_string(aboveMany), socket[0], socket[1]}).status, 0);
    const auto show = [&](Words command, std::string_view answer) { return rollOver(command, socket, answer); };
    const std::string request = (directory / "request").string();
    std::ofstream(request) << R"({"operator":"pager2","request":"select","body":)"
                              R"(["select",[["view","vEventLog"],["field","id"]]]})";
    for (const Words& command : {Words{"export", "--since", "1970-01-01"}, Words{"request", request},
                                 Words{"events", "--follow", "--since", "1970-01-01", "-f", "id"}}) {
        const TerminalResult refused = show(command, "n\n");
        EXPECT_EQ(refused.status, 0) << command.front();
        EXPECT_TRUE(refused.out.ends_with("qorctl: these are 1000000 rows, and there are more; go on? [y/N] n\r\n"))
            << command.front();
        EXPECT_EQ(show(command, "\x03").status, 130) << command.front();
    }
    EXPECT_EQ(endOf(show({"request", request}, "y\n").out, 3), "}\r\n");
    EXPECT_EQ(show({"request", request, "--yes"}, "n\n").out.find("[y/N]"), std::string::npos);

    // Of a whole export the number is known before the first.
    EXPECT_EQ(show({"export"}, "n\n").out,
              "qorctl: there are 1000001 rows or more for this terminal; show them? [y/N] n\r\n");
    const std::string wanted = show({"export", "--yes"}, "n\n").out;
    EXPECT_EQ(wanted.find("[y/N]"), std::string::npos);
    const std::string_view end =
        "{\"end\":{\"counts\":{\"environments\":0,\"operations\":0,\"events\":1000001,\"backups\":0}}}\r\n";
    EXPECT_EQ(endOf(wanted, end.size()), end);
    EXPECT_EQ(wanted.find('\x1b'), std::string::npos) << "progress among the records";
    const std::string file = (directory / "file").string();
    EXPECT_THAT(show({"export", "-o", file}, "n\n").out, Not(HasSubstr("[y/N]")));
}

TEST(RowsOnATerminal, ThatAreMadeUpAreAskedAboutBeforeTheFirst) {
    const Words sample{"sample", "--events", std::to_string(aboveMany), "--output", "-"};
    EXPECT_EQ(rollOver(sample, {}, "n\n").out,
              "qorctl: there are 1000001 rows or more for this terminal; show them? [y/N] n\r\n");
    EXPECT_THAT(rollOver({"sample", "--events", "3", "--output", "-"}, {}, "n\n").out, StartsWith("{"));
}

}  // namespace
}  // namespace QOR::test
