#include "QORPager/QORExpressionTables.h"

#include <algorithm>
#include <array>

#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORExpressionText.h"

namespace QOR {

namespace {
using E = TExpressionEvaluation;
}  // namespace

constexpr std::array<TOperatorRow, 22> TExpressionEvaluationParser::m_mapOperators{{
    // text        class       type              priority       unary  method                        arity
    {"(", {tcBracket, ttLeftBracket, tpLeftBracket, true, nullptr, 0}},
    {")", {tcBracket, ttRightBracket, tpRightBracket, false, nullptr, 0}},
    {",", {tcBracket, ttComma, tpComma, true, nullptr, 0}},
    {"or", {tcOperator, ttOr, tpOr, true, &E::operatorOr, 2}},
    {"and", {tcOperator, ttAnd, tpAnd, true, &E::operatorAnd, 2}},
    {"not", {tcOperator, ttNot, tpNot, true, &E::operatorNot, 1}},
    {">", {tcOperator, ttGreater, tpComparison, true, &E::operatorGreater, 2}},
    {">=", {tcOperator, ttGreaterOrEqual, tpComparison, true, &E::operatorGreaterOrEqual, 2}},
    {"<", {tcOperator, ttLower, tpComparison, true, &E::operatorLower, 2}},
    {"<=", {tcOperator, ttLowerOrEqual, tpComparison, true, &E::operatorLowerOrEqual, 2}},
    {"=", {tcOperator, ttEqual, tpComparison, true, &E::operatorEqual, 2}},
    {"<>", {tcOperator, ttNotEqual, tpComparison, true, &E::operatorNotEqual, 2}},
    {"!=", {tcOperator, ttNotEqual, tpComparison, true, &E::operatorNotEqual, 2}},
    {"like", {tcOperator, ttLike, tpComparison, true, &E::operatorLike, 2}},
    {"+", {tcOperator, ttAdd, tpSum, false, &E::operatorAdd, 2}},
    {"-", {tcOperator, ttSub, tpSum, false, &E::operatorSub, 2}},
    {"*", {tcOperator, ttMul, tpProduct, false, &E::operatorMul, 2}},
    {"/", {tcOperator, ttDiv, tpProduct, false, &E::operatorDiv, 2}},
    {"-u", {tcOperator, ttUnaryMinus, tpPrefix, false, &E::operatorUnaryMinus, 1}},
    {"in", {tcOperator, ttIn, tpPrefix, false, &E::operatorIn, 2}},
    {"unit", {tcOperator, ttUnit, tpPrefix, false, nullptr, 0}},
    {"recursive", {tcOperator, ttRecursive, tpPrefix, false, nullptr, 0}},
}};

constexpr std::array<TFunctionRow, 2> TExpressionEvaluationParser::m_mapFunctions{{
    {"upper", {"functionUpper", &E::functionUpper, 1}, TFunctionKind::Upper},
    {"lower", {"functionLower", &E::functionLower, 1}, TFunctionKind::Lower},
}};

/// Indexed by code; an empty text is a code without a message.
constexpr std::array<std::string_view, etPowerBaseIsZero + 1> TExpressionEvaluation::mapErrors{
    "No errors",
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
    "",
    "Invalid type",
    "Division by zero",
    "Power base is zero",
};

namespace {

constexpr const auto& operators = TExpressionEvaluationParser::m_mapOperators;
constexpr const auto& functions = TExpressionEvaluationParser::m_mapFunctions;
constexpr const auto& errors = TExpressionEvaluation::mapErrors;

static_assert(errors[etEvaluation] == "Evaluation error" && errors[etInvalidType] == "Invalid type");

constexpr bool everyTypeHasAnOperator() {
    for (int type = ttLeftBracket; type <= ttRecursive; ++type) {
        const bool found = std::any_of(operators.begin(), operators.end(),
                                       [type](const TOperatorRow& row) { return row.entry.type == type; });
        if (!found) return false;
    }
    return true;
}
static_assert(everyTypeHasAnOperator());

#ifndef QOR_SANITIZED  // g++ 12 takes a method pointer for no constant while it instruments undefined behaviour
constexpr bool operandsGoWithMethods() {
    return std::all_of(operators.begin(), operators.end(),
                       [](const TOperatorRow& row) { return (row.entry.method != nullptr) == (row.entry.arity > 0); });
}
static_assert(operandsGoWithMethods());
#endif

/// Operands by token type.
constexpr auto arities = [] {
    std::array<int, ttNone + 1> byType{};
    for (const TOperatorRow& row : operators)
        byType[static_cast<std::size_t>(row.entry.type)] = row.entry.arity;
    return byType;
}();

constexpr std::size_t longestOperator = 9;
static_assert(std::all_of(operators.begin(), operators.end(),
                          [](const TOperatorRow& row) { return row.text.size() <= longestOperator; }));

template <class Rows>
auto findRow(const Rows& rows, std::string_view text) noexcept {
    return std::find_if(rows.begin(), rows.end(), [text](const auto& row) { return row.text == text; });
}

}  // namespace

std::span<const TOperatorRow> operatorRows() noexcept {
    return operators;
}
std::span<const TFunctionRow> functionRows() noexcept {
    return functions;
}

const TOperatorTokenFromName* findOperator(std::string_view text) noexcept {
    // Most names of a filter are field names, which are longer than any operator.
    if (text.size() > longestOperator) return nullptr;
    const auto* const row = findRow(operators, text);
    return row == operators.end() ? nullptr : &row->entry;
}

const TFunctionInfo* findFunction(std::string_view text) noexcept {
    const auto* const row = findRow(functions, text);
    return row == functions.end() ? nullptr : &row->info;
}

namespace {

const TFunctionRow& functionOf(const TToken& token) noexcept {
    return *findRow(functions, toLowerText(token.text));
}

}  // namespace

TFunctionKind kindOf(const TToken& token) noexcept {
    return functionOf(token).kind;
}

std::string_view spellingOf(TTokenType type) noexcept {
    const auto* const row = std::find_if(operators.begin(), operators.end(),
                                         [type](const TOperatorRow& one) { return one.entry.type == type; });
    return row == operators.end() ? std::string_view() : row->text;
}

int arityOf(const TToken& token) noexcept {
    if (token.tokenClass != tcOperator) return 0;
    if (token.type == ttFunction) return functionOf(token).info.argumentCount;
    const int arity = arities[static_cast<std::size_t>(token.type)];
    return arity == 0 ? -1 : arity;
}

std::string_view errorMessage(TErrorType code) noexcept {
    const auto index = static_cast<std::size_t>(code);
    if (index >= errors.size() || errors[index].empty()) return "Unsupported error code";
    return errors[index];
}

}  // namespace QOR
