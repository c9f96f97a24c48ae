#include "QORPager/QORField.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>

#include "QORFunctionality/QORAccess.h"
#include "QORPager/QORArg.h"

namespace QOR {

namespace {

/// A row of one value.
class ValueRow final : public QORArg {
public:
    explicit ValueRow(std::string text) : value(std::move(text)) {}
    std::string value;
};

std::string valueOf(const QORArg& row, const QORField* /*field*/, bool& last, int index) {
    const std::string& value = dynamic_cast<const ValueRow&>(row).value;
    last = index >= 1;
    return index == 0 ? value : value + "#" + std::to_string(index);
}

QORField makeField(const char* name, TValueType type, FieldStructType structType = FieldStructType::Single) {
    return {name, TCursorType::Env, type, valueOf, nullptr, structType, "a/b", "v", "c"};
}

TEST(Field, TypeWordsAreSevenAndAnyOtherIsText) {
    const std::pair<const char*, TValueType> words[] = {
        {"string", TValueType::String},   {"", TValueType::String},        {"int", TValueType::Integer},
        {"date", TValueType::Date},       {"time", TValueType::Time},      {"ipaddress", TValueType::IPAddress},
        {"boolean", TValueType::Boolean}, {"Boolean", TValueType::String}, {"integer", TValueType::String},
    };
    for (const auto& [word, type] : words)
        EXPECT_EQ(typeFromString(word), type) << word;
    EXPECT_EQ(typeToString(TValueType::String), "string");
    EXPECT_EQ(typeToString(TValueType::IPAddress), "ipaddress");
    EXPECT_EQ(typeToString(TValueType::Invalid), "");
}

TEST(Field, NumbersOfTheEnumerations) {
    EXPECT_EQ(static_cast<int>(TValueType::Empty), 0);
    EXPECT_EQ(static_cast<int>(TValueType::Invalid), 1);
    EXPECT_EQ(static_cast<int>(TValueType::Boolean), 2);
    EXPECT_EQ(static_cast<int>(TValueType::Integer), 3);
    EXPECT_EQ(static_cast<int>(TValueType::String), 4);
    EXPECT_EQ(static_cast<int>(TValueType::Date), 5);
    EXPECT_EQ(static_cast<int>(TValueType::IPAddress), 6);
    EXPECT_EQ(static_cast<int>(TValueType::Time), 7);
    EXPECT_EQ(static_cast<int>(TCursorType::Env), 1);
    EXPECT_EQ(static_cast<int>(TCursorType::OpLog), 2);
    EXPECT_EQ(static_cast<int>(TCursorType::EventLog), 4);
    EXPECT_EQ(static_cast<int>(TCursorType::Info), 16);
    EXPECT_EQ(static_cast<int>(FieldStructType::Single), 0);
    EXPECT_EQ(static_cast<int>(FieldStructType::Multi), 1);
}

TEST(Field, ConstructionKeepsWhatItIsGiven) {
    const QORField field = makeField("x", TValueType::Integer, FieldStructType::Multi);
    EXPECT_EQ(field.name, "x");
    EXPECT_EQ(field.cursorType, TCursorType::Env);
    EXPECT_EQ(field.path, "a/b");
    EXPECT_EQ(field.valueName, "v");
    EXPECT_EQ(field.cacheName, "c");
    EXPECT_FALSE(field.base64);
    EXPECT_TRUE(field.isMulty());
    EXPECT_FALSE(makeField("x", TValueType::Integer).isMulty());
}

TEST(Field, OrderFunctionsFollowTheType) {
    EXPECT_EQ(makeField("x", TValueType::Boolean).lessValueFunc, &boolean_less);
    EXPECT_EQ(makeField("x", TValueType::Integer).lessValueFunc, &int_less);
    EXPECT_EQ(makeField("x", TValueType::String).lessValueFunc, &string_less);
    EXPECT_EQ(makeField("x", TValueType::IPAddress).lessValueFunc, &ip_less);
    EXPECT_EQ(makeField("x", TValueType::Time).lessValueFunc, &time_less);
    EXPECT_EQ(makeField("x", TValueType::Date).lessValueFunc, nullptr);
}

struct LessCase {
    TValueType type;
    const char* smaller;
    const char* greater;
};

const LessCase lessCases[] = {
    {TValueType::Boolean, "0", "1"},
    {TValueType::Boolean, "0", "false"},
    {TValueType::Boolean, "0", ""},
    {TValueType::Integer, "9", "10abc"},
    {TValueType::Integer, "-1", ""},
    {TValueType::Integer, "", "1"},
    {TValueType::Integer, "2147483648", "0"},
    {TValueType::String, "10", "9"},
    {TValueType::String, "", "a"},
    {TValueType::String, "z", "\xc3\xa4"},
    {TValueType::IPAddress, "9.0.0.0", "10.0.0.0"},
    {TValueType::IPAddress, "127.255.255.255", "192.0.0.1"},
    {TValueType::IPAddress, "nonsense", "0.0.0.1"},
    {TValueType::Time, "2024-01-02T00:00:00+0200", "2024-01-01T23:00:00+0000"},
    {TValueType::Time, "", "1970-01-01"},
};

TEST(Field, ValuesOrderAsTheirTypeReadsThem) {
    for (const LessCase& test : lessCases) {
        const QORField field = makeField("x", test.type);
        const ValueRow smaller{test.smaller};
        const ValueRow greater{test.greater};
        EXPECT_TRUE(field.lessValueFunc(smaller, greater, field)) << test.smaller << " < " << test.greater;
        EXPECT_FALSE(field.lessValueFunc(greater, smaller, field)) << test.greater << " < " << test.smaller;
    }
}

TEST(Field, BooleansOtherThanZeroAreEqual) {
    const QORField field = makeField("x", TValueType::Boolean);
    for (const char* first : {"1", "true", "false", ""}) {
        for (const char* second : {"1", "true", "false", ""}) {
            EXPECT_FALSE(field.lessValueFunc(ValueRow{first}, ValueRow{second}, field));
        }
    }
}

TEST(Field, TheFirstOfTwoFieldsOfOneNameStays) {
    std::set<QORField> fields;
    EXPECT_TRUE(fields.insert(makeField("b", TValueType::Integer)).second);
    EXPECT_FALSE(fields.insert(makeField("b", TValueType::String)).second);
    EXPECT_TRUE(fields.insert(makeField("B", TValueType::String)).second);
    EXPECT_EQ(fields.size(), 2U);
    EXPECT_EQ(fields.begin()->name, "B");
    EXPECT_EQ(fields.rbegin()->valueType, TValueType::Integer);
}

TEST(Field, ValuesAreReadByIndex) {
    const QORField field = makeField("x", TValueType::String);
    const ValueRow row{"v"};
    bool last = false;
    EXPECT_EQ(field.getValue(row), "v");
    EXPECT_EQ(field.getValue(row, last, 0), "v");
    EXPECT_FALSE(last);
    EXPECT_EQ(field.getValue(row, last, 1), "v#1");
    EXPECT_TRUE(last);
}

}  // namespace
}  // namespace QOR
