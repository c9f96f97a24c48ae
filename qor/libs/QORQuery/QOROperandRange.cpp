#include "QORQuery/QOROperandRange.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORQuery/QORColumnKind.h"
#include "QORQuery/QORStoredForm.h"

namespace QOR {
namespace {

using Order = QORComparedValue::Order;

/// Engines may take texts for one that differ in the case of letters or in blanks at their ends; of texts that are
/// numbers nobody can tell whether they are compared as such.
bool areSurelyDifferent(std::string_view a, std::string_view b) {
    const auto trimmed = [](std::string_view text) { return text.substr(0, text.find_last_not_of(' ') + 1); };
    if (isSameWord(trimmed(a), trimmed(b))) return false;
    const auto first = parseDouble(trimmed(a));
    const auto second = parseDouble(trimmed(b));
    return !first || !second || *first != *second;
}

template <class Number>
Order orderOf(Number a, Number b) {
    return a < b ? Order::Less : a > b ? Order::Greater : Order::Equal;
}

}  // namespace

std::optional<QORComparedValue> QORComparedValue::of(std::string_view type, const std::string& literal,
                                                     bool converted) {
    const QORColumnKind kind = columnKindOf(type);
    if (type.empty() || kind == QORColumnKind::Bytes) return std::nullopt;
    if (kind == QORColumnKind::Text) return text(literal);
    std::string stored;
    try {
        stored = storedForm(type, literal);
    } catch (const QORException&) {
        return std::nullopt;
    }
    if (!converted && stored != literal) return std::nullopt;
    if (kind == QORColumnKind::Integer) return QORComparedValue(*parseInt64(stored));
    if (kind != QORColumnKind::Number) return QORComparedValue(std::move(stored), true);
    const auto number = parseDouble(stored);
    if (!number || !std::isfinite(*number)) return std::nullopt;
    return QORComparedValue(*number);
}

Order QORComparedValue::compare(const QORComparedValue& other) const {
    if (m_value.index() != other.m_value.index()) return Order::Unknown;
    if (const auto* const number = std::get_if<std::int64_t>(&m_value))
        return orderOf(*number, std::get<std::int64_t>(other.m_value));
    // Decimal numbers that are one number of floating point may be two.
    if (const auto* const number = std::get_if<double>(&m_value)) {
        const Order order = orderOf(*number, std::get<double>(other.m_value));
        return order == Order::Equal ? Order::Unknown : order;
    }
    const auto& mine = std::get<std::string>(m_value);
    const auto& others = std::get<std::string>(other.m_value);
    if (mine == others) return Order::Equal;
    if (m_ordered && other.m_ordered) return mine < others ? Order::Less : Order::Greater;
    return areSurelyDifferent(mine, others) ? Order::Different : Order::Unknown;
}

bool QORComparedValue::hasUpper() const noexcept {
    const auto* const text = std::get_if<std::string>(&m_value);
    return text != nullptr && std::any_of(text->begin(), text->end(), isUpperChar);
}

bool QORComparedValue::hasLower() const noexcept {
    const auto* const text = std::get_if<std::string>(&m_value);
    return text != nullptr && std::any_of(text->begin(), text->end(), isLowerChar);
}

bool QOROperandRange::isPossible(const QORComparedValue& value) const {
    const auto misses = [&](const Bound& bound, Order outside) {
        const Order order = value.compare(bound.value);
        return order == outside || (order == Order::Equal && !bound.included);
    };
    const auto isOther = [&](const QORComparedValue& one) {
        const Order order = value.compare(one);
        return order != Order::Equal && order != Order::Unknown;
    };
    const auto excludes = [&](const std::vector<QORComparedValue>& choice) {
        return std::all_of(choice.begin(), choice.end(), isOther);
    };
    return std::none_of(m_lower.begin(), m_lower.end(), [&](const Bound& one) { return misses(one, Order::Less); }) &&
           std::none_of(m_upper.begin(), m_upper.end(),
                        [&](const Bound& one) { return misses(one, Order::Greater); }) &&
           std::none_of(m_choices.begin(), m_choices.end(), excludes) &&
           std::none_of(m_excluded.begin(), m_excluded.end(),
                        [&](const QORComparedValue& one) { return value.compare(one) == Order::Equal; });
}

bool QOROperandRange::isEmpty() const {
    if (m_null && m_something) return true;
    for (const Bound& lower : m_lower) {
        for (const Bound& upper : m_upper) {
            const Order order = lower.value.compare(upper.value);
            if (order == Order::Greater) return true;
            if (order == Order::Equal && !(lower.included && upper.included)) return true;
        }
    }
    return std::any_of(m_choices.begin(), m_choices.end(), [this](const std::vector<QORComparedValue>& choice) {
        return std::none_of(choice.begin(), choice.end(),
                            [this](const QORComparedValue& value) { return isPossible(value); });
    });
}

}  // namespace QOR
