// Texts made to bring an evaluator down: each is given to everything that reads it.
#include <gtest/gtest.h>

#include <string>

#include "plugins/QORPager/Evaluations.h"
#include "support/LongTexts.h"

namespace QOR::test {
namespace {

constexpr std::size_t many = 100000;
constexpr std::size_t megabyte = std::size_t{1} << 20U;

struct Results {
    Outcome postfix;
    Outcome byMethods;
    Outcome special;
    std::string infix;
};

Results readAll(const std::string& text) {
    const auto evaluator = makeEvaluator(text);
    Results results;
    results.postfix = outcomeOf(*evaluator, &TExpressionEvaluation::evaluate);
    results.infix = evaluator->getInfix();
    evaluator->getInfixNotSpecial();
    bool found = false;
    evaluator->extractConstByIdentifierAndOperation("a", ttGreater, found);
    const auto byMethods = makeEvaluator(text);
    results.byMethods = outcomeOf(*byMethods, &TExpressionEvaluation::evaluateByMethods);
    const auto special = makeEvaluator(text);
    results.special = outcomeOf(*special, &TExpressionEvaluation::evaluateSpecial);
    special->getInfixSpecial();
    return results;
}

TEST(HostileTexts, DeepBrackets) {
    const Results closed = readAll(repeated("(", many) + "a" + repeated(")", many));
    EXPECT_EQ(closed.postfix, value("1"));
    EXPECT_EQ(closed.infix, "a");
    EXPECT_EQ(readAll(repeated("(", megabyte)).postfix, failure(etUnexpectedLeftBracket));
    EXPECT_EQ(readAll(repeated("(", many) + "a" + repeated(")", many + 1)).postfix, failure(etUnexpectedRightBracket));
}

TEST(HostileTexts, DeepTreesToTheLeftAndToTheRight) {
    const Results left = readAll("sp = 1" + repeated(" and a = 1", many));
    EXPECT_EQ(left.postfix, value("true"));
    EXPECT_EQ(left.byMethods, value("true"));
    EXPECT_EQ(left.special, value("true"));
    const Results right = readAll("sp = 1" + repeated(" and (a = 1", many) + repeated(")", many));
    EXPECT_EQ(right.postfix, value("true"));
    EXPECT_EQ(right.byMethods, value("true"));
    EXPECT_EQ(right.special, value("true"));
}

TEST(HostileTexts, DeepPrefixes) {
    const Results nots = readAll(repeated("not (", many) + "sp = 1" + repeated(")", many));
    EXPECT_EQ(nots.postfix, value("true"));
    EXPECT_EQ(nots.special, value("true"));
    const Results minuses = readAll(repeated("-(", many + 1) + "sp" + repeated(")", many + 1));
    EXPECT_EQ(minuses.postfix, value("-1"));
    EXPECT_EQ(minuses.byMethods, value("-1"));
    EXPECT_EQ(minuses.special, value("-1"));
    const Results functions = readAll(repeated("upper(lower(", many) + "sq" + repeated("))", many));
    EXPECT_EQ(functions.postfix, value("ABC"));
    EXPECT_EQ(functions.special, value("ABC"));
    EXPECT_EQ(readAll(repeated("not ", many) + "flag").special, failure(etOperatorExpected));
    EXPECT_EQ(readAll(repeated("- ", many) + "a").postfix, failure(etEvaluation));
}

TEST(HostileTexts, MixedPartsNestedDeeply) {
    const Results results = readAll(repeated("not (sp = 1 and a = 1 or ", many / 2) + "flag" + repeated(")", many / 2));
    EXPECT_FALSE(results.postfix.threw);
    EXPECT_EQ(results.postfix, results.byMethods);
    EXPECT_EQ(results.special.code, etNoErrors);
}

TEST(HostileTexts, ConcatenationsLeaningEitherWay) {
    const Results left = readAll("'abcde'" + repeated("+'abcde'", many));
    EXPECT_EQ(left.postfix.text, repeated("abcde", many + 1));
    const std::string right = repeated("'ab'+(", many) + "'z'" + repeated(")", many);
    EXPECT_EQ(makeEvaluator(right)->toString(), repeated("ab", many) + "z");
    const std::string cases = repeated("upper('ab'+lower('Cd'+", many / 2) + "'z'" + repeated("))", many / 2);
    EXPECT_EQ(makeEvaluator(cases)->toString(), repeated("ABCD", many / 2) + "Z");
    const std::string inner = repeated("'ab'+upper('Cd'+", many / 2) + "'z'" + repeated(")", many / 2);
    EXPECT_EQ(makeEvaluator(inner)->toString(), "ab" + repeated("CDAB", many / 2 - 1) + "CDZ");
}

TEST(HostileTexts, UnterminatedEverything) {
    for (const std::string text : {"'", "\"", "(", "upper(", "a = '", "a and", "not", "-", "a in", "pager.env.eid in (",
                                   "pager.env.eid in (unit '", "upper(upper(", "a <", "a !", ",", "upper(a,"}) {
        EXPECT_EQ(readAll(text).postfix.text, "Error") << text;
        EXPECT_EQ(readAll(repeated(text, 1001)).postfix.text, "Error") << text;
    }
    EXPECT_EQ(readAll("'" + repeated("x", megabyte)).postfix, failure(etUnterminatedString));
    EXPECT_EQ(readAll("'" + repeated("''", megabyte)).postfix, failure(etUnterminatedString));
}

TEST(HostileTexts, LongTokens) {
    EXPECT_EQ(readAll(repeated("9", megabyte)).postfix, value("-1"));
    EXPECT_EQ(readAll(repeated("x", megabyte)).postfix, failure(etUndeclaredIdentifier));
    EXPECT_EQ(readAll(repeated("x", megabyte) + "(1)").postfix, failure(etUnknownFunction));
    EXPECT_EQ(readAll(repeated(" ", megabyte) + "a").postfix, value("1"));
    EXPECT_EQ(readAll(repeated("#", megabyte)).postfix, failure(etUnknownSymbol));
    const std::string as = repeated("a", megabyte / 2);
    EXPECT_EQ(readAll("'" + as + "' like '%" + repeated("a", megabyte / 4) + "b%'").postfix, value("false"));
}

TEST(HostileTexts, EveryByteAlone) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        EXPECT_EQ(readAll(text).postfix.text, byte >= '0' && byte <= '9'     ? text
                                              : (text == "a" || text == "A") ? "1"
                                              : (text == "b" || text == "B") ? "2"
                                              : (text == "s" || text == "S") ? "abc"
                                              : (text == "t" || text == "T") ? ""
                                                                             : "Error")
            << byte;
        const std::string quoted = "'" + text + "'";
        if (byte != '\'') {
            EXPECT_EQ(readAll(quoted).postfix, value(text)) << byte;
        }
    }
}

TEST(HostileTexts, EveryPrefixOfAFilter) {
    const std::string text =
        "pager.env.eid in (unit 'a''b', recursive) and not (upper(s + \"x\") like '%C%' or -a <= 3 * (b - 1)) and flag "
        "<> 0";
    for (std::size_t length = 0; length <= text.size(); ++length) {
        const Results results = readAll(text.substr(0, length));
        EXPECT_EQ(results.postfix, results.byMethods) << length;
    }
    EXPECT_EQ(readAll(text).postfix, value("false"));
}

}  // namespace
}  // namespace QOR::test
