// Batches whose records several servers keep: each part is with its server, the whole is stored once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <map>
#include <string>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORLibAgent/QORIdentities.h"
#include "ingest/ServerFollower.h"
#include "ingest/ServerRemovals.h"
#include "ingest/SpreadTest.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;

class SpreadIngestTest : public SpreadTest {
protected:
    /// An operation that was with one server and went to another one, whose agent ended before it told the first: that
    /// one has it still, and the other one's note is there.
    void letHaveGone(unsigned from, unsigned to) const {
        expectStored(send(operation("o", on(from), 1)), 1);
        const std::string first = at(from).cell("SELECT seq FROM qor_operation");
        expectStored(send(operation("o", on(to), 2)), 0, 1);
        const std::string second = at(to).cell("SELECT seq FROM qor_operation");
        at(from).run("INSERT INTO qor_operation (seq, id, status, time, eid) VALUES (" + first +
                     ", 'o', 1, '2024-01-01', '" + on(from).toString() + "')");
        at(to).run("INSERT INTO qor_removal (server, source, ids) VALUES ('*', 'qor_operation', '[[\"o\"," + second +
                   "]]')");
    }
    static std::string operationsOf(unsigned number) { return operations().at(number - 1); }
};

TEST_F(SpreadIngestTest, EachRecordIsWithTheServerOfItsEnvironmentAndEnvironmentsAreAtHome) {
    std::string lines;
    for (unsigned number = 1; number <= 3; ++number) {
        const std::string name = std::to_string(number);
        lines += environment(on(number), name) + event(100, on(number)) + operation("o" + name, on(number)) +
                 backup("b" + name, on(number));
    }
    expectStored(send(lines), 12);
    EXPECT_THAT(events(), ElementsAre("1", "1", "1"));
    EXPECT_THAT(operations(), ElementsAre("o1:0", "o2:0", "o3:0"));
    EXPECT_THAT(each("SELECT string_agg(id, ' ') FROM qor_backup"), ElementsAre("b1", "b2", "b3"));
    EXPECT_EQ(home().cell("SELECT count(*) FROM qor_environment"), "3");
    EXPECT_THAT(each("SELECT sum(n) FROM qor_event_count WHERE scope = '/c' AND level = 24"),
                ElementsAre("1", "1", "1"));
}

TEST_F(SpreadIngestTest, WhoMayWriteAboutSomeEnvironmentsReplacesNoOthersWhereverTheyAre) {
    expectStored(send(operation("theirs", on(2)) + backup("theirs", on(3)) + event(1, on(3, 2))), 3);
    const QORWriteScope scope{"writer", {on(1), on(2, 2)}, {on(1, 2)}};
    const auto sendAs = [&](const std::string& lines) { return QORIngest({.scope = &scope}).importBatch(lines); };
    const auto refusal = [&](const std::string& lines) -> std::string {
        try {
            sendAs(lines);
        } catch (const QORException& exception) {
            return std::to_string(exception.code()) + " " + exception.message();
        }
        return "stored";
    };
    const std::string fine = event(1, on(1)) + event(1, on(2, 2));
    EXPECT_THAT(refusal(fine + operation("theirs", on(1))), HasSubstr("403 line 3: the operation \"theirs\" takes"));
    EXPECT_THAT(refusal(fine + backup("theirs", on(1))), HasSubstr("403 line 3: the backup \"theirs\" takes"));
    EXPECT_THAT(refusal(fine + event(1, on(3))), HasSubstr("403 line 3: the event is about"));
    const auto below = [](const QOREID& eid, const QOREID& parent) {
        return R"({"kind":"environment","eid":")" + eid.toString() + R"(","parent_eid":")" + parent.toString() +
               "\"}\n";
    };
    EXPECT_THAT(refusal(fine + below(on(3, 2), on(1, 2))), HasSubstr("there are records about it already"));
    EXPECT_THAT(events(), ElementsAre("0", "0", "1")) << "nothing of what was refused";
    expectStored(sendAs(fine + below(on(3, 3), on(1, 2)) + event(1, on(3, 3)) + operation("mine", on(3, 3))), 5);
    expectStored(sendAs(operation("mine", on(1))), 0, 1);
    EXPECT_THAT(events(), ElementsAre("1", "1", "2"));
}

TEST_F(SpreadIngestTest, RecordsWithoutEnvironmentHaveAServerToo) {
    expectStored(send(R"({"kind":"event","time":1})"
                      "\n"
                      R"({"kind":"operation","id":"o","time":1})"),
                 2);
    const unsigned server = static_cast<unsigned>(QORServers::instance().placement()->of(QOREID()).number);
    EXPECT_EQ(at(server).cell("SELECT count(*) FROM qor_event"), "1");
    EXPECT_EQ(at(server).cell("SELECT count(*) FROM qor_operation"), "1");
}

TEST_F(SpreadIngestTest, NumbersOfArrivalAreInTheOrderOfTheLinesOverAllServers) {
    std::string lines;
    for (int i = 0; i < 30; ++i)
        lines += event(100, on(static_cast<unsigned>(i % 3) + 1), "c" + std::to_string(10 + i));
    expectStored(send(lines), 30);
    expectStored(send(event(100, on(2), "later")), 1);
    std::map<long, std::string> arrived;
    for (unsigned number = 1; number <= 3; ++number) {
        for (const auto& row : at(number).rows("SELECT seq, category FROM qor_event"))
            arrived[std::stol(row[0])] = row[1];
    }
    ASSERT_EQ(arrived.size(), 31U);
    std::string before;
    for (const auto& [number, category] : arrived) {
        EXPECT_LT(before, category);
        before = category;
    }
}

TEST_F(SpreadIngestTest, WithinOneBatchTheLastRecordStaysWhereverTheFirstWentTo) {
    expectStored(send(operation("o", on(1), 1) + operation("o", on(2), 2) + operation("o", on(3), 3)), 1, 2);
    EXPECT_THAT(operations(), ElementsAre("", "", "o:3"));
}

TEST_F(SpreadIngestTest, AnOperationThatChangesItsEnvironmentIsNoLongerWhereItWas) {
    expectStored(send(operation("o", on(1), 1) + backup("b", on(1))), 2);
    expectStored(send(operation("o", on(2), 2) + backup("b", on(3))), 0, 2);
    EXPECT_THAT(operations(), ElementsAre("", "o:2", ""));
    EXPECT_THAT(each("SELECT count(*) FROM qor_backup"), ElementsAre("0", "0", "1"));
    expectStored(send(operation("o", on(1), 3)), 0, 1);
    EXPECT_THAT(operations(), ElementsAre("o:3", "", ""));
    EXPECT_THAT(each("SELECT coalesce(sum(n), 0) FROM qor_operation_count WHERE scope = '' AND level = 24"),
                ElementsAre("1", "0", "0"));
}

TEST_F(SpreadIngestTest, ARequestThatIsSentAgainDoesNotTakeThePlaceOfWhatCameSince) {
    const std::string lines =
        operation("o", on(1), 1) + backup("b", on(1)) + operation("p", on(1), 1) + event(1, on(3));
    refuse(3, true);
    EXPECT_TRUE(send(lines, "key").failure);
    EXPECT_THAT(operations(), ElementsAre("o:1 p:1", "", ""));
    expectStored(send(operation("o", on(2), 2) + backup("b", on(2))), 0, 2);
    refuse(3, false);
    EXPECT_FALSE(send(lines, "key").failure);
    EXPECT_THAT(operations(), ElementsAre("p:1", "o:2", ""));
    EXPECT_THAT(each("SELECT count(*) FROM qor_backup"), ElementsAre("0", "1", "0"));
    EXPECT_THAT(events(), ElementsAre("0", "0", "1"));
}

TEST_F(SpreadIngestTest, WhatAServerCouldNotBeToldIsKeptForIt) {
    expectStored(send(operation("o", on(1), 1) + operation("p", on(1), 1)), 2);
    ShardedPostgres::server(3).crash();
    expectStored(send(operation("o", on(2), 2)), 0, 1);
    EXPECT_EQ(at(1).cell("SELECT count(*) FROM qor_operation"), "1");
    EXPECT_EQ(at(2).cell("SELECT ids FROM qor_removal").substr(0, 6), R"([["o",)");
    ShardedPostgres::server(3).start();
}

// What another agent has noted but not yet done would remove the record that was just stored.
TEST_F(SpreadIngestTest, AnOldNoteRemovesNoRecordThatCameLater) {
    expectStored(send(operation("o", on(1), 1)), 1);
    expectStored(send(operation("o", on(2), 2)), 0, 1);
    // As if the agent had ended before it told server 1, and the operation was still there.
    const std::string number = at(2).cell("SELECT seq FROM qor_operation");
    at(1).run("INSERT INTO qor_operation (seq, id, status, time, eid) VALUES (" +
              std::to_string(std::stol(number) - 1) + ", 'o', 1, '2024-01-01', '" + on(1).toString() + "')");
    expectStored(send(operation("o", on(1), 3)), 0, 1);
    EXPECT_THAT(operations(), ElementsAre("o:3", "", ""));
    const auto placement = QORServers::instance().placement();
    at(2).run("INSERT INTO qor_removal (server, source, ids) VALUES ('*', 'qor_operation', '[[\"o\"," + number +
              "]]')");
    EXPECT_TRUE(removeEarlier(placement->servers()[0], readNotes(placement->servers()[1], 1'000'000'000)));
    EXPECT_THAT(operations(), ElementsAre("o:3", "", ""));
}

// The one that has it now is away, and what it noted for the one that had it first is done when it is back.
TEST_F(SpreadIngestTest, ARecordThatReturnsWhileAServerIsAwayIsNotRemovedByWhatThatNoted) {
    expectStored(send(operation("o", on(1), 1)), 1);
    const std::string first = at(1).cell("SELECT seq FROM qor_operation");
    expectStored(send(operation("o", on(2), 2)), 0, 1);
    at(1).run("INSERT INTO qor_operation (seq, id, status, time, eid) VALUES (" + first + ", 'o', 1, '2024-01-01', '" +
              on(1).toString() + "')");
    ShardedPostgres::server(2).crash();
    expectStored(send(operation("o", on(1), 3)), 0, 1);
    ShardedPostgres::server(2).start();
    const auto placement = QORServers::instance().placement();
    const QORServer& one = placement->servers()[0];
    const QORServer& two = placement->servers()[1];
    const auto notesOfOne = readNotes(one, 1'000'000'000);
    EXPECT_TRUE(removeEarlier(one, readNotes(two, 1'000'000'000)));
    EXPECT_TRUE(removeEarlier(two, notesOfOne));
    EXPECT_THAT(operations(), ElementsAre("o:3", "", ""));
}

// It came back, and the agent ended again before it told the other one.
TEST_F(SpreadIngestTest, ARecordThatCameBackIsNotLostToTheNotesOfAgentsThatEnded) {
    for (const auto& [back, other] : {std::pair(1U, 2U), std::pair(2U, 1U)}) {
        SetUp();
        letHaveGone(back, other);
        at(other).run("ALTER TABLE qor_held RENAME TO qor_held_away");
        EXPECT_TRUE(send(operation("o", on(back), 3), "key").failure);
        at(other).run("ALTER TABLE qor_held_away RENAME TO qor_held");
        EXPECT_EQ(operationsOf(back), "o:3");
        ServerUpkeep upkeep;
        upkeep.turn();
        upkeep.turn();
        EXPECT_THAT(each("SELECT count(*) FROM qor_removal"), ElementsAre("0", "0", "0"));
        EXPECT_EQ(operationsOf(back), "o:3");
        EXPECT_EQ(operationsOf(other), "");
        EXPECT_FALSE(send(operation("o", on(back), 3), "key").failure);
        EXPECT_EQ(operationsOf(back), "o:3");
    }
}

TEST_F(SpreadIngestTest, ANoteOfOneThatHasNoSuchRecordAnyMoreRemovesNoneThatCameLater) {
    letHaveGone(1, 2);
    at(2).run("DELETE FROM qor_operation");
    expectStored(send(operation("o", on(1), 3)), 0, 1);
    at(1).run("DELETE FROM qor_removal");  // it has been seen to
    const auto placement = QORServers::instance().placement();
    EXPECT_TRUE(removeEarlier(placement->servers()[0], readNotes(placement->servers()[1], 1'000'000'000)));
    EXPECT_EQ(operationsOf(1), "o:3");
}

TEST_F(SpreadIngestTest, ARecordThatComesAgainToItsServerKeepsItsPlace) {
    expectStored(send(operation("o", on(1), 1) + operation("p", on(1), 1)), 2);
    expectStored(send(operation("o", on(1), 2)), 0, 1);
    ServerUpkeep upkeep;
    for (int turn = 0; turn < 3; ++turn)
        upkeep.turn();
    EXPECT_EQ(at(1).cell("SELECT string_agg(id, ' ' ORDER BY seq) FROM qor_operation"), "o p");
}

TEST_F(SpreadIngestTest, HomeKnowsWhichServersHaveOperationsThatTouchAnEnvironment) {
    expectStored(send(operation("o", on(1), 0, {on(1), on(2), on(3, 2)}) + operation("p", on(1), 0, {on(1)})), 2);
    EXPECT_THAT(home().rows("SELECT eid, server FROM qor_touched_server"),
                UnorderedElementsAre(ElementsAre(on(2).toString(), "s1"), ElementsAre(on(3, 2).toString(), "s1")));
}

TEST_F(SpreadIngestTest, ARequestWithAKeyIsStoredOnce) {
    std::string lines = environment(on(1), "title");
    for (unsigned number = 1; number <= 3; ++number)
        lines += event(1, on(number));
    for (int attempt = 0; attempt < 3; ++attempt)
        expectStored(send(lines, "key"), 4);
    EXPECT_THAT(events(), ElementsAre("1", "1", "1"));
    expectStored(send(lines, "other"), 3, 1);
    EXPECT_THAT(events(), ElementsAre("2", "2", "2"));
    EXPECT_THROW(send(lines + event(2, on(1)), "key"), QORException);
}

TEST_F(SpreadIngestTest, ARequestThatFailedAtOneServerIsCompletedWithoutDoublingWhatTheOthersStored) {
    std::string lines;
    for (int i = 0; i < 30; ++i)
        lines += event(i, on(static_cast<unsigned>(i % 3) + 1));
    for (const std::string key : {"key", ""}) {
        SetUp();
        refuse(2, true);
        const auto failed = send(lines, key);
        ASSERT_TRUE(failed.failure);
        EXPECT_THAT(failed.failure->reason, HasSubstr("server \"s2\": "));
        EXPECT_EQ(failed.accepted(), 0U);
        EXPECT_THAT(events(), ElementsAre("10", "0", "10"));
        refuse(2, false);
        expectStored(send(lines, key), 30);
        EXPECT_THAT(events(), ElementsAre("10", "10", "10"));
    }
}

TEST_F(SpreadIngestTest, TheSameEventsWithoutAKeyAreStoredAsOftenAsTheyAreSent) {
    const std::string lines = event(1, on(1)) + event(1, on(2));
    expectStored(send(lines), 2);
    expectStored(send(lines), 2);
    EXPECT_THAT(events(), ElementsAre("2", "2", "0"));
    EXPECT_THAT(each("SELECT count(*) FROM qor_request"), ElementsAre("0", "0", "0"));
    std::string many;
    for (int i = 0; i < 4; ++i)
        many += lines;
    QORIngestOptions options;
    options.batchRecords = 2;
    expectStored(QORIngest(options).importBatch(many), 8);
    EXPECT_THAT(events(), ElementsAre("6", "6", "0"));
}

// What each server has it knows by line, so that later portions may be others.
TEST_F(SpreadIngestTest, ARequestOfSeveralBatchesGoesOnWhereItFailed) {
    for (const std::size_t portion : {6U, 4U, 5U}) {
        SetUp();
        std::string lines;
        for (int i = 0; i < 12; ++i)
            lines += event(i, on(static_cast<unsigned>(i % 3) + 1));
        const QORIngestRequest request("key", lines, 1);
        QORIngestOptions options;
        options.batchRecords = 6;
        at(3).run(
            "CREATE FUNCTION refuse_later() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN IF NEW.time > '1970-01-01 "
            "00:00:07' "
            "THEN RAISE 'no room'; END IF; RETURN NEW; END $$; CREATE TRIGGER refuse_later BEFORE INSERT ON qor_event "
            "FOR EACH ROW EXECUTE FUNCTION refuse_later()");
        const auto failed = QORIngest(options).importBatch(lines, 1, &request);
        EXPECT_EQ(failed.accepted(), 6U);
        ASSERT_TRUE(failed.failure);
        EXPECT_EQ(failed.failure->firstLine, 7U);
        at(3).run("DROP TRIGGER refuse_later ON qor_event; DROP FUNCTION refuse_later()");
        options.batchRecords = portion;
        const auto result = QORIngest(options).importBatch(lines, 1, &request);
        EXPECT_FALSE(result.failure);
        EXPECT_EQ(result.lastLine, 12U);
        if (portion == 6) expectStored(result, 12);
        EXPECT_THAT(events(), ElementsAre("4", "4", "4"));
    }
}

TEST_F(SpreadIngestTest, AttemptsAtOneRequestAtTheSameTimeStoreItOnceAndAnswerAlike) {
    bePatient();
    std::string lines;
    for (int i = 0; i < 300; ++i)
        lines += event(i, on(static_cast<unsigned>(i % 3) + 1));
    std::vector<std::future<QORIngestResult>> attempts;
    for (int i = 0; i < 6; ++i)
        attempts.push_back(std::async(std::launch::async, [&] { return send(lines, "key"); }));
    for (auto& attempt : attempts)
        expectStored(attempt.get(), 300);
    EXPECT_THAT(events(), ElementsAre("100", "100", "100"));
}

TEST_F(SpreadIngestTest, AServerThatIsAwayIsNamedAndOthersGoOn) {
    ShardedPostgres::server(2).crash();
    const auto failed = send(event(1, on(2)));
    ASSERT_TRUE(failed.failure);
    EXPECT_THAT(failed.failure->reason, HasSubstr("\"s2\""));
    expectStored(send(event(1, on(1)) + event(1, on(3))), 2);
    expectStored(send(operation("o", on(1)) + backup("b", on(3))), 2);
    ShardedPostgres::server(2).start();
    expectStored(send(event(1, on(2))), 1);
    EXPECT_THAT(events(), ElementsAre("1", "1", "1"));
}

// Environments that have moved since the placement was read.
TEST_F(SpreadIngestTest, WhatAServerNoLongerKeepsGoesToTheOneThatDoes) {
    bePatient();
    const QOREID moved = on(2);
    const std::string stays = environment(on(1), "t") + event(1, on(1));
    QORServers::instance().placement();
    PostgresConnection second = at(2);
    PostgresConnection third = at(3);
    // They change places; home says so a moment later.
    second.run("UPDATE qor_held SET remainder = 2");
    third.run("UPDATE qor_held SET remainder = 1");
    auto stored = std::async(std::launch::async, [&] { return send(stays + event(1, moved), "key"); });
    home().run(
        "SELECT pg_sleep(0.2); UPDATE qor_server SET remainder = 3 - remainder WHERE name <> 's1'; "
        "UPDATE qor_placement SET epoch = epoch + 1");
    expectStored(stored.get(), 3);
    EXPECT_THAT(events(), ElementsAre("1", "0", "1"));
    second.run("UPDATE qor_held SET remainder = 1");
    third.run("UPDATE qor_held SET remainder = 2");
    home().run(
        "UPDATE qor_server SET remainder = 3 - remainder WHERE name <> 's1'; "
        "UPDATE qor_placement SET epoch = epoch + 1");
}

TEST_F(SpreadIngestTest, AServerThatKeepsSomethingElseForGoodIsNamed) {
    at(2).run("UPDATE qor_held SET modulus = 6");
    const auto failed = send(event(1, on(2)));
    ASSERT_TRUE(failed.failure);
    EXPECT_THAT(failed.failure->reason, HasSubstr("server \"s2\" keeps other environments"));
    at(2).run("UPDATE qor_held SET modulus = 3");
}

}  // namespace
}  // namespace QOR::test
