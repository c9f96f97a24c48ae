// Requests that would take for ever: they end at their deadline, or when nobody waits for them, and the agent goes on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "QORMessage/QORNotation.h"
#include "ctl/CtlProcess.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/AgentProcess.h"
#include "support/DirectDatabase.h"
#include "support/HttpClient.h"

namespace QOR {
namespace {

using test::AgentProcess;
using test::AgentSettings;
using test::HttpClient;
using testing::HasSubstr;

QORResponse::Error errorOf(const std::string& text) {
    return readResponse(text).error.value_or(QORResponse::Error{0, "no error"});
}

/// What the agent answers next that is not late for it: on a busy machine even a little work is, now and then.
std::string inTime(const AgentProcess& agent, const std::string& target, const std::string& request) {
    std::string answer;
    do {
        answer = HttpClient(agent.socketPath()).post(target, request).body;
    } while (answer.find("deadline") != std::string::npos);
    return answer;
}

/// A request to "pager2" for a view's column.
std::string select(const std::string& view, const std::string& more = {}) {
    return R"({"operator":"pager2","request":"select","body":[1740,[[1009,")" + view +
           R"("],[1741,"i"],[1377,[[1024,"1"]]])" + more + "]]}";
}
const std::string inVain = select("vain", R"(,[2404,"200"])");
const std::string small = R"({"response":[[1744,[[1026,"i"],[1739,[[1018,"1"]]]]]]})";

class EndlessViews : public testing::Test {
protected:
    static AgentSettings settings(const test::TestDatabase& database, std::vector<std::string> more = {}) {
        QORRdbms::instance().configure({database.connectionString()});
        {
            QORRdbmsTran transaction(ASAccess::Write);
            transaction->execute("CREATE TABLE n (i INT)");
            transaction->execute(
                "INSERT INTO n WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < 3000) "
                "SELECT i FROM c");
            transaction->execute("CREATE VIEW small AS SELECT i FROM n");
            transaction->execute(
                "CREATE VIEW vain AS SELECT a.i FROM n a, n b, n c, n d WHERE a.i + b.i + c.i + d.i < 0");
            transaction.commit();
        }
        QORRdbms::instance().shutdown();
        AgentSettings settings;
        settings.database = database.connectionString();
        settings.more = std::move(more);
        settings.more.push_back("--read-only");
        return settings;
    }

    test::TestDatabase database;
};

TEST_F(EndlessViews, ARequestEndsAtTheDeadlineThatItNames) {
    const AgentProcess agent(settings(database));
    HttpClient client(agent.socketPath());
    for (int round = 0; round < 3; ++round) {
        const auto error = errorOf(client.message(inVain));
        EXPECT_EQ(error.code, 408);
        EXPECT_EQ(error.message, "the request's deadline of 200 ms has passed");
        EXPECT_EQ(client.message(select("small")), small);
    }
}

TEST_F(EndlessViews, PeopleSayHowLongTheyWait) {
    const AgentProcess agent(settings(database));
    const test::CtlResult result =
        test::runCtl({"select", "vain", "-f", "i", "--timeout", "1s", "--socket", agent.socketPath()});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("the request's deadline of 1 s has passed"));
}

TEST_F(EndlessViews, ADeadlineThatIsKeptChangesNothing) {
    const AgentProcess agent(settings(database));
    HttpClient client(agent.socketPath());
    EXPECT_EQ(client.message(select("small", R"(,[2404,"60000"])")), small);
    EXPECT_EQ(client.message(select("small", R"(,["deadline","9223372036854775807"])")), small);
}

TEST_F(EndlessViews, ADeadlineIsANumberOfMilliseconds) {
    const AgentProcess agent(settings(database));
    HttpClient client(agent.socketPath());
    for (const char* text : {"0", "-1", "soon", "1.5", "", "9223372036854775808"}) {
        const auto error = errorOf(client.message(select("small", std::string(R"(,[2404,")") + text + "\"]")));
        EXPECT_EQ(error.code, 400) << text;
        EXPECT_EQ(error.message, "deadline: \"" + std::string(text) + "\" is no number of milliseconds above 0");
    }
    EXPECT_EQ(errorOf(client.message(select("small", ",[2404]"))).code, 400);
}

TEST_F(EndlessViews, EveryRequestHasTheAgentsDeadline) {
    const AgentProcess agent(settings(database, {"--deadline", "1"}));
    HttpClient client(agent.socketPath());
    for (const std::string& request : {select("vain"), select("vain", R"(,[2404,"3600000"])")})
        EXPECT_EQ(errorOf(client.message(request)).message, "the request's deadline of 1 s has passed");
    EXPECT_EQ(inTime(agent, "/v1/messages", select("small")), small);
}

TEST_F(EndlessViews, ManyOfThemKeepNobodyOutForGood) {
    const AgentProcess agent(settings(database, {"--deadline", "1", "--threads", "2"}));
    std::vector<HttpClient> endless;
    for (int number = 0; number < 6; ++number) {
        endless.emplace_back(agent.socketPath());
        endless.back().send(HttpClient::compose("POST", "/v1/messages", select("vain")));
    }
    for (HttpClient& client : endless)
        client.receive();
    EXPECT_EQ(inTime(agent, "/v1/messages", select("small")), small);
}

/// Health and refusals need no worker: with every worker of both lanes taken for good they are given, and a select
/// that was sent before them is not answered to the end.
TEST(AgentDeadline, WithoutAFreeWorkerHealthAndRefusalsAreGiven) {
    AgentProcess agent({.more = {"--deadline", "3600", "--threads", "2", "--user-requests", "2", "--grace", "0"}});
    ASSERT_EQ(agent.stop(), 0);
    QORRdbms::instance().configure({agent.connectionString()});
    {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->execute("CREATE TABLE n (i INT)");
        transaction->execute(
            "INSERT INTO n WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < 3000) SELECT i "
            "FROM c");
        transaction->execute("CREATE VIEW small AS SELECT i FROM n");
        transaction->execute("CREATE VIEW vain AS SELECT a.i FROM n a, n b, n c, n d WHERE a.i + b.i + c.i + d.i < 0");
        transaction.commit();
    }
    agent.start();
    {
        QORRdbmsTran lock(ASAccess::Write);
        std::vector<HttpClient> busy;
        for (int number = 0; number < 8; ++number) {
            busy.emplace_back(agent.socketPath());
            busy.back().send(number % 2 == 0
                                 ? HttpClient::compose("POST", "/v1/messages", select("vain"))
                                 : HttpClient::compose("POST", "/v1/records", "{\"kind\":\"event\",\"time\":1}\n"));
        }
        HttpClient waiting(agent.socketPath());
        waiting.send(HttpClient::compose("POST", "/v1/messages", select("small")));
        HttpClient client(agent.socketPath());
        for (int round = 0; round < 20; ++round) {
            EXPECT_THAT(client.get("/v1/health").body, HasSubstr(R"("status")"));
            EXPECT_EQ(client.get("/v1/nothing").status, 404);
            EXPECT_EQ(client.get("/v1/messages").status, 405);
        }
        EXPECT_EQ(agent.stop(), 0) << agent.log();
        const auto answer = waiting.receive();
        EXPECT_EQ(answer.status, 503) << "a worker was free: " << answer.body;
        EXPECT_THAT(answer.body, HasSubstr("the agent is stopping"));
    }
    QORRdbms::instance().shutdown();
}

TEST_F(EndlessViews, AtTheEndOfTheGraceRequestsAreToldToEndAndAnsweredSo) {
    AgentProcess agent(settings(database, {"--deadline", "3600", "--threads", "2", "--grace", "0"}));
    std::vector<HttpClient> clients;
    for (int number = 0; number < 3; ++number) {  // of which one at least waits for its turn
        clients.emplace_back(agent.socketPath());
        clients.back().send(HttpClient::compose("POST", "/v1/messages", select("vain")));
    }
    EXPECT_EQ(HttpClient(agent.socketPath()).get("/v1/health").status, 200);  // read after those before it
    EXPECT_EQ(agent.stop(), 0) << "no request had to be given up";
    std::string answers;
    for (HttpClient& client : clients)
        answers += client.receive().body;
    EXPECT_THAT(answers, HasSubstr(R"({"code":408,"message":"the agent is stopping"})"));
    EXPECT_THAT(agent.log(), HasSubstr("3 requests are told to end"));
}

TEST(AgentDeadline, AFilterOverManyEnvironmentsEnds) {
    AgentProcess agent;
    HttpClient client(agent.socketPath());
    std::string records;
    for (int number = 0; number < 4000; ++number) {
        const std::string digits = std::to_string(100000 + number);
        records += R"({"kind":"environment","eid":"00000000-0000-0000-0000-000000)" + digits + R"(","title":"e)" +
                   digits + "\"}\n";
    }
    ASSERT_THAT(client.post("/v1/records", records).body, HasSubstr(R"("accepted":4000)"));
    std::string filter = "pager.event_log.category='env_status' and (pager.env.title = 'none'";
    for (int number = 0; number < 20000; ++number)
        filter += " or pager.env.title = 'none'";
    const std::string request =
        R"({"operator":"pager","request":"select","body":[1740,[[1741,"pager.event_log.source"],)"
        R"([1742,")" +
        filter + R"x()"],[2404,"400"]]]})x";
    const auto error = errorOf(client.message(request));
    EXPECT_EQ(error.code, 408);
    EXPECT_EQ(error.message, "the request's deadline of 400 ms has passed");
    EXPECT_THAT(client.get("/v1/health").body, HasSubstr(R"("status":"ok")"));
}

TEST(AgentDeadline, AClientThatWaitsForALockIsToldSoAndReadersGoOn) {
    AgentProcess agent({.more = {"--deadline", "2"}});
    const std::string event = R"({"kind":"event","time":1,"category":"env_status"})"
                              "\n";
    ASSERT_THAT(inTime(agent, "/v1/records", event), HasSubstr(R"("accepted":1)"));
    QORRdbms::instance().configure({agent.connectionString()});
    {
        QORRdbmsTran lock(ASAccess::Write);
        if (test::testEngine() == ASEngine::PostgreSQL) lock->execute("LOCK TABLE qor_event IN EXCLUSIVE MODE");
        HttpClient writer(agent.socketPath());
        writer.send(HttpClient::compose("POST", "/v1/records", event));
        EXPECT_THAT(inTime(agent, "/v1/messages",
                           R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],)"
                           R"([1741,"category"]]]})"),
                    HasSubstr("env_status"));
        EXPECT_THAT(writer.receive().body,
                    testing::AllOf(HasSubstr("the request's deadline of 2 s has passed"),
                                   HasSubstr(test::oneOf("database is locked", "\"accepted\":0"))));
    }
    QORRdbms::instance().shutdown();
    EXPECT_THAT(inTime(agent, "/v1/records", event), HasSubstr(R"("accepted":1)"));
}

}  // namespace
}  // namespace QOR
