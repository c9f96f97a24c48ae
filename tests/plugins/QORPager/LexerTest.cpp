#include <gtest/gtest.h>

#include <string>

#include "plugins/QORPager/Evaluations.h"

namespace QOR::test {
namespace {

/// How a text is cut into tokens, seen through the postfix sequence.
struct TokenCase {
    std::string text;
    std::string postfix;
};

const TokenCase tokenCases[] = {
    {"a >= 1", "a 1 >= "},
    {"a>=1", "a 1 >= "},
    {"a <> b", "a b <> "},
    {"a != b", "a b != "},
    {"a!=b", "a b != "},
    {"a > = 1", "a > 1 = "},
    {"a =< b", "a = b < "},
    {"a => b", "a = b > "},
    {"a == b", "a = b = "},
    {"-5", "5 -u "},
    {"3 - -5", "3 - 5 - "},
    {"(-5)", "5 -u "},
    {"a = -5", "a 5 -u = "},
    {"a like -5", "a 5 -u like "},
    {"a and -5", "a 5 -u and "},
    {"not -5", "5 -u not "},
    {"upper(-5)", "5 -u upper "},
    {"a -5", "a 5 - "},
    {"1-5", "1 5 - "},
    {"(a)-5", "a 5 - "},
    {"1 + -5", "1 + 5 - "},
    {"1 * -5", "1 * 5 - "},
    {"- -5", "-u 5 - "},
    // A text keeps the sign that a minus would have had before it.
    {"'x' - 5", "x 5 -u "},
    {"1 + 'x' - 5", "1 x + 5 - "},
    {"a = 'x' - 5", "a x 5 -u = "},
    {"'O''Brien'", "O'Brien "},
    {"\"say \"\"hi\"\"\"", "say \"hi\" "},
    {"'a\"b'", "a\"b "},
    {"\"a'b\"", "a'b "},
    {"'a\\'", "a\\ "},
    {"''", " "},
    {"''''", "' "},
    {"'a''''b'", "a''b "},
    {"'\xff\x80'", "\xff\x80 "},
    {std::string("'a\0b'", 5), std::string("a\0b ", 4)},
    {"12ab34", "12 ab34 "},
    {"007", "007 "},
    {"A", "A "},
    {"TRUE", "TRUE "},
    {"a AND b Or NOT flag", "a b AND flag NOT Or "},
    {"Pager.Env.EID", "Pager.Env.EID "},
    {"\t\n\v\f\r a \t", "a "},
    {"upper (s)", "s upper "},
    {"UPPER\n(s)", "s UPPER "},
    {"a=1and b=2", "a 1 = b 2 = and "},
    {"s like'a%'", "s a% like "},
};

TEST(ExpressionLexer, TextsAreCutIntoTokens) {
    for (const TokenCase& test : tokenCases) {
        const auto evaluator = makeEvaluator(test.text);
        evaluator->setIdentifier("ab34", 1, false);
        EXPECT_EQ(evaluator->getPostfix(), test.postfix) << test.text;
        EXPECT_FALSE(evaluator->isError()) << test.text << ": " << evaluator->getErrorMessage();
    }
}

struct ErrorCase {
    std::string text;
    std::string message;
    std::size_t position;
};

const ErrorCase errorCases[] = {
    {"#", "Unknown symbol: #", 0},
    {"a = # b", "Unknown symbol: # b", 4},
    {"a ^ b", "Unknown symbol: ^ b", 2},
    {"!a", "Unknown symbol: !a", 0},
    {"a ! = b", "Unknown symbol: ! = b", 2},
    {"a !", "Unknown symbol: !", 2},
    {"_a", "Unknown symbol: _a", 0},
    {".5", "Unknown symbol: .5", 0},
    {"1.5", "Unknown symbol: .5", 1},
    {"\xc3\xa4", "Unknown symbol: \xc3\xa4", 0},
    {std::string("a\0b", 3), std::string("Unknown symbol: \0b", 18), 1},
    {"nothing", "Undeclared identifier: nothing", 0},
    {"a and Nothing", "Undeclared identifier: Nothing", 6},
    {"12ab", "Undeclared identifier: ab", 2},
    {"upper", "Undeclared identifier: upper", 0},
    {"upper upper(s)", "Undeclared identifier: upper", 0},
    {"a.", "Undeclared identifier: a.", 0},
    {"Foo(1)", "Unknown function: Foo", 0},
    {"a  (1)", "Unknown function: a", 0},
    {"'abc", "Unterminated string constant: abc", 0},
    {"'", "Unterminated string constant", 0},
    {"'''", "Unterminated string constant: '", 0},
    {"a = \"it''s", "Unterminated string constant: it''s", 4},
};

TEST(ExpressionLexer, WhatIsNoTokenIsAnErrorWithItsDetail) {
    for (const ErrorCase& test : errorCases) {
        const auto evaluator = makeEvaluator(test.text);
        EXPECT_TRUE(evaluator->prepare()) << test.text;
        EXPECT_EQ(evaluator->getErrorMessage(), test.message) << test.text;
        EXPECT_EQ(evaluator->getErrorPosition(), test.position) << test.text;
    }
}

TEST(ExpressionLexer, BlankTextsHaveNoToken) {
    for (const char* text : {"", "  ", " \t\r\n\v\f"}) {
        const auto evaluator = makeEvaluator(text);
        EXPECT_TRUE(evaluator->prepare());
        EXPECT_EQ(evaluator->getErrorMessage(), "Empty expression");
        EXPECT_EQ(evaluator->getPostfix(), "");
    }
}

TEST(ExpressionLexer, NamesResolveWhateverTheirCase) {
    const auto evaluator = makeEvaluator("Pager.Env.EID = 'x'");
    EXPECT_FALSE(evaluator->setIdentifierFromString("pager.env.eid", "x"));
    EXPECT_EQ(evaluator->toString(), "true");
    EXPECT_TRUE(evaluator->wasIdentifierUsed("Pager.Env.EID"));
    EXPECT_FALSE(evaluator->wasIdentifierUsed("pager.env.eid"));
}

}  // namespace
}  // namespace QOR::test
