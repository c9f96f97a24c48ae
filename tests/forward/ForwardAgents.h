/// \file
/// Agents that send their records on to another one.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"

namespace QOR::test {

inline int portOf(const AgentProcess& agent, const std::string& scheme = "http") {
    const std::string text = "listening on " + scheme + "://127.0.0.1:";
    const std::string output = agent.output();
    return std::stoi(output.substr(output.find(text) + text.size()));
}

/// What an administrator does, through an agent. \returns its output
inline std::string ctl(const AgentProcess& agent, Words words) {
    words.insert(words.end(), {"--socket", agent.socketPath()});
    const CtlResult result = runCtl(words);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
}

/// A new identity, whose token is in a file. \returns the file
inline std::string tokenFile(const AgentProcess& agent, const std::string& name, const Words& rights,
                             const TemporaryDirectory& folder) {
    Words add{"identity", "add", name, "--kind", "token"};
    add.insert(add.end(), rights.begin(), rights.end());
    ctl(agent, add);
    const std::string file = (folder / (name + ".token")).string();
    std::ofstream(file) << ctl(agent, {"token", "create", name});
    return file;
}

/// How an agent does that sends records on.
inline std::string forwarding(const AgentProcess& agent, const std::string& member) {
    const HttpAnswer status = HttpClient(agent.socketPath()).get("/v1/status");
    return jsonAt(status.body, "forward/" + member);
}

/// A test that waits in vain ends with the program's time.
template <class Condition>
void awaitThat(Condition condition) {
    while (!condition())
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

/// Until everything that is stored has been taken. A busy machine may not tell in time what is stored.
inline void awaitSent(const AgentProcess& agent) {
    awaitThat([&] {
        const HttpAnswer status = HttpClient(agent.socketPath()).get("/v1/status");
        return jsonAt(status.body, "forward/behind") == "0" && jsonAt(status.body, "forward/away").empty();
    });
}

inline void store(const AgentProcess& agent, const std::string& lines) {
    const HttpAnswer answer = HttpClient(agent.socketPath()).post("/v1/records", lines);
    ASSERT_EQ(answer.status, 200) << answer.body;
    ASSERT_EQ(jsonAt(answer.body, "refusedCount"), "0") << answer.body;
}

/// Rows of a view, in order.
inline std::string rowsOf(const AgentProcess& agent, const std::string& view, const std::string& columns,
                          const std::string& more = {}) {
    const HttpAnswer rows =
        HttpClient(agent.socketPath())
            .get("/v1/views/" + view + "/rows?limit=10000&fields=" + columns + "&sort=" + columns + more);
    EXPECT_EQ(rows.status, 200) << rows.body;
    return jsonAt(rows.body, "rows");
}

}  // namespace QOR::test
