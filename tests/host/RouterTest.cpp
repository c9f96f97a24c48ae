#include "host/QORRouter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "QORCommon/QORException.h"
#include "QORMessage/QORBinaryIterator.h"
#include "TestOperators.h"
#include "host/QORClientSession.h"

namespace QOR {
namespace {

class Router : public testing::Test {
protected:
    static QORResponse::Error errorOf(const std::string& text) {
        const QORResponse response = readResponse(text);
        return response.error.value_or(QORResponse::Error{0, "no error"});
    }
    std::string ask(const std::string& json) { return router.handle(session, json); }

    test::ServedOperator served{"test"};
    QORRouter router;
    QORClientSession session{fullAccessContext()};
};

TEST_F(Router, RequestStandsOnTheBodyAndResponseOnTheRoot) {
    served.behaviour.select = [](QORMessageIterator& in, QORMessageIterator& out) {
        EXPECT_EQ(in.curID(), tag::select);
        EXPECT_EQ(out.curID(), 0U);
        std::string view;
        in.getValue(view, tag::view);
        out.putValue(view, tag::name);
    };
    EXPECT_EQ(ask(R"({"operator":"test","request":"select","body":[1740,[[1009,"v"]]]})"),
              R"({"response":[[1026,"v"]]})");
}

TEST_F(Router, BothIteratorsAreBinaryIterators) {
    bool binary = false;
    served.behaviour.select = [&](QORMessageIterator& in, QORMessageIterator& out) {
        binary = dynamic_cast<QORBinaryIterator*>(&in) != nullptr && dynamic_cast<QORBinaryIterator*>(&out) != nullptr;
    };
    ask(R"({"operator":"test","request":"select","body":[1740]})");
    EXPECT_TRUE(binary);
}

TEST_F(Router, NothingOfOneAnswerShowsInTheNext) {
    bool first = true;
    served.behaviour.select = [&](QORMessageIterator&, QORMessageIterator& out) {
        if (std::exchange(first, false)) out.putValue("old", tag::value);
    };
    const std::string request = R"({"operator":"test","request":"select","body":[1740]})";
    EXPECT_EQ(ask(request), R"({"response":[[1018,"old"]]})");
    EXPECT_EQ(ask(request), R"({"response":[]})");
}

TEST_F(Router, ErrorEntriesAreLiftedOutOfTheResponse) {
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) {
        out.putValue("part", tag::value);
        QOROperatorFunctionalPrototype::addError(&out, QORErrors, errBadRequest, "no good");
    };
    const auto response = readResponse(ask(R"({"operator":"test","request":"select","body":[1740]})"));
    ASSERT_TRUE(response.error);
    EXPECT_EQ(response.error->code, 400);
    EXPECT_EQ(response.error->message, "no good");
    EXPECT_EQ(response.response.nodeCount(), 1U);
}

TEST_F(Router, UnknownOperatorIsNamed) {
    const auto error = errorOf(ask(R"({"operator":"nobody","request":"select","body":[1740]})"));
    EXPECT_EQ(error.code, 400);
    EXPECT_EQ(error.message, R"(unknown operator "nobody")");
}

TEST_F(Router, UnknownRequestIsNamedWithItsOperator) {
    const auto error = errorOf(ask(R"({"operator":"test","request":"insert","body":[1740]})"));
    EXPECT_EQ(error.code, 400);
    EXPECT_EQ(error.message, R"(unknown request "insert" of operator "test")");
}

TEST_F(Router, WhatIsNoRequestIsUnreadable) {
    for (const char* text : {"", "x", "[]", "{}", R"({"operator":"test","request":"select"})",
                             R"({"operator":"test","request":"select","body":[1740]} trailing)"}) {
        const auto answer = router.answer(session, text);
        EXPECT_FALSE(answer.readable) << text;
        EXPECT_EQ(errorOf(answer.text).code, 400) << text;
    }
}

TEST_F(Router, AnErrorOfTheRequestIsReadable) {
    EXPECT_TRUE(router.answer(session, R"({"operator":"nobody","request":"select","body":[1740]})").readable);
}

TEST_F(Router, ExceptionsOfHandlersBecomeErrors) {
    served.behaviour.select = [](auto&, auto&) { throw std::runtime_error("broken"); };
    const std::string request = R"({"operator":"test","request":"select","body":[1740]})";
    EXPECT_EQ(errorOf(ask(request)).code, 1);
    EXPECT_EQ(errorOf(ask(request)).message, "broken");
    served.behaviour.select = [](auto&, auto&) { throw QORException(420, "no cache"); };
    EXPECT_EQ(errorOf(ask(request)).code, 420);
    served.behaviour.select = [](auto&, auto&) {};
    EXPECT_EQ(errorOf(ask(request)).code, 0);
}

TEST_F(Router, ExceptionsOfTheStartBecomeErrors) {
    served.behaviour.init = [] { throw std::runtime_error("no start"); };
    const auto error = errorOf(ask(R"({"operator":"test","request":"select","body":[1740]})"));
    EXPECT_EQ(error.code, 1);
    EXPECT_EQ(error.message, "no start");
}

TEST_F(Router, ClientOfARequestIsHonouredForFullAccessOnly) {
    std::string who;
    served.behaviour.select = [&](auto&, auto&) {
        const auto context = QORAccessChecker::getClientContext();
        who = context->fullAccess ? "full" : std::to_string(context->objects().size());
    };
    const std::string request = R"({"operator":"test","request":"select","body":[1740],"client":{"fullAccess":false,)"
                                R"("sids":[{"principalId":0,"principalType":1,)"
                                R"("eid":"11111111-1111-1111-1111-111111111111"}]}})";
    EXPECT_EQ(errorOf(ask(request)).code, 0);
    EXPECT_EQ(who, "1");
    who.clear();
    QORClientSession limited(noAccessContext());
    const auto error = errorOf(router.handle(limited, request));
    EXPECT_EQ(error.code, 400);
    EXPECT_EQ(error.message, "only a connection with full access may name a client");
    EXPECT_EQ(who, "") << "the request must not have run";
}

TEST_F(Router, LimitsOfTheMessageAreErrors) {
    QORMessageLimits limits;
    limits.depth = 3;
    QORRouter strict({}, limits);
    const auto answer = strict.answer(
        session, R"({"operator":"test","request":"select","body":[1740,[[1742,[[2235,[[2236,[[2237]]]]]]]]]})");
    EXPECT_FALSE(answer.readable);
    EXPECT_THAT(errorOf(answer.text).message, testing::HasSubstr("3"));
}

}  // namespace
}  // namespace QOR
