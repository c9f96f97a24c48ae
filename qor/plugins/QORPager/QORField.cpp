#include "QORPager/QORField.h"

#include <array>
#include <utility>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"
#include "QORPager/QORExpressionText.h"

namespace QOR {
namespace {

/// What a value type of fields is called in the configuration, and how its values order.
struct TypeRow {
    std::string_view word;
    TValueType type;
    QORFieldLess less;
};

constexpr std::array<TypeRow, 7> typeRows{{
    {"string", TValueType::String, string_less},
    {"", TValueType::String, string_less},
    {"int", TValueType::Integer, int_less},
    {"ipaddress", TValueType::IPAddress, ip_less},
    {"date", TValueType::Date, nullptr},
    {"time", TValueType::Time, time_less},
    {"boolean", TValueType::Boolean, boolean_less},
}};

constexpr auto words = [] {
    std::array<std::string_view, typeRows.size() - 1> named{};
    std::size_t count = 0;
    for (const TypeRow& row : typeRows)
        if (!row.word.empty()) named[count++] = row.word;
    return named;
}();
static_assert(!words.back().empty());

const TypeRow* findType(TValueType type) noexcept {
    for (const TypeRow& row : typeRows) {
        if (row.type == type) return &row;
    }
    return nullptr;
}

}  // namespace

TValueType typeFromString(std::string_view word) noexcept {
    for (const TypeRow& row : typeRows) {
        if (row.word == word) return row.type;
    }
    return TValueType::String;
}

std::span<const std::string_view> typeWords() noexcept {
    return words;
}

std::string_view typeToString(TValueType type) noexcept {
    const TypeRow* row = findType(type);
    return row == nullptr ? std::string_view() : row->word;
}

QORField::QORField(std::string fieldName, TCursorType fieldCursorType, TValueType fieldValueType,
                   QORFieldGetter fieldGetter, QORPtr<QORAccessProviderPrototype> fieldAccessProvider,
                   FieldStructType fieldStructType, std::string fieldPath, std::string fieldValueName,
                   std::string fieldCacheName)
    : name(std::move(fieldName)),
      cursorType(fieldCursorType),
      valueType(fieldValueType),
      getter(fieldGetter),
      lessValueFunc(nullptr),
      structType(fieldStructType),
      path(std::move(fieldPath)),
      valueName(std::move(fieldValueName)),
      cacheName(std::move(fieldCacheName)),
      base64(false),
      accessProvider(std::move(fieldAccessProvider)) {
    if (const TypeRow* row = findType(valueType)) lessValueFunc = row->less;
}

QORField::QORField(const QORField&) = default;
QORField::QORField(QORField&&) noexcept = default;
QORField& QORField::operator=(const QORField&) = default;
QORField& QORField::operator=(QORField&&) noexcept = default;
QORField::~QORField() = default;

std::string QORField::getValue(const QORArg& row) const {
    bool last = false;
    return getter(row, this, last, 0);
}

std::string QORField::getValue(const QORArg& row, bool& last, int index) const {
    return getter(row, this, last, index);
}

bool boolean_less(const QORArg& first, const QORArg& second, const QORField& field) {
    return field.getValue(first) == "0" && field.getValue(second) != "0";
}

bool int_less(const QORArg& first, const QORArg& second, const QORField& field) {
    return readInteger(field.getValue(first)) < readInteger(field.getValue(second));
}

bool string_less(const QORArg& first, const QORArg& second, const QORField& field) {
    return field.getValue(first) < field.getValue(second);
}

bool ip_less(const QORArg& first, const QORArg& second, const QORField& field) {
    return strToIp(field.getValue(first)) < strToIp(field.getValue(second));
}

bool time_less(const QORArg& first, const QORArg& second, const QORField& field) {
    return str2time(field.getValue(first)) < str2time(field.getValue(second));
}

}  // namespace QOR
