// Every operator on every pair of operand types, by every way of evaluating.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "plugins/QORPager/Evaluations.h"

namespace QOR::test {
namespace {

/// The operands: 5, '5', 'x', true and the invalid value.
constexpr std::size_t kinds = 5;

void bindOperand(TExpressionEvaluation& evaluator, const char* name, std::size_t kind) {
    switch (kind) {
        case 0:
            evaluator.setIdentifier(name, 5, true);
            break;
        case 1:
            evaluator.setIdentifier(name, "5", true);
            break;
        case 2:
            evaluator.setIdentifier(name, "x", true);
            break;
        case 3:
            evaluator.setIdentifier(name, true, true);
            break;
        default:
            evaluator.setIdentifier(name, new TBaseValue(TValueType::Invalid), true);
    }
}

/// "E" is error 14, "I" the invalid value, "T" and "F" are booleans, all else is the value's text.
Outcome expected(const std::string& code) {
    if (code == "E") return failure(etInvalidType);
    if (code == "I") return value("Invalid");
    if (code == "T") return value("true");
    if (code == "F") return value("false");
    return value(code);
}

struct PairsRow {
    const char* text;
    std::array<std::array<const char*, kinds>, kinds> results;  ///< by left operand, then by right operand
};

const PairsRow pairsRows[] = {
    {"l + r",
     {{{"10", "I", "I", "I", "I"},
       {"I", "55", "5x", "I", "I"},
       {"I", "x5", "xx", "I", "I"},
       {"I", "I", "I", "I", "I"},
       {"I", "I", "I", "I", "I"}}}},
    {"l - r",
     {{{"0", "I", "I", "I", "I"},
       {"I", "I", "I", "I", "I"},
       {"I", "I", "I", "I", "I"},
       {"I", "I", "I", "I", "I"},
       {"I", "I", "I", "I", "I"}}}},
    {"l * r",
     {{{"25", "I", "I", "I", "I"},
       {"I", "I", "I", "I", "I"},
       {"I", "I", "I", "I", "I"},
       {"I", "I", "I", "I", "I"},
       {"I", "I", "I", "I", "I"}}}},
    {"l / r",
     {{{"1", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"}}}},
    {"l = r",
     {{{"T", "T", "E", "T", "E"},
       {"T", "T", "F", "T", "E"},
       {"E", "F", "T", "T", "E"},
       {"T", "T", "T", "T", "E"},
       {"E", "E", "E", "E", "E"}}}},
    {"l <> r",
     {{{"F", "F", "E", "F", "E"},
       {"F", "F", "T", "F", "E"},
       {"E", "T", "F", "F", "E"},
       {"F", "F", "F", "F", "E"},
       {"E", "E", "E", "E", "E"}}}},
    {"l != r",
     {{{"F", "F", "E", "F", "E"},
       {"F", "F", "T", "F", "E"},
       {"E", "T", "F", "F", "E"},
       {"F", "F", "F", "F", "E"},
       {"E", "E", "E", "E", "E"}}}},
    {"l > r",
     {{{"F", "F", "E", "E", "E"},
       {"F", "F", "F", "E", "E"},
       {"E", "T", "F", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"}}}},
    {"l >= r",
     {{{"T", "T", "E", "E", "E"},
       {"T", "T", "F", "E", "E"},
       {"E", "T", "T", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"}}}},
    {"l < r",
     {{{"F", "F", "E", "E", "E"},
       {"F", "F", "T", "E", "E"},
       {"E", "F", "F", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"}}}},
    {"l <= r",
     {{{"T", "T", "E", "E", "E"},
       {"T", "T", "T", "E", "E"},
       {"E", "F", "T", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"}}}},
    {"l like r",
     {{{"E", "E", "E", "E", "E"},
       {"E", "T", "F", "E", "E"},
       {"E", "F", "T", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"}}}},
    {"l and r",
     {{{"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "T", "E"},
       {"E", "E", "E", "E", "E"}}}},
    {"l or r",
     {{{"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "E", "E"},
       {"E", "E", "E", "T", "E"},
       {"E", "E", "E", "E", "E"}}}},
};

struct UnaryRow {
    const char* text;
    std::array<const char*, kinds> results;
};

const UnaryRow unaryRows[] = {
    {"not l", {"E", "E", "E", "F", "E"}},    {"-l", {"-5", "I", "I", "I", "I"}},
    {"upper(l)", {"E", "5", "X", "E", "E"}}, {"lower(l)", {"E", "5", "x", "E", "E"}},
    {"l", {"5", "5", "x", "T", "I"}},
};

void expectEverywhere(const std::string& text, std::size_t left, std::size_t right, const std::string& code) {
    for (const Evaluation evaluation :
         {&TExpressionEvaluation::evaluate, &TExpressionEvaluation::evaluateByMethods,
          &TExpressionEvaluation::evaluateSpecial, &TExpressionEvaluation::evaluateSpecialByMethods}) {
        TExpressionEvaluation evaluator(text);
        bindOperand(evaluator, "l", left);
        bindOperand(evaluator, "r", right);
        EXPECT_EQ(outcomeOf(evaluator, evaluation), expected(code)) << text << " of " << left << " and " << right;
    }
}

TEST(OperatorPairs, EveryBinaryOperatorOnEveryPairOfTypes) {
    for (const PairsRow& row : pairsRows) {
        for (std::size_t left = 0; left < kinds; ++left) {
            for (std::size_t right = 0; right < kinds; ++right) {
                expectEverywhere(row.text, left, right, row.results[left][right]);
            }
        }
    }
}

TEST(OperatorPairs, EveryUnaryOperatorOnEveryType) {
    for (const UnaryRow& row : unaryRows) {
        for (std::size_t kind = 0; kind < kinds; ++kind)
            expectEverywhere(row.text, kind, 0, row.results[kind]);
    }
}

TEST(OperatorPairs, EveryOperatorIsInATable) {
    for (const TOperatorRow& row : operatorRows()) {
        if (row.entry.method == nullptr || row.entry.type == ttIn) continue;
        bool found = false;
        for (const PairsRow& test : pairsRows)
            found = found || test.text == "l " + std::string(row.text) + " r";
        for (const UnaryRow& test : unaryRows)
            found = found || std::string(test.text) == std::string(row.text) + " l";
        EXPECT_TRUE(found || row.entry.type == ttUnaryMinus) << row.text;
    }
}

}  // namespace
}  // namespace QOR::test
