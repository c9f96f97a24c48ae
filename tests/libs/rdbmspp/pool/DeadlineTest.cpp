// What a thread does for a request ends with the request, and leaves the database as usable as before.
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRequestControl.h"
#include "libs/rdbmspp/DatabaseFixture.h"
#include "support/WaitingRequest.h"

namespace QOR::test {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char* numbers =
    "CREATE TABLE n (i INT); WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < 3000)"
    " INSERT INTO n SELECT i FROM c; CREATE VIEW v AS SELECT i FROM n;"
    "CREATE VIEW endless AS SELECT a.i FROM n a, n b, n c, n d;"
    "CREATE VIEW vain AS SELECT a.i FROM n a, n b, n c, n d WHERE a.i + b.i + c.i + d.i < 0";

constexpr const char* passed = "the request's deadline of 100 ms has passed";

class DeadlineTest : public DatabaseTest {
protected:
    void SetUp() override { open(numbers); }

    /// Makes a request of 100 ms that of this thread for the call. \returns how it ended
    template <class Call>
    static std::string ended(Call call) {
        const QORRequestScope scope(std::make_shared<QORRequestControl>(milliseconds(100)));
        return outcome(call);
    }
    /// What a request is told that waits in the call until its deadline.
    template <class Call>
    static std::string waitedFor(Call call) {
        return toldWhileWaiting([&] { return outcome(call); });
    }
    template <class Call>
    static std::string outcome(Call call) {
        try {
            call();
        } catch (const QORException& error) {
            EXPECT_EQ(error.code(), errDeadline);
            return error.message();
        } catch (const AException& error) {
            return "failure: " + error.text();
        }
        return "done";
    }
    static std::vector<std::string> firstOfV() {
        const Column i = column(domainOf("v"), "i", ASType::Int);
        return select(i.attribute, i.attribute <= ASInt(2));
    }
    static void run(const char* sql, ASAccess access = ASAccess::ReadOne) {
        QORRdbmsTran transaction(access);
        transaction->execute(sql);
        transaction.commit();
    }
};

TEST_F(DeadlineTest, AStatementOfTheHostsOwnEnds) {
    EXPECT_EQ(ended([] { run("SELECT count(*) FROM endless"); }), passed);
    EXPECT_EQ(ended([] {
                  QORRdbmsTran transaction(ASAccess::Read);
                  transaction->prepare("SELECT count(*) FROM endless WHERE i > ?").bind(1, std::int64_t{1}).execute();
              }),
              passed);
    EXPECT_THAT(firstOfV(), ElementsAre("1", "2"));
}

TEST_F(DeadlineTest, ACursorEndsWhetherOrNotItFindsRows) {
    for (const char* view : {"endless", "vain"}) {
        for (const int limit : {0, 20, 1 << 30}) {
            const Column i = column(domainOf(view), "i", ASType::Int);
            EXPECT_EQ(ended([&] {
                          for (const ASAccess access : {ASAccess::ReadOne, ASAccess::Read}) {
                              QORRdbmsTran transaction(access);
                              ASCursor cursor(*transaction);
                              cursor.Filter().Project() << i.attribute;
                              cursor.Filter().Set(i.attribute != ASInt(7));
                              if (limit > 0) cursor.Limit(limit, 0);
                              while (cursor.Fetch()) {
                              }
                              while (limit == 20 && view[0] == 'e')  // twenty rows are found at once
                                  QORRequestControl::checkCurrent();
                          }
                      }),
                      passed)
                << view << ' ' << limit;
            EXPECT_THAT(firstOfV(), ElementsAre("1", "2"));
        }
    }
}

TEST_F(DeadlineTest, RowsThatLieInMemoryAreNotFetchedOnForEver) {
    EXPECT_EQ(ended([] {
                  QORRdbmsTran transaction(ASAccess::ReadOne);
                  ASStatement& rows = transaction->prepare("SELECT i FROM n");
                  for (rows.execute();; rows.execute()) {
                      while (rows.fetch()) {
                      }
                  }
              }),
              passed);
}

TEST_F(DeadlineTest, WhatAWriterHasWrittenIsTakenBack) {
    const std::string outcome = ended([] {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->execute("INSERT INTO n VALUES (-1)");
        transaction->execute("INSERT INTO n SELECT a.i FROM n a, n b, n c");
        transaction.commit();
    });
    EXPECT_EQ(outcome, passed);
    run("INSERT INTO n VALUES (-2)", ASAccess::Write);
    EXPECT_EQ(Engine(path()).rows("SELECT i FROM n WHERE i < 0 OR i > 3000").size(), 1U);
}

TEST_F(DeadlineTest, ACancelledRequestEndsItsStatement) {
    const auto control = std::make_shared<QORRequestControl>();
    std::atomic<bool> started{false};
    std::string result;
    std::thread worker([&] {
        const QORRequestScope scope(control);
        started = true;
        result = outcome([] { run("SELECT count(*) FROM endless"); });
    });
    while (!started)
        std::this_thread::yield();
    control->cancel(QORRequestControl::End::Gone);
    worker.join();
    EXPECT_EQ(result, "the client has gone");
}

TEST_F(DeadlineTest, ARequestThatHasEndedBeginsNothing) {
    const auto control = std::make_shared<QORRequestControl>();
    control->cancel(QORRequestControl::End::Stopping);
    const QORRequestScope scope(control);
    EXPECT_EQ(outcome([] { run("SELECT 1"); }), "the agent is stopping");
    EXPECT_EQ(outcome([] { run("INSERT INTO n VALUES (1)", ASAccess::Write); }), "the agent is stopping");
}

TEST_F(DeadlineTest, WaitingForAConnectionEnds) {
    auto limited = options();
    limited.maxConnections = 1;
    QORRdbms::instance().configure(limited);
    {
        const QORRdbmsTran held(ASAccess::ReadOne);
        std::string result;
        std::thread([&] { result = ended([] { firstOfV(); }); }).join();
        EXPECT_EQ(result, passed);
        EXPECT_EQ(QORRdbms::instance().waiting(), 0U);
    }
    EXPECT_THAT(firstOfV(), ElementsAre("1", "2"));
}

TEST_F(DeadlineTest, WaitingForAnotherProgramsLockEndsAndSaysWhy) {
    Engine locker(path());
    locker.run("BEGIN IMMEDIATE");
    EXPECT_EQ(waitedFor([] { run("INSERT INTO n VALUES (1)", ASAccess::Write); }),
              ": database \"" + path() + "\": database is locked");
    locker.run("ROLLBACK");
    const QORRequestScope patient(std::make_shared<QORRequestControl>(hours(1)));
    EXPECT_EQ(outcome([] { run("INSERT INTO n VALUES (1)", ASAccess::Write); }), "done");
}

TEST_F(DeadlineTest, AReaderWaitsForALockNoLongerThanItsRequestGoesOn) {
    QORRdbms::instance().shutdown();
    auto rollback = options();
    rollback.connectionString += ";JournalMode=DELETE;Timeout=0";
    QORRdbms::instance().configure(rollback);
    Engine locker(path());
    locker.run("BEGIN EXCLUSIVE");
    EXPECT_EQ(waitedFor([] { firstOfV(); }), ": database \"" + path() + "\": database is locked");
    locker.run("ROLLBACK");
    EXPECT_THAT(firstOfV(), ElementsAre("1", "2"));
}

// --- the queue of writers -----------------------------------------------------------------------------------------

class WriterQueueTest : public DeadlineTest {
protected:
    /// A writer that waits until it is told to go on.
    class Holder {
    public:
        Holder() {
            m_thread = std::thread([this] {
                QORRdbmsTran transaction(ASAccess::Write);
                m_began = true;
                while (!m_end)
                    std::this_thread::sleep_for(milliseconds(1));
                transaction.commit();
            });
            while (!m_began)
                std::this_thread::yield();
        }
        ~Holder() { end(); }
        void end() {
            m_end = true;
            if (m_thread.joinable()) m_thread.join();
        }

    private:
        std::atomic<bool> m_began{false};
        std::atomic<bool> m_end{false};
        std::thread m_thread;
    };

    static void awaitWaiting(std::size_t number) {
        while (QORRdbms::instance().waitingWriters() != number)
            std::this_thread::sleep_for(milliseconds(1));
    }
};

TEST_F(WriterQueueTest, WritersGoInTheOrderInWhichTheyCame) {
    std::vector<int> order;
    std::mutex mutex;
    std::vector<std::thread> writers;
    {
        Holder holder;
        for (int number = 0; number < 8; ++number) {
            writers.emplace_back([&, number] {
                const QORRequestScope scope(std::make_shared<QORRequestControl>(hours(1)));
                QORRdbmsTran transaction(ASAccess::Write);
                const std::lock_guard lock(mutex);
                order.push_back(number);
                transaction.commit();
            });
            awaitWaiting(static_cast<std::size_t>(number) + 1);
        }
    }
    for (auto& writer : writers)
        writer.join();
    EXPECT_THAT(order, ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
}

TEST_F(WriterQueueTest, WhoWaitsToWriteTakesNoConnectionFromReaders) {
    auto limited = options();
    limited.maxConnections = 2;
    QORRdbms::instance().configure(limited);
    std::vector<std::thread> writers;
    {
        Holder holder;
        for (std::size_t number = 1; number <= 4; ++number) {
            writers.emplace_back([] {
                const QORRequestScope scope(std::make_shared<QORRequestControl>(hours(1)));
                run("INSERT INTO n VALUES (5)", ASAccess::Write);
            });
            awaitWaiting(number);
        }
        EXPECT_THAT(firstOfV(), ElementsAre("1", "2"));
        EXPECT_EQ(QORRdbms::instance().waiting(), 0U);
    }
    for (auto& writer : writers)
        writer.join();
}

TEST_F(WriterQueueTest, NobodyIsRefusedWhileTurnsGoOn) {
    std::vector<std::thread> writers;
    std::atomic<int> failures{0};
    for (int number = 0; number < 32; ++number) {
        writers.emplace_back([&] {
            const QORRequestScope scope(std::make_shared<QORRequestControl>(hours(1)));
            for (int turn = 0; turn < 5; ++turn) {
                const std::string result = outcome([] {
                    QORRdbmsTran transaction(ASAccess::Write);  // the patience with locks is 100 ms
                    transaction->execute("INSERT INTO n SELECT i FROM n LIMIT 2000");
                    transaction.commit();
                });
                if (result != "done") ++failures;
            }
        });
    }
    for (auto& writer : writers)
        writer.join();
    EXPECT_EQ(failures, 0);
}

TEST_F(WriterQueueTest, ARequestLeavesTheQueueAtItsDeadline) {
    Holder holder;
    EXPECT_EQ(waitedFor([] { run("INSERT INTO n VALUES (5)", ASAccess::Write); }),
              ": database \"" + path() + "\": others are writing");
    EXPECT_EQ(QORRdbms::instance().waitingWriters(), 0U);
}

TEST_F(WriterQueueTest, WithoutARequestATurnThatDoesNotEndIsGivenUp) {
    Holder holder;
    EXPECT_EQ(outcome([] { run("INSERT INTO n VALUES (5)", ASAccess::Write); }),
              "failure: database \"" + path() + "\": database is locked");
}

TEST_F(WriterQueueTest, AThreadThatWritesAlreadyIsToldInsteadOfWaitingForItself) {
    const QORRdbmsTran writing(ASAccess::Write);
    EXPECT_EQ(outcome([] { run("INSERT INTO n VALUES (5)", ASAccess::Write); }),
              "failure: this thread is writing already");
}

TEST_F(WriterQueueTest, ATurnEndsWithItsCommit) {
    QORRdbmsTran writing(ASAccess::Write);
    writing.commit();
    EXPECT_EQ(outcome([] { run("INSERT INTO n VALUES (5)", ASAccess::Write); }), "done");
}

}  // namespace
}  // namespace QOR::test
