/// \file
/// Whether the counters of a log agree with its records, and what belongs to an operation with the operation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORLibAgent/QORLogCounters.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// The scopes of a log whose counters do not agree with its records, each once. Walks the log's indexes and counters,
/// within the caller's transaction, and writes nothing. \throws AException
QOR_API std::vector<std::string> findMiscountedScopes(ASSession& session, QORLogKind kind);

/// How many environments that operations touch have not the time and the environment of their operation, or belong to
/// none. \throws AException
QOR_API std::uint64_t countStrayTouched(ASSession& session);

/// Gives them what they should have, and removes those of no operation. The counters do not follow.
QOR_API void mendStrayTouched(ASSession& session);

/// How many records of a log have a time that is not of the stored form. They are in no counter, and no page is sure
/// to show them. \throws AException
QOR_API std::uint64_t countUnreadableTimes(ASSession& session, QORLogKind kind);

}  // namespace QOR
