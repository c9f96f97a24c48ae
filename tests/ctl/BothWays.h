/// \file
/// Tests of commands that do the same over a real agent and with the host in qorctl's own process.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"
#include "support/DirectDatabase.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {

enum class Way { Agent, Standalone };

inline const auto bothWays = testing::Values(Way::Agent, Way::Standalone);

inline std::string nameOfWay(const testing::TestParamInfo<Way>& way) {
    return way.param == Way::Agent ? "Agent" : "Standalone";
}

/// qorctl pointed at a database one way or the other: INSTANTIATE_TEST_SUITE_P(Ctl, Suite, bothWays, nameOfWay).
class BothWays : public testing::TestWithParam<Way> {
protected:
    /// To be called before all else. \param more what agent and qorctl are told beside where the database is
    void begin(Words more = {}) {
        m_more = std::move(more);
        if (GetParam() != Way::Agent) return;
        AgentSettings settings;
        settings.database = database();
        settings.more = m_more;
        m_agent.emplace(std::move(settings));
    }

    std::filesystem::path file() const { return m_database.file(); }
    std::string database() const { return m_database.connectionString(); }
    DirectDatabase direct() const { return DirectDatabase(m_database); }

    /// The arguments, and behind them those that say where the database is.
    Words where(Words arguments) const {
        const Words connection =
            m_agent ? Words{"--socket", m_agent->socketPath()} : Words{"--standalone", "--database", database()};
        arguments.insert(arguments.end(), connection.begin(), connection.end());
        if (!m_agent) arguments.insert(arguments.end(), m_more.begin(), m_more.end());
        return arguments;
    }
    CtlResult run(const Words& arguments, std::string_view input = {}) const { return runCtl(where(arguments), input); }

    /// The output of a command that must succeed and have nothing else to say.
    std::string outputOf(const Words& arguments) const {
        const CtlResult result = run(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        return result.out;
    }

    TemporaryDirectory m_directory;
    TestDatabase m_database{TestTables::Own};
    std::optional<AgentProcess> m_agent;

private:
    Words m_more;
};

}  // namespace QOR::test
