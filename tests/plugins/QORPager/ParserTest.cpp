#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "plugins/QORPager/Evaluations.h"

namespace QOR::test {
namespace {

const char* const inConstruct = "pager.env.eid in (unit 'X', recursive)";

struct PostfixCase {
    const char* text;
    const char* postfix;
};

const PostfixCase postfixCases[] = {
    {"a + b * 3", "a b 3 * + "},
    {"a - b - 3", "a b - 3 - "},
    {"flag or sb and true", "flag sb true and or "},
    {"not a = b", "a b = not "},
    {"-a * b", "a -u b * "},
    {"(a + b) * 3", "a b + 3 * "},
    {"a = 1 and s like 'a%' or not flag", "a 1 = s a% like and flag not or "},
    {"upper(s) = 'ABC'", "s upper ABC = "},
    {"upper(s + t) = lower('X')", "s t + upper X lower = "},
    {"upper((s))", "s upper "},
    // Operators that bind alike give way to the earlier one, prefix operators too, so these do not build.
    {"not not flag", "not flag not "},
    {"3 - -2", "3 - 2 - "},
    {"a b", "a b "},
    {"()", ""},
    {"a in b", "a "},
    {inConstruct, "pager.env.eid.InPlaceholder X in "},
    {"a = 1 and pager.env.eid in (unit \"Y\", recursive)", "a 1 = pager.env.eid.InPlaceholder Y in and "},
    {"(pager.env.eid) in (unit 'X', recursive) or flag", "pager.env.eid.InPlaceholder X in flag or "},
    {"pager.env.eid IN (unit 'X', recursive)", "pager.env.eid.InPlaceholder X IN "},
    {"'pager.env.eid' in (unit 'X', recursive)", "pager.env.eid.InPlaceholder X in "},
    {"pager.env.eid and in (unit 'X', recursive)", "pager.env.eid.InPlaceholder X in and "},
    {"unit", "unit "},
    {"a unit b", "a b unit "},
    {"recursive a", "a recursive "},
};

TEST(ExpressionParser, OperatorsStandBehindTheirOperands) {
    for (const PostfixCase& test : postfixCases)
        EXPECT_EQ(makeEvaluator(test.text)->getPostfix(), test.postfix) << test.text;
}

struct ErrorCase {
    const char* text;
    const char* message;
    const char* postfix;  ///< what there is of it
    std::size_t position;
};

const ErrorCase errorCases[] = {
    {"", "Empty expression", "", 0},
    {"   ", "Empty expression", "", 3},
    {"()", "Empty expression", "", 2},
    {"(a = 1", "Unexpected left bracket", "a 1 = ", 0},
    {"(a = (1", "Unexpected left bracket", "a 1 ", 5},
    {"a = 1)", "Unexpected right bracket", "a 1 = ", 5},
    {")", "Unexpected right bracket", "", 0},
    {"a, b", "Unexpected comma", "a ", 1},
    {",", "Unexpected comma", "", 0},
    {"(a, b)", "Unexpected comma", "a ", 2},
    {"upper(s), b", "Unexpected comma", "s ", 8},
    {"upper()", "Function arguments mismatch: Function \"functionUpper\" takes 1 argument(s)", "", 6},
    {"lower( )", "Function arguments mismatch: Function \"functionLower\" takes 1 argument(s)", "", 7},
    {"upper(s, t)", "Function arguments mismatch: Function \"functionUpper\" takes 1 argument(s)", "s t ", 10},
    {"upper((s, t))", "Function arguments mismatch: Function \"functionUpper\" takes 1 argument(s)", "s t ", 12},
    {"Upper(lower(s, t))", "Function arguments mismatch: Function \"functionLower\" takes 1 argument(s)", "s t ", 16},
    {"upper(())", "Function arguments mismatch: Function \"functionUpper\" takes 1 argument(s)", "", 7},
    {"upper(s", "Unexpected left bracket", "s ", 5},
    {"a = nothing", "Undeclared identifier: nothing", "a ", 4},
};

TEST(ExpressionParser, TheFirstErrorStopsTheParse) {
    for (const ErrorCase& test : errorCases) {
        const auto evaluator = makeEvaluator(test.text);
        if (std::string(test.text) == "upper(())") continue;  // below
        EXPECT_FALSE(evaluator->doParse()) << test.text;
        EXPECT_EQ(evaluator->getErrorMessage(), test.message) << test.text;
        EXPECT_EQ(evaluator->getErrorPosition(), test.position) << test.text;
        EXPECT_EQ(evaluator->getPostfix(), test.postfix) << test.text;
    }
}

TEST(ExpressionParser, OnlyAnEmptyListStraightBehindTheBracketIsNoticed) {
    const auto evaluator = makeEvaluator("upper(())");
    EXPECT_TRUE(evaluator->doParse());
    EXPECT_EQ(evaluator->getPostfix(), "upper ");
    EXPECT_TRUE(evaluator->prepareSpecial());
    EXPECT_EQ(evaluator->getErrorCode(), etOperatorExpected);
}

const char* const brokenInConstructs[] = {
    "pager.env.eid in (unit 'x')",
    "pager.env.eid in ('x')",
    "pager.env.eid in (UNIT 'x', recursive)",
    "pager.env.eid in (unit 'x', Recursive)",
    "pager.env.eid in ('unit' 'x', recursive)",
    "pager.env.eid in (unit 'x', 'recursive')",
    "pager.env.eid in '(' unit 'x', recursive)",
    "pager.env.eid in (unit 'x' recursive)",
    "pager.env.eid in (unit 'x', recursive",
    "pager.env.eid in (unit 5, recursive)",
    "pager.env.eid in (unit s, recursive)",
    "pager.env.eid in (unit nothing, recursive)",
    "pager.env.eid in (unit 'x, recursive)",
    "pager.env.eid in (#",
    "pager.env.eid in",
    "pager.env.eid in (",
    "pager.env.eid in (unit",
    "pager.env.eid in (unit 'x'",
    "pager.env.eid in (unit 'x',",
    "pager.env.eid in unit 'x', recursive",
    "a in (unit 'x', recursive)",
    "Pager.Env.EID in (unit 'x', recursive)",
    "5 in (unit 'x', recursive)",
    "in (unit 'x', recursive)",
    "-pager.env.eid in (unit 'x', recursive)",
    "upper(pager.env.eid) in (unit 'x', recursive)",
    "pager.env.eid in (unit 'x', recursive) in (unit 'y', recursive)",
    "pager.env.eid.InPlaceholder in (unit 'x', recursive)",
};

TEST(ExpressionParser, AnInConstructIsCompleteOrAnError) {
    for (const char* text : brokenInConstructs) {
        const auto evaluator = makeEvaluator(text);
        EXPECT_TRUE(evaluator->prepare()) << text;
        EXPECT_EQ(evaluator->getErrorMessage(), "Parse error: incorrect <in> expression") << text;
    }
}

TEST(ExpressionParser, ABrokenInConstructLeavesNamesAsTheyWere) {
    const auto evaluator = makeEvaluator("pager.env.eid in (unit 'x', recursiv)");
    EXPECT_EQ(evaluator->getPostfix(), "pager.env.eid ");
    EXPECT_TRUE(evaluator->wasIdentifierUsed("pager.env.eid"));
    EXPECT_FALSE(evaluator->wasIdentifierUsed("pager.env.eid.InPlaceholder"));
}

struct UsedCase {
    const char* text;
    std::vector<std::string> used;
};

const UsedCase usedCases[] = {
    {"a = 1 and A = 2 or b = 1", {"A", "a", "b"}},
    {"1 = 1", {}},
    {"true", {"true"}},
    {inConstruct, {"pager.env.eid.InPlaceholder"}},
    {"pager.env.eid = 5 or pager.env.eid in (unit 'x', recursive)", {"pager.env.eid", "pager.env.eid.InPlaceholder"}},
    {"pager.env.eid in (unit 'x', recursive) or pager.env.eid = 5", {"pager.env.eid", "pager.env.eid.InPlaceholder"}},
    {"pager.env.eid in (unit 'x', recursive) or pager.env.eid in (unit 'y', recursive)",
     {"pager.env.eid.InPlaceholder"}},
    {"Pager.env.eid = 5 or pager.env.eid in (unit 'x', recursive)", {"Pager.env.eid", "pager.env.eid.InPlaceholder"}},
    // A text before "in" takes the count of a name that is used elsewhere.
    {"pager.env.eid = 5 or 'pager.env.eid' in (unit 'x', recursive)", {"pager.env.eid.InPlaceholder"}},
    {"a = 1 and nothing = 2", {"a"}},
};

TEST(ExpressionParser, UsedNamesAreThoseOfTheTextAsSpelled) {
    for (const UsedCase& test : usedCases) {
        const auto evaluator = makeEvaluator(test.text);
        evaluator->prepare();
        const auto& used = evaluator->usedIdentifiers();
        EXPECT_EQ(std::vector<std::string>(used.begin(), used.end()), test.used) << test.text;
    }
}

TEST(ExpressionParser, NamesAreLettersDigitsUnderscoresAndDots) {
    TExpressionEvaluation evaluator;
    for (const char* name : {"x", "X.y_1", "9", "_", ".", "a..b"})
        EXPECT_TRUE(evaluator.setIdentifier(name, 1, false)) << name;
    for (const char* name : {"", "a b", "a-b", "\xc3\xa4", "a'", "a\t"}) {
        EXPECT_FALSE(evaluator.setIdentifier(name, 1, false)) << name;
        EXPECT_FALSE(evaluator.setIdentifier(name, true, false)) << name;
        EXPECT_FALSE(evaluator.setIdentifier(name, "text", false)) << name;
    }
}

TEST(ExpressionParser, BindingLowersTheNameAndSettingDoesNot) {
    TExpressionEvaluation evaluator("x.y = 7");
    EXPECT_TRUE(evaluator.setIdentifier("X.Y", 1, false));
    EXPECT_TRUE(evaluator.setIdentifierFromString("X.Y", "7"));
    EXPECT_EQ(evaluator.toString(), "false");
    EXPECT_FALSE(evaluator.setIdentifierFromString("x.y", "7"));
    EXPECT_EQ(evaluator.toString(), "true");
    EXPECT_TRUE(evaluator.setIdentifierFromString("nothing", "7"));
}

TEST(ExpressionParser, HandlesFollowANameThatIsBoundAgain) {
    TExpressionEvaluation evaluator("x = 'new'");
    EXPECT_FALSE(evaluator.bindingHandle("x"));
    EXPECT_TRUE(TExpressionEvaluation::setFromText(evaluator.bindingHandle("x"), "1"));
    evaluator.setIdentifier("x", 1, false);
    const TIdentifierHandle handle = evaluator.bindingHandle("x");
    EXPECT_TRUE(handle);
    evaluator.setIdentifier("X", "", false);
    EXPECT_FALSE(TExpressionEvaluation::setFromText(handle, "new"));
    EXPECT_EQ(evaluator.toString(), "true");
    evaluator.setIdentifier("x", true, false);
    EXPECT_FALSE(TExpressionEvaluation::setFromText(handle, "FALSE"));
    EXPECT_EQ(evaluator.toString(), "false");
    evaluator.setIdentifier("x", new TBaseValue(TValueType::Invalid), false);
    EXPECT_TRUE(TExpressionEvaluation::setFromText(handle, "1"));
}

TEST(ExpressionParser, BindingAgainChangesWhatIsEvaluatedWithoutParsing) {
    const auto evaluator = makeEvaluator("a = 1");
    EXPECT_EQ(evaluator->toString(), "true");
    evaluator->setIdentifier("A", "x", false);
    EXPECT_EQ(evaluator->toString(), "Error");
    EXPECT_EQ(evaluator->getErrorCode(), etInvalidType);
}

TEST(ExpressionParser, ANameBoundAfterAnErrorIsFoundByTheNextParse) {
    TExpressionEvaluation evaluator("later = 1");
    EXPECT_TRUE(evaluator.prepare());
    evaluator.setIdentifier("later", 1, false);
    EXPECT_FALSE(evaluator.prepare());
    EXPECT_EQ(evaluator.toString(), "true");
}

TEST(ExpressionParser, ClearedNamesAreUndeclaredInAParsedTextToo) {
    const auto evaluator = makeEvaluator("a = 1 and true");
    EXPECT_EQ(evaluator->toString(), "true");
    EXPECT_EQ(evaluator->getInfix(), "(a = 1) and true");
    evaluator->clearIdentifiersMap();
    EXPECT_EQ(evaluator->toString(), "Error");
    EXPECT_EQ(evaluator->getErrorMessage(), "Undeclared identifier: a");
    EXPECT_EQ(evaluator->getInfix(), "Error");
    evaluator->setIdentifier("a", 1, false);
    EXPECT_TRUE(evaluator->prepare());
    EXPECT_EQ(evaluator->getErrorMessage(), "Undeclared identifier: true");
}

TEST(ExpressionParser, TheBoundsOfTheTextAreItsOwn) {
    const auto evaluator = makeEvaluator("a = 1");
    EXPECT_EQ(std::string(evaluator->getBegin(), evaluator->getEnd()), evaluator->getExpression());
    EXPECT_EQ(evaluator->getExpression(), "a = 1");
}

TEST(ExpressionParser, ParsingDropsTreesAndProgramsOfTheOldSequence) {
    const auto evaluator = makeEvaluator("sp = 1 and a = 1");
    EXPECT_EQ(evaluator->getInfixSpecial(), "sp = 1");
    EXPECT_EQ(evaluator->toStringSpecial(), "true");
    EXPECT_EQ(evaluator->toString(), "true");
    EXPECT_EQ(evaluator->getPostfix(), "sp 1 = a 1 = and ");
    EXPECT_EQ(evaluator->getInfixSpecial(), "sp = 1");
    EXPECT_EQ(evaluator->toStringSpecial(), "true");
    EXPECT_EQ(evaluator->toString(), "true");
    evaluator->setExpression("sp = 2");
    EXPECT_EQ(evaluator->getInfix(), "sp = 2");
    EXPECT_EQ(evaluator->toStringSpecial(), "false");
    EXPECT_EQ(evaluator->toString(), "false");
}

}  // namespace
}  // namespace QOR::test
