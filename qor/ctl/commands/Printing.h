/// \file
/// What commands share about their output.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "commands/Commands.h"
#include "process/TellPerson.h"

namespace QOR {

/// Where rows are printed: standard output, through a pager where a person reads them.
std::unique_ptr<Output> openOutput(const PrintOptions& print);

/// A printer onto standard output's buffer, fitted to the terminal where there is one.
std::unique_ptr<RowSink> makePrinter(const PrintOptions& print, bool counts, Output& out, ColumnKinds kinds = {},
                                     std::shared_ptr<const std::map<std::string, std::string>> environments = {});

/// Whether values look other by what they are, so that it has to be known what columns hold.
bool tellsKinds(const PrintOptions& print);

/// Whether what a command says itself is told in units and from now: in forms for people, on a terminal, where exact
/// times are not asked for.
bool isForPerson(const PrintOptions& print);

/// Whether a person is asked before a million rows roll by: at a terminal, unless he has said that he wants them.
bool asksBeforeMany(bool mayAsk);
/// Likewise where rows may go through a pager, which takes no more than is looked at.
bool asksBeforeMany(const PrintOptions& print);

/// What was printed.
struct PrintedAnswer {
    std::int64_t rows = 0;
    bool hasNext = false;  ///< the answer names a page behind it
};

/// How rows of an answer are shown.
struct AnswerForm {
    bool counts = false;
    std::vector<std::string> columns{};          ///< in the order in which they were asked for; empty: as answered
    std::map<std::string, std::string> shown{};  ///< other names of columns, by the answer's
    ColumnKinds kinds{};                         ///< by the names that are shown, where tellsKinds()
    bool namesEnvironments = true;               ///< beside their identifiers, for a person at a terminal
    std::vector<std::string> client{};           ///< as SelectOptions::client
    std::int64_t expected = 0;                   ///< rows that are known to come at least
};

/// Prints an answer onto standard output, counts that the form has no place for beside it.
/// \param ask gives the answer \param backend may be asked more when the answer has been read
/// \throws CtlError AnsweredError when the answer holds an error; the rows before it are printed then
PrintedAnswer printRows(const std::function<std::unique_ptr<AnswerSource>()>& ask, Backend& backend,
                        const PrintOptions& print, AnswerForm form);

/// Tells a client that stands for no environment so: its answers lack rows, and nothing else would say why.
/// \param client what --client says; empty: oneself
void tellOfNoEnvironment(Backend& backend, const std::vector<std::string>& client);

}  // namespace QOR
