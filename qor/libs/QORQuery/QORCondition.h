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
/// Items of an in-list and bounds of between, which a request compares as they are spelled, are brought into the form
/// in which the column beside them stores its values, or refused as an equation refuses them. Beside upper() and
/// lower(), whose result is a text, they stay as they are.
///
/// Chains of and (or) become one element, whatever their parentheses, and a double not vanishes, so that only real
/// alternation counts against the depth of messages.
#pragma once

#include <cstddef>
#include <string_view>

#include "QORCommon/QORExport.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORQuery/QORStoredForm.h"

namespace QOR {

/// Appends the condition below the element that `out` stands on, which is a where element.
/// \param view the view that is asked, which qualifies columns whose own names hold a point
/// \param levels how many levels of elements the condition may take
/// \param types asked only for columns that literals of an in-list or of between stand beside; none: those stay as
/// they are spelled
/// \throws QORQueryError naming the place in `text` and what was expected there
QOR_API void parseCondition(std::string_view text, std::string_view view, std::size_t levels,
                            const QORBinaryIterator& out, const QORColumnTypes& types = {});

}  // namespace QOR
