/// \file
/// What is wrong with a command line, and what was probably meant.
#pragma once

#include <CLI/CLI.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {

/// What to tell a person whose command line could not be read.
/// \param app that read it, as far as it came
std::string describeMistake(const CLI::App& app, const CLI::ParseError& error);

/// Takes one of these words. The complaint about any other names them, and what was probably meant.
CLI::Validator oneOfWords(std::vector<std::string> words);

/// The words of an option that takes one of some words; none for any other.
std::vector<std::string> wordsOf(CLI::Option& option);

}  // namespace QOR
