// A vocabulary file on the agent's command line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/AgentProcess.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

class CheckConfigTest : public ::testing::Test {
protected:
    std::string write(const std::string& text) {
        const auto file = m_folder / "vocabulary.xml";
        std::ofstream(file) << text;
        return file.string();
    }
    /// \returns the exit status
    int check(const std::vector<std::string>& more) {
        std::vector<std::string> command{(programDirectory() / "qor-agent").string(), "--check-config"};
        command.insert(command.end(), more.begin(), more.end());
        ChildProcess agent(command);
        const int status = agent.wait();
        m_output = agent.output();
        return status;
    }

    TemporaryDirectory m_folder;
    std::string m_output;
};

TEST_F(CheckConfigTest, TheShippedVocabularyIsSound) {
    EXPECT_EQ(check({}), 0) << m_output;
    EXPECT_THAT(m_output, HasSubstr("share/qor/vocabulary.xml: no mistakes"));
}

TEST_F(CheckConfigTest, MistakesAreNamedAndEndWithFailure) {
    const std::string file = write(
        "<vocabulary>\n<category name=\"pager_fields\">\n<parameter id=\"a\"/>\n"
        "</category></vocabulary>");
    EXPECT_EQ(check({"--config", file}), 1);
    EXPECT_THAT(m_output, HasSubstr(file + ":3: \"a\" has no <source>"));
}

TEST_F(CheckConfigTest, CollectorsAreThoseThatThereAre) {
    EXPECT_EQ(check({"--collect", "dpkg=5m", "--collect", "all"}), 0) << m_output;
    EXPECT_EQ(check({"--collect", "dpgk=5m"}), 1);
    EXPECT_THAT(m_output,
                HasSubstr("collect: there is no collector \"dpgk\" (did you mean dpkg?); there are machine, "));
    EXPECT_EQ(check({"--collect", "dpkg", "--collect", "dpkg=5m"}), 1);
    EXPECT_THAT(m_output, HasSubstr("collect names \"dpkg\" twice"));
    const std::string file = m_folder.file("agent.toml");
    std::ofstream(file) << "threads = 8\ncollect = ['dpgk']\n";
    EXPECT_EQ(check({"--settings", file}), 1);
    EXPECT_THAT(m_output, HasSubstr(file + ":2:"));
    std::ofstream(file) << "collect = ['machine',\n 'dpkg=often']\n";
    EXPECT_EQ(check({"--settings", file}), 2);
    EXPECT_THAT(m_output, AllOf(HasSubstr(file + ":"), HasSubstr("\"dpkg=often\": behind '=' stands how often")));
}

TEST_F(CheckConfigTest, WhatAnAgentWouldNotStartWithIsNamedWithItsPlace) {
    const std::string file = m_folder.file("agent.toml");
    for (const auto& [setting, reason] : std::vector<std::pair<std::string, std::string>>{
             {"listen = ['x']", "\"x\" is no address of an agent"},
             {"listen = ['http://0.0.0.0:7480']", "plain http is for this machine's own programs"},
             {"forward = 'http://fleet.example'", "its port is missing"},
             {"log-file = '/nowhere/x/agent.log'", "the folder \"/nowhere/x\" does not exist"},
             {"database = '/nowhere/x/agent.db'", "the folder \"/nowhere/x\" does not exist"}}) {
        std::ofstream(file) << "threads = 8\n" << setting << "\n";
        EXPECT_EQ(check({"--settings", file}), 1) << setting;
        EXPECT_THAT(m_output, AllOf(HasSubstr(file + ":2:"), HasSubstr(reason))) << setting;
    }
    std::ofstream(file)
        << "tls-certificate = '/nowhere/c.pem'\ntls-key = '/nowhere/k.pem'\nlisten = ['https://127.0.0.1:1']\n";
    EXPECT_EQ(check({"--settings", file}), 1);
    EXPECT_THAT(m_output, AllOf(HasSubstr(file + ":1:"), HasSubstr("/nowhere/c.pem")));
    std::ofstream(file) << "listen = ['http://127.0.0.1:7481']\nforward = 'https://fleet.example:7480'\n";
    EXPECT_EQ(check({"--settings", file}), 0) << m_output;
}

TEST_F(CheckConfigTest, AnAgentDoesNotStartWithAFileThatItCannotRead) {
    const std::string file = write("<vocabulary>\n</vocabular>");
    ChildProcess agent({(programDirectory() / "qor-agent").string(), "--config", file, "--database",
                        "Driver=SQLite3;Database=" + (m_folder / "agent.db").string(), "--socket",
                        (m_folder / "agent.sock").string()});
    EXPECT_NE(agent.wait(), 0);
    EXPECT_THAT(agent.output(), HasSubstr(file + ":2: this is not XML"));
}

TEST_F(CheckConfigTest, AnAgentWorksInSpiteOfMistakesThatLeaveTheFileUsable) {
    AgentSettings settings;
    settings.more = {"--config", write("<vocabulary>\n<category name=\"pager_fields\">\n<parameter id=\"a\"/>\n"
                                       "</category></vocabulary>")};
    AgentProcess agent(settings);
    EXPECT_THAT(agent.log(), HasSubstr("has no <source>"));
}

TEST_F(CheckConfigTest, AnAnswerThatCannotBeWrittenIsNoSuccess) {
    const std::string program = (programDirectory() / "qor-agent").string();
    for (const std::string question : {"--version", "--help", "--print-settings", "--check-config"}) {
        for (const std::string output : {" >/dev/full", " >&-"}) {
            ChildProcess agent({"/bin/sh", "-c", program + " " + question + output});
            EXPECT_EQ(agent.wait(), 1) << question << output;
            EXPECT_THAT(agent.output(), HasSubstr("qor-agent: cannot write the output")) << question << output;
        }
    }
}

}  // namespace
}  // namespace QOR::test
