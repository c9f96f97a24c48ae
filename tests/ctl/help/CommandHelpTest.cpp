// The help of commands.
#include <sstream>

#include "ctl/CtlProcess.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;

std::string helpOf(const Words& arguments) {
    const CtlResult result = runCtl(arguments);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    return result.out;
}

TEST(CommandHelp, OfACommandIsAskedForEitherWay) {
    EXPECT_EQ(helpOf({"help"}), helpOf({"--help"}));
    EXPECT_EQ(helpOf({"help", "log"}), helpOf({"log", "--help"}));
    EXPECT_EQ(helpOf({"help", "token", "create"}), helpOf({"token", "create", "--help"}));
    const CtlResult unknown = runCtl({"help", "slect"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_THAT(unknown.err, HasSubstr("did you mean select?"));
}

TEST(CommandHelp, HasThreeExamplesOfEachCommandThatAsks) {
    for (const char* command : {"select",
                                "rows",
                                "log",
                                "events",
                                "backups",
                                "envs",
                                "timeline",
                                "explain",
                                "request",
                                "views",
                                "fields",
                                "status",
                                "check",
                                "prune",
                                "import",
                                "sample",
                                "collect",
                                "copy",
                                "filter",
                                "doctor",
                                "export",
                                "identity add",
                                "identity list",
                                "identity show",
                                "identity remove",
                                "token create",
                                "token list",
                                "token revoke",
                                "context set",
                                "context use",
                                "context list",
                                "context show",
                                "context remove",
                                "database shard",
                                "self-check security",
                                "plugin check",
                                "completion"}) {
        Words words{"help"};
        std::istringstream parts(command);
        for (std::string part; parts >> part;)
            words.push_back(part);
        const std::string help = helpOf(words);
        EXPECT_THAT(help,
                    testing::ContainsRegex(std::string("Examples:\n(  qorctl ") + command + "[^\n]*\n)(  qorctl " +
                                           command + "[^\n]*\n)(  qorctl " + command + "[^\n]*\n)"));
    }
}

TEST(CommandHelp, FitsTheTerminal) {
    CtlProcess process({"/usr/bin/script", "-qec", "stty cols 72; " + ctlProgram() + " help select", "/dev/null"});
    const CtlResult result = process.finish();
    EXPECT_EQ(result.status, 0) << result.out;
    std::istringstream lines(result.out);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_LE(line.size(), 73U) << line;  // with the carriage return
    EXPECT_GT(count, 40);
}

}  // namespace
}  // namespace QOR::test
