#include "QORPager/QORExpressionProgram.h"

#include <algorithm>

#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORExpressionTables.h"
#include "QORPager/QORExpressionText.h"

namespace QOR {
namespace {

constexpr bool isType(const TOperand& operand, TValueType type) noexcept {
    return operand.type == type;
}

bool areBoth(const TOperand& left, const TOperand& right, TValueType type) noexcept {
    return isType(left, type) && isType(right, type);
}

/// Whether a comparison holds for operands that compare like this.
constexpr bool holds(TTokenType type, int order) noexcept {
    switch (type) {
        case ttGreater:
            return order > 0;
        case ttGreaterOrEqual:
            return order >= 0;
        case ttLower:
            return order < 0;
        case ttLowerOrEqual:
            return order <= 0;
        case ttEqual:
            return order == 0;
        default:
            return order != 0;
    }
}

constexpr bool isEquality(TTokenType type) noexcept {
    return type == ttEqual || type == ttNotEqual;
}

/// A text that is wholly a number becomes that number.
void fixToInteger(TOperand& operand) noexcept {
    // Case does not touch digits, so a text is read as it stands.
    if (!isType(operand, TValueType::String)) return;
    if (const auto number = readWholeInteger(operand.text)) operand = TOperand::ofInteger(*number);
}

}  // namespace

TExpressionProgram::TExpressionProgram(const std::vector<const TToken*>& tokens) {
    std::size_t depth = 0;
    std::size_t deepest = 1;
    m_code.reserve(tokens.size());
    for (const TToken* token : tokens) {
        if (token->tokenClass == tcOperator) {
            if (!addOperator(*token, depth)) {
                addFailure();
                break;
            }
        } else {
            m_code.push_back({Step::Push, token, ttNone, TTextCase::AsIs, sourceOf(*token), {}});
            ++depth;
        }
        deepest = std::max(deepest, depth);
    }
    if (depth != 1) addFailure();
    m_stack.resize(deepest);
}

TExpressionProgram::Source TExpressionProgram::sourceOf(const TToken& token) {
    if (token.tokenClass == tcIdentifier) return {From::Identifier, 0, token.identifier};
    const bool number = token.tokenClass == tcNumber;
    m_constants.push_back(number ? TOperand::ofInteger(readInteger(token.text)) : TOperand::ofText(token.text));
    return {From::Constant, static_cast<std::uint32_t>(m_constants.size() - 1), nullptr};
}

/// Constants and names are read where they are used: a push just before an operator becomes its operand.
TExpressionProgram::Source TExpressionProgram::takeLeaf() {
    if (m_code.empty() || m_code.back().step != Step::Push) return {};
    const Source source = m_code.back().left;
    m_code.pop_back();
    return source;
}

bool TExpressionProgram::addOperator(const TToken& token, std::size_t& depth) {
    const int arity = arityOf(token);
    if (arity < 0 || depth < static_cast<std::size_t>(arity)) return false;
    Instruction instruction{arity == 1 ? Step::Unary : Step::Binary, &token, token.type, TTextCase::AsIs, {}, {}};
    if (token.type == ttFunction) {
        instruction.textCase =
            token.method == &TExpressionEvaluation::functionUpper ? TTextCase::Upper : TTextCase::Lower;
    }
    if (arity == 2) instruction.right = takeLeaf();
    if (arity == 1 || instruction.right.from != From::Stack) instruction.left = takeLeaf();
    m_code.push_back(instruction);
    depth -= static_cast<std::size_t>(arity - 1);
    return true;
}

TOperand TExpressionProgram::fetch(const Source& source, TOperand*& top) const noexcept {
    switch (source.from) {
        case From::Identifier:
            return TOperand::of(**source.identifier);
        case From::Constant:
            return m_constants[source.constant];
        default:
            return *--top;
    }
}

bool TExpressionProgram::run(TExpressionEvaluation& evaluator, TOperand& result) {
    m_pool.reset();
    TOperand* top = m_stack.data();
    for (const Instruction& instruction : m_code) {
        switch (instruction.step) {
            case Step::Push:
                *top++ = fetch(instruction.left, top);
                break;
            case Step::Unary: {
                TOperand operand = fetch(instruction.left, top);
                if (!applyUnary(instruction, operand, evaluator)) return false;
                *top++ = operand;
                break;
            }
            case Step::Binary: {
                TOperand right = fetch(instruction.right, top);
                TOperand left = fetch(instruction.left, top);
                if (!applyBinary(instruction, left, right, evaluator)) return false;
                *top++ = left;
                break;
            }
            case Step::Fail:
                evaluator.setError(etEvaluation);
                return false;
        }
    }
    result = m_stack.front();
    m_pool.settle(result);
    return true;
}

bool TExpressionProgram::applyUnary(const Instruction& instruction, TOperand& operand,
                                    TExpressionEvaluation& evaluator) {
    if (instruction.type == ttNot && isType(operand, TValueType::Boolean)) {
        operand.number = 1 - operand.number;
        return true;
    }
    if (instruction.type == ttFunction && isType(operand, TValueType::String)) {
        operand.textCase = instruction.textCase;
        return true;
    }
    if (instruction.type == ttUnaryMinus && isType(operand, TValueType::Integer)) {
        operand.number = negateInteger(operand.number);
        return true;
    }
    return applyMethod(instruction, operand, nullptr, evaluator);
}

bool TExpressionProgram::applyBinary(const Instruction& instruction, TOperand& left, TOperand& right,
                                     TExpressionEvaluation& evaluator) {
    return compute(instruction.type, left, right) || applyMethod(instruction, left, &right, evaluator);
}

/// The operator on operand types that it works on; false, with the operands unchanged in meaning, for all others.
bool TExpressionProgram::compute(TTokenType type, TOperand& left, TOperand& right) {
    const bool integers = areBoth(left, right, TValueType::Integer);
    switch (type) {
        case ttOr:
        case ttAnd:
            if (!areBoth(left, right, TValueType::Boolean)) return false;
            left.number = type == ttOr ? left.number | right.number : left.number & right.number;
            return true;
        case ttLike: {
            if (!areBoth(left, right, TValueType::String)) return false;
            m_pool.settle(left);
            m_pool.settle(right);
            const bool matches = matchLike(left.text, right.text);
            m_pool.release(left);
            m_pool.release(right);
            left = TOperand::ofBoolean(matches);
            return true;
        }
        case ttAdd:
            if (integers) {
                left.number = addIntegers(left.number, right.number);
            } else if (areBoth(left, right, TValueType::String)) {
                m_pool.concatenate(left, right);
            } else {
                return false;
            }
            return true;
        case ttSub:
            if (integers) left.number = subtractIntegers(left.number, right.number);
            return integers;
        case ttMul:
            if (integers) left.number = multiplyIntegers(left.number, right.number);
            return integers;
        case ttDiv:
            if (!integers || right.number == 0) return false;
            left.number = divideIntegers(left.number, right.number);
            return true;
        case ttIn:
            m_pool.release(left);
            m_pool.release(right);
            left = TOperand::ofBoolean(true);
            return true;
        default:
            return compare(type, left, right);
    }
}

/// Comparisons, with the operands brought to one type as the comparison policies do it.
bool TExpressionProgram::compare(TTokenType type, TOperand& left, TOperand& right) {
    if (left.type != right.type) fixOperandTypes(type, left, right);
    if (left.type != right.type) return false;
    bool result = false;
    if (isType(left, TValueType::Integer)) {
        result = holds(type, left.number == right.number ? 0 : left.number < right.number ? -1 : 1);
    } else if (isType(left, TValueType::String)) {
        if (left.buffer != TOperand::noBuffer) m_pool.settle(left);
        if (right.buffer != TOperand::noBuffer) m_pool.settle(right);
        result =
            isEquality(type) ? equalTexts(left, right) == (type == ttEqual) : holds(type, compareTexts(left, right));
        m_pool.release(left);
        m_pool.release(right);
    } else if (isType(left, TValueType::Boolean) && isEquality(type)) {
        result = (left.number == right.number) == (type == ttEqual);
    } else {
        return false;
    }
    left = TOperand::ofBoolean(result);
    return true;
}

void TExpressionProgram::fixOperandTypes(TTokenType type, TOperand& left, TOperand& right) {
    if (isType(left, TValueType::Integer)) {
        fixToInteger(right);
    } else if (isType(right, TValueType::Integer)) {
        fixToInteger(left);
    }
    if (!isEquality(type)) return;
    if (isType(left, TValueType::Boolean)) {
        fixToBoolean(right);
    } else if (isType(right, TValueType::Boolean)) {
        fixToBoolean(left);
    }
}

void TExpressionProgram::fixToBoolean(TOperand& operand) {
    if (isType(operand, TValueType::Integer)) {
        operand = TOperand::ofBoolean(operand.number != 0);
    } else if (isType(operand, TValueType::String)) {
        m_pool.settle(operand);
        const bool value = EqualityPolicy::countsAsTrue(operand.text);
        m_pool.release(operand);
        operand = TOperand::ofBoolean(value);
    }
}

TBaseValue* TExpressionProgram::makeValue(TOperand& operand) {
    switch (operand.type) {
        case TValueType::Boolean:
            return new TBooleanValue(operand.number != 0);
        case TValueType::Integer:
            return new TIntegerValue(operand.number);
        case TValueType::String:
            m_pool.settle(operand);
            return new TStringValue(std::string(operand.text));
        default:
            return new TBaseValue(TValueType::Invalid);
    }
}

bool TExpressionProgram::applyMethod(const Instruction& instruction, TOperand& left, TOperand* right,
                                     TExpressionEvaluation& evaluator) {
    evaluator.pushOperand(makeValue(left));
    if (right != nullptr) evaluator.pushOperand(makeValue(*right));
    const TIdentifierValue value(evaluator.call(instruction.token->method));
    if (evaluator.isError()) return false;
    m_pool.release(left);
    if (right != nullptr) m_pool.release(*right);
    left = TOperand::of(*value);
    if (isType(left, TValueType::String)) left = m_pool.keep(left.text);
    return true;
}

}  // namespace QOR
