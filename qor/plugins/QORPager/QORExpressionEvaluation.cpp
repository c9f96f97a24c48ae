#include "QORPager/QORExpressionEvaluation.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "QORPager/QORExpressionText.h"

namespace QOR {

TExpressionEvaluation::TExpressionEvaluation()
    : TExpressionEvaluationParser(m_errorCode, m_errorDetail), m_errorCode(etNoErrors) {
    initialize();
}

TExpressionEvaluation::TExpressionEvaluation(std::string_view text) : TExpressionEvaluation() {
    setExpression(text);
}

TExpressionEvaluation::~TExpressionEvaluation() = default;

/// The messages are constants, so that nothing is left to fill but the names.
void TExpressionEvaluation::initialize() {
    initializeIdentifiers();
}

void TExpressionEvaluation::initializeIdentifiers() {
    setIdentifier("true", true, false);
    setIdentifier("false", false, false);
}

bool TExpressionEvaluation::setIdentifier(std::string_view name, int value, bool special) {
    auto bound = std::make_unique<TIntegerValue>(value);
    if (!setIdentifier(name, bound.get(), special)) return false;
    static_cast<void>(bound.release());
    return true;
}

bool TExpressionEvaluation::setIdentifier(std::string_view name, bool value, bool special) {
    auto bound = std::make_unique<TBooleanValue>(value);
    if (!setIdentifier(name, bound.get(), special)) return false;
    static_cast<void>(bound.release());
    return true;
}

bool TExpressionEvaluation::setIdentifier(std::string_view name, const char* value, bool special) {
    return setIdentifier(name, std::string_view(value), special);
}

bool TExpressionEvaluation::setIdentifier(std::string_view name, std::string_view value, bool special) {
    auto bound = std::make_unique<TStringValue>(std::string(value));
    if (!setIdentifier(name, bound.get(), special)) return false;
    static_cast<void>(bound.release());
    return true;
}

bool TExpressionEvaluation::declareIdentifier(std::string_view name, TValueType type, bool special) {
    switch (type) {
        case TValueType::Boolean:
            return setIdentifier(name, true, special);
        case TValueType::Integer:
            return setIdentifier(name, 0, special);
        case TValueType::String:
        case TValueType::Date:
        case TValueType::IPAddress:
        case TValueType::Time:
            return setIdentifier(name, "", special);
        case TValueType::Empty:
        case TValueType::Invalid:
            break;
    }
    assert(false);
    return false;
}

void TExpressionEvaluation::setShortSubjects(TShortSubject shortSubjects) {
    m_shortSubjects = shortSubjects;
    m_program = {};
    m_specialProgram = {};
}

bool TExpressionEvaluation::prepare() {
    parse();
    return isError();
}

bool TExpressionEvaluation::prepareSpecial() {
    buildTreeSpecial();
    return isError();
}

bool TExpressionEvaluation::prepareNotSpecial() {
    buildTreeNotSpecial();
    return isError();
}

void TExpressionEvaluation::clearResult() {
    m_operands.clear();
    m_result.type = TValueType::Invalid;
}

void TExpressionEvaluation::forgetExpression() {
    clearResult();
    m_program = {};
    m_specialProgram = {};
    m_buffers = {};
    TExpressionEvaluationParser::forgetExpression();
}

std::vector<const TToken*> TExpressionEvaluation::postfixOrder() const {
    std::vector<const TToken*> tokens;
    tokens.reserve(postfix().size());
    for (const TToken& token : postfix())
        tokens.push_back(&token);
    return tokens;
}

template <class Order>
void TExpressionEvaluation::compile(ProgramSlot& slot, Order order) {
    slot.program.emplace(order(), m_shortSubjects);
    m_buffers = {};  // what long texts of the former filter took is not this one's to keep
    slot.version = version();
}

void TExpressionEvaluation::run(ProgramSlot& slot) {
    if (const TErrorType code = slot.program->run(m_buffers, m_result); code != etNoErrors) {
        setError(code);
    } else if (m_result.type == TValueType::String) {
        holdResult();
    }
}

/// The text may be one of a bound value, which can be bound again before anybody asks for the result.
void TExpressionEvaluation::holdResult() {
    m_resultHolding.assign(m_result.text);
    m_result.text = m_resultHolding;
}

// A program that is current belongs to a text that is parsed, so that a row begins with running it.

void TExpressionEvaluation::evaluate() {
    clearResult();
    if (!isCurrent(m_program)) {
        if (prepare()) return;
        compile(m_program, [this] { return postfixOrder(); });
    }
    if (!isError()) run(m_program);
}

void TExpressionEvaluation::evaluateSpecial() {
    clearResult();
    if (!isCurrent(m_specialProgram)) {
        if (prepareSpecial()) return;
        const TNode* const tree = buildTreeSpecial();
        if (tree == nullptr) {
            setError(etEvaluation);
            return;
        }
        compile(m_specialProgram, [tree] { return tree->postOrder(); });
    }
    if (!isError()) run(m_specialProgram);
}

void TExpressionEvaluation::evaluateByMethods() {
    clearResult();
    if (prepare()) return;
    walk(postfixOrder());
    if (!isError()) m_result = TOperand::of(*m_operands.back());
}

void TExpressionEvaluation::evaluateSpecialByMethods() {
    clearResult();
    if (prepareSpecial()) return;
    const TNode* const tree = buildTreeSpecial();
    if (tree == nullptr) {
        setError(etEvaluation);
        return;
    }
    Owned value(getNodeValue(*tree));
    if (isError()) return;
    m_operands.push_back(std::move(value));
    m_result = TOperand::of(*m_operands.back());
}

TBaseValue* TExpressionEvaluation::getNodeValue(const TNode& node) {
    if (isError()) return nullptr;
    const std::size_t below = m_operands.size();
    walk(node.postOrder());
    if (!isError()) return getOneOperand().release();
    m_operands.resize(std::min(m_operands.size(), below));
    return nullptr;
}

/// Evaluates the tokens to one operand on top of those that there are.
void TExpressionEvaluation::walk(const std::vector<const TToken*>& tokens) {
    const std::size_t below = m_operands.size();
    for (const TToken* token : tokens) {
        if (!walkToken(*token)) return;
    }
    if (m_operands.size() != below + 1) {
        m_operands.resize(std::min(m_operands.size(), below));
        setError(etEvaluation);
    }
}

/// \returns whether the walk goes on
bool TExpressionEvaluation::walkToken(const TToken& token) {
    switch (token.tokenClass) {
        case tcString:
            pushOperand(new TStringValue(token.text));
            return true;
        case tcNumber:
            pushOperand(new TIntegerValue(readInteger(token.text)));
            return true;
        case tcIdentifier:
            pushOperand((*token.identifier)->clone());
            return true;
        default:
            break;
    }
    assert(token.tokenClass == tcOperator);
    const int arity = arityOf(token);
    if (arity < 0 || m_operands.size() < static_cast<std::size_t>(arity)) {
        setError(etEvaluation);
        return false;
    }
    pushOperand(call(token.method));
    return !isError();
}

bool TExpressionEvaluation::requireType(TValueType type) {
    if (isError()) return false;
    if (m_result.type == type) return true;
    setError(etInvalidType);
    return false;
}

bool TExpressionEvaluation::takeBoolean(bool& out) {
    if (!requireType(TValueType::Boolean)) return true;
    out = m_result.number != 0;
    return false;
}

bool TExpressionEvaluation::returnBoolean() {
    bool result = false;
    returnBoolean(result);
    return result;
}

bool TExpressionEvaluation::returnBoolean(bool& out) {
    evaluate();
    return takeBoolean(out);
}

bool TExpressionEvaluation::returnBooleanSpecial(bool& out) {
    evaluateSpecial();
    return takeBoolean(out);
}

std::int32_t TExpressionEvaluation::returnInteger() {
    evaluate();
    return requireType(TValueType::Integer) ? m_result.number : 0;
}

const std::string& TExpressionEvaluation::returnString() {
    evaluate();
    m_resultText.assign(requireType(TValueType::String) ? m_result.text : std::string_view());
    return m_resultText;
}

const std::string& TExpressionEvaluation::toString() {
    evaluate();
    return doToString();
}

const std::string& TExpressionEvaluation::toStringSpecial() {
    evaluateSpecial();
    return doToString();
}

const std::string& TExpressionEvaluation::doToString() {
    if (isError()) return m_resultText = "Error";
    switch (m_result.type) {
        case TValueType::Empty:
            return m_resultText = "Empty";
        case TValueType::Invalid:
            return m_resultText = "Invalid";
        case TValueType::Boolean:
            return m_resultText = m_result.number != 0 ? "true" : "false";
        case TValueType::Integer:
            return m_resultText = std::to_string(m_result.number);
        case TValueType::String:
            return m_resultText = m_result.text;
        default:
            return m_resultText = "Unsupported type";
    }
}

const std::string& TExpressionEvaluation::extractConstByIdentifierAndOperation(std::string_view name, TTokenType type,
                                                                               bool& found) {
    return m_resultText = TExpressionEvaluationParser::extractConstByIdentifierAndOperation(name, type, found);
}

const std::string& TExpressionEvaluation::getErrorMessage() {
    m_resultText = errorMessage(m_errorCode);
    if (!m_errorDetail.empty()) m_resultText.append(": ").append(m_errorDetail);
    return m_resultText;
}

TExpressionEvaluation::Owned TExpressionEvaluation::getOneOperand() {
    Owned operand = std::move(m_operands.back());
    m_operands.pop_back();
    return operand;
}

TExpressionEvaluation::Pair TExpressionEvaluation::getTwoOperands() {
    Pair operands;
    operands.right = getOneOperand();
    operands.left = getOneOperand();
    return operands;
}

TBaseValue* TExpressionEvaluation::fail(TErrorType code) {
    setError(code);
    return new TBaseValue(TValueType::Invalid);
}

/// An operator that leaves the types of its operands to the left one.
TBaseValue* TExpressionEvaluation::combine(BinaryOperation operation) {
    Pair operands = getTwoOperands();
    TBaseValue* const left = operands.left.release();
    return (left->*operation)(operands.right.release());
}

/// An operator that insists on both operands being of one type.
TBaseValue* TExpressionEvaluation::combineBoth(TValueType type, BinaryOperation operation) {
    Pair operands = getTwoOperands();
    if (operands.left->type() != type || operands.right->type() != type) return fail(etInvalidType);
    TBaseValue* const left = operands.left.release();
    return (left->*operation)(operands.right.release());
}

template <class Policy>
TBaseValue* TExpressionEvaluation::compareOperands(BinaryOperation operation) {
    Pair operands = getTwoOperands();
    TBaseValue* left = operands.left.release();
    TBaseValue* right = operands.right.release();
    Policy::fixOperandTypes(left, right);
    if (Policy::isAllowedOperandType(left->type()) && left->type() == right->type()) return (left->*operation)(right);
    operands.left.reset(left);
    operands.right.reset(right);
    return fail(etInvalidType);
}

TBaseValue* TExpressionEvaluation::changeCase(TBaseValue* (TStringValue::*change)()) {
    Owned operand = getOneOperand();
    if (operand->type() != TValueType::String) return fail(etInvalidType);
    return (static_cast<TStringValue*>(operand.release())->*change)();
}

TBaseValue* TExpressionEvaluation::operatorOr() {
    return combineBoth(TValueType::Boolean, &TBaseValue::opOr);
}
TBaseValue* TExpressionEvaluation::operatorAnd() {
    return combineBoth(TValueType::Boolean, &TBaseValue::opAnd);
}

TBaseValue* TExpressionEvaluation::operatorNot() {
    Owned operand = getOneOperand();
    if (operand->type() != TValueType::Boolean) return fail(etInvalidType);
    return operand.release()->opNot();
}

TBaseValue* TExpressionEvaluation::operatorGreater() {
    return compareOperands<DefaultComparisonPolicy>(&TBaseValue::opGT);
}
TBaseValue* TExpressionEvaluation::operatorGreaterOrEqual() {
    return compareOperands<DefaultComparisonPolicy>(&TBaseValue::opGE);
}
TBaseValue* TExpressionEvaluation::operatorLower() {
    return compareOperands<DefaultComparisonPolicy>(&TBaseValue::opLT);
}
TBaseValue* TExpressionEvaluation::operatorLowerOrEqual() {
    return compareOperands<DefaultComparisonPolicy>(&TBaseValue::opLE);
}
TBaseValue* TExpressionEvaluation::operatorEqual() {
    return compareOperands<EqualityPolicy>(&TBaseValue::opEQ);
}
TBaseValue* TExpressionEvaluation::operatorNotEqual() {
    return compareOperands<EqualityPolicy>(&TBaseValue::opNE);
}
TBaseValue* TExpressionEvaluation::operatorLike() {
    return combineBoth(TValueType::String, &TBaseValue::opLike);
}
TBaseValue* TExpressionEvaluation::operatorAdd() {
    return combine(&TBaseValue::opAdd);
}
TBaseValue* TExpressionEvaluation::operatorSub() {
    return combine(&TBaseValue::opSub);
}
TBaseValue* TExpressionEvaluation::operatorMul() {
    return combine(&TBaseValue::opMul);
}

TBaseValue* TExpressionEvaluation::operatorDiv() {
    Pair operands = getTwoOperands();
    if (operands.left->type() != TValueType::Integer || operands.right->type() != TValueType::Integer) {
        return fail(etInvalidType);
    }
    if (operands.right->isZero()) return fail(etDivisionByZero);
    TBaseValue* const left = operands.left.release();
    return left->opDiv(operands.right.release());
}

TBaseValue* TExpressionEvaluation::operatorPower() {
    Pair operands = getTwoOperands();
    if (operands.left->type() != TValueType::Integer || operands.right->type() != TValueType::Integer) {
        return fail(etInvalidType);
    }
    if (operands.right->isZero() && operands.left->isZero()) return fail(etPowerBaseIsZero);
    TBaseValue* const left = operands.left.release();
    return left->opPow(operands.right.release());
}

TBaseValue* TExpressionEvaluation::operatorUnaryMinus() {
    return getOneOperand().release()->opUnMinus();
}

TBaseValue* TExpressionEvaluation::operatorIn() {
    getTwoOperands();
    return new TBooleanValue(true);
}

TBaseValue* TExpressionEvaluation::functionUpper() {
    return changeCase(&TStringValue::funcUpper);
}
TBaseValue* TExpressionEvaluation::functionLower() {
    return changeCase(&TStringValue::funcLower);
}

}  // namespace QOR
