/// \file
/// What a command line that somebody is writing may go on with.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {

/// In place of a command, how the shells' scripts ask.
constexpr std::string_view completionQuestion = "__complete";

/// Prints what may stand where somebody is writing, a line each: the word, and behind a tab what it means. A line that
/// begins with ':' is for the shell: ":files" says that a file's name may stand there, ":open" that a word found is not
/// the end of what is written, so that no blank follows it.
///
/// Names of views, columns, fields and identities come from who would be asked. Ends the process, silently, with what
/// is printed by then when he takes longer than 300 ms, or than QOR_COMPLETION_WAIT says (milliseconds).
/// \param asked how the shell asks: "bash" and the line up to where somebody writes, or "words" and the words behind
/// the program's name, the last of them the one being written
void completeCommandLine(CLI::App& app, const std::vector<std::string>& asked);

}  // namespace QOR
