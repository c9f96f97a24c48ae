/// \file
/// Traps in a row condition: what it says is allowed, and mostly not what was meant. Pure: what has to be known of the
/// database is handed in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORQuery/QORCondition.h"

namespace QOR {

/// One trap. A value.
struct QORConditionWarning {
    /// Of static storage; see lintCondition().
    std::string_view code{};
    std::string_view parameter = "where";  ///< of the question; "sort" for what is about the order. Of static storage
    std::string message{};                 ///< for people
    std::optional<std::size_t> offset{};   ///< bytes before the place; empty where there is no text, or no one place
    std::string found{};                   ///< there
    std::string suggestion{};              ///< what to write instead; empty where that depends on what is meant
};

/// The values that a column is known to hold, where they are few; others may be there too.
using QORColumnValues = std::function<std::vector<std::string>(std::string_view view, std::string_view column)>;

/// What is known of the view that is asked. What is left empty is not known, and traps that rest on it are not told of.
struct QORConditionFacts {
    std::string view{};
    QORColumnTypes types{};
    QORColumnValues values{};
    /// The columns of each index below the view.
    std::optional<std::vector<std::vector<std::string>>> indexes{};
    std::optional<std::int64_t> rows{};  ///< about how many the view has
    std::vector<std::string> sort{};     ///< the columns that rows are sorted by, the first key first
};

/// From so many rows on, reading all of them is worth a word.
inline constexpr std::int64_t manyRows = 100'000;
/// No more warnings than these are told of a condition.
inline constexpr std::size_t mostWarnings = 100;

/// Codes and what they mean:
/// `always_false`: no row satisfies the condition; `never_true`: nor a part of it, but other parts may be satisfied.
/// Told only of what holds on every engine and for any rows. `compares_null`: with the text "null". `leading_wildcard`:
/// a pattern that no index helps with, over many rows. `sorts_all`: no index has the order. `other_form`: a literal
/// that stored values are spelled otherwise than. `other_case`: in upper case where the values that there are known are
/// not. `number_as_text`: a number beside a column of texts.
///
/// \param condition the child of a where element, as printCondition() takes it; null: none
/// \param places of its elements, where it was read from a text, see QORConditionOptions::places; in-lists and bounds
/// of between then have the form of their columns
/// \returns in the order of their places
QOR_API std::vector<QORConditionWarning> lintCondition(const QORMessageNode* condition, const QORConditionFacts& facts,
                                                       std::span<const QORConditionPlace> places = {});

/// The same of a text; an empty one is no condition. \throws as parseCondition()
QOR_API std::vector<QORConditionWarning> lintCondition(std::string_view text, const QORConditionOptions& options,
                                                       const QORConditionFacts& facts);

}  // namespace QOR
