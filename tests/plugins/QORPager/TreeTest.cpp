#include "QORPager/QORExpressionTree.h"

#include <gtest/gtest.h>

#include <string>

#include "plugins/QORPager/Evaluations.h"

namespace QOR::test {
namespace {

struct TreeCase {
    const char* text;
    const char* infix;
    const char* special;
    const char* notSpecial;
};

// Special: sp, sq, sb, pager.env.eid. Not special: a, b, s, t, flag, true, false.
const TreeCase treeCases[] = {
    {"a + b", "a + b", "Error", "a + b"},
    {"1 + 2 * 3", "1 + (2 * 3)", "Error", "Error"},
    {"(a)", "a", "Error", "a"},
    {"not flag", "not flag", "Error", "not flag"},
    {"NOT flag Or flag", "(NOT flag) Or flag", "Error", "(NOT flag) Or flag"},
    {"-(a + b)", "-(a + b)", "Error", "-(a + b)"},
    {"-(-a)", "--a", "Error", "--a"},
    {"Upper( s ) = 'X'", "Upper(s) = X", "Error", "Upper(s) = X"},
    {"upper(s + t)", "upper((s + t))", "Error", "upper((s + t))"},
    {"(a = 1) and (b = 2)", "(a = 1) and (b = 2)", "Error", "(a = 1) and (b = 2)"},
    {"'(x)'", "x", "Error", "Error"},
    {"'('", "", "Error", "Error"},
    {"pager.env.eid in (unit 'X', recursive)", "pager.env.eid.InPlaceholder in X", "pager.env.eid.InPlaceholder in X",
     "Error"},
    {"sp = 1 and a = 1", "(sp = 1) and (a = 1)", "sp = 1", "a = 1"},
    {"a = 1 and sp = 1", "(a = 1) and (sp = 1)", "sp = 1", "a = 1"},
    {"sp = 1 and sq = 'x'", "(sp = 1) and (sq = x)", "(sp = 1) and (sq = x)", "Error"},
    {"not (sp = 1 and a = 1)", "not ((sp = 1) and (a = 1))", "not (sp = 1)", "not (a = 1)"},
    {"sp = a", "sp = a", "sp", "a"},
    {"a = sp", "a = sp", "sp", "a"},
    {"sb and flag", "sb and flag", "sb", "flag"},
    {"(sp = 1 and a = 1) or b = 1", "((sp = 1) and (a = 1)) or (b = 1)", "sp = 1", "(a = 1) or (b = 1)"},
    {"upper(sq + s) = 'X'", "upper((sq + s)) = X", "upper(sq) = X", "upper(s) = X"},
    {"1 = 1 and sp = 1", "(1 = 1) and (sp = 1)", "(1 = 1) and (sp = 1)", "Error"},
    {"1 = 1 and (sp = 1 and a = 1)", "(1 = 1) and ((sp = 1) and (a = 1))", "(1 = 1) and (sp = 1)",
     "(1 = 1) and (a = 1)"},
    {"(sp = 1 or a = 1) and (sb or flag)", "((sp = 1) or (a = 1)) and (sb or flag)", "(sp = 1) and sb",
     "(a = 1) and flag"},
    // The descent for the other kind takes the right side when the left one has both kinds: it can end in a constant.
    {"(sp = 1 and a = 1) and sp = 2", "((sp = 1) and (a = 1)) and (sp = 2)", "(sp = 1) and (sp = 2)", "2"},
    {"(sp = 1 and a = 1) and sb", "((sp = 1) and (a = 1)) and sb", "(sp = 1) and sb", "sb"},
};

TEST(ExpressionTree, TextFormsShowTheTreeAndItsParts) {
    for (const TreeCase& test : treeCases) {
        const auto evaluator = makeEvaluator(test.text);
        EXPECT_EQ(evaluator->getInfix(), test.infix) << test.text;
        EXPECT_EQ(evaluator->getInfixSpecial(), test.special) << test.text;
        EXPECT_EQ(evaluator->getInfixNotSpecial(), test.notSpecial) << test.text;
    }
}

TEST(ExpressionTree, SequencesThatAreNotOneExpressionAreError10) {
    for (const char* text : {"a b", "1 2", "not not flag", "3 - -2", "- -a", "a +", "= 1", "not", "a and", "upper(())",
                             "unit", "a unit b", "recursive a", "a = 1 unit", "1 () 2", "a > = 1"}) {
        const auto evaluator = makeEvaluator(text);
        EXPECT_FALSE(evaluator->prepare()) << text;
        EXPECT_TRUE(evaluator->prepareSpecial()) << text;
        EXPECT_EQ(evaluator->getErrorMessage(), "Operator or function expected") << text;
        EXPECT_EQ(evaluator->buildTree(), nullptr);
        EXPECT_EQ(evaluator->getInfix(), "Error");
        EXPECT_EQ(evaluator->getInfixNotSpecial(), "Error");
        EXPECT_FALSE(evaluator->onlySpecial());
        EXPECT_FALSE(evaluator->onlyNotSpecial());
    }
}

TEST(ExpressionTree, ParseErrorsPassThrough) {
    const auto evaluator = makeEvaluator("(a = 1");
    EXPECT_TRUE(evaluator->prepareSpecial());
    EXPECT_EQ(evaluator->getErrorCode(), etUnexpectedLeftBracket);
    EXPECT_TRUE(evaluator->prepareNotSpecial());
    EXPECT_EQ(evaluator->getErrorCode(), etUnexpectedLeftBracket);
}

TEST(ExpressionTree, ChildrenStandFromRightToLeft) {
    const auto evaluator = makeEvaluator("a + b");
    const TNode* const root = evaluator->buildTree();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->token().text, "+");
    EXPECT_EQ(root->parent(), nullptr);
    ASSERT_EQ(root->children().size(), 2U);
    EXPECT_EQ(root->children().front().token().text, "b");
    EXPECT_EQ(root->children().back().token().text, "a");
    EXPECT_EQ(root->children().back().parent(), root);
    EXPECT_EQ(evaluator->buildTree(), root);
}

struct FlagCase {
    const char* text;
    bool constants;
    bool special;
    bool notSpecial;
};

const FlagCase flagCases[] = {
    {"1 + 2", true, false, false},     {"1 + a", false, false, true},       {"sp + 1", false, true, false},
    {"sp + a", false, true, true},     {"upper('x')", true, false, false},  {"not flag", false, false, true},
    {"-(1 + sp)", false, true, false}, {"1 + (2 + a)", false, false, true},
};

TEST(ExpressionTree, FlagsTellWhatASubtreeHolds) {
    for (const FlagCase& test : flagCases) {
        const auto evaluator = makeEvaluator(test.text);
        const TNode* const root = evaluator->buildTree();
        ASSERT_NE(root, nullptr) << test.text;
        EXPECT_EQ(root->includesOnlyConstants(), test.constants) << test.text;
        EXPECT_EQ(root->includesSpecialIdentifier(), test.special) << test.text;
        EXPECT_EQ(root->includesNotSpecialIdentifier(), test.notSpecial) << test.text;
        EXPECT_EQ(evaluator->onlySpecial(), !test.notSpecial) << test.text;
        EXPECT_EQ(evaluator->onlyNotSpecial(), !test.special) << test.text;
    }
}

TEST(ExpressionTree, ANameIsSpecialInAnySpellingAndForGood) {
    TExpressionEvaluation evaluator("Name = 1");
    evaluator.setIdentifier("NAME", 1, true);
    evaluator.setIdentifier("name", 2, false);
    EXPECT_TRUE(evaluator.onlySpecial());
}

TEST(ExpressionTree, ThePlaceholderIsSpecialWhenItsOwnNameIs) {
    TExpressionEvaluation evaluator("pager.env.eid in (unit 'X', recursive)");
    evaluator.setIdentifier("pager.env.eid", "", true);
    EXPECT_FALSE(evaluator.onlySpecial());
    evaluator.setIdentifier("pager.env.eid.InPlaceholder", "", true);
    EXPECT_FALSE(evaluator.onlySpecial()) << "trees stay until the text changes";
    evaluator.setExpression(evaluator.getExpression());
    EXPECT_TRUE(evaluator.onlySpecial());
}

struct ConstantCase {
    const char* text;
    const char* name;
    int type;
    const char* constant;  ///< null: none
};

const ConstantCase constantCases[] = {
    {"pager.env.eid in (unit 'X', recursive)", "pager.env.eid.InPlaceholder", 18, "X"},
    {"a = 1", "pager.env.eid.InPlaceholder", 18, nullptr},
    {"a = 1", "a", 8, "1"},
    {"1 = a", "a", 8, "1"},
    {"a = '007'", "a", 8, "007"},
    {"a = ''", "a", 8, ""},
    {"a = 1", "A", 8, nullptr},
    {"A = 1", "A", 8, "1"},
    {"a = 1", "a", 10, nullptr},
    {"a = 1 and a = 2", "a", 8, "2"},
    {"a = 1 or a = 2", "a", 8, "2"},
    {"(a = 1 and b = 2) and a > 3", "a", 8, "1"},
    {"a > 5", "a", 6, "5"},
    {"5 > a", "a", 6, "5"},
    {"a <= 5", "a", 11, "5"},
    {"s like 'x%'", "s", 12, "x%"},
    {"a = b", "a", 8, nullptr},
    {"b = a", "a", 8, nullptr},
    {"a = 1 + 2", "a", 8, nullptr},
    {"not (a = 1)", "a", 8, nullptr},
    {"not (a = 1) and b = 2", "a", 8, nullptr},
    {"not (a = 1) and b = 2", "b", 8, "2"},
    {"upper(s) = 'X'", "s", 8, nullptr},
    {"a = -1", "a", 8, nullptr},
    // A search goes on below an operator of the type that has no constant itself.
    {"(a = 1) = true", "a", 8, "1"},
    {"true = (a = 1)", "a", 8, "1"},
    {"a = (b = 3)", "b", 8, "3"},
    {"'a' = 'a'", "a", 8, nullptr},
    {"a + 1", "a", 13, "1"},
};

TEST(ExpressionTree, ConstantsComparedWithANameAreFound) {
    for (const ConstantCase& test : constantCases) {
        const auto evaluator = makeEvaluator(test.text);
        bool found = test.constant == nullptr;
        const std::string constant =
            evaluator->extractConstByIdentifierAndOperation(test.name, static_cast<TTokenType>(test.type), found);
        EXPECT_EQ(found, test.constant != nullptr) << test.text;
        EXPECT_EQ(constant, test.constant == nullptr ? "" : test.constant) << test.text;
    }
}

TEST(ExpressionTree, AnUnparsableTextHasNoConstants) {
    bool found = true;
    EXPECT_EQ(makeEvaluator("a = 1 and")->extractConstByIdentifierAndOperation("a", ttEqual, found), "");
    EXPECT_FALSE(found);
}

TEST(ExpressionTree, OuterBracketsAreRemovedWithoutLooking) {
    using P = TExpressionEvaluationParser;
    EXPECT_EQ(P::removeUnnecessaryParenthesis("(a) and (b)"), "a) and (b");
    EXPECT_EQ(P::removeUnnecessaryParenthesis("(a"), "");
    EXPECT_EQ(P::removeUnnecessaryParenthesis("("), "");
    EXPECT_EQ(P::removeUnnecessaryParenthesis(""), "");
    EXPECT_EQ(P::removeUnnecessaryParenthesis("a)"), "a)");
}

}  // namespace
}  // namespace QOR::test
