// What the agent can be told: in files, by the environment, on its command line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "QORCommon/QORException.h"
#include "agent/settings/SettingTable.h"
#include "agent/settings/SettingsFile.h"
#include "agent/settings/SettingsManual.h"
#include "agent/settings/SettingsSources.h"
#include "agent/settings/SettingsText.h"
#include "host/QORManualText.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace QOR {
namespace {

using test::runProgram;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const Setting& settingOf(std::string_view name) {
    const Setting* const setting = findSetting(name);
    if (setting == nullptr) throw std::runtime_error("there is no setting " + std::string(name));
    return *setting;
}

/// A value that nobody gives without wanting it.
std::vector<std::string> unusualTexts(const Setting& setting) {
    if (setting.isFlag()) return {"true"};
    if (setting.isNumber()) return {std::to_string(setting.range.least + 1)};
    if (setting.name == "collect-libvirt") return {"qemu:///system", "test:///a b.xml"};
    if (setting.check != nullptr) return {"https://a.example", "https://b.example:8443"};
    if (setting.isList()) return {"unix:/a \"b\" c", "unix:/d\\e"};
    return {setting.placeholder == "AGE" ? std::string("7s") : "it's \"" + std::string(setting.name) + "\""};
}

class SettingsTest : public ::testing::Test {
protected:
    std::filesystem::path write(const std::string& name, const std::string& text) const {
        const std::filesystem::path file = m_folder / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text;
        ::chmod(file.c_str(), 0644);
        return file;
    }
    std::string mistakesIn(const std::string& text) const {
        try {
            readSettingsFile(write("agent.toml", text));
        } catch (const QORException& exception) {
            return exception.message();
        }
        return {};
    }
    /// What a mistake in that file begins with.
    std::string at(const std::string& place) const { return (m_folder / "agent.toml").string() + ":" + place + ": "; }

    /// The lines that are read, of what the agent prints with these arguments.
    static std::string printed(std::vector<std::string> arguments) {
        std::vector<std::string> command{(test::programDirectory() / "qor-agent").string(), "--print-settings"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        std::istringstream output(runProgram(command).second);
        std::string lines;
        for (std::string line; std::getline(output, line);)
            if (!line.empty() && line.front() != '#') lines += line + "\n";
        return lines;
    }

    test::TemporaryDirectory m_folder;
};

TEST_F(SettingsTest, NamesAreDifferentAndGroupsStandTogether) {
    std::set<std::string_view> names;
    std::set<std::string_view> groups;
    std::string_view group;
    for (const Setting& setting : settingTable()) {
        EXPECT_TRUE(names.insert(setting.name).second) << setting.name;
        EXPECT_TRUE(setting.group == group || groups.insert(setting.group).second) << setting.group;
        group = setting.group;
        EXPECT_TRUE(setting.needs.empty() || findSetting(setting.needs) != nullptr) << setting.name;
    }
}

TEST_F(SettingsTest, EachIsReadFromAFileAndReadsBackAsPrinted) {
    GivenSettings given;
    for (const Setting& setting : settingTable())
        given.give(setting, {unusualTexts(setting), "here", std::string(setting.name)});
    const GivenSettings read = readSettingsFile(write("agent.toml", settingsAsFile(given)));
    const AgentSettings settings = read.settings();
    const AgentSettings standard;
    for (const Setting& setting : settingTable()) {
        EXPECT_EQ(setting.texts(settings), unusualTexts(setting)) << setting.name;
        EXPECT_NE(setting.texts(standard), unusualTexts(setting)) << setting.name;
    }
}

TEST_F(SettingsTest, WhatNobodyGaveIsPrintedAsACommentWithItsDefault) {
    const std::string text = settingsAsFile({});
    EXPECT_THAT(text, HasSubstr("\n# requests that are answered at once (1 to 1024). Default: 16.\n#threads = 16\n"));
    EXPECT_THAT(text, HasSubstr("\n#listen = []\n"));
    for (const Setting& setting : settingTable())
        EXPECT_THAT(text, HasSubstr("\n#" + std::string(setting.name) + " = ")) << setting.name;
    EXPECT_TRUE(mistakesIn(text).empty());
}

TEST_F(SettingsTest, PasswordsAreNotPrinted) {
    GivenSettings given;
    given.give(settingOf("database"), {{"Driver=d;PWD=hunter2;Port=1"}, "here", "database"});
    EXPECT_THAT(settingsAsFile(given), Not(HasSubstr("hunter2")));
}

TEST_F(SettingsTest, MistakesAreNamedByLineAndColumnInTheirOrder) {
    EXPECT_EQ(mistakesIn("threads = 0\nlistn = []\n  deadline = \"soon\"\n[limits]\nmemory = 1\n"),
              at("1:11") + "threads must lie between 1 and 1024, in plain digits; \"0\" does not\n" +  //
                  at("2:1") + "there is no setting \"listn\" (did you mean listen?)\n" +               //
                  at("3:14") + "deadline is a number, from 1 to 86400\n" +                             //
                  at("4:2") + "there is no setting \"limits\"");
}

TEST_F(SettingsTest, ValuesOfOtherTypesAreRefused) {
    EXPECT_EQ(mistakesIn("read-only = 1"), at("1:13") + "read-only is true or false");
    EXPECT_EQ(mistakesIn("listen = 'unix:/a'"), at("1:10") + "listen is a list of texts: listen = [\"...\"]");
    EXPECT_EQ(mistakesIn("listen = ['unix:/a', 2]"), at("1:10") + "listen is a list of texts: listen = [\"...\"]");
    EXPECT_EQ(mistakesIn("audit = true"), at("1:9") + "audit is a text, in quotes");
    EXPECT_EQ(mistakesIn("threads = 1.0"), at("1:11") + "threads is a number, from 1 to 1024");
    EXPECT_EQ(mistakesIn("threads = -1"),
              at("1:11") + "threads must lie between 1 and 1024, in plain digits; \"-1\" does not");
    EXPECT_EQ(mistakesIn("keep-age = '1y'"), at("1:12") + "keep-age: \"1y\" is no age (90s, 45m, 12h, 30d, 8w)");
    EXPECT_THAT(mistakesIn("allow-origin = ['*']"), StartsWith(at("1:16") + "\"*\" is no origin"));
}

TEST_F(SettingsTest, WhatIsNoTomlIsRefusedByLineAndColumn) {
    EXPECT_THAT(mistakesIn("threads = 1\nthreads = 2"), StartsWith(at("2:11")));
    EXPECT_THAT(mistakesIn("threads 1"), StartsWith(at("1:9")));
    EXPECT_THAT(mistakesIn("log-file = \"\xff\""), StartsWith(at("1:12")));
    EXPECT_THAT(mistakesIn("listen = " + std::string(100'000, '[')), HasSubstr("depth"));
}

TEST_F(SettingsTest, AFileThatOthersMayWriteIsRefused) {
    const std::filesystem::path file = write("agent.toml", "threads = 1");
    ::chmod(file.c_str(), 0666);
    EXPECT_THROW(readSettingsFile(file), QORException);
    EXPECT_THROW(readSettingsFile(m_folder.path()), QORException) << "a folder";
    EXPECT_THROW(readSettingsFile("/dev/zero"), QORException) << "which has no end";
    EXPECT_THROW(readSettingsFile(m_folder / "none"), QORException);
    EXPECT_THAT(mistakesIn(std::string(2 << 20, '\n')), HasSubstr("larger than 1 MiB"));
}

TEST_F(SettingsTest, FragmentsFollowInTheOrderOfTheirNamesAndReplaceWholeLists) {
    const auto main = write("agent.toml", "threads = 1\nwaiting = 1\nlisten = ['unix:/a', 'unix:/b']\n");
    write("conf.d/20-b.toml", "waiting = 3\nlisten = ['unix:/c']\n");
    write("conf.d/10-a.toml", "waiting = 2\nstreams = 2\n");
    write("conf.d/30.toml.bak", "waiting = 4\n");
    write("conf.d/.40.toml", "waiting = 5\n");
    SettingsSources sources(main, {});
    const GivenSettings given = sources.read();
    const AgentSettings settings = given.settings();
    EXPECT_EQ(settings.server.threads, 1U);
    EXPECT_EQ(settings.server.waiting, 3U);
    EXPECT_EQ(settings.server.streams, 2U);
    EXPECT_EQ(settings.listen, std::vector<std::string>{"unix:/c"});
    EXPECT_EQ(sources.files().size(), 3U);
    EXPECT_EQ(given.find(settingOf("waiting"))->where, (m_folder / "conf.d/20-b.toml").string() + ":1:11");
}

TEST_F(SettingsTest, TheEnvironmentGoesBeforeFilesAndTheCommandLineBeforeBoth) {
    const auto file = write("agent.toml", "tls-key = '/file'\ntls-certificate = '/file'\ntls-client-ca = '/file'\n");
    GivenSettings line;
    line.give(settingOf("tls-certificate"), {{"/line"}, "the command line", "--tls-certificate"});
    ::setenv("QOR_TLS_KEY", "/variable", 1);
    ::setenv("QOR_TLS_CERTIFICATE", "/variable", 1);
    const AgentSettings settings = SettingsSources(file, line).read().settings();
    ::unsetenv("QOR_TLS_KEY");
    ::unsetenv("QOR_TLS_CERTIFICATE");
    EXPECT_EQ(settings.tls.key, "/variable");
    EXPECT_EQ(settings.tls.certificate, "/line");
    EXPECT_EQ(settings.tls.clientAuthority, "/file");
}

TEST_F(SettingsTest, ASettingWithoutTheOneThatItNeedsIsRefused) {
    const auto file = write("agent.toml", "forward-wait = 5\n");
    try {
        static_cast<void>(SettingsSources(file, {}).read().settings());
        FAIL();
    } catch (const QORException& exception) {
        EXPECT_EQ(exception.message(), at("1:16") + "forward-wait requires forward");
    }
    write("conf.d/later.toml", "forward = 'https://127.0.0.1:1'\n");
    EXPECT_EQ(SettingsSources(file, {}).read().settings().forwarding.longestPause, std::chrono::seconds(5));
}

TEST_F(SettingsTest, TheAgentPrintsWhatHoldsAndWhereItComesFrom) {
    const std::string file = write("agent.toml", "threads = 3\nread-only = true\nlisten = ['unix:/a']\n").string();
    write("conf.d/1.toml", "waiting = 9\n");
    EXPECT_EQ(printed({"--settings", file, "--listen", "unix:/b", "--listen", "unix:/c", "--read-only=false"}),
              "read-only = false  # the command line\n"
              "listen = ['unix:/b', 'unix:/c']  # the command line\n"
              "threads = 3  # " +
                  file + ":1:11\nwaiting = 9  # " + (m_folder / "conf.d/1.toml").string() + ":1:11\n");
}

TEST_F(SettingsTest, AnAgentWithWrongSettingsSaysSoAndEndsAsWithWrongOptions) {
    const std::string program = (test::programDirectory() / "qor-agent").string();
    const std::string file = write("agent.toml", "thread = 3\n").string();
    for (const char* const wish : {"--check-config", "--print-settings", "--read-only"}) {
        const auto [status, output] = runProgram({program, "--settings", file, wish});
        EXPECT_EQ(status, 2) << output;
        EXPECT_EQ(output, file + ":1:1: there is no setting \"thread\" (did you mean threads?)\n");
    }
    const auto [status, output] = runProgram({program, "--settings", (m_folder / "none.toml").string()});
    EXPECT_EQ(status, 2);
    EXPECT_THAT(output, HasSubstr("none.toml"));
}

TEST_F(SettingsTest, EachIsAnOptionWithItsMeaning) {
    const std::string help = runProgram({(test::programDirectory() / "qor-agent").string(), "--help"}).second;
    for (const Setting& setting : settingTable()) {
        EXPECT_THAT(help, HasSubstr("\n  --" + std::string(setting.name) + " ")) << setting.name;
        EXPECT_THAT(help, HasSubstr(std::string(setting.meaning))) << setting.name;
    }
}

TEST_F(SettingsTest, BothManualsNameEachWithWhatThePageSaysOfIt) {
    const std::string agent = agentManual("1.0");
    const std::string file = settingsManual("1.0");
    for (const Setting& setting : settingTable()) {
        const std::string form = manualText("--" + std::string(setting.name)) + (setting.isFlag() ? "\n" : " ");
        EXPECT_THAT(agent, HasSubstr("\n.B " + form)) << setting.name;
        EXPECT_THAT(agent, HasSubstr("\n.SS " + manualText(setting.group) + "\n")) << setting.group;
        const std::string said = std::string(setting.meaning) + ". Values: " + valuesOf(setting) + ".\n";
        std::string entry = manualEntry(setting.name, said);
        entry.resize(entry.size() - 2);  // there it goes on
        EXPECT_THAT(file, HasSubstr(entry)) << setting.name;
        EXPECT_EQ(setting.variable.empty(), agent.find("\n.B " + std::string(setting.variable) + "\n") == agent.npos);
    }
    for (const char* const wish : {"\\-h, \\-\\-help", "\\-\\-settings FILE", "\\-\\-check\\-config"})
        EXPECT_THAT(agent, HasSubstr(std::string("\n.B ") + wish + "\n"));
}

TEST_F(SettingsTest, ManualsAndThePackagesFileSayDefaultsInWordsThatHoldOnEveryMachine) {
    const std::string agent = agentManual("1.0");
    EXPECT_THAT(agent, HasSubstr(", by default agent.db in the state folder\n"));
    EXPECT_THAT(agent, HasSubstr(", by default lib/qor/plugins beside the agent's bin\n"));
    EXPECT_THAT(settingsManual("1.0"), HasSubstr(" Default: agent.db in the state folder."));
    EXPECT_THAT(settingsAsFile({}, Defaults::InWords), HasSubstr(". Default: agent.db in the state folder. "));
}

TEST_F(SettingsTest, TheManualsExampleIsAFileOfSettings) {
    const std::string page = settingsManual("1.0");
    const std::string begin = ".SH EXAMPLE\n.nf\n";
    const std::size_t from = page.find(begin) + begin.size();
    std::string example = page.substr(from, page.find(".fi\n", from) - from);
    std::erase(example, '\\');
    EXPECT_EQ(mistakesIn(example), "");
}

TEST_F(SettingsTest, ThePageHasTheTableThatTheProgramPrints) {
    std::ifstream page(std::string(QOR_PROJECT_DIR) + "/docs/operations.md");
    const std::string text{std::istreambuf_iterator<char>(page), {}};
    EXPECT_THAT(text, HasSubstr("<!-- made by: qor-agent --print-settings-table -->\n\n" + settingsAsTable() +
                                "\n<!-- end -->\n"));
}

}  // namespace
}  // namespace QOR
