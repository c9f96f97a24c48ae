/// \file
/// Values of options that begin with a dash.
#pragma once

#include <string>
#include <vector>

namespace QOR {

/// Ties values that begin with '-' to their options: "--sort -time" becomes "--sort=-time". The word behind --sort,
/// --where or --client is always its value; further words behind --sort are, unless they are options of the command
/// themselves (two dashes, -f, -o, -h, or -o with a format).
std::vector<std::string> tieValues(const std::vector<std::string>& arguments);

}  // namespace QOR
