// qorctl log --follow and events --follow, against real agents that come and go.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;

std::string operation(const std::string& id, const std::string& rest = "") {
    return R"({"kind":"operation","id":")" + id + R"(","op":"install","status":0,"time":"2024-01-01 10:00:00")" + rest +
           "}\n";
}

class Follow : public testing::Test {
protected:
    void store(const std::string& lines) {
        ASSERT_EQ(runCtl({"import", "--socket", m_agent.socketPath()}, lines).status, 0);
    }
    Words command(Words words) const {
        words.insert(words.begin(), ctlProgram());
        words.insert(words.end(), {"--socket", m_agent.socketPath()});
        return words;
    }

    AgentProcess m_agent;
};

TEST_F(Follow, TellsWhatComesAsItComes) {
    store(operation("before"));
    CtlProcess follow(command({"log", "--follow", "-f", "id,time,status", "-o", "csv"}));
    EXPECT_EQ(follow.readLine(), "id,time,status\r");
    // The stream is there a moment after the names are: what comes before that is not told.
    constexpr int most = 120;
    for (int number = 0; number == 0 || (number < most && !follow.hasLineWithin(std::chrono::milliseconds(500)));
         ++number)
        store(operation("new" + std::to_string(number)));
    CtlProcess other(command({"log", "--follow", "-f", "id", "-o", "csv", "--since", "2024-01-01"}));
    EXPECT_EQ(other.readLine(), "id\r");
    EXPECT_EQ(other.readLine(), "before\r");
    EXPECT_EQ(other.readLine(), "new0\r");
    EXPECT_THAT(follow.readLine(), testing::MatchesRegex("new[0-9]+,2024-01-01T10:00:00\\+0000,0\r"));
    follow.signal(SIGINT);
    const CtlResult result = follow.finish();
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.err, "");
}

TEST_F(Follow, GoesOnWhereItWasWhenTheAgentWasAway) {
    store(operation("a"));
    CtlProcess follow(command({"log", "--follow", "--since", "2024-01-01", "-f", "id", "-o", "ndjson"}));
    EXPECT_EQ(follow.readLine(), "{\"id\":\"a\"}");
    m_agent.stop();
    m_agent.start();
    store(operation("b"));
    EXPECT_EQ(follow.readLine(), "{\"id\":\"b\"}");
    m_agent.kill();
    m_agent.start();
    store(operation("c"));
    EXPECT_EQ(follow.readLine(), "{\"id\":\"c\"}");
    follow.signal(SIGINT);
    EXPECT_THAT(follow.finish().err, HasSubstr("going on when it is back"));
}

TEST_F(Follow, GoesOnBehindWhatItsFileSaysWasShown) {
    const TemporaryDirectory folder;
    const std::string cursor = (folder / "cursor").string();
    const Words words =
        command({"log", "--follow", "--cursor-file", cursor, "--since", "2024-01-01", "-f", "id", "-o", "ndjson"});
    store(operation("a"));
    {
        CtlProcess follow(words);
        EXPECT_EQ(follow.readLine(), "{\"id\":\"a\"}");
        while (!std::filesystem::exists(cursor))
            std::this_thread::yield();
        follow.signal(SIGINT);
        EXPECT_EQ(follow.finish().status, 130);
    }
    store(operation("b"));
    {
        CtlProcess follow(words);
        EXPECT_EQ(follow.readLine(), "{\"id\":\"b\"}") << "what was shown is not told again";
        follow.signal(SIGINT);
        follow.finish();
    }
    std::ofstream(cursor) << "something else\n";
    const CtlResult other = runCtl({"log", "--follow", "--cursor-file", cursor, "--socket", m_agent.socketPath()});
    EXPECT_EQ(other.status, 2);
    EXPECT_THAT(other.err, HasSubstr("is not what --cursor-file has written"));
    std::ofstream(cursor) << "forged\n";
    EXPECT_EQ(runCtl({"log", "--follow", "--cursor-file", cursor, "--socket", m_agent.socketPath()}).status, 1);
    EXPECT_EQ(runCtl({"log", "--cursor-file", cursor, "--socket", m_agent.socketPath()}).status, 2);
}

TEST_F(Follow, TakesAConditionAndFormsOfLines) {
    store(operation("a") + operation("b", R"(,"eid":"11111111-1111-1111-1111-111111111111")") +
          R"({"kind":"event","time":"2024-01-02 12:00:00","source":"cpu","category":"alert"})"
          "\n");
    CtlProcess some(command({"log", "--follow", "--since", "2024-01-01", "--where", "id <> 'a'", "-f", "id,eid",
                             "--template", "{id} {eid}"}));
    EXPECT_EQ(some.readLine(), "b 11111111-1111-1111-1111-111111111111");
    CtlProcess table(command({"events", "--follow", "--since", "2024-01-01"}));
    EXPECT_THAT(table.readLine(), testing::StartsWith("time  "));
    EXPECT_THAT(table.readLine(), testing::StartsWith("----"));
    EXPECT_THAT(table.readLine(), testing::StartsWith("2024-01-02T12:00:00+0000  -  "));
}

TEST_F(Follow, WhatCannotBeFollowedIsAnError) {
    const CtlResult wrong = runCtl({"log", "--follow", "--where", "sttus = 1", "--socket", m_agent.socketPath()});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_THAT(wrong.err, testing::EndsWith("\ndid you mean status?\n"));
    const CtlResult away = runCtl({"log", "--follow", "--socket", "/no/such/agent.sock"});
    EXPECT_EQ(away.status, 3);
}

}  // namespace
}  // namespace QOR::test
