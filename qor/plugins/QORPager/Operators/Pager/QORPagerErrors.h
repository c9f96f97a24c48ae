/// \file
/// The module's own error table. Read-only after the module is loaded.
#pragma once

#include "QORFunctionality/QORErrors.h"

namespace QOR {

/// Codes of PagerErrors. Contract: never renumber.
enum PagerErrorCode : int {
    /// Takes the database's text. For a source that has nothing to say without the database: backups go on to the next
    /// thing that the filter asks for, and the logs fail in their own words (errFailure).
    pagerDatabaseError = 3101,
    pagerUnknownField = 3111,     ///< takes the field's name as the request spells it
    pagerParsingError = 3151,     ///< takes the parser's message or a complaint about the filter
    pagerEvaluatingError = 3152,  ///< takes the evaluator's message
};

/// What a step of a request gives back that cannot go on; the error has been added to the answer.
inline constexpr int failed = -1;

/// Code to printf format. The row of code 0 is the array's terminator, kept as an entry like the others.
extern QORErrorTable PagerErrors;

}  // namespace QOR
