#include "QORPager/QORExpressionProgram.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>

#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORExpressionTables.h"
#include "QORPager/QORExpressionText.h"

namespace QOR {
namespace {

/// Orders of two operands; the orders for which a comparison holds are some of them together.
constexpr std::uint8_t smaller = 1;
constexpr std::uint8_t equal = 2;
constexpr std::uint8_t greater = 4;

constexpr TTextCase caseOf(TFunctionKind kind) noexcept {
    switch (kind) {
        case TFunctionKind::Upper:
            return TTextCase::Upper;
        case TFunctionKind::Lower:
            return TTextCase::Lower;
    }
    return TTextCase::AsIs;
}

/// \param order negative, 0 or positive
constexpr bool holds(std::uint8_t orders, int order) noexcept {
    const int bit = 1 + (order > 0 ? 1 : 0) - (order < 0 ? 1 : 0);
    return ((orders >> bit) & 1) != 0;
}

constexpr int orderOf(std::int32_t left, std::int32_t right) noexcept {
    return (left > right ? 1 : 0) - (left < right ? 1 : 0);
}

constexpr bool isEquality(std::uint8_t orders) noexcept {
    return orders == equal || orders == (smaller | greater);
}

/// The texts of a column differ early as a rule, so their first bytes are compared before anything is called.
bool beginsWith(std::string_view text, std::string_view prefix) noexcept {
    if (text.size() < prefix.size()) return false;
    if (prefix.empty()) return true;
    return text.front() == prefix.front() && std::memcmp(text.data(), prefix.data(), prefix.size()) == 0;
}

bool isSame(std::string_view left, std::string_view right) noexcept {
    return left.size() == right.size() && beginsWith(left, right);
}

/// Whether a pattern has a leading wildcard only, which a subject can be too short for.
bool canBeOutOfRange(std::string_view pattern) noexcept {
    return pattern.starts_with('%') && !pattern.ends_with('%');
}

}  // namespace

/// Makes the instructions in two passes over the tokens: what operands are, and where the right sides of "and" and "or"
/// begin that can be left out; then the code.
class TExpressionProgram::Compiler {
public:
    Compiler(TExpressionProgram& program, const std::vector<const TToken*>& tokens)
        : m_program(program), m_tokens(tokens), m_skippedFrom(tokens.size(), none) {}

    void compile() {
        walk(false);
        m_operands.clear();
        m_program.m_code.reserve(m_tokens.size());
        walk(true);
    }

private:
    static constexpr std::uint32_t none = std::numeric_limits<std::uint32_t>::max();

    void walk(bool emitting) {
        for (m_at = 0; m_at < m_tokens.size(); ++m_at) {
            const TToken& token = *m_tokens[m_at];
            if (emitting && m_skippedFrom[m_at] != none) emitJump(*m_tokens[m_skippedFrom[m_at]]);
            if (token.tokenClass != tcOperator) {
                addOperand(token, emitting);
            } else if (!addOperator(token, emitting)) {
                return;
            }
        }
        if (emitting && m_operands.size() != 1) emit(planFailure(etEvaluation).instruction);
    }

    void addOperand(const TToken& token, bool emitting) {
        Known known;
        known.begin = m_at;
        if (token.tokenClass == tcIdentifier) {
            known.type = TOperand::of(**token.identifier).type;
        } else {
            known.type = token.tokenClass == tcNumber ? TValueType::Integer : TValueType::String;
            known.constant = &token;
        }
        m_operands.push_back(known);
        m_program.m_deepest = std::max(m_program.m_deepest, m_operands.size());
        if (!emitting) return;
        Instruction push;
        push.left = leaf(token, known.type);
        emit(push);
    }

    /// \returns false when nothing behind the operator can be reached
    bool addOperator(const TToken& token, bool emitting) {
        const int arity = arityOf(token);
        const bool broken = arity < 0 || m_operands.size() < static_cast<std::size_t>(arity);
        const Plan plan = broken ? planFailure(etEvaluation) : planOf(token, arity);
        if (emitting) emitOperator(plan);
        if (plan.instruction.op == Op::Fail) return false;
        Known& first = m_operands[m_operands.size() - static_cast<std::size_t>(arity)];
        const Known& last = m_operands.back();
        const bool logical = plan.instruction.op == Op::And || plan.instruction.op == Op::Or;
        if (logical && last.safe && last.begin + 1 < m_at) m_skippedFrom[last.begin] = static_cast<std::uint32_t>(m_at);
        first = {plan.result, nullptr, first.begin, first.safe && last.safe && plan.safe};
        if (arity == 2) m_operands.pop_back();
        return true;
    }

    Plan planOf(const TToken& token, int arity) const {
        const Known& last = m_operands.back();
        return arity == 1 ? planUnary(token, last) : planBinary(token, m_operands[m_operands.size() - 2], last);
    }

    Source leaf(const TToken& token, TValueType type) {
        Source source;
        source.type = type;
        if (token.tokenClass == tcIdentifier) {
            source.from = From::Name;
            source.name = token.identifier;
            return source;
        }
        source.from = From::Constant;
        if (token.tokenClass == tcNumber) {
            source.number = readInteger(token.text);
        } else {
            source.number = static_cast<std::int32_t>(m_program.m_texts.size());
            m_program.m_texts.push_back(token.text);
        }
        return source;
    }

    std::vector<Instruction>& code() { return m_program.m_code; }
    void emit(const Instruction& instruction) { code().push_back(instruction); }

    /// In front of the right side of a logical operator.
    void emitJump(const TToken& logical) {
        Instruction jump;
        jump.op = logical.type == ttAnd ? Op::JumpIfFalse : Op::JumpIfTrue;
        m_openJumps.push_back(code().size());
        emit(jump);
    }

    void emitOperator(const Plan& plan) {
        Instruction instruction = plan.instruction;
        if (instruction.op == Op::Fail) {
            emit(instruction);
            return;
        }
        const bool ends = !m_openJumps.empty() && m_skippedFrom[m_operands.back().begin] == m_at;
        if (plan.arity == 2) takeLeaf(instruction.right);
        if (plan.arity == 1 || instruction.right.from != From::Stack) takeLeaf(instruction.left);
        specialize(instruction, m_program.m_texts);
        emit(instruction);
        if (!ends) return;
        code()[m_openJumps.back()].target = static_cast<std::uint32_t>(code().size());
        m_openJumps.pop_back();
    }

    /// Constants and names are read where they are used: a push just before an operator becomes its operand.
    void takeLeaf(Source& operand) {
        if (code().back().op != Op::Push) return;  // an operand is there, so that something has made it
        const Convert convert = operand.convert;
        operand = code().back().left;
        operand.convert = convert;
        code().pop_back();
        if (operand.from == From::Constant) convertConstant(operand);
    }

    void convertConstant(Source& constant) {
        if (constant.convert == Convert::Nothing) return;
        if (constant.type == TValueType::String) {
            const std::string_view text = m_program.m_texts[static_cast<std::size_t>(constant.number)];
            constant.number =
                constant.convert == Convert::ToInteger ? readInteger(text) : EqualityPolicy::countsAsTrue(text);
        } else if (constant.convert == Convert::ToBoolean) {
            constant.number = constant.number != 0;
        }
        constant.type = TValueType::Integer;
        constant.convert = Convert::Nothing;
    }

    TExpressionProgram& m_program;
    const std::vector<const TToken*>& m_tokens;
    std::vector<std::uint32_t> m_skippedFrom;  ///< by token: the logical operator whose right side begins there
    std::vector<Known> m_operands;
    std::vector<std::size_t> m_openJumps;
    std::size_t m_at = 0;
};

TExpressionProgram::TExpressionProgram(const std::vector<const TToken*>& tokens, TShortSubject shortSubjects)
    : m_shortSubjects(shortSubjects) {
    Compiler(*this, tokens).compile();
}

/// Turns a comparison of a name with a constant on its right into a test.
void TExpressionProgram::specialize(Instruction& instruction, const std::vector<std::string_view>& texts) noexcept {
    const Source& name = instruction.left;
    const Source& constant = instruction.right;
    if (name.from != From::Name || constant.from != From::Constant) return;
    if (constant.type == TValueType::String) instruction.text = texts[static_cast<std::size_t>(constant.number)];
    switch (instruction.op) {
        case Op::CompareNumbers:
            if (name.convert == Convert::ToBoolean) return;
            instruction.op = name.type == TValueType::Integer ? Op::TestInteger : Op::TestNumberText;
            return;
        case Op::CompareTexts:
            if (isEquality(instruction.orders)) instruction.op = Op::TestText;
            return;
        case Op::Like:
            if (!instruction.text.ends_with('%') || instruction.text.starts_with('%')) return;
            instruction.text.remove_suffix(1);
            instruction.op = Op::TestPrefix;
            return;
        default:
            return;
    }
}

TExpressionProgram::Plan TExpressionProgram::planFailure(TErrorType code) {
    Plan plan;
    plan.instruction.op = Op::Fail;
    plan.instruction.code = code;
    plan.safe = false;
    return plan;
}

TExpressionProgram::Plan TExpressionProgram::planUnary(const TToken& token, const Known& operand) {
    Plan plan;
    plan.arity = 1;
    plan.instruction.right.from = From::Constant;  // nothing to take from the stack
    plan.instruction.left.type = operand.type;
    plan.result = operand.type;
    if (token.type == ttUnaryMinus) {
        const bool integer = operand.type == TValueType::Integer;
        plan.instruction.op = integer ? Op::Negate : Op::MakeInvalid;
        if (!integer) plan.result = TValueType::Invalid;
        return plan;
    }
    if (token.type == ttNot) {
        if (operand.type != TValueType::Boolean) return planFailure(etInvalidType);
        plan.instruction.op = Op::Not;
        return plan;
    }
    if (token.type == ttFunction) return planFunction(kindOf(token), operand, plan);
    return planFailure(etEvaluation);
}

/// \param plan of a unary operation on the operand
TExpressionProgram::Plan TExpressionProgram::planFunction(TFunctionKind kind, const Known& operand, Plan plan) {
    switch (kind) {
        case TFunctionKind::Upper:
        case TFunctionKind::Lower:
            if (operand.type != TValueType::String) return planFailure(etInvalidType);
            plan.instruction.op = Op::ChangeCase;
            plan.instruction.textCase = caseOf(kind);
            return plan;
    }
    return planFailure(etEvaluation);
}

TExpressionProgram::Plan TExpressionProgram::planBinary(const TToken& token, const Known& left, const Known& right) {
    Plan plan;
    plan.instruction.left.type = left.type;
    plan.instruction.right.type = right.type;
    const auto areBoth = [&](TValueType type) { return left.type == type && right.type == type; };
    switch (token.type) {
        case ttOr:
        case ttAnd:
            if (!areBoth(TValueType::Boolean)) return planFailure(etInvalidType);
            plan.instruction.op = token.type == ttOr ? Op::Or : Op::And;
            return plan;
        case ttLike:
            if (!areBoth(TValueType::String)) return planFailure(etInvalidType);
            plan.instruction.op = Op::Like;
            plan.safe = right.constant != nullptr && !canBeOutOfRange(right.constant->text);
            return plan;
        case ttIn:
            plan.instruction.op = Op::In;
            return plan;
        case ttAdd:
            return planArithmetic(Op::Add, left, right);
        case ttSub:
            return planArithmetic(Op::Subtract, left, right);
        case ttMul:
            return planArithmetic(Op::Multiply, left, right);
        case ttDiv:
            return planDivision(left, right);
        case ttGreater:
            return planComparison(greater, left, right);
        case ttGreaterOrEqual:
            return planComparison(greater | equal, left, right);
        case ttLower:
            return planComparison(smaller, left, right);
        case ttLowerOrEqual:
            return planComparison(smaller | equal, left, right);
        case ttEqual:
            return planComparison(equal, left, right);
        case ttNotEqual:
            return planComparison(smaller | greater, left, right);
        case ttLeftBracket:
        case ttRightBracket:
        case ttComma:
        case ttNot:
        case ttUnaryMinus:
        case ttUnit:
        case ttRecursive:
        case ttUnassigned:
        case ttFunction:
        case ttNone:
            break;
    }
    return planFailure(etEvaluation);
}

TExpressionProgram::Plan TExpressionProgram::planDivision(const Known& left, const Known& right) {
    if (left.type != TValueType::Integer || right.type != TValueType::Integer) return planFailure(etInvalidType);
    Plan plan = planArithmetic(Op::Divide, left, right);
    plan.safe = right.constant != nullptr && readInteger(right.constant->text) != 0;
    return plan;
}

TExpressionProgram::Plan TExpressionProgram::planArithmetic(Op operation, const Known& left, const Known& right) {
    Plan plan;
    plan.instruction.left.type = left.type;
    plan.instruction.right.type = right.type;
    const auto areBoth = [&](TValueType type) { return left.type == type && right.type == type; };
    if (areBoth(TValueType::Integer)) {
        plan.instruction.op = operation;
        plan.result = TValueType::Integer;
    } else if (operation == Op::Add && areBoth(TValueType::String)) {
        plan.instruction.op = Op::Concatenate;
        plan.result = TValueType::String;
    } else {
        plan.instruction.op = Op::MakeInvalid;
        plan.result = TValueType::Invalid;
    }
    return plan;
}

/// Comparisons, with the operands brought to one type as the comparison policies do it.
/// \param orders of its operands for which the comparison holds
TExpressionProgram::Plan TExpressionProgram::planComparison(std::uint8_t orders, const Known& left,
                                                            const Known& right) {
    Plan plan;
    Instruction& instruction = plan.instruction;
    instruction.orders = orders;
    instruction.left.type = left.type;
    instruction.right.type = right.type;
    const auto has = [&](TValueType type) { return left.type == type || right.type == type; };
    if (has(TValueType::Invalid)) return planFailure(etInvalidType);
    if (has(TValueType::Boolean)) {
        if (!isEquality(instruction.orders)) return planFailure(etInvalidType);
        instruction.op = Op::CompareNumbers;
        instruction.left.convert = instruction.right.convert = Convert::ToBoolean;
        return plan;
    }
    if (!has(TValueType::Integer)) {
        instruction.op = Op::CompareTexts;
        return plan;
    }
    instruction.op = Op::CompareNumbers;
    instruction.left.convert = instruction.right.convert = Convert::ToInteger;
    for (const Known* operand : {&left, &right}) {
        if (operand->type != TValueType::String) continue;
        // A text beside an integer has to be a number; of a constant that is known already.
        plan.safe = operand->constant != nullptr;
        if (plan.safe && !readWholeInteger(operand->constant->text)) return planFailure(etInvalidType);
    }
    return plan;
}

/// An operand whose type is Integer or Boolean.
std::int32_t TExpressionProgram::number(const Source& source, TOperand*& top) noexcept {
    switch (source.from) {
        case From::Constant:
            return source.number;
        case From::Name:
            if (source.type == TValueType::Integer) return TIntegerValue::getValue(source.name->get());
            return TBooleanValue::getValue(source.name->get()) ? 1 : 0;
        default:
            return (--top)->number;
    }
}

/// \returns false when a text is not the number that it has to be
bool TExpressionProgram::convertedNumber(const Source& source, TTextPool& pool, TOperand*& top,
                                         std::int32_t& out) const {
    if (source.type != TValueType::String) {
        out = number(source, top);
        if (source.convert == Convert::ToBoolean) out = out != 0;
        return true;
    }
    if (source.from == From::Name && source.convert == Convert::ToInteger) {
        const std::optional<std::int32_t> whole = readWholeInteger(leafText(source));
        if (whole) out = *whole;
        return whole.has_value();
    }
    TOperand operand = text(source, top);
    if (source.convert == Convert::ToInteger) {
        // Case does not touch digits, so a text is read as it stands.
        const std::optional<std::int32_t> whole = readWholeInteger(operand.text);
        if (!whole) return false;
        out = *whole;
    } else {
        pool.settle(operand);
        out = EqualityPolicy::countsAsTrue(operand.text);
    }
    pool.release(operand);
    return true;
}

/// A text that is not on the stack.
std::string_view TExpressionProgram::leafText(const Source& source) const noexcept {
    if (source.from == From::Name) return TStringValue::getValue(source.name->get());
    return m_texts[static_cast<std::size_t>(source.number)];
}

TOperand TExpressionProgram::text(const Source& source, TOperand*& top) const noexcept {
    return source.from == From::Stack ? *--top : TOperand::ofText(leafText(source));
}

TOperand TExpressionProgram::operand(const Source& source, TOperand*& top) const noexcept {
    switch (source.type) {
        case TValueType::Boolean:
            return TOperand::ofBoolean(number(source, top) != 0);
        case TValueType::Integer:
            return TOperand::ofInteger(number(source, top));
        case TValueType::String:
            return text(source, top);
        default:
            drop(source, top);
            return {};
    }
}

/// Takes an operand whose value does not matter.
void TExpressionProgram::drop(const Source& source, TOperand*& top) noexcept {
    if (source.from == From::Stack) --top;
}

// Where the left operand is read in its place, the right one is too: the code before an operator ends with what is on
// its right.

int TExpressionProgram::compareTexts(const Instruction& instruction, TTextPool& pool, TOperand*& top) const {
    if (instruction.left.from != From::Stack) {
        const std::string_view left = leafText(instruction.left);
        const std::string_view right = leafText(instruction.right);
        return isEquality(instruction.orders) ? (left == right ? 0 : 1) : left.compare(right);
    }
    TOperand right = text(instruction.right, top);
    TOperand left = text(instruction.left, top);
    if (right.buffer != TOperand::noBuffer) pool.settle(right);
    if (left.buffer != TOperand::noBuffer) pool.settle(left);
    const int order =
        isEquality(instruction.orders) ? (equalTexts(left, right) ? 0 : 1) : QOR::compareTexts(left, right);
    pool.release(right);
    pool.release(left);
    return order;
}

bool TExpressionProgram::matches(std::string_view subject, std::string_view pattern) const {
    const bool tooShort = pattern.size() > subject.size() + 1 && pattern.front() == '%' && pattern.back() != '%';
    if (tooShort && m_shortSubjects == TShortSubject::DoesNotMatch) return false;
    return matchLike(subject, pattern);
}

bool TExpressionProgram::like(const Instruction& instruction, TTextPool& pool, TOperand*& top) const {
    if (instruction.left.from != From::Stack) {
        return matches(leafText(instruction.left), leafText(instruction.right));
    }
    TOperand pattern = text(instruction.right, top);
    TOperand subject = text(instruction.left, top);
    pool.settle(pattern);
    pool.settle(subject);
    const bool matched = matches(subject.text, pattern.text);
    pool.release(pattern);
    pool.release(subject);
    return matched;
}

void TExpressionProgram::changeCase(const Instruction& instruction, TOperand*& top) const {
    TOperand operand = text(instruction.left, top);
    operand.textCase = instruction.textCase;
    *top++ = operand;
}

void TExpressionProgram::concatenate(const Instruction& instruction, TTextPool& pool, TOperand*& top) const {
    TOperand right = text(instruction.right, top);
    TOperand left = text(instruction.left, top);
    pool.concatenate(left, right);
    *top++ = left;
}

TErrorType TExpressionProgram::run(TProgramBuffers& buffers, TOperand& result) const {
    TTextPool& pool = buffers.pool;
    pool.reset();
    if (buffers.stack.size() < m_deepest) buffers.stack.resize(m_deepest);
    TOperand* top = buffers.stack.data();
    // What reads a number or a boolean from the stack reads nothing else of the operand.
    const auto push = [&top](TValueType type, std::int32_t value) {
        top->type = type;
        top->number = value;
        ++top;
    };
    const auto pushBoolean = [&push](bool value) { push(TValueType::Boolean, value ? 1 : 0); };
    const auto pushInteger = [&push](std::int32_t value) { push(TValueType::Integer, value); };
    const Instruction* const end = m_code.data() + m_code.size();
    for (const Instruction* at = m_code.data(); at != end; ++at) {
        switch (at->op) {
            case Op::Push:
                *top = operand(at->left, top);
                ++top;
                break;
            case Op::Fail:
                return at->code;
            case Op::MakeInvalid:
                drop(at->right, top);
                drop(at->left, top);
                *top++ = {};
                break;
            case Op::Not:
                pushBoolean(number(at->left, top) == 0);
                break;
            case Op::Negate:
                pushInteger(negateInteger(number(at->left, top)));
                break;
            case Op::ChangeCase:
                changeCase(*at, top);
                break;
            case Op::Or: {
                const std::int32_t right = number(at->right, top);
                pushBoolean((number(at->left, top) | right) != 0);
                break;
            }
            case Op::And: {
                const std::int32_t right = number(at->right, top);
                pushBoolean((number(at->left, top) & right) != 0);
                break;
            }
            case Op::JumpIfFalse:
                if (top[-1].number == 0) at = m_code.data() + at->target - 1;
                break;
            case Op::JumpIfTrue:
                if (top[-1].number != 0) at = m_code.data() + at->target - 1;
                break;
            case Op::CompareNumbers: {
                std::int32_t right = 0;
                std::int32_t left = 0;
                if (!convertedNumber(at->right, pool, top, right) || !convertedNumber(at->left, pool, top, left)) {
                    return etInvalidType;
                }
                pushBoolean(holds(at->orders, orderOf(left, right)));
                break;
            }
            case Op::CompareTexts:
                pushBoolean(holds(at->orders, compareTexts(*at, pool, top)));
                break;
            case Op::Like:
                pushBoolean(like(*at, pool, top));
                break;
            case Op::Concatenate:
                concatenate(*at, pool, top);
                break;
            case Op::Add: {
                const std::int32_t right = number(at->right, top);
                pushInteger(addIntegers(number(at->left, top), right));
                break;
            }
            case Op::Subtract: {
                const std::int32_t right = number(at->right, top);
                pushInteger(subtractIntegers(number(at->left, top), right));
                break;
            }
            case Op::Multiply: {
                const std::int32_t right = number(at->right, top);
                pushInteger(multiplyIntegers(number(at->left, top), right));
                break;
            }
            case Op::Divide: {
                const std::int32_t right = number(at->right, top);
                const std::int32_t left = number(at->left, top);
                if (right == 0) return etDivisionByZero;
                pushInteger(divideIntegers(left, right));
                break;
            }
            case Op::TestInteger: {
                const std::int32_t value = TIntegerValue::getValue(at->left.name->get());
                pushBoolean(holds(at->orders, orderOf(value, at->right.number)));
                break;
            }
            case Op::TestNumberText: {
                const std::optional<std::int32_t> value = readWholeInteger(leafText(at->left));
                if (!value) return etInvalidType;
                pushBoolean(holds(at->orders, orderOf(*value, at->right.number)));
                break;
            }
            case Op::TestText:
                pushBoolean(isSame(TStringValue::getValue(at->left.name->get()), at->text) == (at->orders == equal));
                break;
            case Op::TestPrefix:
                pushBoolean(beginsWith(TStringValue::getValue(at->left.name->get()), at->text));
                break;
            case Op::In:
                drop(at->right, top);
                drop(at->left, top);
                pushBoolean(true);
                break;
        }
    }
    // Part by part, as it was written: reading it whole would wait for the parts to come together.
    const TOperand& value = buffers.stack.front();
    if (value.type == TValueType::String) {
        result = value;
        pool.settle(result);
    } else {
        result.type = value.type;
        result.number = value.number;
    }
    return etNoErrors;
}

}  // namespace QOR
