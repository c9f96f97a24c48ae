#include "QORPager/QORExpressionTables.h"

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <iterator>
#include <string>

#include "QORPager/QORExpressionEvaluation.h"

namespace QOR {
namespace {

using E = TExpressionEvaluation;

struct OperatorCase {
    const char* text;
    int tokenClass;
    int type;
    int priority;
    bool unary;
    TEvaluatorMethod method;
};

const OperatorCase operatorCases[] = {
    {"(", 4, 0, 1, true, nullptr},
    {")", 4, 1, 2, false, nullptr},
    {",", 4, 2, 3, true, nullptr},
    {"or", 5, 3, 4, true, &E::operatorOr},
    {"and", 5, 4, 5, true, &E::operatorAnd},
    {"not", 5, 5, 6, true, &E::operatorNot},
    {">", 5, 6, 7, true, &E::operatorGreater},
    {">=", 5, 10, 7, true, &E::operatorGreaterOrEqual},
    {"<", 5, 7, 7, true, &E::operatorLower},
    {"<=", 5, 11, 7, true, &E::operatorLowerOrEqual},
    {"=", 5, 8, 7, true, &E::operatorEqual},
    {"<>", 5, 9, 7, true, &E::operatorNotEqual},
    {"!=", 5, 9, 7, true, &E::operatorNotEqual},
    {"like", 5, 12, 7, true, &E::operatorLike},
    {"+", 5, 13, 8, false, &E::operatorAdd},
    {"-", 5, 14, 8, false, &E::operatorSub},
    {"*", 5, 15, 9, false, &E::operatorMul},
    {"/", 5, 16, 9, false, &E::operatorDiv},
    {"-u", 5, 17, 10, false, &E::operatorUnaryMinus},
    {"in", 5, 18, 10, false, &E::operatorIn},
    {"unit", 5, 19, 10, false, nullptr},
    {"recursive", 5, 20, 10, false, nullptr},
};

TEST(ExpressionTables, OperatorsAreWhatTheyAre) {
    EXPECT_EQ(operatorRows().size(), std::size(operatorCases));
    for (const OperatorCase& test : operatorCases) {
        const TOperatorTokenFromName* const entry = findOperator(test.text);
        ASSERT_NE(entry, nullptr) << test.text;
        EXPECT_EQ(entry->tokenClass, test.tokenClass) << test.text;
        EXPECT_EQ(entry->type, test.type) << test.text;
        EXPECT_EQ(entry->priority, test.priority) << test.text;
        EXPECT_EQ(entry->unaryMinusFollows, test.unary) << test.text;
        EXPECT_TRUE(entry->method == test.method) << test.text;
    }
    for (const char* other : {"", "^", "!", "==", "AND", "xor", "recursively"}) {
        EXPECT_EQ(findOperator(other), nullptr) << other;
    }
}

TEST(ExpressionTables, OperatorsAreSpeltTheFirstWayOfThoseThatThereAre) {
    EXPECT_EQ(spellingOf(ttLike), "like");
    EXPECT_EQ(spellingOf(ttNotEqual), "<>");
    EXPECT_EQ(spellingOf(ttFunction), "");
    EXPECT_EQ(spellingOf(ttNone), "");
}

TEST(ExpressionTables, FunctionsAreUpperAndLower) {
    EXPECT_EQ(functionRows().size(), 2U);
    ASSERT_NE(findFunction("upper"), nullptr);
    EXPECT_EQ(findFunction("upper")->name, "functionUpper");
    EXPECT_TRUE(findFunction("upper")->method == &E::functionUpper);
    EXPECT_EQ(findFunction("upper")->argumentCount, 1);
    ASSERT_NE(findFunction("lower"), nullptr);
    EXPECT_EQ(findFunction("lower")->name, "functionLower");
    EXPECT_TRUE(findFunction("lower")->method == &E::functionLower);
    EXPECT_EQ(findFunction("lower")->argumentCount, 1);
    EXPECT_EQ(TExpressionEvaluationParser::m_mapFunctions[0].kind, TFunctionKind::Upper);
    EXPECT_EQ(TExpressionEvaluationParser::m_mapFunctions[1].kind, TFunctionKind::Lower);
    EXPECT_EQ(findFunction("Upper"), nullptr);
    EXPECT_EQ(findFunction("length"), nullptr);
}

TEST(ExpressionTables, EveryErrorHasItsMessageAndThirteenHasNone) {
    const char* const messages[] = {"No errors",
                                    "Parse error",
                                    "Empty expression",
                                    "Unknown symbol",
                                    "Undeclared identifier",
                                    "Unknown function",
                                    "Unexpected left bracket",
                                    "Unexpected right bracket",
                                    "Unexpected comma",
                                    "Function arguments mismatch",
                                    "Operator or function expected",
                                    "Unterminated string constant",
                                    "Evaluation error",
                                    "Unsupported error code",
                                    "Invalid type",
                                    "Division by zero",
                                    "Power base is zero",
                                    "Unsupported error code"};
    for (int code = 0; code < static_cast<int>(std::size(messages)); ++code) {
        EXPECT_EQ(errorMessage(static_cast<TErrorType>(code)), messages[code]) << code;
    }
    EXPECT_EQ(errorMessage(static_cast<TErrorType>(-1)), "Unsupported error code");
}

/// The beginning of the fuzz target's dictionary, made from the tables.
std::string dictionary() {
    std::string text =
        "# Operators and functions, as the tables hold them; a test compares. Names and constructs follow.\n";
    for (const TOperatorRow& row : operatorRows()) {
        if (row.entry.type == ttUnaryMinus) continue;  // its spelling is the minus
        const bool word = std::isalpha(static_cast<unsigned char>(row.text.front())) != 0;
        const std::string blank = word ? " " : "";
        text += "\"" + blank + std::string(row.text) + blank + "\"\n";
    }
    for (const TFunctionRow& row : functionRows())
        text += "\"" + std::string(row.text) + "(\"\n";
    return text;
}

TEST(ExpressionTables, TheFuzzDictionaryHoldsAllOfThem) {
    std::ifstream file(QOR_PROJECT_DIR "/fuzz/filter/filter.dict");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(text.substr(0, dictionary().size()), dictionary());
}

}  // namespace
}  // namespace QOR
