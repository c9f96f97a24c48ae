/// \file
/// SQL's familiar row condition, and what it becomes: the where tree of a view request.
///
/// Read are: and, or, not, parentheses; = <> != < <= > >=, [not] like with escape, [not] in, [not] between, is [not]
/// null; columns as `name`, `view.name` and `"any name"`; texts in single quotes, numbers with a sign; upper() and
/// lower(). An in-list takes a nested select too:
/// `[not] in (select [distinct] COLUMN from VIEW [where ...] [order by COLUMN [asc|desc], ...] [limit N [offset M]])`,
/// where COLUMN may be an aggregate such as max(time). Keywords are matched without regard to case and bind as in SQL:
/// comparisons tighter than not, not tighter than and, and tighter than or.
///
/// Values that depend on who asks and when are settled while reading: `now()` and what is told from it
/// (`now() - 7d + 12h`), `current_eid()`. Beside a column of times, texts that tell a time from now (`'yesterday'`,
/// `'-7d'`, see parseRelativeTime()) and durations with a sign (`-7d`) are times too; a duration (`90m`) is its seconds
/// everywhere else.
///
/// Items of an in-list and bounds of between, which a request compares as they are spelled, are brought into the form
/// in which the column beside them stores its values, or refused as an equation refuses them. Beside upper() and
/// lower(), whose result is a text, they stay as they are.
///
/// Chains of and (or) become one element, whatever their parentheses, and a double not vanishes, so that only real
/// alternation counts against the depth of messages. Such a tree is printed as a text that reads back as the same tree.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORQuery/QORStoredForm.h"

namespace QOR {

/// The names of a view's columns, which stay as long as the reading lasts; null where there is no such view. The view's
/// name may be in any case.
using QORViewColumns = std::function<const std::vector<std::string>*(std::string_view view)>;

/// Where an element of a condition stands in the text that it was read from, and how a literal was spelled there.
struct QORConditionPlace {
    static constexpr std::size_t nowhere = static_cast<std::size_t>(-1);
    enum class Literal : std::uint8_t {
        None,
        Text,
        Number,
        Computed,  ///< told from now, or from who asks
    };
    std::size_t offset = nowhere;  ///< bytes before it; columns, literals and functions have one
    Literal literal = Literal::None;
    std::string spelled{};  ///< a literal's value before it took the form of the column beside it
};

struct QORConditionOptions {
    std::string view;        ///< that is asked; it qualifies columns whose own names hold a point
    std::size_t levels = 0;  ///< of elements that the condition may take
    /// Asked only where it matters: for columns that literals of an in-list or of between, durations or texts that
    /// tell a time from now stand beside; with `columns` also for those that other literals are compared with, which
    /// are checked then. None: those stay as they are spelled.
    QORColumnTypes types{};
    /// Asked for each column and view that is named, so that one that there is not is a mistake of the text. None:
    /// names are taken as they are.
    QORViewColumns columns{};
    std::int64_t now = 0;      ///< seconds since the epoch
    std::string currentEid{};  ///< the environment that the asker stands for; empty when there is none
    /// Takes a place for each element of the condition, an element before its children. None: nobody asks for them.
    std::vector<QORConditionPlace>* places = nullptr;
};

/// Appends the condition below the element that `out` stands on, which is a where element.
/// \throws QORQueryError naming the place in `text` and what was expected there
QOR_API void parseCondition(std::string_view text, const QORConditionOptions& options, const QORBinaryIterator& out);

enum class QORConditionLiterals : std::uint8_t {
    Shown,
    Masked,  ///< `?` in their places, one for all that stand side by side: for logs, which shall not tell what they
             ///< hold
};

/// The condition that an element holds, the child of a where element, as a text that parseCondition() reads. Of chains
/// within chains of the same kind, and of a not below a not, it gives what they mean: these are read as one.
/// \throws QORException 400 for an element that no condition as text becomes
QOR_API std::string printCondition(const QORMessageNode& condition,
                                   QORConditionLiterals literals = QORConditionLiterals::Shown);

}  // namespace QOR
