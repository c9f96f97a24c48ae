/// \file
/// What a failure of the database means, in the same words for every engine.
#pragma once

namespace QOR {

/// For whoever has to decide what to do next. Which of an engine's own codes means what tells its dialect.
enum class ASFailure : unsigned char {
    Statement,    ///< the statement cannot be run as it is, or not on the rows that it met
    Ended,        ///< it was ended before its time
    Locked,       ///< somebody else's lock was waited for in vain
    Undone,       ///< the engine gave the transaction up for another one's sake: it may be run again as it is
    Stale,        ///< what was prepared no longer fits the database: it has to be prepared again
    Aborted,      ///< an earlier statement of the transaction has failed
    ReadOnly,     ///< nothing may be written here
    Denied,       ///< a right is missing
    Full,         ///< there is no space
    InputOutput,  ///< a disk failed
    Corrupt,      ///< what is stored makes no sense
    Unreachable,  ///< there is no connection to the database, or no longer; nothing of the transaction is stored
    Memory,       ///< the engine lacks memory, or cannot go on for a reason of its own
    Undecided,    ///< a commit was sent, and nobody can say whether it was carried out
};

/// Whether nothing is wrong with what was asked for or is stored, so that it may well be done later.
constexpr bool isOutage(ASFailure failure) noexcept {
    return failure == ASFailure::Unreachable || failure == ASFailure::Locked || failure == ASFailure::Undone ||
           failure == ASFailure::Memory;
}

}  // namespace QOR
