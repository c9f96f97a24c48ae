/// \file
/// Where in a command line somebody is writing.
#pragma once

#include <CLI/CLI.hpp>
#include <map>
#include <string>
#include <vector>

namespace QOR {

struct CompletionPlace {
    CLI::App* command = nullptr;               ///< the innermost that was named
    std::string name;                          ///< its name, of a group's "identity add"; empty for the program
    CLI::Option* option = nullptr;             ///< whose value is written; null: a command or an option
    std::string front;                         ///< of the word: "--output=", which is not the value's
    std::string beginning;                     ///< what there is of the value, or of the name
    std::map<std::string, std::string> given;  ///< values so far, the last of each, by valueName()

    /// Empty where nobody gave it.
    std::string valueOf(const std::string& givenName) const;
};

/// "--view", or for what has no such name that of its place: "file".
std::string valueName(const CLI::Option& option);

/// \param words behind the program's name; the last is the one being written
CompletionPlace findCompletionPlace(CLI::App& app, const std::vector<std::string>& words);

}  // namespace QOR
