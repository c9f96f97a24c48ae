// An agent whose records lie with several servers, one of which stops answering.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "shard/ShardRecordsOf.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"
#include "support/ShardedPostgres.h"

namespace QOR::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class AgentOnServers : public testing::Test {
protected:
    /// Of an environment that lies with the server.
    std::string eidAt(unsigned number) const {
        return at(number).cell(
            "SELECT eid FROM (SELECT md5(n::text)::uuid AS eid FROM generate_series(1, 100) n) e WHERE " +
            std::string(belongsHere) + " LIMIT 1");
    }
    std::string eventAt(unsigned number, const std::string& category) const {
        return R"({"kind":"event","time":1,"category":")" + category + R"(","eid":")" + eidAt(number) + "\"}\n";
    }
    std::string storedAt(unsigned number, const std::string& category) const {
        return at(number).cell("SELECT count(*) FROM qor_event WHERE category = '" + category + "'");
    }
    PostgresConnection at(unsigned number) const { return PostgresConnection(m_database.conninfo(number)); }

    ShardedPostgres m_database;
};

/// Sends the records, under a key by which they are the same ones when they are sent again.
HttpAnswer send(const AgentProcess& agent, const std::string& lines, const std::string& key) {
    return HttpClient(agent.socketPath()).request("POST", "/v1/records", lines, "Idempotency-Key: " + key + "\r\n");
}

bool isAcknowledged(const HttpAnswer& answer) {
    return answer.status == 200 && answer.body.find("\"failure\"") == std::string::npos;
}

/// As a sender does who keeps what is not acknowledged: a busy machine may need several deadlines for it.
HttpAnswer sendUntilAcknowledged(const AgentProcess& agent, const std::string& lines, const std::string& key) {
    for (;;) {
        HttpAnswer answer = send(agent, lines, key);
        if (isAcknowledged(answer)) return answer;
    }
}

TEST_F(AgentOnServers, RecordsForAServerThatHangsAreRefusedByItsNameAndThoseForOthersAreStored) {
    const AgentProcess agent({.database = m_database.connectionString(), .more = {"--deadline", "4"}});
    sendUntilAcknowledged(agent, eventAt(1, "before") + eventAt(2, "before") + eventAt(3, "before"), "before");
    const std::string needed = eventAt(1, "needed") + eventAt(2, "needed");
    const std::string others = eventAt(1, "others") + eventAt(3, "others");
    ShardedPostgres::server(2).suspend();
    HttpAnswer refused;
    do {
        refused = send(agent, needed, "needed");
        EXPECT_FALSE(isAcknowledged(refused)) << refused.body;
    } while (refused.body.find(R"(\"s2\")") == std::string::npos);  // the deadline may pass before it is asked
    const HttpAnswer stored = sendUntilAcknowledged(agent, others, "others");
    EXPECT_EQ(storedAt(1, "others") + storedAt(3, "others"), "11") << stored.body;
    ShardedPostgres::server(2).resume();
    const HttpAnswer again = sendUntilAcknowledged(agent, needed, "needed");
    EXPECT_THAT(again.body, HasSubstr(R"("accepted":2,)"));
    EXPECT_EQ(sendUntilAcknowledged(agent, needed, "needed").body, again.body);
    EXPECT_EQ(storedAt(1, "needed") + storedAt(2, "needed"), "11");
    for (unsigned number = 1; number <= 3; ++number)
        EXPECT_EQ(storedAt(number, "before"), "1") << number;
}

/// Of a parameter's value.
std::string percentEncoded(const std::string& text) {
    constexpr const char* digits = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        encoded.append("%").append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
    }
    return encoded;
}

TEST_F(AgentOnServers, AnExportHasTheRecordsOfAllAndGoesOnFromEachPosition) {
    const AgentProcess agent({.database = m_database.connectionString()});
    std::string records;
    for (const unsigned number : {1U, 2U, 3U})
        records += R"({"kind":"environment","eid":")" + eidAt(number) + "\"}\n" + R"({"kind":"operation","id":"o)" +
                   std::to_string(number) + R"(","time":1,"eid":")" + eidAt(number) + R"(","eids":[")" + eidAt(1) +
                   "\"]}\n" + R"({"kind":"backup","id":"b)" + std::to_string(number) + R"(","time":1,"eid":")" +
                   eidAt(number) + "\"}\n" + eventAt(number, "c" + std::to_string(number));
    const std::string many = eventAt(2, "many");
    for (int event = 0; event < 1200; ++event)  // pieces have 500
        records += many;
    sendUntilAcknowledged(agent, records, "records");
    HttpClient client(agent.socketPath());
    const std::string all = client.get("/v1/records").body;
    EXPECT_THAT(all, HasSubstr(R"({"end":{"counts":{"environments":3,"operations":3,"events":1203,"backups":3}}})"));
    for (const char* record :
         {R"("id":"o1")", R"("id":"o3")", R"("id":"b2")", R"("category":"c1")", R"("category":"c3")"})
        EXPECT_THAT(all, HasSubstr(record));
    const std::string begin = R"({"position":)";
    int positions = 0;
    for (std::size_t at = all.find(begin); at != std::string::npos; at = all.find(begin, at + 1)) {
        ++positions;
        const std::size_t end = all.find('\n', at);
        const std::string position = all.substr(at + begin.size(), end - 1 - at - begin.size());
        EXPECT_EQ(client.get("/v1/records?after=" + percentEncoded(position)).body, all.substr(end + 1)) << position;
    }
    EXPECT_EQ(positions, 7) << "one at the beginning, one of each kind, and two more of many events";
    const std::string own = client.get("/v1/records?env=" + eidAt(2) + "&source=operations,backups").body;
    EXPECT_THAT(own, HasSubstr(R"({"end":{"counts":{"operations":1,"backups":1}}})"));
    EXPECT_THAT(own, AllOf(HasSubstr(R"("id":"o2")"), HasSubstr(R"("id":"b2")")));
    EXPECT_THAT(client.get("/v1/status").body,
                HasSubstr(R"("records":{"vEnvironment":3,"vOpLog":3,"vEventLog":1203,"vBackupInfo":3})"));
}

/// The first answer in time: on a busy machine home alone may take a whole deadline, now and then.
std::string statusOf(const AgentProcess& agent) {
    constexpr int attempts = 20;
    HttpAnswer answer;
    for (int attempt = 0; attempt < attempts && answer.status != 200; ++attempt)
        answer = HttpClient(agent.socketPath()).get("/v1/status");
    EXPECT_EQ(answer.status, 200) << answer.body;
    return answer.body;
}

TEST_F(AgentOnServers, AServerThatHangsIsNamedInTheStatus) {
    const AgentProcess agent(
        {.database = m_database.connectionString(), .more = {"--deadline", "4", "--forward", "http://127.0.0.1:1"}});
    sendUntilAcknowledged(agent, eventAt(1, "before") + eventAt(2, "before") + eventAt(3, "before"), "before");
    // Nobody answers there. A busy machine may take the deadline without hanging.
    while (jsonAt(statusOf(agent), "forward/behind") != "3") {
    }
    ShardedPostgres::server(2).suspend();
    // Nor do the others answer a busy machine in time each time.
    std::string hanging;
    while (jsonAt(hanging = statusOf(agent), "forward/away") != R"(["s2"])") {
    }
    ShardedPostgres::server(2).resume();
    EXPECT_THAT(hanging, HasSubstr(R"(\"s2\")"));
    EXPECT_EQ(jsonAt(hanging, "records"), "") << "not all of them are known";
    EXPECT_EQ(jsonAt(hanging, "forward/behind"), "3") << "as it was known before";
}

/// The end of a text.
std::string endOf(const std::string& text) {
    constexpr std::size_t characters = 400;
    return text.substr(text.size() - std::min(text.size(), characters));
}

// Much more than lies on the way from the server to a client that does not read.
TEST_F(AgentOnServers, AStreamWhoseServerEndsInTheMiddleIsAnErrorThatNamesItAndNoEnd) {
    PostgresConnection third = at(3);
    third.run("SET session_replication_role = replica");  // nothing is counted
    third.run("INSERT INTO qor_event (time, eid, category) SELECT '2024-05-01', '" + eidAt(3) +
              "', repeat('c', 100) FROM generate_series(1, 60000)");
    const AgentProcess agent({.database = m_database.connectionString()});
    const std::string request =
        R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEventLog"],[1741,"eid"],[1741,"category"]]]})";
    HttpClient client(agent.socketPath());
    ASSERT_TRUE(client.send(HttpClient::compose("POST", "/v1/messages?stream=true", request)));
    ASSERT_TRUE(client.awaitBytes());
    ShardedPostgres::server(3).crash();
    const HttpAnswer answer = client.receive();
    ShardedPostgres::server(3).start();
    EXPECT_EQ(answer.status, 200) << "rows had left before";
    EXPECT_THAT(answer.body, HasSubstr("[1739,"));
    EXPECT_THAT(endOf(answer.body), AllOf(HasSubstr(R"("error":{"code":1,)"), HasSubstr(R"(server \"s3\")")));
    const HttpAnswer again = HttpClient(agent.socketPath()).post("/v1/messages?stream=true", request);
    EXPECT_THAT(endOf(again.body), Not(HasSubstr("\"error\"")));
}

}  // namespace
}  // namespace QOR::test
