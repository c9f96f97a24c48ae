/// \file
/// What is told to the person who runs the command, beside its output.
#pragma once

#include <string_view>

namespace QOR {

/// A line to standard error, behind "qorctl: ".
void tellPerson(std::string_view text);

/// The same for what a person may like to know, unless he wants no notes.
void tellNote(std::string_view text);
/// For the whole process, before the command runs.
void setQuiet(bool quiet) noexcept;

}  // namespace QOR
