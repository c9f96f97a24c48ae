/// \file
/// What makes shells ask qorctl how a command line goes on.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace QOR {

/// "bash", "fish", "zsh".
std::vector<std::string> completionShells();

/// The script for one of these shells.
std::string_view completionScript(std::string_view shell);

}  // namespace QOR
