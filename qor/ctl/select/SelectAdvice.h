/// \file
/// What somebody may have meant whose request for rows of a view was refused.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "QORDBSchema/SchemaTable.h"
#include "select/SelectRequest.h"

namespace QOR {

/// "did you mean a, b or c?" of names near the written one; where none is near, which there are, if these are few;
/// else empty.
std::string adviseOnNames(std::string_view written, std::span<const std::string_view> names);

/// A line for each time in a text that is not written as times are: `2024-5-1`, or one outside of quotes. Empty for
/// none.
std::string adviseOnTimes(std::string_view text);

/// What can be told of the options alone, lines; empty where nothing is wrong with them that can be seen.
std::string adviseOnWriting(const SelectOptions& options);

/// What can be told of them beside the views that there are: names that nothing has, and where they stand.
/// \param now as makeSelectRequest()'s
std::string adviseOnSelect(const SelectOptions& options, const std::vector<QORViewColumn>& views, std::int64_t now);

/// A column of a view that says who may read a row: people are not shown it.
bool isOfRowSecurity(std::string_view column);

}  // namespace QOR
