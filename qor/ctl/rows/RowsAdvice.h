/// \file
/// What a person should know about a request for rows that is not exact: the sources of operator "pager" take a few
/// constants from the filter, do not sort, and leave everything else to exact requests and to the views.
#pragma once

#include <string>
#include <vector>

#include "filter/FilterNames.h"
#include "rows/RowsRequest.h"

namespace QOR {

/// A sentence for each part of the request that has no effect, and the command that does what was meant; nothing of an
/// exact request, of which every part has one.
std::vector<std::string> adviseOnRows(const RowsOptions& options);

/// What helps somebody whose request was refused: names that nothing has, times and texts that are written otherwise.
/// Lines; empty where nothing is wrong with it that can be seen.
std::string adviseOnRefusedRows(const RowsOptions& options, const FilterNames& names);

/// What each source takes from a filter, a line each.
std::string describeSources();

}  // namespace QOR
