/// \file
/// What commands share about their output.
#pragma once

#include <memory>
#include <string_view>

#include "commands/Commands.h"

namespace QOR {

/// A printer onto standard output's buffer, fitted to the terminal where there is one.
std::unique_ptr<QORRowSink> makePrinter(const QORPrintOptions& print, bool counts, QOROutput& out);

/// A line to standard error, behind "qorctl: ".
void tellPerson(std::string_view text);

}  // namespace QOR
