#include "QORPager/QORExpressionEvaluationValue.h"

#include <memory>
#include <utility>

#include "QORPager/QORExpressionText.h"

namespace QOR {
namespace {

using Owned = std::unique_ptr<TBaseValue>;

/// Operands of an operation that their types do not support.
TBaseValue* invalid(TBaseValue* left, TBaseValue* right = nullptr) {
    const Owned ownedLeft(left);
    const Owned ownedRight(right);
    return new TBaseValue(TValueType::Invalid);
}

/// An operation of one class that changes the left operand: `change(left, right)` on the two objects.
template <class Value, class Change>
TBaseValue* changeLeft(Value* left, TBaseValue* right, Change change) {
    if (right->type() != left->type()) return invalid(left, right);
    const Owned ownedRight(right);
    change(*left, Value::getValue(right));
    return left;
}

/// An operation of one class whose result is a boolean: `test(left, right)` on the two fields.
template <class Value, class Test>
TBaseValue* testBoth(Value* left, TBaseValue* right, Test test) {
    if (right->type() != left->type()) return invalid(left, right);
    const Owned ownedLeft(left);
    const Owned ownedRight(right);
    return new TBooleanValue(test(Value::getValue(left), Value::getValue(right)));
}

template <class T>
void replaceValue(TBaseValue*& operand, T* replacement) {
    const Owned old(std::exchange(operand, replacement));
}

}  // namespace

// The defaults of the base class, a function an operator, as derived classes override them.
TBaseValue::~TBaseValue() = default;
bool TBaseValue::setValueFromString(const std::string& /*text*/) {
    return true;
}
TBaseValue* TBaseValue::clone() const {
    return new TBaseValue(TValueType::Invalid);
}
TBaseValue* TBaseValue::opUnMinus() {
    return invalid(this);
}
TBaseValue* TBaseValue::opAdd(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opSub(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opMul(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opDiv(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opPow(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opNot() {
    return invalid(this);
}
TBaseValue* TBaseValue::opOr(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opAnd(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opGT(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opGE(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opLT(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opLE(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opEQ(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opNE(TBaseValue* right) {
    return invalid(this, right);
}
TBaseValue* TBaseValue::opLike(TBaseValue* right) {
    return invalid(this, right);
}
bool TBaseValue::isZero() const {
    return true;
}

TIntegerValue::~TIntegerValue() = default;

void TIntegerValue::read() const noexcept {
    m_value = readInteger(m_text);
    m_text = {};
}

bool TIntegerValue::setValueFromString(const std::string& text) {
    assign(readInteger(text));
    return false;
}

TBaseValue* TIntegerValue::clone() const {
    return new TIntegerValue(getValue(this));
}

TBaseValue* TIntegerValue::opUnMinus() {
    assign(negateInteger(getValue(this)));
    return this;
}

TBaseValue* TIntegerValue::opAdd(TBaseValue* right) {
    return changeLeft(this, right, [](auto& left, int b) { left.assign(addIntegers(getValue(&left), b)); });
}
TBaseValue* TIntegerValue::opSub(TBaseValue* right) {
    return changeLeft(this, right, [](auto& left, int b) { left.assign(subtractIntegers(getValue(&left), b)); });
}
TBaseValue* TIntegerValue::opMul(TBaseValue* right) {
    return changeLeft(this, right, [](auto& left, int b) { left.assign(multiplyIntegers(getValue(&left), b)); });
}
TBaseValue* TIntegerValue::opDiv(TBaseValue* right) {
    return changeLeft(this, right, [](auto& left, int b) { left.assign(divideIntegers(getValue(&left), b)); });
}
TBaseValue* TIntegerValue::opPow(TBaseValue* right) {
    return changeLeft(this, right, [](auto& left, int b) { left.assign(powerIntegers(getValue(&left), b)); });
}
TBaseValue* TIntegerValue::opGT(TBaseValue* right) {
    return testBoth(this, right, std::greater<>());
}
TBaseValue* TIntegerValue::opGE(TBaseValue* right) {
    return testBoth(this, right, std::greater_equal<>());
}
TBaseValue* TIntegerValue::opLT(TBaseValue* right) {
    return testBoth(this, right, std::less<>());
}
TBaseValue* TIntegerValue::opLE(TBaseValue* right) {
    return testBoth(this, right, std::less_equal<>());
}
TBaseValue* TIntegerValue::opEQ(TBaseValue* right) {
    return testBoth(this, right, std::equal_to<>());
}
TBaseValue* TIntegerValue::opNE(TBaseValue* right) {
    return testBoth(this, right, std::not_equal_to<>());
}
bool TIntegerValue::isZero() const {
    return getValue(this) == 0;
}

TStringValue::~TStringValue() = default;

std::string& TStringValue::own() {
    if (m_value.data() != m_owned.data()) assign(m_value);
    return m_owned;
}

bool TStringValue::setValueFromString(const std::string& text) {
    assign(text);
    return false;
}

TBaseValue* TStringValue::clone() const {
    return new TStringValue(std::string(m_value));
}

TBaseValue* TStringValue::opAdd(TBaseValue* right) {
    return changeLeft(this, right, [](auto& left, std::string_view p) { left.m_value = left.own() += p; });
}
TBaseValue* TStringValue::opGT(TBaseValue* right) {
    return testBoth(this, right, std::greater<>());
}
TBaseValue* TStringValue::opGE(TBaseValue* right) {
    return testBoth(this, right, std::greater_equal<>());
}
TBaseValue* TStringValue::opLT(TBaseValue* right) {
    return testBoth(this, right, std::less<>());
}
TBaseValue* TStringValue::opLE(TBaseValue* right) {
    return testBoth(this, right, std::less_equal<>());
}
TBaseValue* TStringValue::opEQ(TBaseValue* right) {
    return testBoth(this, right, std::equal_to<>());
}
TBaseValue* TStringValue::opNE(TBaseValue* right) {
    return testBoth(this, right, std::not_equal_to<>());
}
TBaseValue* TStringValue::opLike(TBaseValue* right) {
    return testBoth(this, right, matchLike);
}

TBaseValue* TStringValue::funcUpper() {
    std::string& bytes = own();
    upperText(bytes.data(), bytes.data() + bytes.size());
    return this;
}

TBaseValue* TStringValue::funcLower() {
    std::string& bytes = own();
    lowerText(bytes.data(), bytes.data() + bytes.size());
    return this;
}

TBooleanValue::~TBooleanValue() = default;

bool TBooleanValue::isTrueText(std::string_view text) noexcept {
    if (text == "1") return true;
    constexpr std::string_view word = "true";
    if (text.size() != word.size()) return false;
    for (std::size_t i = 0; i < word.size(); ++i) {
        if (toLowerChar(text[i]) != word[i]) return false;
    }
    return true;
}

bool TBooleanValue::setValueFromString(const std::string& text) {
    m_value = isTrueText(text);
    return false;
}

TBaseValue* TBooleanValue::clone() const {
    return new TBooleanValue(m_value);
}

TBaseValue* TBooleanValue::opNot() {
    m_value = !m_value;
    return this;
}

TBaseValue* TBooleanValue::opOr(TBaseValue* right) {
    return changeLeft(this, right, [](auto& left, bool w) { left.m_value = left.m_value || w; });
}
TBaseValue* TBooleanValue::opAnd(TBaseValue* right) {
    return changeLeft(this, right, [](auto& left, bool w) { left.m_value = left.m_value && w; });
}
TBaseValue* TBooleanValue::opEQ(TBaseValue* right) {
    return testBoth(this, right, std::equal_to<>());
}
TBaseValue* TBooleanValue::opNE(TBaseValue* right) {
    return testBoth(this, right, std::not_equal_to<>());
}

bool DefaultComparisonPolicy::isAllowedOperandType(TValueType type) noexcept {
    return type == TValueType::String || type == TValueType::Integer;
}

void DefaultComparisonPolicy::getInteger(TBaseValue*& operand) {
    if (operand->type() != TValueType::String) return;
    if (const auto number = readWholeInteger(TStringValue::getValue(operand))) {
        replaceValue(operand, new TIntegerValue(*number));
    }
}

void DefaultComparisonPolicy::fixOperandTypes(TBaseValue*& left, TBaseValue*& right) {
    if (left->type() == TValueType::Integer) {
        getInteger(right);
    } else if (right->type() == TValueType::Integer) {
        getInteger(left);
    }
}

bool EqualityPolicy::isAllowedOperandType(TValueType type) noexcept {
    return DefaultComparisonPolicy::isAllowedOperandType(type) || type == TValueType::Boolean;
}

void EqualityPolicy::getBoolean(TBaseValue*& operand) {
    if (operand->type() == TValueType::Integer) {
        replaceValue(operand, new TBooleanValue(TIntegerValue::getValue(operand) != 0));
    } else if (operand->type() == TValueType::String) {
        replaceValue(operand, new TBooleanValue(countsAsTrue(TStringValue::getValue(operand))));
    }
}

void EqualityPolicy::fixOperandTypes(TBaseValue*& left, TBaseValue*& right) {
    DefaultComparisonPolicy::fixOperandTypes(left, right);
    if (left->type() == TValueType::Boolean) {
        getBoolean(right);
    } else if (right->type() == TValueType::Boolean) {
        getBoolean(left);
    }
}

}  // namespace QOR
