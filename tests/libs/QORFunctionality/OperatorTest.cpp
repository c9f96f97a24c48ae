#include "QORFunctionality/QOROperator.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "QORCommon/QORException.h"
#include "QORFunctionality/QORAccess.h"
#include "QORFunctionality/QOROpFactory.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"

namespace QOR {
namespace {

class TalkingOperator final : public QOROperatorAsyncPrototype {
public:
    TalkingOperator() {
        static const MethodDescriptor table[] = {
            method("greet", &TalkingOperator::greet, 100, 0),        method("fail", &TalkingOperator::fail, 1, 2),
            method("break", &TalkingOperator::breakDown, 0, 0),      {"", nullptr, 0, 0},
            method("behind the end", &TalkingOperator::greet, 0, 0),
        };
        registerMethods(table);
    }
    void greet(QORMessageIterator*, QORMessageIterator* response) { response->putValue("hello", tag::value); }
    void fail(QORMessageIterator*, QORMessageIterator*) { throw QORException(400, "nothing works"); }
    void breakDown(QORMessageIterator*, QORMessageIterator*) { throw std::runtime_error("out of order"); }
};

std::string answerOf(const QORMessage& response) {
    std::string text;
    writeResponse(response, text);
    return text;
}

std::string call(QOROperatorPrototype& op, const std::string& name, int expected = 0) {
    QORMessage request;
    QORMessage response;
    QORBinaryIterator in = request.root();
    QORBinaryIterator out = response.root();
    EXPECT_EQ(op.call(name, &in, &out), expected);
    return answerOf(response);
}

TEST(Operator, RoutesRequestsByNameAndLeavesUnknownOnesToTheHost) {
    const auto op = makeQORPtr<TalkingOperator>();
    EXPECT_EQ(call(*op, "greet"), R"({"response":[[1018,"hello"]]})");
    EXPECT_EQ(call(*op, "Greet", -1), R"({"response":[]})");
    EXPECT_EQ(call(*op, "", -1), R"({"response":[]})");
    EXPECT_EQ(call(*op, "behind the end", -1), R"({"response":[]})");
}

TEST(Operator, KeepsTheIntegersOfItsMethods) {
    const auto op = makeQORPtr<TalkingOperator>();
    EXPECT_EQ(op->methods().at("greet").first, 100);
    EXPECT_EQ(op->methods().at("fail").second, 2);
}

TEST(Operator, TurnsWhatAHandlerThrowsIntoAnErrorEntry) {
    const auto op = makeQORPtr<TalkingOperator>();
    EXPECT_EQ(call(*op, "fail"), R"({"response":[],"error":{"code":400,"message":"nothing works"}})");
    EXPECT_EQ(call(*op, "break"), R"({"response":[],"error":{"code":1,"message":"out of order"}})");
}

TEST(AddError, FormatsTheTablesTextWithTheArguments) {
    const QORErrorTable table = {{7, "%s is not %d"}, {8, "%%s stays"}};
    QORMessage response;
    QORBinaryIterator out = response.root();
    QOROperatorFunctionalPrototype::addError(&out, table, 7, "this", 5);
    EXPECT_EQ(answerOf(response), R"({"response":[],"error":{"code":7,"message":"this is not 5"}})");
    response.clear();
    out = response.root();
    QOROperatorFunctionalPrototype::addError(&out, table, 8);
    EXPECT_EQ(answerOf(response), R"({"response":[],"error":{"code":8,"message":"%s stays"}})");
}

TEST(AddError, GivesACodeThatTheTableLacksItsArgumentAsText) {
    QORMessage response;
    QORBinaryIterator out = response.root();
    QOROperatorFunctionalPrototype::addError(&out, QORErrorTable{}, 1, "the host's own %s words");
    EXPECT_EQ(answerOf(response), R"({"response":[],"error":{"code":1,"message":"the host's own %s words"}})");
}

TEST(AddError, NeverUsesAnArgumentAsFormatAndKeepsLongTextsWhole) {
    const std::string longText = "%n%s" + std::string(5000, 'x');
    QORMessage response;
    QORBinaryIterator out = response.root();
    QOROperatorFunctionalPrototype::addError(&out, QORErrors, errBadRequest, longText.c_str());
    EXPECT_EQ(answerOf(response), R"({"response":[],"error":{"code":400,"message":")" + longText + R"("}})");
}

TEST(AddError, WritesAtTheCursorAndLeavesItThere) {
    QORMessage response;
    QORBinaryIterator out = response.root();
    out.addChild(tag::reply);
    QOROperatorFunctionalPrototype::addError(&out, QORErrors, errNoEnvCache);
    EXPECT_EQ(out.curID(), tag::reply);
    EXPECT_EQ(answerOf(response),
              R"({"response":[[1738]],"error":{"code":420,"message":"environment cache is not available"}})");
}

TEST(HostErrors, AreTheBareArgumentOrTheirOwnText) {
    EXPECT_STREQ(QORErrors.at(1), "%s");
    EXPECT_STREQ(QORErrors.at(400), "%s");
    EXPECT_STREQ(QORErrors.at(408), "%s");
    EXPECT_STREQ(QORErrors.at(420), "environment cache is not available");
    EXPECT_EQ(QORErrors.size(), 4U);
}

TEST(LocalAccess, IsMadeOnceAndDroppedByDisconnect) {
    const auto op = makeQORPtr<TalkingOperator>();
    op->setName("talking");
    const auto access = op->getLocalAccess();
    EXPECT_EQ(access->operatorName(), "talking");
    EXPECT_EQ(op->getLocalAccess(), access);
    op->disconnect(nullptr);
    EXPECT_NE(op->getLocalAccess(), access);
}

TEST(SyncAccess, CallsTheGivenOperatorOrOneByName) {
    const auto op = makeQORPtr<TalkingOperator>();
    const auto own = QOROpSyncAccessPrototype::createInstance("", op.get());
    QORMessage request;
    QORMessage response;
    QORBinaryIterator in = request.root();
    QORBinaryIterator out = response.root();
    EXPECT_EQ(dynamic_cast<QOROpSyncAccessPrototype&>(*own).call("greet", &in, &out), 0);
    EXPECT_EQ(answerOf(response), R"({"response":[[1018,"hello"]]})");

    EXPECT_EQ(QOROpSyncAccessPrototype::createInstance("talking", op.get()), nullptr);
    const auto factory = newOperatorFactory<TalkingOperator, 1, 1, 1, true>("talking", 1, 1);
    EXPECT_NE(QOROpSyncAccessPrototype::createInstance("talking", op.get()), nullptr);
}

}  // namespace
}  // namespace QOR
