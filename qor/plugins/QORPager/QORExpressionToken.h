/// \file
/// Tokens of the filter language, their classes, types and priorities, and the error codes. The numbers are contract:
/// never renumber.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "QORPager/QORExpressionEvaluationValue.h"

namespace QOR {

class TExpressionEvaluation;

/// What an evaluator does for an operator or a function: takes its operands from the evaluator's operand stack and
/// returns a new value, which the caller owns.
using TEvaluatorMethod = TBaseValue* (TExpressionEvaluation::*)();

// The numbers of these enumerations are contracts, so that each stands beside its name.

enum TTokenClass : int {
    tcNumber = 0,
    tcString = 1,
    tcReserved = 2,  ///< a free place: no token is of it, and the classes behind it keep their numbers
    tcIdentifier = 3,
    tcBracket = 4,   ///< "(", ")" and ","
    tcOperator = 5,  ///< operators and function calls
};

// Tokens and priorities are lists of the same kind, numbered by hand: both are compared by their order.
enum TTokenType : int {
    ttLeftBracket = 0,
    ttRightBracket = 1,
    ttComma = 2,
    ttOr = 3,
    ttAnd = 4,
    ttNot = 5,
    ttGreater = 6,
    ttLower = 7,
    ttEqual = 8,
    ttNotEqual = 9,
    ttGreaterOrEqual = 10,
    ttLowerOrEqual = 11,
    ttLike = 12,
    ttAdd = 13,
    ttSub = 14,
    ttMul = 15,
    ttDiv = 16,
    ttUnaryMinus = 17,
    ttIn = 18,
    ttUnit = 19,
    ttRecursive = 20,
    ttUnassigned = 21,  ///< a free place, as tcReserved
    ttFunction = 22,
    ttNone = 23,  ///< operands
};

/// Whether the operator compares two values by their order.
constexpr bool isComparison(TTokenType type) noexcept {
    return type >= ttGreater && type <= ttLowerOrEqual;
}

/// Higher binds tighter.
enum TTokenPriority : int {
    tpNone = 0,
    tpLeftBracket = 1,
    tpRightBracket = 2,
    tpComma = 3,
    tpOr = 4,
    tpAnd = 5,
    tpNot = 6,
    tpComparison = 7,
    tpSum = 8,
    tpProduct = 9,
    tpPrefix = 10,
    tpFunction = 12,
};

enum TErrorType : int {
    etNoErrors = 0,
    etParse = 1,
    etEmptyExpression = 2,
    etUnknownSymbol = 3,
    etUndeclaredIdentifier = 4,
    etUnknownFunction = 5,
    etUnexpectedLeftBracket = 6,
    etUnexpectedRightBracket = 7,
    etUnexpectedComma = 8,
    etFunctionArguments = 9,
    etOperatorExpected = 10,
    etUnterminatedString = 11,
    etEvaluation = 12,
    // 13 is a free place: whoever reads errors by their codes finds those behind it where they were.
    etInvalidType = 14,
    etDivisionByZero = 15,
    etPowerBaseIsZero = 16,
};

/// What a name is bound to. The place stays the same when the name is bound again.
using TIdentifierValue = std::unique_ptr<TBaseValue>;

/// One token. A plain value.
struct TToken {
    TEvaluatorMethod method = nullptr;  ///< of operators and functions
    std::string text;                   ///< as written; of a string constant what it stands for
    TTokenClass tokenClass = tcIdentifier;
    TTokenType type = ttNone;
    TTokenPriority priority = tpNone;
    const TIdentifierValue* identifier = nullptr;  ///< of identifiers: the entry of the parser's identifier table
    bool functionBracket = false;                  ///< of "(": it opens the arguments of a function
    std::size_t position = 0;                      ///< byte offset of the token in the text
};

}  // namespace QOR
