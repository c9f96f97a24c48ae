#include "QORPager/Operators/Pager/QORRowOrder.h"

#include <limits>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"
#include "QORPager/QORArg.h"

namespace QOR {

namespace {

bool isText(const QORField& field) {
    return field.valueType == TValueType::String;
}

/// The whole number that a text begins with, as far as 64 bits go.
std::int64_t readNumber(std::string_view text) {
    constexpr std::uint64_t most = std::numeric_limits<std::int64_t>::max();
    std::size_t at = 0;
    while (at < text.size() && isSpaceChar(text[at]))
        ++at;
    const bool negative = at < text.size() && text[at] == '-';
    if (at < text.size() && (text[at] == '-' || text[at] == '+')) ++at;
    std::uint64_t number = 0;
    for (; at < text.size() && isDigitChar(text[at]); ++at) {
        const auto digit = static_cast<std::uint64_t>(text[at] - '0');
        number = number > (most - digit) / 10 ? most : number * 10 + digit;
    }
    return negative ? -static_cast<std::int64_t>(number) : static_cast<std::int64_t>(number);
}

std::int64_t numberOf(TValueType type, const std::string& text) {
    switch (type) {
        case TValueType::Boolean:
            return text == "0" ? 0 : 1;
        case TValueType::Time:
            return str2time(text);
        case TValueType::IPAddress:
            return strToIp(text);
        default:
            return readNumber(text);
    }
}

int signOf(bool before, bool behind) {
    return before ? -1 : behind ? 1 : 0;
}

}  // namespace

QORSortValue QORSortValue::read(const QORField& field, const QORArg& row) {
    std::string text = field.getValue(row);
    if (text.empty()) return {};
    return isText(field) ? of(std::move(text)) : of(numberOf(field.valueType, text));
}

int QORSortValue::compare(const QORSortValue& other) const {
    if (kind == Kind::Missing || other.kind == Kind::Missing)
        return signOf(kind == Kind::Missing && other.kind != Kind::Missing, kind != Kind::Missing);
    if (kind == Kind::Number) return signOf(number<other.number, number> other.number);
    const int order = text.compare(other.text);
    return signOf(order<0, order> 0);
}

std::optional<std::string> QORSortValue::toText() const {
    if (kind == Kind::Missing) return std::nullopt;
    return kind == Kind::Number ? std::to_string(number) : text;
}

std::optional<QORSortValue> QORSortValue::fromText(const QORField& field, const std::optional<std::string>& text) {
    if (!text) return QORSortValue();
    if (isText(field)) return of(*text);
    const auto number = parseInt64(*text);
    return number ? std::optional(of(*number)) : std::nullopt;
}

int QORRowOrder::compare(const QORRowRank& left, const QORRowRank& right) const {
    for (std::size_t i = 0; i < keys.size(); ++i) {
        const int order = left.values[i].compare(right.values[i]);
        if (order != 0) return keys[i].descending ? -order : order;
    }
    const int order = left.unique.compare(right.unique);
    return uniqueDescending ? -order : order;
}

}  // namespace QOR
