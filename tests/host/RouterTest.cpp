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

// ---- large answers

constexpr const char* anySelect = R"({"operator":"test","request":"select","body":[1740]})";

void writeRows(QORMessageIterator& out, int rows, const std::string& value) {
    out.addChild(tag::rowSet);
    out.putValue("a", tag::name);
    for (int row = 0; row < rows && out.addChild(tag::row) == 0; ++row) {
        out.putValue(value, tag::value);
        out.seekUp();
    }
}

QORAnswerLimits fewRows() {
    QORAnswerLimits limits;
    limits.rows = 10;
    limits.bytes = 1000;
    return limits;
}

class LargeAnswers : public Router {
protected:
    struct Got {
        std::string text;
        int pieces = 0;
        QORRouter::Streamed end;
    };
    Got stream(const std::string& request = anySelect) {
        Got got;
        got.end = bounded.stream(session, request, [&](std::string_view piece) {
            got.text += piece;
            return ++got.pieces < most;
        });
        return got;
    }

    QORRouter bounded{{}, {}, fewRows()};
    int most = 1'000'000;
};

TEST_F(LargeAnswers, AsManyRowsAsMayBeAreAnswered) {
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) { writeRows(out, 10, "x"); };
    EXPECT_EQ(readResponse(bounded.handle(session, anySelect)).response.nodeCount(), 1U + 1 + 10 * 2);
}

TEST_F(LargeAnswers, OneRowMoreIsAnErrorThatSaysHowToGetTheRest) {
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) { writeRows(out, 11, "x"); };
    const std::string answer = bounded.handle(session, anySelect);
    EXPECT_EQ(readResponse(answer).response.nodeCount(), 0U);
    EXPECT_EQ(errorOf(answer).code, 1);
    EXPECT_EQ(errorOf(answer).message,
              "the answer has more than 10 rows: ask for it in parts (limit with size and offset), or as a stream "
              "(stream=true)");
}

TEST_F(LargeAnswers, SoIsATextThatIsTooLong) {
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) {
        writeRows(out, 2, std::string(500, 'x'));
    };
    EXPECT_THAT(errorOf(bounded.handle(session, anySelect)).message,
                testing::StartsWith("the answer is larger than 1000 bytes: ask for it in parts"));
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) {
        out.putValue(std::string(1001, 'x'), tag::value);
    };
    EXPECT_THAT(errorOf(bounded.handle(session, anySelect)).message, testing::HasSubstr("larger than 1000 bytes"));
}

TEST_F(LargeAnswers, TheWriterIsToldThatNothingMoreIsTaken) {
    int written = 0;
    served.behaviour.select = [&](QORMessageIterator&, QORMessageIterator& out) {
        out.addChild(tag::rowSet);
        for (; out.addChild(tag::row) == 0; ++written)
            out.seekUp();
    };
    bounded.handle(session, anySelect);
    EXPECT_EQ(written, 11);
}

TEST_F(LargeAnswers, RowsThatWereTakenBackAreNotAnswered) {
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) {
        writeRows(out, 5, "x");
        out.reset();
        out.removeChildren(tag::rowSet);
        QOROperatorFunctionalPrototype::addError(&out, QORErrors, errFailure, "no good");
    };
    EXPECT_EQ(bounded.handle(session, anySelect), R"({"response":[],"error":{"code":1,"message":"no good"}})");
}

TEST_F(LargeAnswers, RowsBeforeAnErrorAreAnsweredWhereTheyStay) {
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) {
        const auto root = out.clone();
        writeRows(out, 2, "x");
        QOROperatorFunctionalPrototype::addError(root.get(), QORErrors, errFailure, "no good");
    };
    EXPECT_EQ(bounded.handle(session, anySelect), R"({"response":[[1744,[[1026,"a"],[1739,[[1018,"x"]]],)"
                                                  R"([1739,[[1018,"x"]]]]]],"error":{"code":1,"message":"no good"}})");
}

TEST_F(LargeAnswers, AStreamHasNoBounds) {
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) { writeRows(out, 60'000, "text"); };
    const Got got = stream();
    EXPECT_TRUE(got.end.whole);
    EXPECT_TRUE(got.end.answer.text.empty());
    EXPECT_GT(got.pieces, 3);
    EXPECT_EQ(readResponse(got.text).response.nodeCount(), 1U + 1 + 60'000 * 2);
}

TEST_F(LargeAnswers, TheFirstRowOfAStreamLeavesAtOnce) {
    int pieces = 0;
    int piecesAtSecondRow = 0;
    served.behaviour.select = [&](QORMessageIterator&, QORMessageIterator& out) {
        writeRows(out, 1, "x");
        piecesAtSecondRow = pieces;
    };
    bounded.stream(session, anySelect, [&](std::string_view) { return ++pieces > 0; });
    EXPECT_EQ(piecesAtSecondRow, 1);
}

TEST_F(LargeAnswers, AnErrorInTheMiddleOfAStreamStandsBehindTheRows) {
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) {
        writeRows(out, 2, "x");
        out.reset();
        out.removeChildren(tag::rowSet);
        QOROperatorFunctionalPrototype::addError(&out, QORErrors, errFailure, "the database has gone");
    };
    const Got got = stream();
    EXPECT_TRUE(got.end.whole);
    EXPECT_EQ(got.text, R"({"response":[[1744,[[1026,"a"],[1739,[[1018,"x"]]],[1739,[[1018,"x"]]]]]],)"
                        R"("error":{"code":1,"message":"the database has gone"}})");
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) {
        writeRows(out, 1, "x");
        throw std::runtime_error("thrown");
    };
    EXPECT_EQ(stream().text, R"({"response":[[1744,[[1026,"a"],[1739,[[1018,"x"]]]]]],)"
                             R"("error":{"code":1,"message":"thrown"}})");
}

TEST_F(LargeAnswers, AStreamThatIsNotTakenEndsTheWriterAndIsNotWhole) {
    int written = 0;
    served.behaviour.select = [&](QORMessageIterator&, QORMessageIterator& out) {
        out.addChild(tag::rowSet);
        for (; written < 1'000'000 && out.addChild(tag::row) == 0; ++written)
            out.seekUp();
    };
    most = 2;
    const Got got = stream();
    EXPECT_FALSE(got.end.whole);
    EXPECT_LT(written, 1'000'000);
}

TEST_F(LargeAnswers, WhatIsNoRequestIsNotStreamed) {
    const Got got = stream("nonsense");
    EXPECT_EQ(got.pieces, 0);
    EXPECT_FALSE(got.end.answer.readable);
    EXPECT_EQ(errorOf(got.end.answer.text).code, 400);
}

TEST_F(LargeAnswers, ATextCountsForTheRequestUntilItIsGone) {
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) { writeRows(out, 10, "x"); };
    QORMemoryBudget all;
    {
        const QORMemoryScope scope(std::make_shared<QORMemoryAccount>(all, std::size_t{1} << 20));
        const QORRouter::Answer answer = bounded.answer(session, anySelect);
        EXPECT_GE(all.used(), answer.text.size());
    }
    EXPECT_EQ(all.used(), 0U);
}

TEST_F(LargeAnswers, AnAnswerBeyondTheMemoryOfARequestIsAnError) {
    served.behaviour.select = [](QORMessageIterator&, QORMessageIterator& out) {
        out.addChild(tag::rowSet);
        out.addChild(tag::row);
        while (out.putValue(std::string(1000, 'x'), tag::value) == 0) {
        }
    };
    QORMemoryBudget all;
    const QORMemoryScope scope(std::make_shared<QORMemoryAccount>(all, std::size_t{1} << 20, "a request"));
    const std::string expected =
        R"({"response":[],"error":{"code":1,"message":"the message does not fit into memory: a request may hold 1 MiB"}})";
    EXPECT_EQ(router.handle(session, anySelect), expected);
    EXPECT_EQ(all.used(), 0U);
    EXPECT_THAT(stream().text, testing::HasSubstr("does not fit into memory"));
    EXPECT_EQ(all.used(), 0U);
}

}  // namespace
}  // namespace QOR
