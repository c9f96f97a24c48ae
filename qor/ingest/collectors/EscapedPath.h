/// \file
/// Paths in whatever bytes as words of ASCII.
#pragma once

#include <string>
#include <string_view>

namespace QOR {

/// The path with blanks, backslashes, control characters and bytes above 126 as "\040", as the kernel writes mounts;
/// and back.
std::string escapePath(std::string_view path);
std::string unescapePath(std::string_view escaped);

}  // namespace QOR
