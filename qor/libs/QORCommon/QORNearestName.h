/// \file
/// What somebody may have meant who wrote a name that there is not.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

/// The names that a written one may have been meant to be, the nearest first, at most three; none where nothing
/// resembles it. Letters are compared without regard to case. Of names with points, parts may be left out from the
/// beginning.
/// \param names views that outlive the result, in the order that counts among equally near ones
QOR_API std::vector<std::string_view> nearestNames(std::string_view written, std::span<const std::string_view> names);

/// The same as the end of a sentence: " (did you mean threads or trends?)"; empty where nothing resembles it.
QOR_API std::string adviseOnName(std::string_view written, std::span<const std::string_view> names);

}  // namespace QOR
