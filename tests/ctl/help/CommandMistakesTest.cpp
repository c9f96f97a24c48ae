// What qorctl says to people who mistyped something.
#include <string>
#include <vector>

#include "ctl/BothWays.h"

namespace QOR::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class Mistakes : public BothWays {
protected:
    void SetUp() override {
        begin();
        ASSERT_EQ(run({"import"}, R"({"kind":"event","time":"2024-01-02 10:00:00","source":"cpu"})").status, 0);
    }

    /// What is told, with the exit status in front.
    std::string refusalOf(const Words& arguments) const {
        const CtlResult result = run(arguments);
        EXPECT_EQ(result.out, "");
        return std::to_string(result.status) + " " + result.err;
    }
};
INSTANTIATE_TEST_SUITE_P(Ctl, Mistakes, bothWays, nameOfWay);

TEST_P(Mistakes, InNamesOfViewsColumnsAndFieldsAreAnsweredByTheNearest) {
    EXPECT_EQ(refusalOf({"select", "vOpLg", "-f", "op"}),
              "1 qorctl: error 1: invalid view \"vOpLg\"\ndid you mean vOpLog?\n");
    EXPECT_THAT(refusalOf({"select", "vOpLog", "-f", "statsu"}), EndsWith("\ndid you mean status?\n"));
    EXPECT_EQ(refusalOf({"views", "vOpLg"}), "1 qorctl: there is no view \"vOpLg\"\ndid you mean vOpLog?\n");
    EXPECT_EQ(refusalOf({"views", "x"}),
              "1 qorctl: there is no view \"x\"\nthere are vBackupInfo, vEnvironment, vEventLog and vOpLog\n");
    EXPECT_THAT(refusalOf({"rows", "-f", "pager.op_log.statsu"}), EndsWith("\ndid you mean pager.op_log.status?\n"));
    EXPECT_THAT(refusalOf({"rows", "-f", "pager.op_log.status", "--sort", "pager.op_log.tme"}),
                EndsWith("\ndid you mean pager.op_log.time?\n"));
}

TEST_P(Mistakes, ThatResembleNothingAreAnsweredByWhatThereIs) {
    EXPECT_THAT(refusalOf({"select", "vOpLog", "-f", "zzzzzzz"}), HasSubstr("\nthere are "));
    EXPECT_THAT(refusalOf({"select", "vEnvironment", "-f", "zzzzzzz"}),
                EndsWith("\nqorctl views vEnvironment lists its columns\n"));
    EXPECT_THAT(refusalOf({"operations"}), HasSubstr("\nit is qorctl log\n"));
    EXPECT_THAT(refusalOf({"timeline", "--follow"}), HasSubstr("\nthat is an option of log, events"));
}

TEST_P(Mistakes, InConditionsAreShownAtTheirPlace) {
    EXPECT_THAT(refusalOf({"select", "vOpLog", "-f", "op", "--where", "op = install"}),
                EndsWith("  op = install\n       ^\na text stands in single quotes: 'install'\n"));
    EXPECT_THAT(refusalOf({"select", "vOpLog", "-f", "op", "--where", "op = 'x' and status = 'ok'"}),
                EndsWith("  op = 'x' and status = 'ok'\n                        ^\n"));
    EXPECT_THAT(refusalOf({"select", "vOpLog", "-f", "op", "--where", "time > '2024-05-32'"}),
                HasSubstr("  time > '2024-05-32'\n         ^"));
    EXPECT_THAT(refusalOf({"select", "vOpLog", "-f", "op", "--where", "time > '2024-5-1'"}),
                EndsWith("\na time is written '2024-05-01' or '2024-05-01 10:15:00'\n"));
    EXPECT_THAT(refusalOf({"select", "vOpLog", "-f", "op", "--where", "time between '2024-5-1' and now()"}),
                EndsWith("\na time is written '2024-05-01' or '2024-05-01 10:15:00'\n"));
    EXPECT_THAT(refusalOf({"rows", "-f", "pager.op_log.status", "--where", "pager.op_log.statsu = 1"}),
                EndsWith("  ^\ndid you mean pager.op_log.status\n"));
    EXPECT_THAT(refusalOf({"rows", "-f", "pager.op_log.status", "--where", "pager.op_log.op = install"}),
                EndsWith("^\na text stands in quotes: 'install'\n"));
    EXPECT_THAT(refusalOf({"rows", "-f", "pager.op_log.status", "--where", "pager.op_log.time > 2024-01-01"}),
                EndsWith("\na time is written '2024-01-01' or '2024-01-01 10:15:00'\n"));
}

TEST_P(Mistakes, InShortNamesAreAnsweredByShortNames) {
    EXPECT_THAT(refusalOf({"rows", "operations", "-f", "statsu"}), EndsWith("\ndid you mean status?\n"));
    EXPECT_THAT(refusalOf({"rows", "operations", "-f", "title"}),
                EndsWith("\ndid you mean env.title, origin.title?\n"));
}

TEST_P(Mistakes, OfTimesFromNowInAFilterAreAnsweredByTheOptionsThatTakeThem) {
    for (const auto& [where, option] :
         std::vector<std::pair<std::string, std::string>>{{"time > -1000d", "--since=-1000d"},
                                                          {"time > 'yesterday'", "--since=yesterday"},
                                                          {"time > 'now - 7d'", "--since=\"now - 7d\""}})
        EXPECT_THAT(refusalOf({"rows", "operations", "--where", where}),
                    HasSubstr("the filter of rows tells no time from now; " + option + " and --until do\n"));
}

TEST_P(Mistakes, OfDirectionAndBracketAreKnown) {
    EXPECT_THAT(refusalOf({"select", "vOpLog", "-f", "op", "--sort", "time", "desc"}), EndsWith("--sort=-time\n"));
    EXPECT_THAT(refusalOf({"select", "vOpLog", "-f", "count(op"}), EndsWith("the bracket is not closed: count(op)\n"));
}

const std::string help = "\nqorctl --help and qorctl COMMAND --help say what there is.\n";

std::string refusalOf(const Words& arguments) {
    const CtlResult result = runCtl(arguments);
    EXPECT_EQ(result.status, 2);
    return result.err;
}

TEST(CommandLine, NamesWhatACommandOrAnOptionWasMeantToBe) {
    EXPECT_EQ(refusalOf({"selct"}), "qorctl: there is no command \"selct\"\ndid you mean select?" + help);
    EXPECT_THAT(refusalOf({"qwertz"}), StartsWith("qorctl: there is no command \"qwertz\"\nthere are select, "));
    EXPECT_EQ(refusalOf({"identity", "ad"}), "qorctl: there is no command \"identity ad\"\ndid you mean add?" + help);
    EXPECT_EQ(refusalOf({"identity"}), "qorctl: identity needs one of its commands: add, list, show, remove" + help);
    EXPECT_EQ(refusalOf({"select", "vOpLog", "-f", "op", "--limt", "3"}),
              "qorctl: select has no option \"--limt\"\ndid you mean --limit?" + help);
    EXPECT_EQ(refusalOf({"select", "vOpLog", "-f", "op", "--limt=3"}),
              "qorctl: select has no option \"--limt\"\ndid you mean --limit?" + help);
    EXPECT_EQ(refusalOf({"select", "--limt=3"}),
              "qorctl: select has no option \"--limt\"\ndid you mean --limit?" + help);
    EXPECT_EQ(refusalOf({"status", "now", "please"}), "qorctl: status does not take \"now\"" + help);
    EXPECT_THAT(refusalOf({"select", "vOpLog", "-f", "op", "-o", "jsno"}), HasSubstr("\ndid you mean json?"));
}

TEST(CommandLine, TellsWhatStandsInFrontOfACommandByWhereItBelongs) {
    EXPECT_EQ(refusalOf({"--limit", "5", "select", "vOpLog"}),
              "qorctl: \"--limit\" is an option of select and goes behind it" + help);
    EXPECT_EQ(refusalOf({"--limit", "5", "select"}),
              "qorctl: \"--limit\" is an option of select and goes behind it" + help);
    EXPECT_EQ(refusalOf({"-f", "op", "select", "vOpLog"}),
              "qorctl: \"-f\" is an option of select and goes behind it" + help);
    EXPECT_EQ(refusalOf({"--sockt", "x", "status"}),
              "qorctl: there is no option \"--sockt\"\ndid you mean --socket?" + help);
    EXPECT_EQ(refusalOf({"--limt", "5", "select", "vOpLog"}),
              "qorctl: there is no option \"--limt\"\ndid you mean --limit?" + help);
    EXPECT_EQ(refusalOf({"--limit", "5"}), "qorctl: there is no option \"--limit\"" + help);
    EXPECT_EQ(refusalOf({"databas", "shard"}),
              "qorctl: there is no command \"databas\"\ndid you mean database?" + help);
    EXPECT_EQ(refusalOf({"identity", "--kind", "token", "add"}),
              "qorctl: \"--kind\" is an option of add and goes behind it" + help);
}

}  // namespace
}  // namespace QOR::test
