#include "QORLibAgent/QORLogs.h"

#include <algorithm>
#include <limits>
#include <random>

#include "LogDatabase.h"
#include "QORFunctionality/QORAccess.h"
#include "QORServers/QORServers.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Numbers of 32 bits, the same in every run.
class Random {
public:
    explicit Random(unsigned seed) : m_engine(seed) {}
    unsigned operator()() { return static_cast<unsigned>(m_engine()); }

private:
    std::mt19937 m_engine;
};

constexpr int forever = std::numeric_limits<int>::max();

QOROperationRecord operation(const std::string& id, std::int64_t time, unsigned own = 0,
                             const std::vector<unsigned>& touched = {}) {
    QOROperationRecord record;
    record.id = id;
    record.time = time;
    if (own != 0) record.eid = eidOf(own);
    for (const unsigned number : touched)
        record.eids.push_back(eidOf(number));
    return record;
}

QOREventRecord event(std::int64_t time, unsigned own, const std::string& category, const std::string& source) {
    QOREventRecord record;
    record.time = time;
    if (own != 0) record.eid = eidOf(own);
    record.category = category;
    record.source = source;
    return record;
}

int getOps(QOROpLogResult& result, const QOREnvSelection& envs, int from = 0, int to = forever) {
    return QOROpLogAgent().getOps(result, envs, nullptr, "", "", 0, 0, forever, from, to);
}

int getEvents(QOREventLogResult& result, const QOREnvSelection& envs, const std::string& category, int from = 0,
              int to = forever) {
    return QOREventLogAgent().getEvents(result, envs, 0, forever, nullptr, category, 0, from, to);
}

std::vector<std::string> idsOf(QOROpLogResult& result) {
    std::vector<std::string> ids;
    for (std::size_t i = 0; i < result.size(); ++i)
        ids.push_back(result.at(i).id);
    return ids;
}

std::vector<std::string> operations(const QORClientContextPtr& client, const QOREnvSelection& envs, int from = 0,
                                    int to = forever) {
    const QORClientContextScope scope(client);
    QOROpLogResult result;
    EXPECT_EQ(getOps(result, envs, from, to), 0) << getErrorMessage();
    return idsOf(result);
}

class QORLogsTest : public LogDatabaseTest {};

TEST_F(QORLogsTest, AnEmptyLogHasNoRecords) {
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all()), IsEmpty());
    EXPECT_THAT(operations(fullAccess(), eidOf(1)), IsEmpty());
}

TEST_F(QORLogsTest, RecordsComeNewestFirstAndThoseOfOneSecondByLatestArrival) {
    store({operation("early", 100), operation("first", 200), operation("second", 200), operation("late", 300),
           operation("oldest", 50)});
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all()),
                ElementsAre("late", "second", "first", "early", "oldest"));
}

TEST_F(QORLogsTest, AnOperationIsReadWithEverythingThatItHas) {
    ASSERT_EQ(import(R"({"kind":"operation","id":"a","parent_id":"p","op":"start","status":3,"time":1700000000,)"
                     R"("eid":"6ba7b810-9dad-11d1-80b4-000000000002",)"
                     R"("eids":["6ba7b810-9dad-11d1-80b4-000000000003","6ba7b810-9dad-11d1-80b4-000000000001"],)"
                     R"("message":{"task_id":"7","env":{"eid":"x"}}})")
                  .accepted(),
              1U);
    const QORClientContextScope scope(fullAccess());
    QOROpLogResult result;
    ASSERT_EQ(getOps(result, QOREnvSelection::all()), 0);
    ASSERT_EQ(result.size(), 1U);
    const QORRequestProgressData& record = result.at(0);
    EXPECT_EQ(record.id, "a");
    EXPECT_EQ(record.parentId, "p");
    EXPECT_EQ(record.op, "start");
    EXPECT_EQ(record.status, 3);
    EXPECT_EQ(record.time, 1700000000);
    EXPECT_EQ(record.eid, eidOf(2));
    EXPECT_THAT(record.eids, ElementsAre(eidOf(1), eidOf(3)));
    EXPECT_EQ(record.message.getParameterByPath("env/eid"), "x");
}

TEST_F(QORLogsTest, WhatAnOperationLacksIsEmpty) {
    store({operation("a", 1700000000)});
    const QORClientContextScope scope(fullAccess());
    QOROpLogResult result;
    ASSERT_EQ(getOps(result, QOREnvSelection::all()), 0);
    const QORRequestProgressData& record = result.at(0);
    EXPECT_EQ(record.parentId, "");
    EXPECT_EQ(record.op, "");
    EXPECT_FALSE(record.eid.isValid());
    EXPECT_THAT(record.eids, IsEmpty());
    EXPECT_TRUE(record.message.empty());
}

TEST_F(QORLogsTest, AnOperationOfVeryManyEnvironmentsIsReadWhole) {
    std::vector<unsigned> touched(500);
    for (unsigned i = 0; i < touched.size(); ++i)
        touched[i] = i + 1;
    store({operation("wide", 100, 0, touched)});
    const QORClientContextScope scope(fullAccess());
    QOROpLogResult result;
    ASSERT_EQ(getOps(result, eidOf(500)), 0);
    ASSERT_EQ(result.size(), 1U);
    EXPECT_EQ(result.at(0).eids.size(), 500U);
}

TEST_F(QORLogsTest, AnEnvironmentHasItsOwnOperationsAndThoseThatTouchIt) {
    store({operation("own", 1, 1), operation("touching", 2, 2, {1}), operation("other", 3, 2, {3}),
           operation("both", 4, 1, {1, 2}), operation("nobody's", 5)});
    EXPECT_THAT(operations(fullAccess(), eidOf(1)), ElementsAre("both", "touching", "own"));
    EXPECT_THAT(operations(fullAccess(), eidOf(3)), ElementsAre("other"));
    EXPECT_THAT(operations(fullAccess(), eidOf(4)), IsEmpty());
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::none()), IsEmpty());
    EXPECT_EQ(operations(fullAccess(), QOREID()).size(), 5U) << "the invalid identifier stands for all";
}

TEST_F(QORLogsTest, BoundsOfTimeAreIncluded) {
    store({operation("a", 100), operation("b", 200), operation("c", 300), operation("first", 0),
           operation("last", forever), operation("beyond", std::int64_t{forever} + 1), operation("before", -1)});
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all(), 100, 200), ElementsAre("b", "a"));
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all(), 101, 299), ElementsAre("b"));
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all(), 301, 299), IsEmpty());
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all()), ElementsAre("last", "c", "b", "a", "first"));
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all(), std::numeric_limits<int>::min(), 0),
                ElementsAre("first", "before"));
}

TEST_F(QORLogsTest, AClientFindsTheOperationsThatBelongToItsEnvironmentsOnly) {
    store({operation("one", 1, 1), operation("two", 2, 2), operation("shared", 3, 1, {2}),
           operation("three", 4, 3, {1, 2}), operation("four", 5, 4), operation("nobody's", 6, 0, {1})});
    EXPECT_THAT(operations(accessTo({1, 2}), QOREnvSelection::all()), ElementsAre("shared", "two", "one"));
    EXPECT_THAT(operations(accessTo({1, 2, 3}), QOREnvSelection::all()), ElementsAre("three", "shared", "two", "one"));
    EXPECT_THAT(operations(accessTo({2}), QOREnvSelection::all()), ElementsAre("two"));
    EXPECT_THAT(operations(accessTo({}), QOREnvSelection::all()), IsEmpty());
    EXPECT_THAT(operations(nullptr, QOREnvSelection::all()), IsEmpty()) << "nobody's client sees nothing";
}

TEST_F(QORLogsTest, AFilteredAnswerIsTheFullOneLessWhatTheClientMayNotSee) {
    store({operation("one", 1, 1), operation("two", 2, 2), operation("shared", 3, 1, {2}),
           operation("three", 4, 3, {1, 2}), operation("both", 5, 2, {2, 1}), operation("nobody's", 6, 0, {1})});
    EXPECT_THAT(operations(fullAccess(), eidOf(2)), ElementsAre("both", "three", "shared", "two"));
    EXPECT_THAT(operations(accessTo({2}), eidOf(2)), ElementsAre("both", "two"));
    EXPECT_THAT(operations(accessTo({2}), eidOf(1)), ElementsAre("both"));
    EXPECT_THAT(operations(accessTo({1, 3}), eidOf(2)), ElementsAre("three", "shared"));
    EXPECT_THAT(operations(accessTo({1, 2, 3}), eidOf(2)), ElementsAre("both", "three", "shared", "two"));
    EXPECT_THAT(operations(accessTo({4}), eidOf(2)), IsEmpty());
    EXPECT_THAT(operations(accessTo({}), eidOf(2)), IsEmpty());
}

TEST_F(QORLogsTest, AReplacedOperationCountsWhereItIsNow) {
    store({operation("a", 100, 1, {2}), operation("b", 200, 1)});
    store({operation("a", 5000000, 3), operation("b", 200, 1, {2})});
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all()), ElementsAre("a", "b"));
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all(), 0, 1000), ElementsAre("b"));
    EXPECT_THAT(operations(fullAccess(), eidOf(1)), ElementsAre("b"));
    EXPECT_THAT(operations(fullAccess(), eidOf(2)), ElementsAre("b"));
    EXPECT_THAT(operations(fullAccess(), eidOf(3)), ElementsAre("a"));
    EXPECT_THAT(operations(accessTo({1, 2}), QOREnvSelection::all()), ElementsAre("b"));
    EXPECT_THAT(operations(accessTo({1}), eidOf(2)), ElementsAre("b"));
}

TEST_F(QORLogsTest, AnOperationThatIsReplacedWithinItsBatchCountsOnce) {
    store({operation("a", 100, 1), operation("a", 200, 2), operation("a", 300, 2)});
    EXPECT_THAT(operations(fullAccess(), QOREnvSelection::all()), ElementsAre("a"));
    EXPECT_THAT(operations(fullAccess(), eidOf(1)), IsEmpty());
    EXPECT_THAT(operations(fullAccess(), eidOf(2)), ElementsAre("a"));
}

TEST_F(QORLogsTest, AResultSeesTheLogAsItWas) {
    store({operation("a", 100), operation("b", 200)});
    const QORClientContextScope scope(fullAccess());
    QOROpLogResult result;
    ASSERT_EQ(getOps(result, QOREnvSelection::all()), 0);
    store({operation("c", 300), operation("a", 400)});
    EXPECT_THAT(idsOf(result), ElementsAre("b", "a"));
    ASSERT_EQ(getOps(result, QOREnvSelection::all()), 0);
    EXPECT_THAT(idsOf(result), ElementsAre("a", "c", "b"));
}

TEST_F(QORLogsTest, MostRecordsCanBeBounded) {
    store({operation("a", 100), operation("b", 200), operation("c", 300)});
    const QORClientContextScope scope(fullAccess());
    QOROpLogResult result;
    ASSERT_EQ(QOROpLogAgent().getOps(result, QOREnvSelection::all(), nullptr, "", "", 0, 0, 2, 0, forever), 0);
    EXPECT_THAT(idsOf(result), ElementsAre("c", "b"));
}

TEST_F(QORLogsTest, WhatCannotBeAskedIsRefusedWithAReason) {
    const QORClientContextScope scope(fullAccess());
    QOROpLogResult result;
    EXPECT_NE(QOROpLogAgent().getOps(result, QOREnvSelection::all(), nullptr, "x", "", 0, 0, 2, 0, forever), 0);
    EXPECT_STREQ(getErrorMessage(), "operations are found by environment and time only");
    ASSERT_EQ(getOps(result, QOREnvSelection::all()), 0);
    EXPECT_STREQ(getErrorMessage(), "");
    QOREventLogResult events;
    EXPECT_NE(getEvents(events, QOREnvSelection::all(), ""), 0);
    EXPECT_STREQ(getErrorMessage(), "events are found by category, environment and time only");
}

TEST_F(QORLogsTest, AFailingDatabaseIsAFailureOfTheAgent) {
    if (hasTestServers()) GTEST_SKIP() << "breaks the process's own database, which has no records then";
    {
        QORRdbmsTran tran(ASAccess::Write);
        tran->execute("DROP TABLE qor_operation_count");
        tran.commit();
    }
    const QORClientContextScope scope(fullAccess());
    QOROpLogResult result;
    EXPECT_NE(getOps(result, QOREnvSelection::all()), 0);
    EXPECT_THAT(getErrorMessage(), ::testing::HasSubstr("qor_operation_count"));
    EXPECT_EQ(result.size(), 0U);
}

TEST_F(QORLogsTest, EventsAreFoundByCategoryEnvironmentAndTime) {
    store({event(100, 1, "resource_alert", "a"), event(200, 2, "resource_alert", "b"), event(300, 1, "env_status", "c"),
           event(400, 0, "resource_alert", "d"), event(500, 1, "other", "e")});
    const auto sources = [](const QORClientContextPtr& client, const QOREnvSelection& envs, const std::string& category,
                            int from = 0, int to = forever) {
        const QORClientContextScope scope(client);
        QOREventLogResult result;
        EXPECT_EQ(getEvents(result, envs, category, from, to), 0) << getErrorMessage();
        std::vector<std::string> found;
        for (std::size_t i = 0; i < result.size(); ++i) {
            EXPECT_EQ(result.at(i).category, category);
            found.push_back(result.at(i).source);
        }
        return found;
    };
    EXPECT_THAT(sources(fullAccess(), QOREnvSelection::all(), "resource_alert"), ElementsAre("d", "b", "a"));
    EXPECT_THAT(sources(fullAccess(), QOREnvSelection::all(), "resource_alert", 100, 200), ElementsAre("b", "a"));
    EXPECT_THAT(sources(fullAccess(), eidOf(1), "resource_alert"), ElementsAre("a"));
    EXPECT_THAT(sources(fullAccess(), eidOf(1), "env_status"), ElementsAre("c"));
    EXPECT_THAT(sources(fullAccess(), QOREnvSelection::all(), "nothing"), IsEmpty());
    EXPECT_THAT(sources(accessTo({1, 2}), QOREnvSelection::all(), "resource_alert"), ElementsAre("b", "a"));
    EXPECT_THAT(sources(accessTo({2}), QOREnvSelection::all(), "resource_alert"), ElementsAre("b"));
    EXPECT_THAT(sources(accessTo({2}), eidOf(1), "resource_alert"), IsEmpty());
}

/// What the log should hold, kept in memory.
class Model {
public:
    void put(const QOROperationRecord& record) {
        const auto same = std::find_if(m_records.begin(), m_records.end(),
                                       [&](const QOROperationRecord& one) { return one.id == record.id; });
        if (same == m_records.end()) {
            m_records.push_back(record);
        } else if (isElsewhere(same->eid, record.eid)) {
            m_records.erase(same);
            m_records.push_back(record);
        } else {
            *same = record;
        }
    }
    /// \param owners whose records are seen, empty for all \param touched 0, or what the records belong to or touch
    std::vector<std::string> ids(const std::vector<unsigned>& owners, unsigned touched, int from, int to) const {
        std::set<QOREID> seen;
        for (const unsigned number : owners)
            seen.insert(eidOf(number));
        std::vector<const QOROperationRecord*> found;
        for (const QOROperationRecord& record : m_records) {
            if (record.time < from || record.time > to) continue;
            if (!seen.empty() && !seen.contains(record.eid)) continue;
            const bool touches = touched == 0 || record.eid == eidOf(touched) ||
                                 std::find(record.eids.begin(), record.eids.end(), eidOf(touched)) != record.eids.end();
            if (touches) found.push_back(&record);
        }
        std::reverse(found.begin(), found.end());
        std::stable_sort(found.begin(), found.end(), [](const auto* a, const auto* b) { return a->time > b->time; });
        std::vector<std::string> ids;
        for (const auto* record : found)
            ids.push_back(record->id);
        return ids;
    }

private:
    /// A record that comes to another server has arrived anew there.
    static bool isElsewhere(const QOREID& before, const QOREID& now) {
        const auto placement = QORServers::instance().placement();
        return !placement->none() && !(placement->of(before) == placement->of(now));
    }

    std::vector<QOROperationRecord> m_records;
};

/// Times that fill buckets of every width: most in a few hours, many in one minute, many in one second.
class TimeMaker {
public:
    explicit TimeMaker(Random& random) : m_random(random) {}
    std::int64_t operator()() {
        switch (m_random() % 4) {
            case 0:
                return static_cast<std::int64_t>(m_random() % 2000000000U);
            case 1:
                return start + static_cast<std::int64_t>(m_random() % 10000);
            case 2:
                return start + static_cast<std::int64_t>(m_random() % 60);
            default:
                return start + 7;
        }
    }
    static constexpr std::int64_t start = 1700000000;

private:
    Random& m_random;
};

TEST_F(QORLogsTest, SizesAndPositionsAgreeWithALogThatIsWalked) {
    Random random(20240501);
    TimeMaker time(random);
    Model model;
    constexpr unsigned environments = 4;
    for (unsigned round = 0; round < 8; ++round) {
        std::vector<QORRecord> batch;
        std::set<std::string> ofBatch;
        // Few records and many are counted in different ways.
        const unsigned records = round % 4 == 3 ? 3 : 900;
        for (unsigned i = 0; i < records; ++i) {
            const bool replaces = round > 0 && random() % 10 == 0;
            const std::string id = std::to_string(replaces ? random() % (round * 900) : round * 900 + i);
            std::vector<unsigned> touched;
            while (random() % 3 == 0)
                touched.push_back(1 + random() % environments);
            std::sort(touched.begin(), touched.end());
            touched.erase(std::unique(touched.begin(), touched.end()), touched.end());
            const QOROperationRecord record = operation(id, time(), random() % (environments + 1), touched);
            // What a batch says last counts, and where a record was before the batch: the model knows no batches.
            if (hasTestServers() && !ofBatch.insert(id).second) continue;
            model.put(record);
            batch.emplace_back(record);
        }
        store(batch);
    }
    const auto check = [&](const std::vector<unsigned>& owners, unsigned touched, int from, int to) {
        const QORClientContextScope scope(owners.empty() ? fullAccess() : accessTo(owners));
        const std::vector<std::string> expected = model.ids(owners, touched, from, to);
        QOROpLogResult result;
        ASSERT_EQ(getOps(result, touched == 0 ? QOREnvSelection::all() : eidOf(touched), from, to), 0)
            << getErrorMessage();
        ASSERT_EQ(result.size(), expected.size());
        if (expected.empty()) return;
        for (int i = 0; i < 4; ++i) {
            const std::size_t at = i == 0 ? expected.size() - 1 : random() % expected.size();
            ASSERT_EQ(result.at(at).id, expected[at]) << "position " << at << " of " << expected.size();
        }
        const std::size_t start = random() % expected.size();
        for (std::size_t at = start; at < std::min(start + 100, expected.size()); ++at)
            ASSERT_EQ(result.at(at).id, expected[at]) << "position " << at << " going on from " << start;
    };
    constexpr int around = static_cast<int>(TimeMaker::start);
    for (const auto& [from, to] : std::vector<std::pair<int, int>>{{0, forever},
                                                                   {0, around + 7},
                                                                   {around + 7, around + 7},
                                                                   {around + 8, forever},
                                                                   {around + 3, around + 30},
                                                                   {around - 100000, around + 5000},
                                                                   {around - 1, around + 9999}}) {
        SCOPED_TRACE(std::to_string(from) + " to " + std::to_string(to));
        for (const std::vector<unsigned>& owners :
             std::vector<std::vector<unsigned>>{{}, {2}, {1, 3}, {1, 2, 3, 4}, {4, 9}}) {
            for (unsigned touched = 0; touched <= environments; ++touched)
                check(owners, touched, from, to);
        }
    }
}

}  // namespace
}  // namespace QOR::test
