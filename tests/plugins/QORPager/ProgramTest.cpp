// Generated expressions, evaluated by the compiled program and by the methods of the operator table.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "plugins/QORPager/Evaluations.h"

namespace QOR::test {
namespace {

class Generator {
public:
    explicit Generator(unsigned seed) : m_random(seed) {}

    std::string expression(int depth) {
        const int choice = pick(depth <= 0 ? 3 : 12);
        switch (choice) {
            case 0:
                return number();
            case 1:
                return text();
            case 2:
                return name();
            case 3:
                return std::string(oneOf({"upper", "lower"})) + "(" + expression(depth - 1) + ")";
            case 4:
                return "not (" + expression(depth - 1) + ")";
            case 5:
                return "(-" + expression(0) + ")";
            case 6:
                return "(" + expression(depth - 1) + ")";
            default:
                return "(" + expression(depth - 1) + " " + oneOf(operators()) + " " + expression(depth - 1) + ")";
        }
    }

    /// As above, mostly of types that go together.
    std::string condition(int depth) {
        switch (pick(depth <= 0 ? 4 : 7)) {
            case 0:
                return std::string(oneOf({"a", "b", "sp"})) + " " + comparison() + " " + number();
            case 1:
                return std::string(oneOf({"s", "sq", "upper(s)", "lower(sq)", "s + sq"})) + " " + comparison() + " " +
                       text();
            case 2:
                return std::string(oneOf({"s", "sq", "upper(sq)"})) + " like " + text();
            case 3:
                return oneOf({"flag", "sb", "true", "sb = 1", "pager.env.eid in (unit 'u', recursive)"});
            case 4:
                return "not (" + condition(depth - 1) + ")";
            default:
                return "(" + condition(depth - 1) + ") " + oneOf({"and", "or"}) + " (" + condition(depth - 1) + ")";
        }
    }

    /// Tokens in any order.
    std::string salad() {
        std::string out;
        for (int i = pick(9); i >= 0; --i) {
            out +=
                oneOf({"a", "s", "1", "'x'", "not", "-", "and", "=", "(", ")", "upper(", "unit", "sp", "/", "0", "+"});
            out += ' ';
        }
        return out;
    }

    /// Other values, now and then of other types.
    void rebind(TExpressionEvaluation& first, TExpressionEvaluation& second) {
        for (const char* field : {"a", "b", "s", "flag", "sp", "sq", "sb"}) {
            const std::string text = oneOf({"", "0", "1", "5", "abc", "ABC", "true", "12x", "a longer text than that"});
            EXPECT_EQ(first.setIdentifierFromString(field, text), second.setIdentifierFromString(field, text));
        }
        if (pick(3) > 0) return;
        const char* const field = oneOf({"a", "s", "flag", "sp", "sq", "sb"});
        const int kind = pick(4);
        for (TExpressionEvaluation* evaluator : {&first, &second}) {
            if (kind == 0) evaluator->setIdentifier(field, 1, false);
            if (kind == 1) evaluator->setIdentifier(field, "5", false);
            if (kind == 2) evaluator->setIdentifier(field, true, false);
            if (kind == 3) evaluator->setIdentifier(field, new TBaseValue(TValueType::Invalid), false);
        }
    }

private:
    int pick(int count) { return static_cast<int>(m_random() % static_cast<unsigned>(count)); }
    const char* oneOf(const std::vector<const char*>& texts) { return texts[m_random() % texts.size()]; }
    static const std::vector<const char*>& operators() {
        static const std::vector<const char*> texts{"or", "and", ">",    ">=", "<", "<=", "=",
                                                    "<>", "!=",  "like", "+",  "-", "*",  "/"};
        return texts;
    }
    std::string comparison() { return oneOf({"=", "<>", "<", ">", "<=", ">="}); }
    std::string number() { return oneOf({"0", "1", "2", "5", "2147483647", "99999999999"}); }
    std::string name() { return oneOf({"a", "b", "s", "t", "flag", "true", "sp", "sq", "sb"}); }
    std::string text() {
        return oneOf({"''", "'a'", "'abc'", "'ABC'", "'%'", "'%c'", "'a%'", "'%b%'", "'5'", "'1x'", "'false'", "' 1'"});
    }

    std::mt19937 m_random;
};

/// Both ways of evaluating the whole expression, and both of its special part, over some rows.
void compareWays(Generator& generator, const std::string& text) {
    const auto compiled = makeEvaluator(text);
    const auto byMethods = makeEvaluator(text);
    for (int row = 0; row < 3; ++row) {
        ASSERT_EQ(outcomeOf(*compiled, &TExpressionEvaluation::evaluate),
                  outcomeOf(*byMethods, &TExpressionEvaluation::evaluateByMethods))
            << text;
        generator.rebind(*compiled, *byMethods);
    }
    const auto specialCompiled = makeEvaluator(text);
    const auto specialByMethods = makeEvaluator(text);
    for (int row = 0; row < 3; ++row) {
        ASSERT_EQ(outcomeOf(*specialCompiled, &TExpressionEvaluation::evaluateSpecial),
                  outcomeOf(*specialByMethods, &TExpressionEvaluation::evaluateSpecialByMethods))
            << text;
        generator.rebind(*specialCompiled, *specialByMethods);
    }
}

TEST(ExpressionProgram, AgreesWithTheMethodsOnGeneratedExpressions) {
    Generator generator(1);
    for (int i = 0; i < 4000; ++i) {
        compareWays(generator, generator.expression(1 + i % 6));
        compareWays(generator, generator.condition(i % 6));
        compareWays(generator, generator.salad());
    }
}

struct SkipCase {
    const char* text;
    const char* a;  ///< what the name is set to
    Outcome outcome;
};

const SkipCase skipCases[] = {
    // What can fail on the right side is evaluated, whatever the left side is.
    {"false and s = 1", "0", failure(etInvalidType)},
    {"true or 1 / a = 1", "0", failure(etDivisionByZero)},
    {"true or 1 / a = 1", "1", value("true")},
    {"false and upper(s) like ('%' + 'long enough')", "0", Outcome{"", etNoErrors, true}},
    {"false and s like '%abcd'", "0", Outcome{"", etNoErrors, true}},
    {"false and (a = 1 and 1 / a = 1)", "0", failure(etDivisionByZero)},
    {"a = 1 and (flag and 1 > true)", "0", failure(etInvalidType)},
    {"false and (true + 1)", "0", failure(etInvalidType)},
    {"false and (a = 1) 2", "0", failure(etInvalidType)},
    // What cannot fail changes nothing.
    {"a = 1 and (flag or s = 'x')", "0", value("false")},
    {"a = 1 and (flag or s = 'x')", "1", value("true")},
    {"a = 1 or (flag and s = 'x')", "0", value("false")},
    {"a = 1 or (flag and s = 'x')", "1", value("true")},
    {"a = 1 and (a = 1 or flag) or not (flag and (a = 2 or a = 3))", "0", value("true")},
    {"(a = 1 and (s = 'abc' and flag)) = false", "0", value("true")},
    {"not (a = 1 or (s <> 'abc' or a + 1 > 2))", "0", value("true")},
};

TEST(ExpressionProgram, RightSidesAreLeftOutOnlyWhereNobodyCanTell) {
    for (const SkipCase& test : skipCases) {
        for (const Evaluation evaluation :
             {&TExpressionEvaluation::evaluate, &TExpressionEvaluation::evaluateByMethods}) {
            const auto evaluator = makeEvaluator(test.text);
            evaluator->setIdentifierFromString("a", test.a);
            EXPECT_EQ(outcomeOf(*evaluator, evaluation), test.outcome) << test.text;
        }
    }
}

TEST(ExpressionProgram, ViewsAreReadWhereTheyAre) {
    const auto evaluator = makeEvaluator("s = 'xyz' or upper(s) + s = 'ABCabc' and s like 'a%' and a = 7");
    std::string bytes = "abc";
    EXPECT_FALSE(TExpressionEvaluation::setView(evaluator->bindingHandle("s"), bytes));
    EXPECT_FALSE(TExpressionEvaluation::setView(evaluator->bindingHandle("a"), "7"));
    EXPECT_TRUE(TExpressionEvaluation::setView(evaluator->bindingHandle("nothing"), "7"));
    EXPECT_EQ(evaluator->toString(), "true");
    EXPECT_EQ(bytes, "abc") << "the caller's bytes are not written to";
    bytes = "xbc";
    EXPECT_EQ(evaluator->toString(), "false");
    bytes = "xyz";
    EXPECT_EQ(evaluator->toString(), "true");
    const std::unique_ptr<TStringValue> viewed = std::make_unique<TStringValue>("old");
    viewed->refer(bytes);
    const std::unique_ptr<TBaseValue> copy(viewed->clone());
    EXPECT_EQ(viewed->funcUpper(), viewed.get());
    EXPECT_EQ(TStringValue::getValue(viewed.get()), "XYZ");
    EXPECT_EQ(bytes, "xyz");
    bytes = "gone";
    EXPECT_EQ(TStringValue::getValue(copy.get()), "xyz");
}

/// The whole expression as one whose names are all special, so that its tree is evaluated.
Outcome treeOutcome(const std::string& text) {
    TExpressionEvaluation evaluator(text);
    for (const char* name : {"a", "b", "s", "t", "flag"})
        evaluator.setIdentifier(name, 0, true);
    bindNames(evaluator);  // a name once special stays so
    evaluator.setIdentifier("true", true, true);
    evaluator.setIdentifier("false", false, true);
    return outcomeOf(evaluator, &TExpressionEvaluation::evaluateSpecial);
}

TEST(ExpressionProgram, TreeAndPostfixDifferOnlyWhereThereIsNoTree) {
    Generator generator(2);
    int built = 0;
    int broken = 0;
    for (int i = 0; i < 6000; ++i) {
        const std::string text = i % 3 == 0   ? generator.salad()
                                 : i % 3 == 1 ? generator.expression(4)
                                              : generator.condition(4);
        const auto evaluator = makeEvaluator(text);
        const Outcome postfix = outcomeOf(*evaluator, &TExpressionEvaluation::evaluate);
        const Outcome tree = treeOutcome(text);
        if (tree == failure(etOperatorExpected)) {
            // Without a tree: error 10; on the way through the sequence: error 12, or what was met before.
            EXPECT_EQ(postfix.text, "Error") << text;
            EXPECT_FALSE(postfix.threw) << text;
            ++broken;
        } else if (makeEvaluator(text)->onlyNotSpecial() && tree == failure(etEvaluation)) {
            // Constants alone have no special part.
            EXPECT_TRUE(makeEvaluator(text)->onlySpecial()) << text;
        } else {
            EXPECT_EQ(tree, postfix) << text;
            ++built;
        }
    }
    EXPECT_GT(built, 2000);
    EXPECT_GT(broken, 200);
}

TEST(ExpressionProgram, TheTextFormReadsBackAsTheSameTree) {
    Generator generator(3);
    int compared = 0;
    for (int i = 0; i < 3000; ++i) {
        // Without texts, which the text form shows without quotes, and minuses, which it runs together.
        const std::string text = generator.condition(5);
        if (text.find('\'') != std::string::npos) continue;
        const auto evaluator = makeEvaluator(text);
        const std::string infix = "(" + evaluator->getInfix() + ")";
        const auto again = makeEvaluator(infix);
        EXPECT_EQ(again->getInfix(), evaluator->getInfix()) << text;
        EXPECT_EQ(again->getPostfix(), evaluator->getPostfix()) << text;
        ++compared;
    }
    EXPECT_GT(compared, 100);
}

}  // namespace
}  // namespace QOR::test
