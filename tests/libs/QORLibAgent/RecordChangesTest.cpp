// The sequence of changed records tells all that anybody does to them, in the order of the commits.
#include "QORLibAgent/QORRecordChanges.h"

#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "LogDatabase.h"
#include "QORLibAgent/QORChangeWatch.h"
#include "support/HostDatabase.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::set<QORChangeKind> allKinds{QORChangeKind::Environment, QORChangeKind::Operation, QORChangeKind::Event,
                                       QORChangeKind::Backup};

std::string event(const std::string& category, const std::string& eid = "NULL") {
    return "INSERT INTO qor_event (time, eid, category) VALUES ('2024-05-01 00:00:00', " + eid + ", '" + category +
           "')";
}

std::string operation(const std::string& id) {
    return "INSERT INTO qor_operation (id, status, time) VALUES ('" + id + "', 0, '2024-05-01 00:00:00')";
}

std::string backup(const std::string& id) {
    return "INSERT INTO qor_backup (id, time, size, type) VALUES ('" + id + "', '2024-05-01 00:00:00', 0, 0)";
}

std::string environment(std::uint64_t number) {
    return "INSERT INTO qor_environment (eid, state, transition, updated) VALUES (" + quotedEid(number) +
           ", 0, 0, '2024-05-01 00:00:00')";
}

QORRowAccess everything() {
    return QORRowAccess(*fullAccess());
}

/// Everything up to the end, by identifiers.
std::vector<std::string> readOn(QORChangeReader& reader, std::size_t most = 1000,
                                const QORRowAccess& access = everything()) {
    std::vector<std::string> ids;
    for (bool atEnd = false; !atEnd;) {
        const QORRecordChanges changes = reader.read(access, most);
        EXPECT_LE(changes.records.size(), most);
        for (const QORRecordChange& one : changes.records) {
            ids.push_back(one.id);
            EXPECT_LE(one.number, reader.position().at(one.server));
        }
        atEnd = changes.atEnd;
    }
    return ids;
}

std::vector<std::string> readAll(std::size_t most = 1000) {
    QORChangeReader reader(allKinds);
    return readOn(reader, most);
}

/// Everything that is missing up to the end.
std::uint64_t missing(QORChangeReader& reader) {
    std::uint64_t sum = 0;
    for (bool atEnd = false; !atEnd;) {
        const QORRecordChanges changes = reader.read(everything(), 1000);
        sum += changes.missing;
        atEnd = changes.atEnd;
    }
    return sum;
}

using RecordChanges = LogDatabaseTest;

TEST_F(RecordChanges, TellWhatAnyProgramDoes) {
    QORChangeReader reader(allKinds);
    EXPECT_THAT(readOn(reader), IsEmpty());
    runSql(operation("a"));
    runSql(operation("b"));
    runSql(event("x"));
    runSql(backup("k"));
    runSql(environment(7));
    EXPECT_THAT(readOn(reader), ElementsAre("a", "b", "1", "k", eidOf(7).toString()));
    EXPECT_THAT(readOn(reader), IsEmpty());
    runSql("UPDATE qor_operation SET status = 1 WHERE id = 'a'");
    runSql("UPDATE qor_event SET category = 'y'");
    runSql("UPDATE qor_environment SET title = 't'");
    runSql("UPDATE qor_backup SET size = 1");
    EXPECT_THAT(readOn(reader), ElementsAre("a", "1", eidOf(7).toString(), "k"));
    runSql("DELETE FROM qor_operation");
    EXPECT_THAT(readOn(reader), IsEmpty());
}

TEST_F(RecordChanges, TellWhatTheHostStores) {
    QORChangeReader reader(allKinds);
    const std::string eid = eidOf(3).toString();
    import(R"({"kind":"operation","id":"a","time":1})"
           "\n"
           R"({"kind":"event","time":1})"
           "\n"
           R"({"kind":"operation","id":"b","time":1})"
           "\n"
           R"({"kind":"backup","id":"k","time":1})"
           "\n"
           R"({"kind":"environment","eid":")" +
           eid + "\"}\n");
    EXPECT_THAT(readOn(reader), ElementsAre(eid, "a", "b", "1", "k"));
    import(R"({"kind":"operation","id":"c","time":1})"
           "\n"
           R"({"kind":"operation","id":"a","time":1,"status":2})"
           "\n"
           R"({"kind":"operation","id":"c","time":2})"
           "\n"
           R"({"kind":"backup","id":"k","time":2})"
           "\n");
    EXPECT_THAT(readOn(reader), ElementsAre("a", "c", "k"));
    EXPECT_THAT(readAll(), ElementsAre(eid, "a", "b", "1", "k", "a", "c", "k")) << "a record that changed comes again";
}

TEST_F(RecordChanges, AreToldByTheHostAsByTheTriggers) {
    std::mt19937 random(5);
    QORChangeReader reader(allKinds);
    for (int round = 0; round < 60; ++round) {
        std::string lines;
        std::set<std::string> ids;
        for (unsigned i = 0; i < 1 + random() % 20; ++i) {
            const std::string id = std::to_string(random() % 30);
            switch (random() % 4) {
                case 0:
                    lines += R"({"kind":"operation","id":")" + id + R"(","time":1,"status":)" + id + "}\n";
                    ids.insert(id);
                    break;
                case 1:
                    lines += R"({"kind":"backup","id":"k)" + id +
                             R"(","time":1})"
                             "\n";
                    ids.insert("k" + id);
                    break;
                case 2:
                    lines += R"({"kind":"environment","eid":")" + eidOf(random() % 9 + 1).toString() + "\"}\n";
                    ids.insert(lines.substr(lines.size() - 39, 36));
                    break;
                default:
                    lines += R"({"kind":"event","time":1})"
                             "\n";
                    ids.insert("event");
                    break;
            }
        }
        import(lines);
        if (random() % 3 == 0) {
            runSql("UPDATE qor_operation SET status = 9 WHERE id = '4'");
            if (queryText("SELECT count(*) FROM qor_operation WHERE id = '4'") == "1") ids.insert("4");
        }
        std::set<std::string> told;
        QORChangeReader events({QORChangeKind::Event}, reader.position());
        for (const std::string& id : readOn(events)) {
            EXPECT_EQ(id, queryText("SELECT max(seq) FROM qor_event WHERE seq = " + id));
            told.insert("event");
        }
        QORChangeReader others({QORChangeKind::Environment, QORChangeKind::Operation, QORChangeKind::Backup},
                               reader.position());
        for (const std::string& id : readOn(others))
            told.insert(id);
        EXPECT_EQ(told, ids);
        readOn(reader);
    }
    std::vector<std::string> events;
    QORChangeReader again({QORChangeKind::Event});
    EXPECT_EQ(std::to_string(readOn(again).size()), queryText("SELECT count(*) FROM qor_event")) << "each once";
}

TEST_F(RecordChanges, OfRecordsThatFollowEachOtherTakeOneRow) {
    std::string lines;
    for (int i = 0; i < 3000; ++i)
        lines += R"({"kind":"event","time":1})"
                 "\n";
    import(lines);
    runSql(event("x"));
    runSql(event("y"));
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_record_change"), "1");
    EXPECT_EQ(queryText("SELECT n FROM qor_record_number"), "3002");
    for (const std::size_t most : {1U, 7U, 1000U, 5000U}) {
        const auto ids = readAll(most);
        ASSERT_EQ(ids.size(), 3002U) << most;
        EXPECT_EQ(ids.front(), "1");
        EXPECT_EQ(ids.back(), "3002");
    }
}

TEST_F(RecordChanges, GoOnFromAnyPosition) {
    for (int i = 0; i < 40; ++i)
        runSql(i % 3 == 0 ? operation(std::to_string(i)) : event("c"));
    runSql("UPDATE qor_operation SET status = 1");
    const auto all = readAll();
    for (std::size_t from = 0; from <= all.size(); ++from) {
        QORChangeReader reader(allKinds, {{"", static_cast<std::int64_t>(from)}});
        EXPECT_EQ(readOn(reader, 3),
                  std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(from), all.end()));
    }
}

TEST_F(RecordChanges, EachHasThePositionBehindIt) {
    for (int i = 0; i < 30; ++i)
        runSql(i % 4 == 0   ? environment(static_cast<std::uint64_t>(i) + 1)
               : i % 3 == 0 ? operation(std::to_string(i))
                            : event("c"));
    QORChangeReader reader(allKinds);
    const QORRecordChanges all = reader.read(everything(), 1000);
    ASSERT_EQ(all.records.size(), 30U);
    for (std::size_t at = 0; at < all.records.size(); ++at) {
        EXPECT_EQ(all.records[at].number, static_cast<std::int64_t>(at) + 1);
        QORChangeReader behind(allKinds, {{all.records[at].server, all.records[at].number}});
        const QORRecordChanges rest = behind.read(everything(), 1);
        EXPECT_EQ(rest.records.empty() ? "" : rest.records.front().id,
                  at + 1 < all.records.size() ? all.records[at + 1].id : "");
    }
}

TEST_F(RecordChanges, OfOtherKindsArePassedOver) {
    for (int i = 0; i < 20; ++i) {
        runSql(operation(std::to_string(i)));
        runSql(event("c"));
    }
    QORChangeReader reader({QORChangeKind::Event});
    EXPECT_EQ(readOn(reader).size(), 20U);
    EXPECT_EQ(missing(reader), 0U);
}

TEST_F(RecordChanges, WhoStandsAtTheEndIsToldWhatComes) {
    runSql(operation("before"));
    QORChangeReader reader(allKinds, QORChangeReader::end());
    EXPECT_THAT(readOn(reader), IsEmpty());
    runSql(operation("after"));
    EXPECT_THAT(readOn(reader), ElementsAre("after"));
}

// Another server may come under the name, whose numbers begin anew.
TEST_F(RecordChanges, PositionsSayNothingOfServersThatAreGone) {
    runSql(event("c"));
    QORChangeReader reader(allKinds, {{"", 0}, {"gone", 7}});
    EXPECT_EQ(readOn(reader).size(), 1U);
    EXPECT_EQ(reader.position(), QORChangeReader::end());
}

TEST_F(RecordChanges, OfATransactionThatWasUndoneAreNotTold) {
    QORChangeReader reader(allKinds);
    {
        QORRdbmsTran tran(ASAccess::Write);
        tran->execute(operation("undone"));
    }
    runSql(operation("done"));
    EXPECT_THAT(readOn(reader), ElementsAre("done"));
    EXPECT_EQ(missing(reader), 0U);
}

TEST_F(RecordChanges, OfRecordsThatWereRemovedAreMissing) {
    for (int i = 0; i < 10; ++i)
        runSql(event("c"));
    QORChangeReader reader(allKinds, {{"", 2}});
    runSql("DELETE FROM qor_event WHERE seq < 6");
    EXPECT_EQ(missing(reader), 3U);
    QORChangeReader behind(allKinds, {{"", 5}});
    EXPECT_EQ(missing(behind), 0U);
    QORChangeReader first(allKinds);
    EXPECT_THAT(readOn(first, 2), ElementsAre("6", "7", "8", "9", "10"));
}

TEST_F(RecordChanges, ThatWereForgottenAreMissing) {
    for (int i = 0; i < 4; ++i) {
        runSql(operation(std::to_string(i)));
        runSql(event("c"));
    }
    runSql("DELETE FROM qor_event WHERE seq < 3");
    runSql("DELETE FROM qor_operation WHERE id IN ('0', '1', '2')");
    {
        QORRdbmsTran tran(ASAccess::Write);
        trimRecordChanges(*tran);
        tran.commit();
    }
    EXPECT_EQ(queryText("SELECT min(n) FROM qor_record_change"), "6");
    QORChangeReader reader(allKinds);
    EXPECT_EQ(missing(reader), 5U);
    EXPECT_THAT(readAll(), ElementsAre("3", "3", "4"));
    runSql("DELETE FROM qor_event");
    runSql("DELETE FROM qor_operation");
    {
        QORRdbmsTran tran(ASAccess::Write);
        trimRecordChanges(*tran);
        tran.commit();
    }
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_record_change"), "1");
    runSql(operation("new"));
    EXPECT_THAT(readAll(), ElementsAre("new"));
}

TEST_F(RecordChanges, APositionBeyondTheEndIsTold) {
    runSql(operation("a"));
    QORChangeReader reader(allKinds, {{"", 1000}});
    EXPECT_TRUE(reader.read(everything(), 10).reset);
    runSql(operation("b"));
    EXPECT_THAT(readOn(reader), ElementsAre("b"));
}

TEST_F(RecordChanges, OfOthersAreHidden) {
    for (unsigned i = 0; i < 20; ++i)
        runSql(event("c", i % 5 == 0 ? "NULL" : quotedEid(i % 5)));
    runSql(environment(2));
    runSql(environment(3));
    QORChangeReader reader(allKinds);
    EXPECT_THAT(readOn(reader, 2, QORRowAccess(*accessTo({2}))),
                ElementsAre("3", "8", "13", "18", eidOf(2).toString()));
    QORChangeReader none(allKinds);
    EXPECT_THAT(readOn(none, 2, QORRowAccess(*accessTo({}))), IsEmpty());
    EXPECT_EQ(none.position(), reader.position());
}

TEST_F(RecordChanges, ManyOfOthersArePassedOverInSeveralSteps) {
    std::string lines;
    for (int i = 0; i < 12000; ++i)
        lines += R"({"kind":"event","time":1})"
                 "\n";
    import(lines + R"({"kind":"event","time":1,"eid":")" + eidOf(1).toString() + "\"}\n");
    QORChangeReader reader(allKinds);
    const QORRowAccess access(*accessTo({1}));
    EXPECT_FALSE(reader.read(access, 10).atEnd);
    EXPECT_THAT(readOn(reader, 10, access), ElementsAre("12001"));
}

TEST_F(RecordChanges, AreInTheOrderOfTheCommits) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    PostgresConnection early(m_database.conninfo());
    PostgresConnection late(m_database.conninfo());
    early.run("BEGIN; " + event("early"));
    QORChangeReader reader(allKinds);
    late.run(event("late"));
    EXPECT_THAT(readOn(reader), ElementsAre("2"));
    EXPECT_THAT(readOn(reader), IsEmpty());
    early.run("COMMIT");
    EXPECT_THAT(readOn(reader), ElementsAre("1")) << "the lower number was committed later";
    EXPECT_EQ(missing(reader), 0U);
}

TEST_F(RecordChanges, OfOneTransactionAreToldOnceEach) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    PostgresConnection other(m_database.conninfo());
    QORChangeReader reader(allKinds);
    other.run("BEGIN; " + operation("a") + "; " + event("x") + "; UPDATE qor_operation SET status = 3; " + event("y") +
              "; " + environment(1) + "; UPDATE qor_environment SET title = 'x'; " + operation("b") + "; COMMIT");
    EXPECT_THAT(readOn(reader), ElementsAre(eidOf(1).toString(), "a", "b", "1", "2"));
}

/// What writers do in one transaction, in any order.
std::string randomWork(std::mt19937& random, int writer) {
    std::string work;
    for (unsigned i = 0; i < 1 + random() % 4; ++i) {
        const std::string id = std::to_string(writer) + "-" + std::to_string(random() % 10);
        switch (random() % 4) {
            case 0:
                work += operation(id) + " ON CONFLICT (id) DO UPDATE SET status = qor_operation.status + 1; ";
                break;
            case 1:
                work += environment(static_cast<std::uint64_t>(writer) * 10 + random() % 10 + 1) +
                        " ON CONFLICT (eid) DO UPDATE SET state = 1; ";
                break;
            case 2:
                work += backup(id) + " ON CONFLICT (id) DO UPDATE SET size = qor_backup.size + 1; ";
                break;
            default:
                work += event("category");
                work += "; ";
                break;
        }
    }
    return work;
}

TEST_F(RecordChanges, NobodyMissesAnythingWhileManyWrite) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    std::atomic<int> writing = 4;
    std::vector<std::jthread> writers;
    for (int writer = 0; writer < 4; ++writer) {
        writers.emplace_back([&, writer] {
            std::mt19937 random(static_cast<unsigned>(writer));
            PostgresConnection own(m_database.conninfo());
            for (int i = 0; i < 150; ++i)
                own.run("BEGIN; " + randomWork(random, writer) + (random() % 8 == 0 ? "ROLLBACK" : "COMMIT"));
            --writing;
        });
    }
    std::map<std::string, int> events;
    std::set<std::string> others;
    QORChangeReader reader({QORChangeKind::Event});
    QORChangeReader rest({QORChangeKind::Environment, QORChangeKind::Operation, QORChangeKind::Backup});
    for (bool last = false; !last;) {
        last = writing == 0;
        for (const std::string& id : readOn(reader, 5))
            ++events[id];
        for (const std::string& id : readOn(rest, 5))
            others.insert(id);
    }
    std::map<std::string, int> eachOnce;
    for (const Row& row : queryRows("SELECT seq FROM qor_event", 1))
        eachOnce[row.front()] = 1;
    EXPECT_EQ(events, eachOnce);
    std::set<std::string> all;
    for (const char* select : {"SELECT id FROM qor_operation", "SELECT id FROM qor_backup",
                               "SELECT CAST(eid AS text) FROM qor_environment"}) {
        for (const Row& row : queryRows(select, 1))
            all.insert(row.front());
    }
    EXPECT_EQ(others, all);
    EXPECT_EQ(queryText("SELECT n - (SELECT sum(last - first + 1) FROM qor_record_change) FROM qor_record_number"),
              "0");
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_record_due"), "0");
}

TEST_F(RecordChanges, WakeThoseWhoWaitWhoeverMakesThem) {
    QORChangeWatch watch;
    std::atomic<int> woken = 0;
    std::vector<std::jthread> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.emplace_back([&] {
            QORChangeReader reader(allKinds);
            for (std::size_t records = 0; records < 2;) {
                const std::uint64_t seen = watch.seen();
                const std::size_t more = readOn(reader).size();
                records += more;
                if (more == 0) watch.await(seen, std::chrono::minutes(5));
            }
            ++woken;
        });
    }
    import(R"({"kind":"event","time":1})"
           "\n");
    runSql(event("of another program"));
    waiting.clear();
    EXPECT_EQ(woken, 3);
    std::jthread last([&] { watch.await(watch.seen(), std::chrono::minutes(5)); });
    watch.stop();
}

TEST_F(RecordChanges, OfADatabaseOfAnEarlierVersionAreAllThatItHolds) {
    QORRdbms::instance().shutdown();
    const TestDatabase older;
    ASDatabaseOptions at;
    at.connectionString = older.connectionString();
    QORRdbms::instance().configure(at);
    {
        QORRdbmsTran tran(ASAccess::Write);
        QORDBSchema::migrate(*tran, 12);
        for (const std::string& statement : {operation("a"), operation("b"), operation("c"), event("x"), backup("k"),
                                             environment(4), std::string("DELETE FROM qor_operation WHERE id = 'b'")})
            tran->execute(statement);
        tran.commit();
    }
    at.readOnly = true;
    ASSERT_EQ(QORDBSchema::open(at, QORSchemaMode::Reading).version, 12);
    {
        QORRdbmsTran tran(ASAccess::Read);
        EXPECT_FALSE(keepsRecordChanges(*tran));
    }
    at.readOnly = false;
    ASSERT_EQ(QORDBSchema::open(at, QORSchemaMode::Own).found.version, 12);
    QORChangeReader reader(allKinds);
    EXPECT_THAT(readOn(reader), ElementsAre(eidOf(4).toString(), "a", "c", "1", "k"));
    QORChangeReader again(allKinds);
    EXPECT_EQ(missing(again), 0U);
    runSql(operation("d"));
    EXPECT_THAT(readOn(reader), ElementsAre("d"));
    QORRdbmsTran tran(ASAccess::Read);
    EXPECT_TRUE(keepsRecordChanges(*tran));
    EXPECT_THAT(QORDBSchema::missingParts(*tran), IsEmpty());
}

}  // namespace
}  // namespace QOR::test
