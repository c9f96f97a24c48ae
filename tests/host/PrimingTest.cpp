#include "host/QORPriming.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "TestOperators.h"
#include "host/QORClientSession.h"
#include "host/QORRouter.h"

namespace QOR {
namespace {

constexpr QOROpPriming priming{"select", R"([1740,[[1009,"first"]]])", [](const std::string& error) {
                                   if (error == "no database") return QOROpPriming::Result::Failed;
                                   return error == "nothing there" ? QOROpPriming::Result::NothingThere
                                                                   : QOROpPriming::Result::Learned;
                               }};

/// Who asked and what was asked for, in order.
struct Asked {
    bool fullAccess;
    std::string view;
    bool operator==(const Asked&) const = default;
};

class Priming : public testing::Test {
protected:
    Priming() {
        setLogSink([](const QORLogRecord&) {});
        served->behaviour.select = [this](QORMessageIterator& in, QORMessageIterator& out) {
            Asked asked{QORAccessChecker::hasFullAccess(QORAccessChecker::getClientContext()), {}};
            in.getValue(asked.view, tag::view);
            asks.push_back(asked);
            if (!failure.empty()) QOROperatorFunctionalPrototype::addError(&out, QORErrors, 1, failure.c_str());
        };
    }
    ~Priming() override { setLogSink({}); }

    std::string ask() {
        const auto response = readResponse(
            router.handle(client, R"({"operator":"test","request":"select","body":[1740,[[1009,"own"]]]})"));
        return response.error ? response.error->message : "";
    }

    std::unique_ptr<test::ServedOperator> served = std::make_unique<test::ServedOperator>("test", &priming);
    std::vector<Asked> asks;
    std::string failure;
    QORRouter router{{"test"}};
    QORClientSession client{fullAccessContext()};
};

TEST_F(Priming, AsksOnceAndWithoutRights) {
    EXPECT_TRUE(router.prime().empty());
    EXPECT_TRUE(router.isPrimed());
    router.prime();
    EXPECT_EQ(ask(), "");
    EXPECT_EQ(asks, (std::vector<Asked>{{false, "first"}, {true, "own"}}));
}

TEST_F(Priming, ItsOperatorIsNobodyElses) {
    router.prime();
    EXPECT_EQ(served->behaviour.alive, 0) << "dropped once it has answered";
    ask();
    EXPECT_EQ(served->behaviour.made, 2);
}

TEST_F(Priming, ClientsWaitUntilItSucceeds) {
    failure = "no database";
    EXPECT_EQ(router.prime(), std::vector<std::string>{"operator \"test\": no database"});
    EXPECT_FALSE(router.isPrimed());
    EXPECT_EQ(ask(), "no database");
    EXPECT_EQ(ask(), "no database");
    for (const Asked& asked : asks)
        EXPECT_EQ(asked, (Asked{false, "first"}));
    failure.clear();
    EXPECT_EQ(ask(), "");
    ASSERT_EQ(asks.size(), 5U);
    EXPECT_EQ(asks[3], (Asked{false, "first"}));
    EXPECT_EQ(asks[4], (Asked{true, "own"}));
    EXPECT_TRUE(router.isPrimed());
}

TEST_F(Priming, AnErrorThatComesAfterLearningSettlesItToo) {
    failure = "no such column";
    EXPECT_TRUE(router.prime().empty());
    EXPECT_TRUE(router.isPrimed());
    EXPECT_EQ(ask(), "no such column");
    EXPECT_EQ(asks, (std::vector<Asked>{{false, "first"}, {true, "own"}}));
}

TEST_F(Priming, NothingToLearnLetsClientsPassAndIsAskedAgain) {
    failure = "nothing there";
    EXPECT_FALSE(router.isPrimed());
    EXPECT_TRUE(router.prime().empty());
    EXPECT_TRUE(router.isPrimed());
    ask();
    EXPECT_EQ(asks, (std::vector<Asked>{{false, "first"}, {false, "first"}, {true, "own"}}));
}

TEST_F(Priming, OtherOperatorsDoNotWait) {
    failure = "no database";
    const test::ServedOperator other("other");
    QORClientSession session(noAccessContext());
    const auto response =
        readResponse(router.handle(session, R"({"operator":"other","request":"select","body":[1740]})"));
    EXPECT_FALSE(response.error);
    EXPECT_TRUE(asks.empty());
}

TEST_F(Priming, AnOperatorThatIsNotThereIsNotPrimed) {
    served.reset();
    EXPECT_TRUE(router.prime().empty());
    EXPECT_TRUE(router.isPrimed());
    EXPECT_EQ(ask(), R"(unknown operator "test")");
}

TEST_F(Priming, CallersThatComeMeanwhileShareOneAttempt) {
    std::promise<void> go;
    std::shared_future<void> gone = go.get_future().share();
    std::promise<void> entered;
    std::atomic<int> attempts{0};
    served->behaviour.select = [&](QORMessageIterator&, QORMessageIterator& out) {
        if (attempts++ == 0) entered.set_value();
        gone.wait();
        QOROperatorFunctionalPrototype::addError(&out, QORErrors, 1, "no database");
    };
    std::vector<std::future<std::vector<std::string>>> callers;
    callers.push_back(std::async(std::launch::async, [&] { return router.prime(); }));
    entered.get_future().wait();
    for (int caller = 0; caller < 4; ++caller) {
        callers.push_back(std::async(std::launch::async, [&] { return router.prime(); }));
    }
    go.set_value();
    for (auto& caller : callers)
        EXPECT_EQ(caller.get().size(), 1U);
    EXPECT_GE(attempts, 1);
    EXPECT_LE(attempts, 5);
}

TEST_F(Priming, OperatorsThatAskForNoneAreNotPrimed) {
    test::ServedOperator other("other");
    int asked = 0;
    other.behaviour.select = [&](auto&, auto&) { ++asked; };
    QORRouter both{{"other", "test"}};
    EXPECT_TRUE(both.prime().empty());
    EXPECT_TRUE(both.isPrimed());
    EXPECT_EQ(asked, 0);
    EXPECT_EQ(asks.size(), 1U);
}

TEST_F(Priming, ARequestThatCannotBeReadKeepsClientsWaitingAndSaysSo) {
    constexpr QOROpPriming broken{"select", "[1740", priming.judge};
    const test::ServedOperator other("other", &broken);
    QORRouter lame{{"other"}};
    EXPECT_THAT(lame.prime(), testing::ElementsAre(testing::HasSubstr("operator \"other\": invalid message")));
    EXPECT_FALSE(lame.isPrimed());
    constexpr QOROpPriming unknown{"no such request", "[1740]", priming.judge};
    const test::ServedOperator third("third", &unknown);
    EXPECT_THAT(QORRouter({"third"}).prime(),
                testing::ElementsAre("operator \"third\": it does not know its priming request"));
}

}  // namespace
}  // namespace QOR
