/// \file
/// Texts of man(7), for programs that write their own manual pages.
#pragma once

#include <string>
#include <string_view>

namespace QOR {

/// Text that means nothing to the formatter, so that it is shown as it is.
std::string manualText(std::string_view text);

/// A term, and what is said of it below.
std::string manualEntry(std::string_view term, std::string_view meaning);

}  // namespace QOR
