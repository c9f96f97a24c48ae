/// \file
/// The values of the filter language: what a caller binds to a name, and what operators work on.
///
/// Ownership is the same for every operation: an operation consumes its operands, all of them allocated with new.
/// Unary, arithmetic and logical operations change "this" in place, delete the right operand and return "this";
/// comparisons and like return a new TBooleanValue and delete both; an operation that a class does not support
/// deletes both and returns a new invalid value. The same happens when the right operand is of another class than the
/// operation reads. The caller owns the result and never touches an operand after passing it.
///
/// Not thread-safe: a value belongs to one evaluator.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "QORPager/QORFieldTypes.h"

namespace QOR {

/// A value without a class of its own; with the type Invalid it is the invalid value. An object whose type is Integer,
/// String or Boolean is always of the class below: evaluators read the value by its type.
class TBaseValue {
public:
    explicit TBaseValue(TValueType type) noexcept : m_type(type) {}
    TBaseValue(const TBaseValue&) = delete;
    TBaseValue& operator=(const TBaseValue&) = delete;
    virtual ~TBaseValue();

    /// Takes the value that a field's text stands for. \returns true when the text could not be taken
    virtual bool setValueFromString(const std::string& text);
    /// A new object of the same class and value; an invalid value where there is nothing to copy.
    virtual TBaseValue* clone() const;
    virtual TBaseValue* opUnMinus();
    virtual TBaseValue* opAdd(TBaseValue* right);
    virtual TBaseValue* opSub(TBaseValue* right);
    virtual TBaseValue* opMul(TBaseValue* right);
    /// The divisor is not zero: the evaluator refuses that before.
    virtual TBaseValue* opDiv(TBaseValue* right);
    virtual TBaseValue* opPow(TBaseValue* right);
    virtual TBaseValue* opNot();
    virtual TBaseValue* opOr(TBaseValue* right);
    virtual TBaseValue* opAnd(TBaseValue* right);
    virtual TBaseValue* opGT(TBaseValue* right);
    virtual TBaseValue* opGE(TBaseValue* right);
    virtual TBaseValue* opLT(TBaseValue* right);
    virtual TBaseValue* opLE(TBaseValue* right);
    virtual TBaseValue* opEQ(TBaseValue* right);
    virtual TBaseValue* opNE(TBaseValue* right);
    /// \throws std::out_of_range as matchLike; both operands are deleted all the same
    virtual TBaseValue* opLike(TBaseValue* right);
    virtual bool isZero() const;

    TValueType type() const noexcept { return m_type; }

private:
    TValueType m_type;
};

class TIntegerValue final : public TBaseValue {
public:
    explicit TIntegerValue(std::int32_t value) noexcept : TBaseValue(TValueType::Integer), m_value(value) {}
    ~TIntegerValue() override;

    /// Reads the field of an object that is of this class. The caller has checked the type.
    static std::int32_t getValue(const TBaseValue* object) noexcept {
        const auto* const integer = static_cast<const TIntegerValue*>(object);
        if (integer->m_text.data() != nullptr) integer->read();
        return integer->m_value;
    }
    void assign(std::int32_t value) noexcept {
        m_value = value;
        m_text = {};
    }
    /// Takes the number of a text when it is asked for: not every row comes to asking. The bytes stay the caller's, and
    /// must stay as they are until then or until the next change.
    void refer(std::string_view text) noexcept {
        assign(0);
        m_text = text;
    }

    bool setValueFromString(const std::string& text) override;
    TBaseValue* clone() const override;
    TBaseValue* opUnMinus() override;
    TBaseValue* opAdd(TBaseValue* right) override;
    TBaseValue* opSub(TBaseValue* right) override;
    TBaseValue* opMul(TBaseValue* right) override;
    TBaseValue* opDiv(TBaseValue* right) override;
    TBaseValue* opPow(TBaseValue* right) override;
    TBaseValue* opGT(TBaseValue* right) override;
    TBaseValue* opGE(TBaseValue* right) override;
    TBaseValue* opLT(TBaseValue* right) override;
    TBaseValue* opLE(TBaseValue* right) override;
    TBaseValue* opEQ(TBaseValue* right) override;
    TBaseValue* opNE(TBaseValue* right) override;
    bool isZero() const override;

private:
    void read() const noexcept;

    mutable std::int32_t m_value;
    mutable std::string_view m_text;  ///< to be read; without data when m_value is the number
};

class TStringValue final : public TBaseValue {
public:
    explicit TStringValue(std::string value) noexcept
        : TBaseValue(TValueType::String), m_owned(std::move(value)), m_value(m_owned) {}
    ~TStringValue() override;

    /// Valid until the object changes or goes.
    static std::string_view getValue(const TBaseValue* object) noexcept {
        return static_cast<const TStringValue*>(object)->m_value;
    }
    void assign(std::string_view text) {
        m_owned.assign(text);
        m_value = m_owned;
    }
    /// Takes the text without copying it: its bytes stay the caller's, and must outlive the object or the next change.
    void refer(std::string_view text) noexcept { m_value = text; }

    bool setValueFromString(const std::string& text) override;
    TBaseValue* clone() const override;
    TBaseValue* opAdd(TBaseValue* right) override;
    TBaseValue* opGT(TBaseValue* right) override;
    TBaseValue* opGE(TBaseValue* right) override;
    TBaseValue* opLT(TBaseValue* right) override;
    TBaseValue* opLE(TBaseValue* right) override;
    TBaseValue* opEQ(TBaseValue* right) override;
    TBaseValue* opNE(TBaseValue* right) override;
    TBaseValue* opLike(TBaseValue* right) override;

    /// Change the text in place, byte by byte, and return "this".
    TBaseValue* funcUpper();
    TBaseValue* funcLower();

private:
    /// Makes the bytes the object's own, so that they can be changed.
    std::string& own();

    std::string m_owned;
    std::string_view m_value;  ///< of m_owned, or of a text that is referred to
};

class TBooleanValue final : public TBaseValue {
public:
    explicit TBooleanValue(bool value) noexcept : TBaseValue(TValueType::Boolean), m_value(value) {}
    ~TBooleanValue() override;

    static bool getValue(const TBaseValue* object) noexcept {
        return static_cast<const TBooleanValue*>(object)->m_value;
    }
    void assign(bool value) noexcept { m_value = value; }

    /// Whether a field's text stands for true: exactly "1", or "true" in any case.
    static bool isTrueText(std::string_view text) noexcept;

    bool setValueFromString(const std::string& text) override;
    TBaseValue* clone() const override;
    TBaseValue* opNot() override;
    TBaseValue* opOr(TBaseValue* right) override;
    TBaseValue* opAnd(TBaseValue* right) override;
    TBaseValue* opEQ(TBaseValue* right) override;
    TBaseValue* opNE(TBaseValue* right) override;

private:
    bool m_value;
};

/// What an ordering comparison (> >= < <=) does to its operands before it compares them. An operand that is fixed is
/// replaced by a new object and the old one deleted; one that cannot be fixed stays.
class DefaultComparisonPolicy {
public:
    static bool isAllowedOperandType(TValueType type) noexcept;
    /// Beside an integer, a text that is wholly a number becomes that number.
    static void fixOperandTypes(TBaseValue*& left, TBaseValue*& right);
    /// Fixes one operand: only a text is changed, and only when it is wholly a number.
    static void getInteger(TBaseValue*& operand);
};

/// The same for = and <>, which also bring integers and texts beside a boolean to booleans.
class EqualityPolicy {
public:
    static bool isAllowedOperandType(TValueType type) noexcept;
    static void fixOperandTypes(TBaseValue*& left, TBaseValue*& right);
    /// Fixes one operand: integers and texts become booleans.
    static void getBoolean(TBaseValue*& operand);
    /// Whether a text counts as true beside a boolean: all but "", "false" and "0".
    static bool countsAsTrue(std::string_view text) noexcept { return !text.empty() && text != "false" && text != "0"; }
};

}  // namespace QOR
