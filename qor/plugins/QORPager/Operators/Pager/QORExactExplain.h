/// \file
/// What would become of an exact request, without its being answered.
#pragma once

#include <string_view>

#include "QORPager/Operators/Pager/QORExactPage.h"
#include "QORPager/Operators/Pager/QORNarrowing.h"
#include "QORPager/Operators/Pager/QORRowSource.h"
#include "QORPager/QORFilterLint.h"
#include "QORPager/QORSources.h"
#include "QORQuery/QORExplanation.h"

namespace QOR {

/// The request, as it is about to be answered.
struct QORExactExplained {
    const QORSource& source;
    const QORExactFilter& filter;
    const QORNarrowing& narrowing;
    QORRowSource& rows;
    QORRowGrouping grouping;
    std::string_view where;  ///< the filter as it was sent; empty: none
};

/// Reads no row. \param types of the fields as the filter sees them \throws AException
QORExplanation explainExact(const QORExactExplained& what, const QORSingleTypes& types);

}  // namespace QOR
