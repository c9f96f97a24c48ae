#include "QORPager/QORExpressionEvaluation.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "plugins/QORPager/Evaluations.h"

namespace QOR::test {
namespace {

struct ValueCase {
    const char* text;
    Outcome outcome;
};

const ValueCase valueCases[] = {
    {"2 * 3", value("6")},
    {"'a' + 'b'", value("ab")},
    {"1 = 1", value("true")},
    {"True", value("true")},
    {"FALSE or true", value("true")},
    {"7 - 2 - 1", value("4")},
    {"-2 * 3", value("-6")},
    {"1 + 2 * 3", value("7")},
    {"(1 + 2) * 3", value("9")},
    {"7 / 2", value("3")},
    {"(-7) / 2", value("-3")},
    {"true or false and false", value("true")},
    {"not 1 = 2", value("true")},
    {"2147483647 + 1", value("-2147483648")},
    {"(-2147483647 - 1) / (-1)", value("-2147483648")},
    {"4294967297", value("1")},
    {"99999999999999999999", value("-1")},
    {"'10' = 10", value("true")},
    {"'10x' = 10", failure(etInvalidType)},
    {"'' = 0", value("true")},
    {"' 7' < 8", value("true")},
    {"'7 ' < 8", failure(etInvalidType)},
    {"'yes' = true", value("true")},
    {"'false' = true", value("false")},
    {"'FALSE' = true", value("true")},
    {"lower('FALSE') = true", value("false")},
    {"upper('false') = true", value("true")},
    {"0 = false", value("true")},
    {"'b' > 'abc'", value("true")},
    {"2 > true", failure(etInvalidType)},
    {"'abc' like 'a%'", value("true")},
    {"'ABC' like 'a%'", value("false")},
    {"lower('ABC') like 'a' + '%'", value("true")},
    {"(lower('ABC') like 'a') + '%'", value("Invalid")},
    {"true and 1", failure(etInvalidType)},
    {"1 / 0", failure(etDivisionByZero)},
    {"1 / '0'", failure(etInvalidType)},
    {"true + 1", value("Invalid")},
    {"1 + 'x'", value("Invalid")},
    {"(true + 1) + 1", value("Invalid")},
    {"-'5'", value("Invalid")},
    {"upper(s) = 'ABC'", value("true")},
    {"upper(5)", failure(etInvalidType)},
    {"lower(upper('aB')) + upper('c')", value("abC")},
    {"upper('a' + lower('B')) < lower('Z')", value("true")},
    {"upper('ab') > lower('AB')", value("false")},
    {"lower('AB') > upper('ab')", value("true")},
    {"upper('ab') = upper('AB')", value("true")},
    {"upper('ab') >= 'AB'", value("true")},
    {"upper('ab') < 'ABC'", value("true")},
    {"upper('abc') < 'AB'", value("false")},
    {"lower('A') + 'B' + upper('c' + 'd') + 'e'", value("aBCDe")},
    {"'a' + ('b' + ('c' + 'd'))", value("abcd")},
    {"('a' + 'b') + ('c' + 'd')", value("abcd")},
    {"('a' + 'b') + ('c' + 'd' + 'e')", value("abcde")},
    {"upper('a' + 'b') + lower('C' + 'D' + 'E') + 'F'", value("ABcdeF")},
    {"upper('1' + '2') = 12", value("true")},
    {"'' + ''", value("")},
    {"pager.env.eid in (unit 'u', recursive)", value("true")},
    {"not pager.env.eid in (unit 'u', recursive)", value("false")},
    {"'pager.env.eid' in (unit 'u', recursive)", value("true")},
    {"s like '%c' and s like '%b%' and not s like 'x%'", value("true")},
    {"flag = 1 and a = '1' and b <> a", value("true")},
    // Both sides are always evaluated.
    {"true or 1 / 0 = 1", failure(etDivisionByZero)},
    {"false and 1", failure(etInvalidType)},
};

TEST(ExpressionEvaluator, ValuesAndErrorsOfExpressions) {
    for (const ValueCase& test : valueCases) {
        for (const Evaluation evaluation :
             {&TExpressionEvaluation::evaluate, &TExpressionEvaluation::evaluateByMethods}) {
            EXPECT_EQ(outcomeOf(*makeEvaluator(test.text), evaluation), test.outcome) << test.text;
        }
    }
}

/// Where the sequence is no expression, the walk ends with error 12 unless it met another one before.
const ValueCase brokenCases[] = {
    {"1 2", failure(etEvaluation)},           {"not not flag", failure(etEvaluation)},
    {"3 - -2", failure(etEvaluation)},        {"a +", failure(etEvaluation)},
    {"not", failure(etEvaluation)},           {"unit", failure(etEvaluation)},
    {"a unit b", failure(etEvaluation)},      {"recursive a", failure(etEvaluation)},
    {"(1 / 0) 2", failure(etDivisionByZero)}, {"upper(5) unit", failure(etInvalidType)},
    {"unit 1 / 0", failure(etEvaluation)},    {"upper(())", failure(etEvaluation)},
};

TEST(ExpressionEvaluator, ABrokenSequenceIsError12OnTheWayAndError10AsATree) {
    for (const ValueCase& test : brokenCases) {
        for (const Evaluation evaluation :
             {&TExpressionEvaluation::evaluate, &TExpressionEvaluation::evaluateByMethods}) {
            EXPECT_EQ(outcomeOf(*makeEvaluator(test.text), evaluation), test.outcome) << test.text;
        }
        for (const Evaluation evaluation :
             {&TExpressionEvaluation::evaluateSpecial, &TExpressionEvaluation::evaluateSpecialByMethods}) {
            EXPECT_EQ(outcomeOf(*makeEvaluator(test.text), evaluation), failure(etOperatorExpected)) << test.text;
        }
    }
}

const ValueCase specialCases[] = {
    {"sp = 1 and a = 7", value("true")},
    {"sp + a", value("1")},
    {"a = sp", value("1")},
    {"upper(sq + s) = 'ABC'", value("true")},
    {"not (sb and flag)", value("false")},
    {"a = 1", failure(etEvaluation)},
    {"1 = 1", failure(etEvaluation)},
    {"sp / 0 = a", failure(etDivisionByZero)},
    {"(sp = 1", failure(etUnexpectedLeftBracket)},
};

TEST(ExpressionEvaluator, TheSpecialPartIsEvaluatedAlone) {
    for (const ValueCase& test : specialCases) {
        for (const Evaluation evaluation :
             {&TExpressionEvaluation::evaluateSpecial, &TExpressionEvaluation::evaluateSpecialByMethods}) {
            EXPECT_EQ(outcomeOf(*makeEvaluator(test.text), evaluation), test.outcome) << test.text;
        }
    }
}

TEST(ExpressionEvaluator, MessagesCarryTheirDetail) {
    const std::pair<const char*, const char*> messages[] = {
        {"a = 1", "No errors"},
        {"pager.env.foo = 1", "Undeclared identifier: pager.env.foo"},
        {"a in (unit 'u', recursive)", "Parse error: incorrect <in> expression"},
        {"", "Empty expression"},
        {"1 / 0", "Division by zero"},
        {"1 2", "Evaluation error"},
    };
    for (const auto& [text, message] : messages) {
        const auto evaluator = makeEvaluator(text);
        evaluator->evaluate();
        EXPECT_EQ(evaluator->getErrorMessage(), message) << text;
        EXPECT_EQ(evaluator->wasError(), std::string(message) != "No errors");
    }
}

TEST(ExpressionEvaluator, AnErrorStaysUntilAnotherTextIsParsed) {
    const auto evaluator = makeEvaluator("10 / a = 10");
    EXPECT_EQ(evaluator->toString(), "true");
    evaluator->setIdentifierFromString("a", "0");
    EXPECT_EQ(evaluator->toString(), "Error");
    evaluator->setIdentifierFromString("a", "1");
    EXPECT_EQ(evaluator->toString(), "Error");
    EXPECT_EQ(evaluator->getErrorCode(), etDivisionByZero);
    EXPECT_TRUE(evaluator->prepare());
    evaluator->setExpression("10 / a = 10");
    EXPECT_EQ(evaluator->getErrorCode(), etDivisionByZero) << "cleared by the parse";
    EXPECT_EQ(evaluator->toString(), "true");
    EXPECT_FALSE(evaluator->wasError());
}

TEST(ExpressionEvaluator, LikeOutOfRangeLeavesTheEvaluatorSound) {
    for (const Evaluation evaluation :
         {&TExpressionEvaluation::evaluate, &TExpressionEvaluation::evaluateByMethods,
          &TExpressionEvaluation::evaluateSpecial, &TExpressionEvaluation::evaluateSpecialByMethods}) {
        const auto evaluator = makeEvaluator("sp = 1 and sq like '%abc'");
        evaluator->setIdentifierFromString("sq", "ab");
        EXPECT_EQ(outcomeOf(*evaluator, evaluation), (Outcome{"", etNoErrors, true}));
        EXPECT_EQ(outcomeOf(*evaluator, evaluation), (Outcome{"", etNoErrors, true}));
        evaluator->setIdentifierFromString("sq", "xabc");
        EXPECT_EQ(outcomeOf(*evaluator, evaluation), value("true"));
    }
    EXPECT_THROW(makeEvaluator("s like '%abcd'")->returnBoolean(), std::out_of_range);
}

TEST(ExpressionEvaluator, OnlyABooleanIsReturnedAsOne) {
    bool out = true;
    const auto number = makeEvaluator("a + 1");
    EXPECT_TRUE(number->returnBoolean(out));
    EXPECT_TRUE(out) << "unchanged";
    EXPECT_EQ(number->getErrorCode(), etInvalidType);
    EXPECT_FALSE(makeEvaluator("a + 1")->returnBoolean());
    EXPECT_TRUE(makeEvaluator("true + 1")->returnBoolean(out));
    const auto special = makeEvaluator("sp");
    EXPECT_TRUE(special->returnBooleanSpecial(out));
    EXPECT_EQ(special->getErrorCode(), etInvalidType);
    const auto truth = makeEvaluator("a = 1 and sp = 2");
    EXPECT_FALSE(truth->returnBoolean(out));
    EXPECT_FALSE(out);
    EXPECT_FALSE(truth->returnBooleanSpecial(out));
    EXPECT_FALSE(out);
    EXPECT_TRUE(makeEvaluator("flag")->returnBoolean());
}

TEST(ExpressionEvaluator, IntegersAndTextsAreReturnedAsThemselves) {
    EXPECT_EQ(makeEvaluator("a + 41")->returnInteger(), 42);
    EXPECT_EQ(makeEvaluator("1 / 0")->returnInteger(), 0);
    EXPECT_EQ(makeEvaluator("flag")->returnInteger(), 0);
    EXPECT_EQ(makeEvaluator("upper(s)")->returnString(), "ABC");
    EXPECT_EQ(makeEvaluator("1")->returnString(), "");
    EXPECT_EQ(makeEvaluator("1 / 0")->returnString(), "");
}

TEST(ExpressionEvaluator, PowerHasNoSpellingButAMethod) {
    const auto power = [](TBaseValue* left, TBaseValue* right) {
        TExpressionEvaluation evaluator;
        evaluator.pushOperand(left);
        evaluator.pushOperand(right);
        const std::unique_ptr<TBaseValue> result(evaluator.operatorPower());
        if (evaluator.isError()) return -1000 - static_cast<int>(evaluator.getErrorCode());
        return TIntegerValue::getValue(result.get());
    };
    EXPECT_EQ(power(new TIntegerValue(2), new TIntegerValue(10)), 1024);
    EXPECT_EQ(power(new TIntegerValue(0), new TIntegerValue(0)), -1016);
    EXPECT_EQ(power(new TIntegerValue(0), new TIntegerValue(2)), 0);
    EXPECT_EQ(power(new TIntegerValue(2), new TIntegerValue(0)), 1);
    EXPECT_EQ(power(new TIntegerValue(2), new TStringValue("2")), -1014);
    EXPECT_EQ(power(new TStringValue("2"), new TIntegerValue(2)), -1014);
}

TEST(ExpressionEvaluator, ReturnedTextsLiveUntilTheNextOne) {
    const auto evaluator = makeEvaluator("s + 'd'");
    const std::string& text = evaluator->returnString();
    EXPECT_EQ(text, "abcd");
    bool found = false;
    EXPECT_EQ(&evaluator->extractConstByIdentifierAndOperation("s", ttAdd, found), &text);
    EXPECT_EQ(text, "d");
    EXPECT_EQ(&evaluator->getErrorMessage(), &text);
    EXPECT_EQ(text, "No errors");
}

TEST(ExpressionEvaluator, AResultOutlivesWhatItWasReadFrom) {
    for (const Evaluation evaluation :
         {&TExpressionEvaluation::evaluate, &TExpressionEvaluation::evaluateSpecial,
          &TExpressionEvaluation::evaluateByMethods, &TExpressionEvaluation::evaluateSpecialByMethods}) {
        TExpressionEvaluation evaluator("q");
        evaluator.setIdentifier("q", "a text that is too long to be kept in place", true);
        (evaluator.*evaluation)();
        evaluator.setIdentifierFromString("q", "another text, which is longer than the one that it takes the place of");
        evaluator.setIdentifier("q", 1, true);
        EXPECT_EQ(evaluator.doToString(), "a text that is too long to be kept in place");
        evaluator.clearIdentifiersMap();
        EXPECT_EQ(evaluator.doToString(), "a text that is too long to be kept in place");
    }
}

TEST(ExpressionEvaluator, ANodeThatFailsLeavesNoOperandBehind) {
    const auto evaluator = makeEvaluator("a + b < (s and flag)");
    evaluator->pushOperand(new TIntegerValue(5));
    evaluator->pushOperand(new TIntegerValue(7));
    EXPECT_EQ(evaluator->getNodeValue(*evaluator->buildTree()), nullptr);
    EXPECT_EQ(evaluator->getErrorCode(), etInvalidType);
    EXPECT_EQ(evaluator->getNodeValue(evaluator->buildTree()->children().front()), nullptr) << "an error stays set";
    evaluator->clearError();
    const std::unique_ptr<TBaseValue> sum(evaluator->operatorAdd());
    EXPECT_EQ(TIntegerValue::getValue(sum.get()), 12) << "what was there before is still on top";
}

TEST(ExpressionEvaluator, ANodeIsEvaluatedOnTopOfOtherOperands) {
    const auto evaluator = makeEvaluator("a + b");
    evaluator->pushOperand(new TIntegerValue(4));
    evaluator->pushOperand(evaluator->getNodeValue(*evaluator->buildTree()));
    const std::unique_ptr<TBaseValue> product(evaluator->operatorMul());
    EXPECT_EQ(TIntegerValue::getValue(product.get()), 12);
    EXPECT_FALSE(evaluator->isError());
}

TEST(ExpressionEvaluator, ANameOfEveryTypeHasAValueBeforeARowIsRead) {
    const auto declared = [](TValueType type) {
        TExpressionEvaluation evaluator("x");
        EXPECT_TRUE(evaluator.declareIdentifier("x", type, false));
        return evaluator.toString();
    };
    EXPECT_EQ(declared(TValueType::Boolean), "true");
    EXPECT_EQ(declared(TValueType::Integer), "0");
    for (const TValueType type : {TValueType::String, TValueType::Date, TValueType::IPAddress, TValueType::Time})
        EXPECT_EQ(declared(type), "");
}

TEST(ExpressionEvaluator, ValuesWithoutAClassAreInvalid) {
    TExpressionEvaluation evaluator("x");
    evaluator.setIdentifier("x", new TBaseValue(TValueType::Empty), true);
    EXPECT_EQ(evaluator.toString(), "Invalid");
    EXPECT_EQ(evaluator.toStringSpecial(), "Invalid");
    evaluator.evaluateByMethods();
    EXPECT_EQ(evaluator.doToString(), "Invalid");
}

}  // namespace
}  // namespace QOR::test
