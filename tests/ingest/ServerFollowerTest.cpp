// What servers are told by whoever looks after them.
#include "ingest/ServerFollower.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "ingest/SpreadTest.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;

class ServerFollowerTest : public SpreadTest {
protected:
    static std::vector<std::string> titles() {
        return each("SELECT coalesce(string_agg(title, ' ' ORDER BY title), '') FROM qor_environment");
    }
    void turns(int count) {
        for (int i = 0; i < count; ++i)
            upkeep.turn();
    }
    /// Until the server is not taken for away any more.
    void awaitBack(const std::string& name) {
        while (QORServers::instance().isAway(name))
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }

    ServerUpkeep upkeep;
};

TEST_F(ServerFollowerTest, EveryServerHasCopiesOfAllEnvironments) {
    send(environment(on(1), "a") + environment(on(2), "b") + R"({"kind":"environment","eid":")" + on(3).toString() +
         R"(","title":"c","config":{"hostname":"h","ip":["10.0.0.1","10.0.0.2"]}})");
    turns(1);
    EXPECT_THAT(titles(), ElementsAre("a b c", "a b c", "a b c"));
    EXPECT_THAT(each("SELECT string_agg(address, ' ' ORDER BY position) FROM qor_environment_address"),
                ElementsAre("10.0.0.1 10.0.0.2", "10.0.0.1 10.0.0.2", "10.0.0.1 10.0.0.2"));
    EXPECT_EQ(at(2).rows("SELECT * FROM qor_environment ORDER BY eid").size(), 3U);
    send(environment(on(1), "changed"));
    home().run("DELETE FROM qor_environment WHERE title = 'b'");
    turns(1);
    EXPECT_THAT(titles(), ElementsAre("c changed", "c changed", "c changed"));
    home().run("TRUNCATE qor_environment CASCADE");
    turns(1);
    EXPECT_THAT(titles(), ElementsAre("", "", ""));
}

TEST_F(ServerFollowerTest, CopiesHaveWhatTheOriginalsHave) {
    send(
        R"({"kind":"environment","eid":")" + on(3).toString() +
        R"(","title":"c","state":6,"config":{"hostname":"h","memory":512,"boot_time":"2024-02-29 12:00:00","x":"\u00e4 'y' \\"}})");
    turns(1);
    const std::string all = "SELECT to_jsonb(e) - 'rowid' FROM qor_environment e";
    EXPECT_EQ(at(1).cell(all), home().cell(all));
}

TEST_F(ServerFollowerTest, AServerThatHasMissedTooManyChangesIsToldAll) {
    send(environment(on(1), "a"));
    turns(1);
    send(environment(on(2), "b"));
    home().run("DELETE FROM qor_environment_change");
    send(environment(on(3), "c"));
    at(1).run("DELETE FROM qor_environment WHERE title = 'a'");
    turns(1);
    EXPECT_THAT(titles(), ElementsAre("a b c", "a b c", "a b c"));
}

TEST_F(ServerFollowerTest, WhatAnAgentLeftUndoneIsDoneByOthers) {
    send(operation("o", on(2), 2));
    // As an agent leaves it that ends behind the commit.
    QORServers::instance().close();
    at(1).run("INSERT INTO qor_operation (seq, id, status, time, eid) VALUES (0, 'o', 1, '2024-01-01', '" +
              on(1).toString() + "')");
    QORRdbms::instance().configure(options());
    turns(1);
    EXPECT_THAT(operations(), ElementsAre("o:1", "o:2", ""));
    turns(1);
    EXPECT_THAT(operations(), ElementsAre("", "o:2", ""));
    EXPECT_THAT(each("SELECT count(*) FROM qor_removal"), ElementsAre("0", "0", "0"));
}

TEST_F(ServerFollowerTest, AServerThatWasAwayIsToldWhenItIsBack) {
    send(operation("o", on(3), 1));
    turns(2);
    ShardedPostgres::server(3).crash();
    send(environment(on(1), "t") + operation("o", on(2), 2));
    turns(3);
    EXPECT_NE(at(2).cell("SELECT count(*) FROM qor_removal"), "0");
    EXPECT_EQ(at(1).cell("SELECT title FROM qor_environment"), "t");
    ShardedPostgres::server(3).start();
    awaitBack("s3");
    turns(2);
    EXPECT_THAT(operations(), ElementsAre("", "o:2", ""));
    EXPECT_EQ(at(2).cell("SELECT count(*) FROM qor_removal"), "0");
    EXPECT_EQ(at(3).cell("SELECT title FROM qor_environment"), "t");
}

TEST_F(ServerFollowerTest, NotesOfBatchesThatAreStoredDoNotStay) {
    send(operation("o", on(1)));
    EXPECT_THAT(each("SELECT count(*) FROM qor_removal"), ElementsAre("1", "0", "0"));
    send(operation("p", on(1)));
    EXPECT_THAT(each("SELECT count(*) FROM qor_removal"), ElementsAre("1", "0", "0"));
    turns(1);
    EXPECT_THAT(each("SELECT count(*) FROM qor_removal"), ElementsAre("0", "0", "0"));
}

// Of records of one server, that another one has some of them since earlier, and some that came later.
TEST_F(ServerFollowerTest, APileOfNotesEnds) {
    const auto store = [](unsigned number, const std::string& numbers, const std::string& sequence) {
        at(number).run("INSERT INTO qor_operation (seq, id, status, time, eid) SELECT " + sequence +
                       ", 'o' || n, 0, '2024-01-01', '" + on(number).toString() + "' FROM generate_series(" + numbers +
                       ") n");
    };
    store(1, "20, 20", "-1");
    store(2, "1, 9", "-n");
    store(2, "10, 12", "2700 + n");
    store(3, "13, 14", "-n");
    at(1).run(
        "INSERT INTO qor_removal (server, source, ids) SELECT '*', 'qor_operation', '[[\"o' || n % 40 || '\",' || n "
        "|| "
        "']]' FROM generate_series(1, 2700) n");
    while (at(1).cell("SELECT count(*) FROM qor_removal") != "0")
        upkeep.turn();
    EXPECT_THAT(operations(), ElementsAre("o20:0", "o10:0 o11:0 o12:0", ""));
    EXPECT_EQ(at(1).cell("SELECT seq FROM qor_operation"), "2700") << "of several notes the last counts";
}

TEST_F(ServerFollowerTest, NotesOfManyRecordsAreSeenToOneAfterTheOther) {
    at(1).run(
        "INSERT INTO qor_removal (server, source, ids) SELECT '*', 'qor_operation', "
        "(SELECT json_agg(json_build_array('o' || m, n)) FROM generate_series(1, 10000) m) FROM generate_series(1, 3) "
        "n");
    const QORServer& first = QORServers::instance().placement()->servers().front();
    EXPECT_EQ(readNotes(first, lastNote(first)).size(), 1U);
    while (at(1).cell("SELECT count(*) FROM qor_removal") != "0")
        upkeep.turn();
}

}  // namespace
}  // namespace QOR::test
