// What a real agent does with settings that are changed while it runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "agent/settings/SettingTable.h"
#include "agent/settings/SettingsFile.h"
#include "support/ChildProcess.h"
#include "support/HttpClient.h"
#include "support/TemporaryDirectory.h"
#include "support/TestCertificates.h"

namespace QOR {
namespace {

using test::ChildProcess;
using test::HttpClient;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

/// An agent that is told everything by a file.
class AgentReloadTest : public ::testing::Test {
protected:
    using Values = std::map<std::string, std::string>;

    /// What it begins with.
    virtual Values first() const { return {}; }
    void SetUp() override {
        write(first());
        m_agent = std::make_unique<ChildProcess>(std::vector<std::string>{
            (test::programDirectory() / "qor-agent").string(), "--settings", m_folder.file("agent.toml")});
        ASSERT_TRUE(m_agent->waitForLine("qor-agent listening on ")) << m_agent->output();
    }
    void TearDown() override {
        m_agent->signal(SIGTERM);
        EXPECT_EQ(m_agent->wait(), 0) << m_agent->output();
    }

    /// The agent's own places, and in place of them or besides what is given, as TOML.
    void write(Values values) const {
        values.insert({{"socket", settingsFileText(m_folder.file("agent.sock"))},
                       {"database", settingsFileText(m_folder.file("agent.db"))},
                       {"log-file", settingsFileText(m_folder.file("agent.log"))}});
        std::ofstream file(m_folder.file("agent.toml"));
        for (const auto& [name, value] : values)
            file << name << " = " << value << '\n';
    }
    std::string contentsOf(const std::string& name) const {
        std::ifstream file(m_folder.file(name));
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void awaitText(const std::string& name, const std::string& text) const {
        while (contentsOf(name).find(text) == std::string::npos)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    void reload() const { m_agent->signal(SIGHUP); }
    HttpClient client() const { return HttpClient(m_folder.file("agent.sock")); }
    std::string metrics() const { return client().get("/metrics").body; }

    test::TemporaryDirectory m_folder;
    std::unique_ptr<ChildProcess> m_agent;
};

/// Another value than the one that holds without any, and one that an agent can go on with.
std::string otherValue(const Setting& setting) {
    if (setting.name == "log-level") return "3";
    if (setting.name == "allow-origin") return "['https://a.example']";
    if (setting.name == "forward") return "'https://127.0.0.1:1'";
    if (setting.name == "collect") return "['machine=7s']";
    if (setting.name == "collect-libvirt") return "['qemu:///system']";
    if (setting.name == "listen") return "['unix:/nowhere/agent.sock']";
    if (setting.isFlag()) return "true";
    // A busy machine takes its time.
    if (std::holds_alternative<Setting::Seconds>(setting.place)) return "1000";
    if (setting.isNumber()) return std::to_string(setting.range.least + 1);
    return setting.placeholder == "AGE" ? "'7s'" : "'/nowhere'";
}

TEST_F(AgentReloadTest, EachSettingIsTakenUpOrNamedAsOneThatNeedsARestart) {
    std::map<std::string, std::string> values{{"audit", settingsFileText(m_folder.file("audit"))},
                                              {"log-file", settingsFileText(m_folder.file("later.log"))}};
    std::string changed;
    std::string awaiting;
    for (const Setting& setting : settingTable()) {
        // Certificates are for https; an agent that only reads keeps to no limits of logs.
        if (setting.name.starts_with("tls-") || setting.name == "read-only") continue;
        values.insert({std::string(setting.name), otherValue(setting)});
        std::string& names = setting.changes ? changed : awaiting;
        names.append(names.empty() ? "" : ", ").append(setting.name);
    }
    write(values);
    reload();
    awaitText("later.log", "the settings have been read anew; changed: " + changed + "\n");
    awaitText("later.log", "a change of " + awaiting + " needs a restart of the agent\n");
    EXPECT_THAT(metrics(),
                AllOf(HasSubstr("\nqor_http_workers{lane=\"reading\"} 2\n"),
                      HasSubstr("\nqor_http_workers{lane=\"streaming\"} 2\n"),
                      HasSubstr("\nqor_http_workers{lane=\"following\"} 2\n"), HasSubstr("\nqor_audit_lost_total 0\n"),
                      HasSubstr("\nqor_settings_reloads_total{outcome=\"done\"} 1\n")));
    awaitText("audit", "\"route\":\"/metrics\"");
}

TEST_F(AgentReloadTest, FilesThatAreWrongChangeNothing) {
    write({{"threads", "3"}, {"memory", "1"}});
    reload();
    awaitText("agent.log",
              "agent.toml:3:10: memory must lie between 65536 and 1099511627776, in plain digits; \"1\" "
              "does not; the settings stay as they were");
    EXPECT_THAT(metrics(), AllOf(HasSubstr("\nqor_http_workers{lane=\"reading\"} 16\n"),
                                 HasSubstr("\nqor_settings_reloads_total{outcome=\"done\"} 0\n"),
                                 HasSubstr("\nqor_settings_reloads_total{outcome=\"failed\"} 1\n"),
                                 HasSubstr("\nqor_settings_failing 1\n")));
    EXPECT_THAT(client().get("/v1/status").body, HasSubstr("\"settings\":\"the settings stay as they were: "));
    write({{"threads", "3"}});
    reload();
    awaitText("agent.log", "the settings have been read anew; changed: threads\n");
    EXPECT_THAT(metrics(),
                AllOf(HasSubstr("\nqor_http_workers{lane=\"reading\"} 3\n"), HasSubstr("\nqor_settings_failing 0\n")));
    EXPECT_THAT(client().get("/v1/status").body, HasSubstr("\"settings\":\"the settings hold\""));
}

TEST_F(AgentReloadTest, AFileThatCannotBeWrittenChangesNothing) {
    for (const char* const name : {"audit", "log-file"}) {
        write({{"threads", "3"}, {name, "'/nowhere/file'"}});
        reload();
        awaitText("agent.log", "\"/nowhere/file\": No such file or directory; the settings stay as they were");
        EXPECT_THAT(metrics(), HasSubstr("\nqor_http_workers{lane=\"reading\"} 16\n")) << name;
        std::filesystem::remove(m_folder.file("agent.log"));
    }
}

TEST_F(AgentReloadTest, ALimitHoldsForRequestsThatComeLater) {
    const std::string record = R"({"kind":"event","time":1,"source":"s","category":"c"})";
    EXPECT_EQ(client().post("/v1/records", record).status, 200);
    HttpClient open = client();
    EXPECT_EQ(open.post("/v1/records", record).status, 200);
    write({{"body-limit", "10"}});
    reload();
    awaitText("agent.log", "changed: body-limit\n");
    EXPECT_EQ(client().post("/v1/records", record).status, 413);
    EXPECT_EQ(open.post("/v1/records", record).status, 413);
    write({});
    reload();
    awaitText("agent.log", "changed: body-limit\n");
    while (client().post("/v1/records", record).status != 200)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

TEST_F(AgentReloadTest, WhatTheLogsKeepHoldsFromThenOn) {
    EXPECT_EQ(client().post("/v1/records", R"({"kind":"event","time":1,"source":"s","category":"c"})").status, 200);
    write({{"keep-age", "'8w'"}});
    reload();
    awaitText("agent.log", "changed: keep-age\n");
    const std::string select = R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],)"
                               R"([1741,"source"]]]})";
    while (client().message(select).find("[1739,") != std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

TEST_F(AgentReloadTest, CollectorsRunAsTheyAreTold) {
    const auto status = [this] { return client().get("/v1/status").body; };
    EXPECT_THAT(status(), HasSubstr(R"("source":"/etc/os-release and /proc","every":null,"outcome":null)"));
    write({{"collect", "['machine=1d']"}});
    reload();
    awaitText("agent.log", "changed: collect\n");
    while (status().find(R"("source":"/etc/os-release and /proc","every":86400,"outcome":"done")") == std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    write({{"collect", "['machin']"}});
    reload();
    awaitText("agent.log",
              "collect: there is no collector \"machin\" (did you mean machine or machined?); there are machine, ");
    EXPECT_THAT(status(), HasSubstr(R"("source":"/etc/os-release and /proc","every":86400,)"));
    write({});
    reload();
    awaitText("agent.log", "the settings have been read anew; changed: collect\n");
    while (status().find(R"("source":"/etc/os-release and /proc","every":null,)") == std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

class AgentReloadWithCertificatesTest : public AgentReloadTest {
protected:
    Values first() const override {
        return {{"listen", "['https://127.0.0.1:0']"},
                {"tls-certificate", settingsFileText(m_certificates.certificate("server"))},
                {"tls-key", settingsFileText(m_certificates.key("server"))}};
    }

    const test::TestCertificates m_certificates;
};

TEST_F(AgentReloadWithCertificatesTest, FilesThatTheNextStartNeedsNoMoreMayBeGone) {
    std::filesystem::remove(m_certificates.certificate("server"));
    reload();
    awaitText("agent.log", "the settings stay as they were, and the certificates stay as they were");
    write({{"threads", "3"}});
    reload();
    awaitText("agent.log", "needs a restart of the agent\n");
    EXPECT_THAT(metrics(),
                AllOf(HasSubstr("\nqor_http_workers{lane=\"reading\"} 3\n"), HasSubstr("\nqor_settings_failing 0\n")));
}

}  // namespace
}  // namespace QOR
