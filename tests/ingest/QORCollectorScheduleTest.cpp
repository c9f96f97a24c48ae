#include "ingest/QORCollectorSchedule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRequestControl.h"
#include "QORFunctionality/QORCollector.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

using test::queryText;
using testing::HasSubstr;

std::string eventLine(const std::string& category) {
    return R"({"kind":"event","time":1,"source":"test","category":")" + category + "\"}";
}

/// A collector that does what a test wants.
class ToldCollector final : public QORCollector {
public:
    using Work = std::function<bool(QORCollection&)>;
    ToldCollector(std::string name, Work work, std::chrono::milliseconds deadline = std::chrono::hours(1))
        : QORCollector({.name = std::move(name), .source = "/a/source", .deadline = deadline}),
          m_work(std::move(work)) {}
    bool collect(QORCollection& collection) override { return m_work(collection); }

private:
    const Work m_work;
};

/// A door that is shut until somebody opens it.
class Door {
public:
    void open() {
        const std::lock_guard lock(m_mutex);
        m_open = true;
        m_opened.notify_all();
    }
    void pass() {
        std::unique_lock lock(m_mutex);
        m_opened.wait(lock, [this] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_opened;
    bool m_open = false;
};

class CollectorSchedule : public testing::Test {
protected:
    CollectorSchedule() { m_database.open(); }

    static QORCollectorState stateOf(const QORCollectorSchedule& schedule, const std::string& name) {
        for (const QORCollectorState& state : schedule.states()) {
            if (state.name == name) return state;
        }
        ADD_FAILURE() << "there is no " << name;
        return {};
    }
    static void awaitOutcome(const QORCollectorSchedule& schedule, const std::string& name, QORCollectOutcome outcome) {
        while (stateOf(schedule, name).outcome != outcome)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    static std::uint64_t runs(const QORCollectorState& state, QORCollectOutcome outcome) {
        return state.runs.at(static_cast<std::size_t>(outcome));
    }
    static void keep(QORCollectorSchedule& schedule, const std::string& wish) {
        const std::vector<QORCollectorWish> wishes{readCollectorWish(wish)};
        checkCollectorWishes(wishes);
        schedule.keep(wishes);
    }

    const test::TemporaryDirectory m_root;
    test::HostDatabase m_database{test::TestTables::Own};
};

TEST_F(CollectorSchedule, OneRunsByItselfAndGoesOnWhereItWas) {
    std::vector<std::string> positions;
    ToldCollector told("told", [&](QORCollection& collection) {
        positions.push_back(collection.position());
        collection.add(eventLine("run"));
        collection.setPosition("at 'x' " + std::to_string(positions.size()));
        return true;
    });
    for (int start = 1; start <= 2; ++start) {
        QORCollectorSchedule schedule(m_root.path());
        EXPECT_EQ(stateOf(schedule, "told").outcome, std::nullopt);
        keep(schedule, "told=1d");
        awaitOutcome(schedule, "told", QORCollectOutcome::Done);
        const QORCollectorState state = stateOf(schedule, "told");
        EXPECT_EQ(state.every, std::chrono::hours(24));
        EXPECT_EQ(state.records, 1U);
        EXPECT_EQ(runs(state, QORCollectOutcome::Done), 1U);
        EXPECT_EQ(stateOf(schedule, "machine").every, std::nullopt);
        EXPECT_TRUE(schedule.stop(std::chrono::hours(1)));
    }
    EXPECT_EQ(positions, (std::vector<std::string>{"", "at 'x' 1"}));
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "2");
}

TEST_F(CollectorSchedule, OneThatHangsIsLeftAloneUntilItReturns) {
    Door door;
    ToldCollector dead(
        "dead",
        [&](QORCollection& collection) {
            door.pass();
            collection.add(eventLine("late"));
            collection.setPosition("late");
            return true;
        },
        std::chrono::milliseconds(1));
    ToldCollector alive("alive", [](QORCollection& collection) {
        collection.add(eventLine("in time"));
        return true;
    });
    QORCollectorSchedule schedule(m_root.path());
    keep(schedule, "dead=1d");
    awaitOutcome(schedule, "dead", QORCollectOutcome::Hung);
    EXPECT_THAT(stateOf(schedule, "dead").text, HasSubstr("from reading /a/source"));

    const QORCollectResult result = schedule.collectNow({}, nullptr);
    EXPECT_EQ(result.outcome, QORCollectOutcome::Hung);
    EXPECT_EQ(result.stored.of(QORRecordKind::Event).added, 1U) << "the others are none the worse";
    EXPECT_THAT(result.unreadable, testing::Contains(HasSubstr("dead: it has not come back for 0 s")));

    door.open();
    while (stateOf(schedule, "dead").outcome == QORCollectOutcome::Hung)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const QORCollectorState state = stateOf(schedule, "dead");
    EXPECT_EQ(state.outcome, QORCollectOutcome::Failed);
    EXPECT_EQ(runs(state, QORCollectOutcome::Hung), 1U);
    EXPECT_EQ(queryText("SELECT category FROM qor_event"), "in time");
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_collector_position"), "0");
}

TEST_F(CollectorSchedule, StoppingTellsWhetherAllHaveEnded) {
    Door entered;
    Door door;
    ToldCollector slow("slow", [&](QORCollection& collection) {
        entered.open();
        door.pass();
        EXPECT_TRUE(collection.isStopping());
        return true;
    });
    QORCollectorSchedule schedule(m_root.path());
    keep(schedule, "slow");
    entered.pass();
    EXPECT_FALSE(schedule.stop(std::chrono::milliseconds(0)));
    EXPECT_EQ(stateOf(schedule, "slow").outcome, QORCollectOutcome::Hung);
    EXPECT_EQ(schedule.collectNow({}, nullptr).outcome, QORCollectOutcome::None) << "nothing is begun any more";
    door.open();
    EXPECT_TRUE(schedule.stop(std::chrono::hours(1)));
}

TEST_F(CollectorSchedule, WhoWaitsForOneThatDoesNotEndIsLetGo) {
    Door entered;
    Door door;
    ToldCollector slow("slow", [&](QORCollection&) {
        entered.open();
        door.pass();
        return true;
    });
    ToldCollector after("after", [](QORCollection&) { return true; });
    QORCollectorSchedule schedule(m_root.path());
    std::thread stopping([&] {
        entered.pass();
        EXPECT_FALSE(schedule.stop(std::chrono::milliseconds(0)));
    });
    const QORCollectResult result = schedule.collectNow({}, nullptr);
    stopping.join();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Hung);
    EXPECT_EQ(result.unreadable, std::vector<std::string>{"slow: it has not ended when it was told to"});
    EXPECT_EQ(stateOf(schedule, "after").outcome, std::nullopt);
    door.open();
    EXPECT_TRUE(schedule.stop(std::chrono::hours(1)));
}

TEST_F(CollectorSchedule, AMissingSourceIsNoFailureAndAFailureIsTold) {
    ToldCollector none("none", [](QORCollection&) { return false; });
    ToldCollector failing("failing", [](QORCollection& collection) -> bool {
        collection.add(eventLine("before"));
        collection.setPosition("before");
        throw std::runtime_error("the source is nonsense");
    });
    ToldCollector wrong("wrong", [](QORCollection& collection) {
        collection.add(R"({"kind":"event"})");
        collection.setPosition("behind");
        return true;
    });
    ToldCollector unreadable("unreadable", [](QORCollection& collection) {
        collection.cannotRead("/a/source: no right");
        return true;
    });
    ToldCollector odd("odd", [](QORCollection&) -> bool { throw 1; });
    QORCollectorSchedule schedule(m_root.path());
    const QORCollectResult result = schedule.collectNow({}, nullptr);
    EXPECT_EQ(stateOf(schedule, "none").outcome, QORCollectOutcome::None);
    EXPECT_EQ(stateOf(schedule, "unreadable").outcome, QORCollectOutcome::Failed);
    EXPECT_EQ(stateOf(schedule, "unreadable").text, "it cannot read /a/source: no right");
    EXPECT_EQ(stateOf(schedule, "odd").outcome, QORCollectOutcome::Failed);
    EXPECT_EQ(stateOf(schedule, "dpkg").outcome, QORCollectOutcome::None) << "there is no log below the root";
    EXPECT_EQ(stateOf(schedule, "failing").outcome, QORCollectOutcome::Failed);
    EXPECT_EQ(stateOf(schedule, "failing").text, "the source is nonsense");
    EXPECT_EQ(stateOf(schedule, "wrong").outcome, QORCollectOutcome::Failed);
    EXPECT_THAT(stateOf(schedule, "wrong").text, HasSubstr("a record makes no sense: "));
    EXPECT_THAT(result.unreadable,
                testing::UnorderedElementsAre("failing: the source is nonsense", "/a/source: no right",
                                              "odd: it threw what is no exception",
                                              HasSubstr("wrong: a record makes no sense")));
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "1") << "what came before the failure is kept";
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_collector_position"), "0") << "and is read again";
}

TEST_F(CollectorSchedule, WhatIsToldToEndStoresNothingMoreAndIsReadAgain) {
    Door added;
    ToldCollector slow("slow", [&](QORCollection& collection) {
        collection.add(eventLine("late"));
        collection.setPosition("behind");
        added.open();
        while (!collection.isStopping())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return true;
    });
    QORCollectorSchedule schedule(m_root.path());
    keep(schedule, "slow=1h");
    added.pass();
    EXPECT_TRUE(schedule.stop(std::chrono::hours(1)));
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_event"), "0");
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_collector_position"), "0");
}

TEST_F(CollectorSchedule, ARunThatNobodyWaitsForAnyMoreIsToldToEnd) {
    const auto control = std::make_shared<QORRequestControl>(std::chrono::hours(1));
    Door told;
    ToldCollector slow("slow", [&](QORCollection& collection) {
        control->cancel(QORRequestControl::End::Gone);
        while (!collection.isStopping())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        told.open();
        return true;
    });
    QORCollectorSchedule schedule(m_root.path());
    {
        const QORRequestScope scope(control);
        EXPECT_THROW(schedule.collectNow({}, nullptr), QORException);
    }
    told.pass();
    EXPECT_TRUE(schedule.stop(std::chrono::hours(1)));
}

TEST_F(CollectorSchedule, WishesAreChecked) {
    registerCollectors();
    EXPECT_EQ(readCollectorWish("dpkg").every, std::nullopt);
    EXPECT_EQ(readCollectorWish("dpkg=1m30s").every, std::chrono::seconds(90));
    for (const char* const text : {"", "=1h", "dpkg=", "dpkg=0s", "dpkg=-1s", "dpkg=often", "dpkg=36501d"})
        EXPECT_THROW(readCollectorWish(text), QORException) << text;
    const auto check = [](std::vector<QORCollectorWish> wishes) { checkCollectorWishes(wishes); };
    EXPECT_NO_THROW(check({{"all", {}}, {"dpkg", {}}}));
    EXPECT_THROW(check({{"dpkg", {}}, {"dpkg", std::chrono::seconds(1)}}), QORException);
    try {
        check({{"dpgk", {}}});
        FAIL() << "was taken";
    } catch (const QORException& error) {
        EXPECT_THAT(error.message(),
                    HasSubstr("collect: there is no collector \"dpgk\" (did you mean dpkg?); there are "));
    }
}

TEST_F(CollectorSchedule, OfTwoCollectorsOfOneNameTheFirstCounts) {
    const auto one = std::make_unique<ToldCollector>("one", [](QORCollection&) { return true; });
    const QORCollectorRegistry& registry = QORCollectorRegistry::instance();
    const auto before = registry.all();
    {
        const ToldCollector again("one", [](QORCollection&) { return false; });
        const ToldCollector all("all", [](QORCollection&) { return false; });
        EXPECT_EQ(registry.all(), before);
        EXPECT_THAT(registry.refusals(), testing::ElementsAre("there is a collector \"one\" already",
                                                              HasSubstr("a collector cannot be called \"all\"")));
    }
    EXPECT_EQ(registry.all(), before);
    EXPECT_THAT(registry.refusals(), testing::IsEmpty());
}

TEST_F(CollectorSchedule, AllMeansThoseThatNoOtherWishNames) {
    QORCollectorSchedule schedule(m_root.path());
    const std::vector<QORCollectorWish> wishes{{"dpkg", std::chrono::hours(2)}, {"all", {}}};
    schedule.keep(wishes);
    EXPECT_EQ(stateOf(schedule, "dpkg").every, std::chrono::hours(2));
    EXPECT_EQ(stateOf(schedule, "machine").every, std::chrono::hours(1));
    schedule.keep({});
    EXPECT_EQ(stateOf(schedule, "dpkg").every, std::nullopt);
}

}  // namespace
}  // namespace QOR
