// How qorctl finds whom to ask: options, environment, contexts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"
#include "support/TestDatabase.h"

namespace QOR::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

std::string eventFrom(const std::string& source) {
    return R"({"kind":"event","time":"2024-01-02 12:00:00","source":")" + source + "\"}\n";
}

/// An agent and a database whose records tell which of them was asked.
class ContextCommand : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(runCtl({"import", "--socket", m_agent.socketPath()}, eventFrom("agent")).status, 0);
        ASSERT_EQ(runCtl({"import", "--standalone", "--database", m_file}, eventFrom("database")).status, 0);
    }
    /// With a home of its own and these variables.
    CtlResult run(const Words& arguments, const Words& variables = {}) const {
        Words words{"/usr/bin/env", "-u", "XDG_CONFIG_HOME", "-u",
                    "QOR_AGENT",    "-u", "QOR_TOKEN",       "HOME=" + m_home.path().string()};
        words.insert(words.end(), variables.begin(), variables.end());
        words.push_back(ctlProgram());
        words.insert(words.end(), arguments.begin(), arguments.end());
        return CtlProcess(words).finish();
    }
    void set(const Words& arguments) const {
        const CtlResult result = run(arguments);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out + result.err, "");
    }
    std::string asked(Words more = {}, const Words& variables = {}) const {
        more.insert(more.begin(), {"events", "-f", "source", "--template", "{source}"});
        const CtlResult result = run(more, variables);
        return result.status == 0 ? result.out : result.err;
    }
    std::filesystem::path config() const { return m_home / ".config/qor/config.toml"; }
    void write(const std::string& text, mode_t mode = 0600) const {
        std::filesystem::create_directories(config().parent_path());
        std::ofstream(config()) << text;
        ::chmod(config().c_str(), mode);
    }

    TemporaryDirectory m_home;
    AgentProcess m_agent;
    std::string m_file = (m_home / "own.db").string();
};

TEST_F(ContextCommand, TheCurrentContextIsAskedWhereNothingElseIsSaid) {
    set({"context", "set", "here", "--socket", m_agent.socketPath()});
    set({"context", "set", "file", "--database", m_file});
    set({"context", "use", "file"});
    EXPECT_EQ(asked(), "database\n");
    set({"context", "use", "here"});
    EXPECT_EQ(asked(), "agent\n");
    EXPECT_EQ(asked({"--context", "file"}), "database\n");
    set({"context", "remove", "here"});
    EXPECT_EQ(run({"context", "list", "-o", "csv"}).out,
              "context,current,agent,database,token,ca,certificate\r\nfile,no,," + m_file + ",,,\r\n");
}

TEST_F(ContextCommand, OptionsGoBeforeTheEnvironmentAndThatBeforeTheContext) {
    set({"context", "set", "file", "--database", m_file});
    set({"context", "use", "file"});
    const Words agent{"QOR_AGENT=" + m_agent.socketPath()};
    EXPECT_EQ(asked({}, agent), "agent\n");
    EXPECT_EQ(asked({}, {"QOR_AGENT=unix:" + m_agent.socketPath()}), "agent\n");
    EXPECT_EQ(asked({"--context", "file"}, agent), "database\n");
    EXPECT_EQ(asked({"--standalone", "--database", m_file}, agent), "database\n");
    EXPECT_EQ(asked({"--socket", m_agent.socketPath()}, {"QOR_AGENT=/no/such/agent.sock"}), "agent\n");
    EXPECT_THAT(asked({}, {"QOR_AGENT=/no/such/agent.sock"}), HasSubstr("no agent answers at /no/such/agent.sock"));
    EXPECT_THAT(asked({}, {"QOR_AGENT=nonsense"}), StartsWith("qorctl: QOR_AGENT: "));
}

TEST_F(ContextCommand, TheTokenIsTheOptionsElseTheEnvironmentsElseTheContexts) {
    ASSERT_EQ(
        runCtl({"identity", "add", "reports", "--kind", "token", "--full", "--socket", m_agent.socketPath()}).status,
        0);
    std::string token = runCtl({"token", "create", "reports", "--socket", m_agent.socketPath()}).out;
    token.pop_back();
    const std::string good = (m_home / "good").string();
    const std::string bad = (m_home / "bad").string();
    std::ofstream(good) << token << '\n';
    std::ofstream(bad) << "none\n";
    ::chmod(good.c_str(), 0600);
    ::chmod(bad.c_str(), 0600);
    write("current = \"here\"\n[context.here]\nagent = \"" + m_agent.socketPath() + "\"\ntoken = \"none\"\n");
    EXPECT_THAT(asked(), HasSubstr("error 401"));
    EXPECT_EQ(asked({}, {"QOR_TOKEN=" + token}), "agent\n");
    EXPECT_EQ(asked({"--token-file", good}, {"QOR_TOKEN=none"}), "agent\n");
    EXPECT_THAT(asked({"--token-file", bad}, {"QOR_TOKEN=" + token}), HasSubstr("error 401"));
    set({"context", "set", "here", "--socket", m_agent.socketPath(), "--token-file", good});
    EXPECT_EQ(asked(), "agent\n");
    // Of a context that is not asked nothing is shown.
    EXPECT_EQ(asked({"--socket", m_agent.socketPath()}), "agent\n");
    EXPECT_THAT(asked({}, {"QOR_TOKEN=two words"}), StartsWith("qorctl: QOR_TOKEN"));
}

TEST_F(ContextCommand, TokensThatOthersMayReadAreToldOfOrRefused) {
    const std::string context = "[context.here]\nagent = \"" + m_agent.socketPath() + "\"\n";
    write(context + "token = \"x\"\n", 0644);
    EXPECT_THAT(asked(), HasSubstr("holds a token (of \"here\") and may be read by others; chmod 600 "));
    write(context, 0644);
    EXPECT_EQ(asked({"--context", "here"}), "agent\n");
    const std::string file = (m_home / "token").string();
    std::ofstream(file) << "none\n";
    ::chmod(file.c_str(), 0644);
    EXPECT_THAT(run({"events", "--token-file", file, "--socket", m_agent.socketPath()}).err,
                HasSubstr("note: " + file + " holds a token and may be read by others"));
}

TEST_F(ContextCommand, MistakesInTheFileAreToldWithTheirPlace) {
    write("current = \"x\"\n[context.x]\nagnt = \"y\"\n");
    EXPECT_EQ(asked(),
              "qorctl: " + config().string() + ": there is no key \"agnt\" at line 3, column 1\ndid you mean agent?\n");
    write("current = \"x\n");
    EXPECT_THAT(asked(), HasSubstr(" at line 1, column "));
    write("current = 1\n");
    EXPECT_THAT(asked(), HasSubstr("\"current\" is no text at line 1, column "));
    write("[context.x]\nca = \"y\"\n");
    EXPECT_THAT(asked(), HasSubstr("a context needs either an agent or a database at line 1"));
    write("[context]\nx = 1\n");
    EXPECT_THAT(asked(), HasSubstr("a context is written [context.x]"));
    // Who says whom to ask does not need the file.
    EXPECT_EQ(asked({"--socket", m_agent.socketPath()}), "agent\n");
}

TEST_F(ContextCommand, ContextsAreCheckedAndKeptForTheirOwnerAlone) {
    EXPECT_THAT(run({"context", "use", "x"}).err, HasSubstr("there is no context \"x\"\nqorctl context set makes one"));
    set({"context", "set", "fleet", "--agent", "https://fleet.example:7480", "--ca", "/etc/ca.pem", "--certificate",
         "/etc/me.crt", "--key", "/etc/me.key"});
    EXPECT_THAT(run({"context", "use", "flet"}).err, EndsWith("\ndid you mean fleet?\n"));
    EXPECT_THAT(run({"context", "set", "x"}).err,
                HasSubstr("a context needs either --agent (or --socket) or --database"));
    EXPECT_EQ(run({"context", "set", "x", "--agent", "nonsense"}).status, 2);
    struct stat status {};
    ASSERT_EQ(::stat(config().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    EXPECT_THAT(run({"context", "show", "-o", "record"}).err, HasSubstr("no context is in use"));
    set({"context", "use", "fleet"});
    EXPECT_EQ(run({"context", "show", "-o", "csv"}).out,
              "context,current,agent,database,token,ca,certificate\r\n"
              "fleet,yes,https://fleet.example:7480,,,/etc/ca.pem,/etc/me.crt\r\n");
    EXPECT_EQ(run({"context", "set", "x", "--database", m_file, "--certificate", "c"}).status, 2);
    EXPECT_THAT(run({"context", "set", "x", "--socket", "y", "--key", "k"}).err,
                HasSubstr("--key needs --certificate"));
}

}  // namespace
}  // namespace QOR::test
