#include "host/QORClientSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORMessage/QORBinaryIterator.h"
#include "TestOperators.h"

namespace QOR {
namespace {

using Outcome = QORClientSession::Outcome;

Outcome runSelect(QORClientSession& session, const QORClientContextPtr& identity, const std::string& name = "test",
                  const std::string& request = "select") {
    QORMessage in;
    QORMessage out;
    QORBinaryIterator from = in.root();
    QORBinaryIterator to = out.root();
    return session.run(identity, name, request, from, to);
}

TEST(ClientSession, OperatorIsMadeByItsFirstRequestAndKept) {
    test::ServedOperator served("test");
    int started = 0;
    served.behaviour.init = [&] { ++started; };
    QORClientSession session(fullAccessContext());
    EXPECT_EQ(served.behaviour.made, 0);
    for (int request = 0; request < 3; ++request)
        EXPECT_EQ(runSelect(session, session.context()), Outcome::Done);
    EXPECT_EQ(served.behaviour.made, 1);
    EXPECT_EQ(started, 1);
}

TEST(ClientSession, EverySessionHasItsOwnOperator) {
    test::ServedOperator served("test");
    QORClientSession first(fullAccessContext());
    QORClientSession second(noAccessContext());
    runSelect(first, first.context());
    runSelect(second, second.context());
    EXPECT_EQ(served.behaviour.made, 2);
}

TEST(ClientSession, NamesThatNobodyServesAreToldApart) {
    test::ServedOperator served("test");
    QORClientSession session(fullAccessContext());
    EXPECT_EQ(runSelect(session, session.context(), "other"), Outcome::UnknownOperator);
    EXPECT_EQ(runSelect(session, session.context(), "test", "insert"), Outcome::UnknownRequest);
}

TEST(ClientSession, RequestRunsAsTheIdentityGivenOnTheSameOperator) {
    test::ServedOperator served("test");
    std::vector<bool> seen;
    served.behaviour.select = [&](auto&, auto&) {
        seen.push_back(QORAccessChecker::hasFullAccess(QORAccessChecker::getClientContext()));
    };
    QORClientSession session(fullAccessContext());
    runSelect(session, session.context());
    runSelect(session, noAccessContext());
    runSelect(session, session.context());
    EXPECT_EQ(seen, (std::vector<bool>{true, false, true}));
    EXPECT_EQ(served.behaviour.made, 1);
    EXPECT_FALSE(QORAccessChecker::hasFullAccess(QORAccessChecker::getClientContext()));
}

TEST(ClientSession, StartRunsAsTheIdentityOfTheFirstRequest) {
    test::ServedOperator served("test");
    bool full = true;
    served.behaviour.init = [&] { full = QORAccessChecker::hasFullAccess(QORAccessChecker::getClientContext()); };
    QORClientSession session(fullAccessContext());
    runSelect(session, noAccessContext());
    EXPECT_FALSE(full);
}

TEST(ClientSession, OperatorThatDoesNotStartIsMadeAnew) {
    test::ServedOperator served("test");
    bool works = false;
    served.behaviour.init = [&] {
        if (!works) throw std::runtime_error("not yet");
    };
    QORClientSession session(fullAccessContext());
    EXPECT_THROW(runSelect(session, session.context()), std::runtime_error);
    EXPECT_EQ(served.behaviour.alive, 0);
    works = true;
    EXPECT_EQ(runSelect(session, session.context()), Outcome::Done);
}

TEST(ClientSession, RequestsOfOneSessionRunOneAtATime) {
    test::ServedOperator served("test");
    std::atomic<int> running{0};
    std::atomic<int> most{0};
    served.behaviour.select = [&](auto&, auto&) {
        const int now = ++running;
        if (now > most) most = now;
        std::this_thread::yield();
        --running;
    };
    QORClientSession session(fullAccessContext());
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&] {
            for (int request = 0; request < 50; ++request)
                runSelect(session, session.context());
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(most, 1);
    EXPECT_EQ(served.behaviour.made, 1);
}

TEST(ClientSession, StopIsCalledAfterEveryRequest) {
    test::ServedOperator served("test");
    int stops = 0;
    served.behaviour.stop = [&] { ++stops; };
    QORClientSession session(fullAccessContext());
    runSelect(session, session.context());
    runSelect(session, session.context());
    EXPECT_EQ(stops, 2);
}

TEST(ClientSession, DisconnectTellsAndDropsTheOperatorOnce) {
    test::ServedOperator served("test");
    int told = 0;
    served.behaviour.disconnect = [&] { ++told; };
    {
        QORClientSession session(fullAccessContext());
        runSelect(session, session.context());
        session.disconnect();
        EXPECT_EQ(told, 1);
        EXPECT_EQ(served.behaviour.alive, 0);
        EXPECT_THROW(runSelect(session, session.context()), QORException);
    }
    EXPECT_EQ(told, 1);
}

TEST(ClientSession, AnOperatorThatWasNeverAskedIsNotToldOfTheEnd) {
    test::ServedOperator served("test");
    int told = 0;
    served.behaviour.disconnect = [&] { ++told; };
    { const QORClientSession session(fullAccessContext()); }
    EXPECT_EQ(told, 0);
}

TEST(ClientSession, AFailingDisconnectIsSwallowed) {
    test::ServedOperator served("test");
    served.behaviour.disconnect = [] { throw std::runtime_error("cannot let go"); };
    {
        QORClientSession session(fullAccessContext());
        runSelect(session, session.context());
    }
    EXPECT_EQ(served.behaviour.alive, 0);
}

TEST(ClientSession, MessagesAreLentEmptyAndTheirMemoryIsKept) {
    QORClientSession session(fullAccessContext());
    const QORMessageNode* first = nullptr;
    session.withMessage([&](QORMessage& message) {
        QORBinaryIterator at = message.root();
        at.putValue("something", tag::value);
        first = message.rootNode()->firstChild;
    });
    session.withMessage([&](QORMessage& message) {
        EXPECT_TRUE(message.empty());
        QORBinaryIterator at = message.root();
        at.putValue("another", tag::value);
        EXPECT_EQ(message.rootNode()->firstChild, first);
    });
}

TEST(ClientSession, MessagesLentAtOnceAreDistinct) {
    QORClientSession session(fullAccessContext());
    session.withMessage(
        [&](QORMessage& outer) { session.withMessage([&](QORMessage& inner) { EXPECT_NE(&outer, &inner); }); });
}

// ---- identities

QORClientDescription describe(bool fullAccess, const std::vector<std::string>& eids) {
    QORClientDescription client;
    client.fullAccess = fullAccess;
    for (const std::string& text : eids) {
        QOREID eid;
        eid.fromString(text);
        client.sids.push_back({0, 1, eid});
    }
    return client;
}

constexpr const char* one = "11111111-1111-1111-1111-111111111111";
constexpr const char* two = "22222222-2222-2222-2222-222222222222";
constexpr const char* three = "33333333-3333-3333-3333-333333333333";

TEST(ClientIdentity, FirstIdentityIsTheOwnTheOthersAreTheSet) {
    const auto context = contextOf(describe(false, {two, one, three}));
    EXPECT_FALSE(context->fullAccess);
    QOREID eid;
    ASSERT_TRUE(context->token->ownSID() && extractObjIdFromSID(*context->token->ownSID(), eid));
    EXPECT_EQ(eid.toString(), two);
    EXPECT_EQ(context->token->sids().size(), 2U);
    EXPECT_EQ(context->objects().size(), 3U);
}

TEST(ClientIdentity, NoIdentitiesStandForNothing) {
    const auto context = contextOf(describe(false, {}));
    EXPECT_EQ(context->token->ownSID(), nullptr);
    EXPECT_TRUE(context->objects().empty());
}

TEST(ClientIdentity, DescriptionKeepsFullAccess) {
    EXPECT_TRUE(contextOf(describe(true, {}))->fullAccess);
}

TEST(ClientIdentity, OnlyFullAccessMayNameAClient) {
    const QORClientSession trusted(fullAccessContext());
    EXPECT_FALSE(trusted.contextFor(describe(false, {one}))->fullAccess);
    EXPECT_EQ(trusted.contextFor(std::nullopt), trusted.context());
    const QORClientSession limited(noAccessContext());
    EXPECT_EQ(limited.contextFor(std::nullopt), limited.context());
    for (const bool fullAccess : {false, true}) {
        try {
            limited.contextFor(describe(fullAccess, {one}));
            ADD_FAILURE() << "was allowed";
        } catch (const QORException& exception) {
            EXPECT_EQ(exception.code(), errBadRequest);
            EXPECT_EQ(exception.message(), "only a connection with full access may name a client");
        }
    }
}

}  // namespace
}  // namespace QOR
