/// \file
/// The order of the rows of an exact request.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QORPager/QORField.h"

namespace QOR {

class QORArg;

/// What rows are sorted by.
struct QORSortKey {
    const QORField* field;
    bool descending;
};

/// A value of a sort key: a number for times, numbers, addresses and booleans, else a text; or missing, which comes
/// before every other one. A text that is no time orders as -1, one that is no address as 0.
struct QORSortValue {
    enum class Kind { Missing, Number, Text };

    Kind kind = Kind::Missing;
    std::int64_t number = 0;
    std::string text{};

    static QORSortValue of(std::int64_t value) { return {Kind::Number, value}; }
    static QORSortValue of(std::string value) { return {Kind::Text, 0, std::move(value)}; }
    /// The field's first value in the row. \pre hasOrder(field)
    static QORSortValue read(const QORField& field, const QORArg& row);
    static bool hasOrder(const QORField& field) noexcept { return field.lessValueFunc != nullptr; }

    /// Below 0, 0 or above it. Texts by their bytes. \pre values of one key
    int compare(const QORSortValue& other) const;

    std::optional<std::string> toText() const;
    /// What toText() was given for a value of the key. \returns nothing for a text that it does not give
    static std::optional<QORSortValue> fromText(const QORField& field, const std::optional<std::string>& text);
};

/// Where a row stands among all: its values of the sort keys, and what it alone has.
struct QORRowRank {
    std::vector<QORSortValue> values;
    QORSortValue unique;
};

/// Rows by their keys, those that are equal in all of them by what each of them alone has.
struct QORRowOrder {
    std::vector<QORSortKey> keys;
    bool uniqueDescending = false;

    /// Below 0 where the left one comes first; 0 for the same row only.
    int compare(const QORRowRank& left, const QORRowRank& right) const;
};

}  // namespace QOR
