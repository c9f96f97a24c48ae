/// \file
/// The tables of the filter language: operators, functions and error messages. They are constants of the program, so
/// they are there before the first parser and may be read from any thread.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "QORPager/QORExpressionToken.h"

namespace QOR {

/// One entry of the operator table.
struct TOperatorTokenFromName {
    TTokenClass tokenClass;
    TTokenType type;
    TTokenPriority priority;
    bool unaryMinusFollows;   ///< a "-" after this token is the unary minus
    TEvaluatorMethod method;  ///< none for brackets, "unit" and "recursive"
    int arity;                ///< operands; 0 for what is no operator of an expression
};

/// An operator and its spelling; words are in lower case, the unary minus is "-u".
struct TOperatorRow {
    std::string_view text;
    TOperatorTokenFromName entry;
};

/// One entry of the function table.
struct TFunctionInfo {
    std::string_view name;  ///< of the evaluator method, as error messages show it
    TEvaluatorMethod method;
    int argumentCount;
};

/// What a function does, for those who do it in another way than by its method.
enum class TFunctionKind { Upper, Lower };

/// A function and its spelling, in lower case.
struct TFunctionRow {
    std::string_view text;
    TFunctionInfo info;
    TFunctionKind kind;
};

/// TExpressionEvaluationParser::m_mapOperators and m_mapFunctions.
std::span<const TOperatorRow> operatorRows() noexcept;
std::span<const TFunctionRow> functionRows() noexcept;

/// Null when there is no operator or function of that spelling.
const TOperatorTokenFromName* findOperator(std::string_view text) noexcept;
const TFunctionInfo* findFunction(std::string_view text) noexcept;

/// What the function does that a token calls. \pre the token is one of a function call
TFunctionKind kindOf(const TToken& token) noexcept;

/// How an operator is written, the first way of those that there are; "" for what is none.
std::string_view spellingOf(TTokenType type) noexcept;

/// How many operands a token of a postfix sequence takes; -1 for what cannot be evaluated ("unit", "recursive").
int arityOf(const TToken& token) noexcept;

/// The message of an error code; "Unsupported error code" for a code without one.
std::string_view errorMessage(TErrorType code) noexcept;

}  // namespace QOR
