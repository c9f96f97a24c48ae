/// \file
/// The manual page of qorctl, made of its commands and options.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>

namespace QOR {

/// In place of a command, how the page is asked for when packages are made.
constexpr std::string_view manualQuestion = "__manual";

/// In the language of man(7).
std::string manualPage(CLI::App& app, std::string_view version);

}  // namespace QOR
