/// \file
/// What the help of commands has beside their options.
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {

/// Puts examples in front of what stands behind the options of each command, those of groups among them.
void addExamples(CLI::App& app);

/// Lines that are longer than so many columns are broken between words; what describes an option stays below its
/// beginning. \param width 0: none is broken
std::string wrapHelp(std::string_view text, std::size_t width);

/// "help X" is "X --help".
std::vector<std::string> helpAsOption(std::vector<std::string> arguments);

}  // namespace QOR
