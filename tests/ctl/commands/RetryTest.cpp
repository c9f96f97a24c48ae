// What qorctl does when the agent has no room for a request.
#include <string>
#include <vector>

#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"
#include "support/DirectDatabase.h"
#include "support/HttpClient.h"
#include "support/LargeView.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;

/// An agent with one worker, which works in vain, and room for one request to wait, which one takes.
class BusyAgent : public testing::Test {
protected:
    static AgentSettings settings(const TestDatabase& database) {
        DirectDatabase(database).run(
            "CREATE TABLE n (i INT); INSERT INTO n WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c "
            "WHERE i < 3000) SELECT i FROM c; CREATE VIEW small AS SELECT i FROM n WHERE i < 3; "
            "CREATE VIEW vain AS SELECT a.i FROM n a, n b, n c, n d WHERE a.i + b.i + c.i + d.i < 0");
        AgentSettings settings;
        settings.database = database.connectionString();
        settings.more = {"--read-only", "--threads", "1", "--streams", "1", "--user-waiting", "1", "--grace", "0"};
        return settings;
    }
    static std::string select(const std::string& view, const std::string& more = {}) {
        return R"({"operator":"pager2","request":"select","body":[1740,[[1009,")" + view +
               R"("],[1741,"i"],[1743,[[1741,"i"]]])" + more + "]]}";
    }
    /// As the client asks.
    static constexpr const char* streamed = "/v1/messages?stream=true";
    /// As long as the client asks again.
    static constexpr unsigned longest = 3000;

    /// Has the worker and the room taken for so long; for longer where that is over before it is seen.
    void occupy(unsigned milliseconds) {
        for (;; milliseconds *= 2) {
            const std::string more = R"(,[2404,")" + std::to_string(milliseconds) + "\"]";
            for (HttpClient* const client : {&m_working, &m_waiting}) {
                client->send(HttpClient::compose("POST", streamed, select("vain", more)));
                // Read behind it on the server's one thread.
                EXPECT_EQ(HttpClient(m_agent.socketPath()).get("/v1/health").status, 200);
            }
            const HttpAnswer refused = HttpClient(m_agent.socketPath()).post(streamed, select("small"));
            if (refused.status == 200 && milliseconds < longest) {
                m_working.receive();
                m_waiting.receive();
                continue;
            }
            EXPECT_EQ(refused.status, 429);
            EXPECT_EQ(refused.headers.at("retry-after"), "1");
            return;
        }
    }
    CtlResult run(Words arguments, std::string_view input = {}) const {
        arguments.insert(arguments.end(), {"--socket", m_agent.socketPath()});
        return runCtl(arguments, input);
    }

    TestDatabase m_database{TestTables::Own};
    AgentProcess m_agent{settings(m_database)};
    HttpClient m_working{m_agent.socketPath()};
    HttpClient m_waiting{m_agent.socketPath()};
};

const std::string rowsOfSmall = R"({"response":[[1744,[[1026,"i"],[1739,[[1018,"1"]]],[1739,[[1018,"2"]]]]]]})";

TEST_F(BusyAgent, AQuestionThatFoundNoRoomIsAskedAgain) {
    occupy(1500);
    const CtlResult result = run({"select", "--view", "small", "-f", "i", "-o", "csv"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "i\r\n1\r\n2\r\n");
}

TEST_F(BusyAgent, LinesThatFoundNoRoomAreAskedAgainInTheirOrder) {
    occupy(1500);
    const std::string lines = select("small") + "\n" + select("nothing") + "\n" + select("small") + "\n";
    const CtlResult result = run({"request", "--lines"}, lines);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, testing::StartsWith(rowsOfSmall + "\n"));
    EXPECT_THAT(result.out, testing::EndsWith("\n" + rowsOfSmall + "\n"));
    EXPECT_THAT(result.out, HasSubstr("nothing"));
}

TEST_F(BusyAgent, ItIsAskedAFewTimesAndNoMore) {
    occupy(3'600'000);
    const CtlResult result = run({"select", "--view", "small", "-f", "i"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("too many requests of this user wait for their turn"));
}

/// Lines have answers of any size, as single requests have.
TEST(RequestLines, AnswersMayHaveMoreRowsThanAMessage) {
    const TestDatabase made;
    const std::string database = made.connectionString();
    makeLargeView(database, 250'000, 150'000);
    AgentSettings settings;
    settings.database = database;
    settings.more = {"--read-only"};
    const AgentProcess agent(settings);
    const std::string all =
        R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vMany"],[1741,"id"],[1741,"name"]]]})";
    const std::string one =
        R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vMany"],[1741,"id"],[1377,[[1024,"1"]]]]]})";
    for (const Words& connection :
         {Words{"--socket", agent.socketPath()}, Words{"--standalone", "--read-only", "--database", database}}) {
        Words command{"request", "--lines"};
        command.insert(command.end(), connection.begin(), connection.end());
        const CtlResult result = runCtl(command, all + "\n" + one + "\n" + all + "\n");
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 3);
        std::size_t rows = 0;
        for (std::size_t at = 0; (at = result.out.find("[1739,", at)) != std::string::npos; ++at)
            ++rows;
        EXPECT_EQ(rows, 500'001U);
    }
}

}  // namespace
}  // namespace QOR::test
