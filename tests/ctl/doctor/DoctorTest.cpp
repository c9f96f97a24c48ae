// qorctl doctor: what it finds, and what it says to do.
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "ctl/BothWays.h"

namespace QOR::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// The row of a subject, the other lines without it.
std::string rowOf(const std::string& subject, const std::string& rows) {
    std::istringstream lines(rows);
    for (std::string line; std::getline(lines, line);)
        if (line.find("\t" + subject + "\t") != std::string::npos) return line;
    return "no row of " + subject + " in:\n" + rows;
}

class Doctor : public BothWays {
protected:
    void SetUp() override { begin(); }
    CtlResult ask(Words more = {}) const {
        more.insert(more.begin(), {"doctor", "-o", "tsv"});
        return run(more);
    }
};
INSTANTIATE_TEST_SUITE_P(Ctl, Doctor, bothWays, nameOfWay);

TEST_P(Doctor, FindsNothingWhereAllIsWell) {
    if (!m_agent) runCtl(where({"sample", "--events", "1", "-q"}));
    const CtlResult result = ask();
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, StartsWith("state\twhat\tfound\tto do\n"));
    if (m_agent) {
        EXPECT_THAT(rowOf("agent", result.out), AllOf(StartsWith("ok\t"), HasSubstr("version ")));
    }
    EXPECT_THAT(rowOf("database", result.out),
                StartsWith("ok\tdatabase\t" + oneOf("SQLite", "PostgreSQL") + ", schema "));
    EXPECT_THAT(rowOf("environments", result.out), StartsWith("ok\t"));
    EXPECT_THAT(rowOf("settings", result.out), StartsWith("ok\t"));
    EXPECT_THAT(rowOf("drivers", result.out), AllOf(StartsWith("ok\t"), HasSubstr("SQLite3")));
    EXPECT_THAT(rowOf("plug-ins", result.out), StartsWith("ok\tplug-ins\tlibQORPager"));
    if (testEngine() == ASEngine::SQLite) {
        EXPECT_THAT(rowOf("disk", result.out), HasSubstr(" GiB are free at " + file().string()));
    } else {
        EXPECT_THAT(result.out, Not(HasSubstr("\tdisk\t"))) << "a server's is its own matter";
    }
    EXPECT_THAT(rowOf("clock", result.out), HasSubstr("right"));
}

TEST_P(Doctor, SaysWhatToDoAboutDocumentsThatCannotBeRead) {
    if (!m_agent) runCtl(where({"sample", "--events", "1", "-q"}));
    direct().run("INSERT INTO qor_unreadable_document VALUES ('qor_backup', 'info', 1)");
    const CtlResult result = ask();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(rowOf("database", result.out),
                AllOf(StartsWith("FAULT\tdatabase\t1 documents cannot be read\t"), HasSubstr("qorctl check --mend")));
    EXPECT_THAT(result.err, AllOf(StartsWith("qorctl: 1 of "), HasSubstr(" checks found a fault\n")));
}

TEST_P(Doctor, ADatabaseThatTheAgentHasLostIsAFaultAndNoMatterOfRights) {
    QOR_ONLY_ON(ASEngine::SQLite);
    if (!m_agent) GTEST_SKIP() << "is about an agent";
    std::filesystem::rename(file(), m_directory / "away.db");
    const CtlResult result = ask();
    std::filesystem::rename(m_directory / "away.db", file());
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(rowOf("agent", result.out), StartsWith("ok\tagent\tanswers"));
    EXPECT_THAT(rowOf("database", result.out), AllOf(StartsWith("FAULT\t"), HasSubstr("its file is gone")));
    EXPECT_THAT(result.out, Not(HasSubstr("full access")));
}

TEST_P(Doctor, AFolderThatTheAskerMayNotEnterIsNoReasonToFail) {
    QOR_ONLY_ON(ASEngine::SQLite);
    if (!m_agent) GTEST_SKIP() << "is about an agent";
    if (::geteuid() != 0) GTEST_SKIP() << "only root's agent may enter it all the same";
    const std::filesystem::path folder = file().parent_path();
    std::filesystem::permissions(folder, std::filesystem::perms::none);
    const CtlResult result = CtlProcess({"/usr/bin/setpriv", "--bounding-set=-dac_override,-dac_read_search",
                                         ctlProgram(), "doctor", "-o", "tsv", "--socket", m_agent->socketPath()})
                                 .finish();
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(rowOf("disk", result.out), HasSubstr(" GiB are free at " + folder.string() + "\t"));
}

TEST(DoctorAlone, AnAgentThatIsAwayIsAFaultAndTheMachineIsLookedAtAllTheSame) {
    const CtlResult result = runCtl({"doctor", "-o", "tsv", "--socket", "/nowhere/agent.sock"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(rowOf("agent", result.out),
                AllOf(StartsWith("FAULT\t"), HasSubstr("/nowhere/agent.sock"), HasSubstr("systemctl start qor-agent")));
    EXPECT_THAT(rowOf("drivers", result.out), StartsWith("ok\t"));
}

TEST(DoctorAlone, AnAgentThatHangsIsAFault) {
    const AgentProcess agent;
    ::kill(agent.pid(), SIGSTOP);
    const CtlResult result = runCtl({"doctor", "--timeout", "1s", "--socket", agent.socketPath(), "-o", "tsv"});
    ::kill(agent.pid(), SIGCONT);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(rowOf("agent", result.out), AllOf(StartsWith("FAULT\t"), HasSubstr("no answer has come within 1 s")));
}

TEST(DoctorAlone, ADatabaseThatIsNotThereIsAFaultAndIsNotMade) {
    const TemporaryDirectory folder;
    const std::string file = (folder / "a.db").string();
    const CtlResult result = runCtl({"doctor", "-o", "tsv", "--standalone", "--database", file});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(rowOf("database", result.out), AllOf(StartsWith("FAULT\t"), HasSubstr(file)));
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(DoctorAlone, SettingsThatTheAgentWouldRefuseAreNamed) {
    const CtlResult result = CtlProcess({"env", "QOR_FORWARD_TOKEN=/nowhere/token", "QOR_TLS_KEY=/nowhere/key",
                                         ctlProgram(), "doctor", "-o", "tsv", "--socket", "/nowhere/agent.sock"})
                                 .finish();
    EXPECT_THAT(rowOf("settings", result.out), AllOf(StartsWith("FAULT\t"), HasSubstr("qor-agent --check-config")));
}

TEST(DoctorAlone, AFolderWithoutPlugInsIsAFault) {
    const TemporaryDirectory folder;
    const CtlResult result = runCtl({"doctor", "-o", "tsv", "--standalone", "--database", (folder / "a.db").string(),
                                     "--plugins", folder.path().string()});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(rowOf("plug-ins", result.out),
                StartsWith("FAULT\tplug-ins\tthere is none in " + folder.path().string()));
}

}  // namespace
}  // namespace QOR::test
