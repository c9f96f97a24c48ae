/// \file
/// The words of a command line as a shell reads them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace QOR {

struct ShellLine {
    /// Without their quotes and backslashes; a quote that is not closed ends with the line. The last is the one being
    /// written, empty behind a blank.
    std::vector<std::string> words;
    /// The beginning of the last word that bash leaves alone when it completes it: up to a quote, '=' or ':'.
    std::string kept;
};

/// \param line up to where somebody writes
ShellLine readShellLine(std::string_view line);

}  // namespace QOR
