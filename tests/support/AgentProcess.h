/// \file
/// A real qor-agent for a test, on a folder of its own. A test that uses it depends on the target qor-agent:
/// `add_dependencies(my_test qor-agent QORPager)`.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"
#include "support/TestDatabase.h"

namespace QOR::test {

/// How the agent is started; what is empty is put into its folder.
struct AgentSettings {
    std::filesystem::path program{};  ///< default: qor-agent beside the test
    std::filesystem::path plugIns{};  ///< default: the agent's own
    std::string database{};           ///< a connection string; default: agent.db in the folder, or a database of the
                                      ///< tests' other engine
    std::filesystem::path socket{};   ///< default: agent.sock in the folder
    std::vector<std::string> more{};  ///< further arguments; where none is --deadline, requests have a long one
};

/// Starts the agent and waits until it listens; stops it at the end.
class AgentProcess {
public:
    explicit AgentProcess(AgentSettings settings = {}) : m_settings(std::move(settings)) {
        if (m_settings.program.empty()) m_settings.program = programDirectory() / "qor-agent";
        if (m_settings.socket.empty()) m_settings.socket = m_directory / "agent.sock";
        if (m_settings.database.empty()) {
            if (testEngine() == ASEngine::PostgreSQL) m_postgres = std::make_unique<TestDatabase>();
            m_settings.database = connectionString();
        }
        start();
    }
    /// Stops it, unless that was done. An agent that does not end well has failed the test, whatever it answered:
    /// that is how a sanitizer tells what it has found.
    ~AgentProcess() {
        try {
            if (!isRunning()) return;
            const int status = stop();
            if (status != 0) ADD_FAILURE() << "the agent ended with status " << status << '\n' << output() << log();
        } catch (const std::exception& exception) {
            ADD_FAILURE() << exception.what();
        }
    }

    /// Starts it again on the same folder; it must have been stopped or killed.
    void start() {
        m_child = std::make_unique<ChildProcess>(command());
        if (!m_child->waitForLine("qor-agent listening on ")) {
            throw std::runtime_error("the agent does not start: " + m_child->output() + log());
        }
    }

    /// Asks it to end. \returns its exit status
    int stop() {
        m_child->signal(SIGTERM);
        return wait();
    }
    /// Takes it down without a chance to tidy up.
    void kill() {
        m_child->signal(SIGKILL);
        wait();
    }
    int wait() { return m_child->wait(); }
    bool isRunning() { return m_child && m_child->isRunning(); }
    pid_t pid() const { return m_child->pid(); }
    void signal(int number) const { m_child->signal(number); }

    const std::filesystem::path& directory() const { return m_directory.path(); }
    std::string socketPath() const { return m_settings.socket.string(); }
    /// SQLite's.
    std::filesystem::path databasePath() const { return m_directory / "agent.db"; }
    /// Of the default database, as the agent got it.
    std::string connectionString() const {
        return m_postgres ? m_postgres->connectionString() : "Driver=SQLite3;Database=" + databasePath().string();
    }
    std::string output() const { return m_child->output(); }

    /// Everything that it has logged.
    std::string log() const {
        std::ifstream file(m_directory / "agent.log");
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    std::vector<std::string> command() const {
        std::vector<std::string> command{
            m_settings.program.string(), "--socket",   m_settings.socket.string(),          "--database",
            m_settings.database,         "--log-file", (m_directory / "agent.log").string()};
        if (!m_settings.plugIns.empty()) {
            command.insert(command.end(), {"--plugins", m_settings.plugIns.string()});
        }
        const std::vector<std::string>& more = m_settings.more;
        command.insert(command.end(), more.begin(), more.end());
        // A busy machine takes long for large requests, above all under a sanitizer.
        if (std::find(more.begin(), more.end(), "--deadline") == more.end())
            command.insert(command.end(), {"--deadline", "600"});
        return command;
    }

private:
    TemporaryDirectory m_directory;
    std::unique_ptr<TestDatabase> m_postgres;
    AgentSettings m_settings;
    std::unique_ptr<ChildProcess> m_child;
};

}  // namespace QOR::test
