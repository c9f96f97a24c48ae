/// \file
/// What commands share about their output.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "commands/Commands.h"

namespace QOR {

/// Where rows are printed: standard output, through a pager where a person reads them.
std::unique_ptr<Output> openOutput(const PrintOptions& print);

/// A printer onto standard output's buffer, fitted to the terminal where there is one.
std::unique_ptr<RowSink> makePrinter(const PrintOptions& print, bool counts, Output& out, ColumnKinds kinds = {});

/// Whether values look other by what they are, so that it has to be known what columns hold.
bool tellsKinds(const PrintOptions& print);

/// What was printed.
struct PrintedAnswer {
    std::int64_t rows = 0;
    bool hasNext = false;  ///< the answer names a page behind it
};

/// Asks, and prints what is answered onto standard output, counts that the form has no place for beside it.
/// \param columns in the order in which they were asked for; empty: as the answer has them
/// \param kinds of columns, where tellsKinds()
/// \throws CtlError AnsweredError when the answer holds an error; the rows before it are printed then
PrintedAnswer printAnswer(Backend& backend, const std::string& request, const PrintOptions& print, bool counts,
                          std::vector<std::string> columns = {}, ColumnKinds kinds = {});

/// Tells a client that stands for no environment so: its answers lack rows, and nothing else would say why.
/// \param client what --client says; empty: oneself
void tellOfNoEnvironment(Backend& backend, const std::vector<std::string>& client);

/// A line to standard error, behind "qorctl: ".
void tellPerson(std::string_view text);

/// The same for what a person may like to know, unless he wants no notes.
void tellNote(std::string_view text);
/// For the whole process, before the command runs.
void setQuiet(bool quiet) noexcept;

}  // namespace QOR
