/// \file
/// How a mistake in a text is shown to the person who typed it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "QORQuery/QORQueryError.h"

namespace QOR {

/// The message with its position (characters counted from 1), the line that holds the place, and a caret beneath it:
///
///     expected a column or a value, found ")" at character 5
///       a = ) and b = 2
///           ^
///
/// Tabs and control characters are shown as blanks, lines longer than `width` columns are cut around the place. Each
/// line ends in a line end.
std::string describeQueryError(std::string_view text, const QORQueryError& error, std::size_t width = 78);

}  // namespace QOR
