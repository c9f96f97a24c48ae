#include "QORPager/QORExpressionEvaluationValue.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace QOR {
namespace {

using Owned = std::unique_ptr<TBaseValue>;
using Binary = TBaseValue* (TBaseValue::*)(TBaseValue*);
using Unary = TBaseValue* (TBaseValue::*)();

TBaseValue* integer(std::int32_t value) {
    return new TIntegerValue(value);
}
TBaseValue* text(std::string value) {
    return new TStringValue(std::move(value));
}
TBaseValue* boolean(bool value) {
    return new TBooleanValue(value);
}
TBaseValue* invalid() {
    return new TBaseValue(TValueType::Invalid);
}

std::string show(const TBaseValue& value) {
    switch (value.type()) {
        case TValueType::Invalid:
            return "invalid";
        case TValueType::Integer:
            return std::to_string(TIntegerValue::getValue(&value));
        case TValueType::String:
            return "'" + std::string(TStringValue::getValue(&value)) + "'";
        case TValueType::Boolean:
            return TBooleanValue::getValue(&value) ? "true" : "false";
        default:
            return "?";
    }
}

std::string apply(Binary operation, TBaseValue* left, TBaseValue* right) {
    return show(*Owned((left->*operation)(right)));
}

struct OperationRow {
    const char* name;
    Binary operation;
    const char* integers;  ///< of 7 and 2
    const char* texts;     ///< of 'b' and 'abc'
    const char* booleans;  ///< of true and false
};

const OperationRow operationRows[] = {
    {"add", &TBaseValue::opAdd, "9", "'babc'", "invalid"},
    {"sub", &TBaseValue::opSub, "5", "invalid", "invalid"},
    {"mul", &TBaseValue::opMul, "14", "invalid", "invalid"},
    {"div", &TBaseValue::opDiv, "3", "invalid", "invalid"},
    {"pow", &TBaseValue::opPow, "49", "invalid", "invalid"},
    {"or", &TBaseValue::opOr, "invalid", "invalid", "true"},
    {"and", &TBaseValue::opAnd, "invalid", "invalid", "false"},
    {"gt", &TBaseValue::opGT, "true", "true", "invalid"},
    {"ge", &TBaseValue::opGE, "true", "true", "invalid"},
    {"lt", &TBaseValue::opLT, "false", "false", "invalid"},
    {"le", &TBaseValue::opLE, "false", "false", "invalid"},
    {"eq", &TBaseValue::opEQ, "false", "false", "false"},
    {"ne", &TBaseValue::opNE, "true", "true", "true"},
    {"like", &TBaseValue::opLike, "invalid", "false", "invalid"},
};

TEST(ExpressionValue, EachClassSupportsItsOperations) {
    for (const OperationRow& row : operationRows) {
        EXPECT_EQ(apply(row.operation, integer(7), integer(2)), row.integers) << row.name;
        EXPECT_EQ(apply(row.operation, text("b"), text("abc")), row.texts) << row.name;
        EXPECT_EQ(apply(row.operation, boolean(true), boolean(false)), row.booleans) << row.name;
        EXPECT_EQ(apply(row.operation, invalid(), invalid()), "invalid") << row.name;
    }
}

TEST(ExpressionValue, OperandsOfDifferentClassesGiveTheInvalidValue) {
    const std::function<TBaseValue*()> makers[] = {[] { return integer(1); }, [] { return text("1"); },
                                                   [] { return boolean(true); }, invalid};
    for (const OperationRow& row : operationRows) {
        for (const auto& left : makers) {
            for (const auto& right : makers) {
                TBaseValue* const a = left();
                TBaseValue* const b = right();
                if (a->type() == b->type()) {
                    delete a;
                    delete b;
                } else {
                    EXPECT_EQ(apply(row.operation, a, b), "invalid") << row.name;
                }
            }
        }
    }
}

TEST(ExpressionValue, UnaryOperationsBelongToOneClassEach) {
    const auto applyUnary = [](Unary operation, TBaseValue* operand) { return show(*Owned((operand->*operation)())); };
    EXPECT_EQ(applyUnary(&TBaseValue::opUnMinus, integer(5)), "-5");
    EXPECT_EQ(applyUnary(&TBaseValue::opUnMinus, text("5")), "invalid");
    EXPECT_EQ(applyUnary(&TBaseValue::opUnMinus, boolean(true)), "invalid");
    EXPECT_EQ(applyUnary(&TBaseValue::opNot, boolean(true)), "false");
    EXPECT_EQ(applyUnary(&TBaseValue::opNot, integer(1)), "invalid");
    EXPECT_EQ(applyUnary(&TBaseValue::opNot, text("")), "invalid");
}

TEST(ExpressionValue, ArithmeticAndLogicChangeTheLeftOperandInPlace) {
    const std::pair<Binary, Owned (*)()> rows[] = {
        {&TBaseValue::opAdd, [] { return Owned(integer(1)); }},
        {&TBaseValue::opSub, [] { return Owned(integer(1)); }},
        {&TBaseValue::opMul, [] { return Owned(integer(1)); }},
        {&TBaseValue::opDiv, [] { return Owned(integer(1)); }},
        {&TBaseValue::opPow, [] { return Owned(integer(1)); }},
        {&TBaseValue::opAdd, [] { return Owned(text("x")); }},
        {&TBaseValue::opOr, [] { return Owned(boolean(true)); }},
        {&TBaseValue::opAnd, [] { return Owned(boolean(true)); }},
    };
    for (const auto& [operation, make] : rows) {
        TBaseValue* const left = make().release();
        const Owned result((left->*operation)(make().release()));
        EXPECT_EQ(result.get(), left);
    }
}

TEST(ExpressionValue, TextOrderIsByUnsignedBytes) {
    EXPECT_EQ(apply(&TBaseValue::opGT, text("b"), text("abc")), "true");
    EXPECT_EQ(apply(&TBaseValue::opLT, text("ab"), text("abc")), "true");
    EXPECT_EQ(apply(&TBaseValue::opGT, text("\xc3"), text("z")), "true");
    EXPECT_EQ(apply(&TBaseValue::opLT, text("A"), text("a")), "true");
    EXPECT_EQ(apply(&TBaseValue::opEQ, text(std::string("a\0b", 3)), text("a")), "false");
}

TEST(ExpressionValue, LikeDeletesItsOperandsWhenItThrows) {
    EXPECT_THROW(apply(&TBaseValue::opLike, text("ab"), text("%abc")), std::out_of_range);
}

TEST(ExpressionValue, CaseChangesInPlaceByteByByte) {
    auto* const value = new TStringValue("aZ\xc3\xa4_1");
    const Owned upper(value->funcUpper());
    EXPECT_EQ(upper.get(), value);
    EXPECT_EQ(TStringValue::getValue(upper.get()), "AZ\xc3\xa4_1");
    EXPECT_EQ(show(*value->funcLower()), "'az\xc3\xa4_1'");
}

struct SetCase {
    const char* text;
    const char* integer;
    const char* boolean;
};

const SetCase setCases[] = {
    {"", "0", "false"},     {"1", "1", "true"},    {"true", "0", "true"},    {"True", "0", "true"},
    {"TRUE", "0", "true"},  {"yes", "0", "false"}, {"12abc", "12", "false"}, {"01", "1", "false"},
    {" 1", "1", "false"},   {"0", "0", "false"},   {"truely", "0", "false"}, {"-7", "-7", "false"},
    {"trux", "0", "false"},
};

TEST(ExpressionValue, ValuesTakeTheTextsOfFields) {
    for (const SetCase& test : setCases) {
        const Owned number(integer(99));
        const Owned flag(boolean(false));
        const Owned bytes(text("old"));
        EXPECT_FALSE(number->setValueFromString(test.text));
        EXPECT_FALSE(flag->setValueFromString(test.text));
        EXPECT_FALSE(bytes->setValueFromString(test.text));
        EXPECT_EQ(show(*number), test.integer) << test.text;
        EXPECT_EQ(show(*flag), test.boolean) << test.text;
        EXPECT_EQ(show(*bytes), std::string("'") + test.text + "'");
    }
    const Owned nothing(invalid());
    EXPECT_TRUE(nothing->setValueFromString("1"));
}

TEST(ExpressionValue, ClonesAreOfTheSameClassAndValue) {
    for (TBaseValue* made : {integer(-3), text("t"), boolean(true), invalid()}) {
        const Owned original(made);
        const Owned copy(original->clone());
        EXPECT_NE(copy.get(), original.get());
        EXPECT_EQ(show(*copy), show(*original));
    }
    const Owned empty(new TBaseValue(TValueType::Empty));
    EXPECT_EQ(show(*Owned(empty->clone())), "invalid");
}

TEST(ExpressionValue, OnlyIntegersOtherThanZeroAreNotZero) {
    EXPECT_TRUE(Owned(integer(0))->isZero());
    EXPECT_FALSE(Owned(integer(-1))->isZero());
    EXPECT_TRUE(Owned(text("1"))->isZero());
    EXPECT_TRUE(Owned(boolean(true))->isZero());
    EXPECT_TRUE(Owned(invalid())->isZero());
}

struct FixCase {
    std::function<TBaseValue*()> left;
    std::function<TBaseValue*()> right;
    const char* ordering;  ///< the operands after the policy of > >= < <=
    const char* equality;  ///< the operands after the policy of = <>
};

const FixCase fixCases[] = {
    {[] { return integer(1); }, [] { return text("2"); }, "1 2", "1 2"},
    {[] { return text("2"); }, [] { return integer(1); }, "2 1", "2 1"},
    {[] { return text("2x"); }, [] { return integer(1); }, "'2x' 1", "'2x' 1"},
    {[] { return text(""); }, [] { return integer(1); }, "0 1", "0 1"},
    {[] { return text("2"); }, [] { return text("1"); }, "'2' '1'", "'2' '1'"},
    {[] { return boolean(true); }, [] { return text("0"); }, "true '0'", "true false"},
    {[] { return text("false"); }, [] { return boolean(true); }, "'false' true", "false true"},
    {[] { return text("FALSE"); }, [] { return boolean(true); }, "'FALSE' true", "true true"},
    {[] { return boolean(true); }, [] { return text(""); }, "true ''", "true false"},
    {[] { return integer(0); }, [] { return boolean(false); }, "0 false", "false false"},
    {[] { return boolean(false); }, [] { return integer(-2); }, "false -2", "false true"},
    {[] { return boolean(false); }, invalid, "false invalid", "false invalid"},
    {invalid, [] { return text("1"); }, "invalid '1'", "invalid '1'"},
    {[] { return integer(1); }, invalid, "1 invalid", "1 invalid"},
};

template <class Policy>
std::string fixed(const FixCase& test) {
    TBaseValue* left = test.left();
    TBaseValue* right = test.right();
    Policy::fixOperandTypes(left, right);
    const Owned ownedLeft(left);
    const Owned ownedRight(right);
    return show(*left) + " " + show(*right);
}

TEST(ExpressionValue, PoliciesBringOperandsToOneType) {
    for (const FixCase& test : fixCases) {
        EXPECT_EQ(fixed<DefaultComparisonPolicy>(test), test.ordering);
        EXPECT_EQ(fixed<EqualityPolicy>(test), test.equality);
    }
}

TEST(ExpressionValue, PoliciesAllowTheirTypes) {
    for (const auto type : {TValueType::Empty, TValueType::Invalid, TValueType::Boolean, TValueType::Integer,
                            TValueType::String, TValueType::Date, TValueType::IPAddress, TValueType::Time}) {
        const bool ordered = type == TValueType::Integer || type == TValueType::String;
        EXPECT_EQ(DefaultComparisonPolicy::isAllowedOperandType(type), ordered);
        EXPECT_EQ(EqualityPolicy::isAllowedOperandType(type), ordered || type == TValueType::Boolean);
    }
}

TEST(ExpressionValue, NumbersThatAreReferredToAreReadWhenAskedFor) {
    std::string bytes = "41";
    TIntegerValue number(7);
    number.refer(bytes);
    EXPECT_EQ(show(*Owned(number.clone())), "41");
    bytes = "42";
    EXPECT_EQ(show(number), "41") << "read once";
    number.refer(bytes);
    EXPECT_EQ(number.opUnMinus(), &number);
    EXPECT_EQ(show(number), "-42");
    number.refer("8x");
    EXPECT_EQ(number.opAdd(integer(1)), &number);
    EXPECT_EQ(show(number), "9");
    number.refer("0");
    EXPECT_TRUE(number.isZero());
    number.refer("5");
    number.assign(6);
    EXPECT_EQ(show(number), "6");
    number.refer({});
    EXPECT_EQ(show(number), "0");
    number.refer("99");
    EXPECT_FALSE(number.setValueFromString("3"));
    EXPECT_EQ(show(number), "3");
}

}  // namespace
}  // namespace QOR
