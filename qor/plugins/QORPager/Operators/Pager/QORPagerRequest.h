/// \file
/// What one request of "pager" sets, apart from what its operator keeps.
#pragma once

#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "QORFunctionality/QORAccess.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORPager/Operators/Pager/QORExactPage.h"
#include "QORPager/Operators/QORIndex.h"
#include "QORPager/QORField.h"

namespace QOR {

/// A value: a request begins with a new one and ends with another, so that nothing of it reaches the next. Fields are
/// those of the operator's field set, which outlives the request.
struct QORPagerRequest {
    static constexpr int everyRow = std::numeric_limits<std::int32_t>::max();
    static constexpr int notAsked = -1;  ///< a size or an offset that the request does not name

    struct FieldNameLess {
        bool operator()(const QORField* a, const QORField* b) const noexcept { return *a < *b; }
    };
    /// Sort keys by field: whether the order is descending. Unless the request is exact no source sorts: they are
    /// checked, so that a request that names what is no field is told.
    using SortOrder = std::map<const QORField*, bool, FieldNameLess>;

    std::vector<const QORField*> selectFields;  ///< in the order of the columns
    std::vector<const QORField*> whereFields;   ///< that the filter uses, without the placeholder
    SortOrder sortOrder;
    /// What an exact request has besides.
    struct Exact {
        std::vector<QORSortKey> sortKeys;  ///< in the order of the request
        std::optional<std::string> after;  ///< a page token
        std::optional<QORCountLimit> count;
    };
    std::optional<Exact> exact;
    bool explains = false;  ///< it asks what would become of it, and is exact
    bool statisticsWanted = false;
    bool hasWhere = false;    ///< a filter that names a field is in force
    bool whereGiven = false;  ///< the evaluator holds this request's filter
    std::string where;        ///< after the rewriting of dates
    int limitSize = everyRow;
    int limitOffset = 0;
    QORPtr<const QOREnvList> envList;  ///< the same from the beginning to the end of the request
    QORPtr<QORLocalAccess> access;
    TCursorType cursorType = TCursorType::Env;  ///< the source that the fields ask for
    bool envFieldSelected = false;
    bool envFieldInWhere = false;
    /// The unit that the filter restricts environments to. Checked to be there; the host knows environments alone and
    /// no units, so that no source can narrow by it.
    std::string inPlaceholderList;
    /// For a source that collects its rows before it writes them. Those that there are write rows as they come.
    QORFieldIndex fieldIndex;
};

}  // namespace QOR
