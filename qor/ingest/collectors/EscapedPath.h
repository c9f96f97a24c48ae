/// \file
/// Paths in whatever bytes as words of ASCII, and lines of such words.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace QOR {

/// The path with blanks, backslashes, control characters and bytes above 126 as "\040", as the kernel writes mounts;
/// and back.
std::string escapePath(std::string_view path);
std::string unescapePath(std::string_view escaped);

/// The lines of a text without their ends. Valid as long as the text is.
std::vector<std::string_view> linesOf(std::string_view text);

/// What stands between the blanks of a line. Valid as long as the line is.
std::vector<std::string_view> wordsOf(std::string_view line);

}  // namespace QOR
