/// \file
/// What the agent answers beside messages, read back into the structures that a host in this process gives.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORDBSchema/SchemaTable.h"
#include "QORLibLocal/QORVocabulary.h"
#include "backend/Backend.h"
#include "ingest/QORCollectors.h"
#include "ingest/QORIngest.h"

namespace QOR {

/// What stands in place of a problem document (RFC 9457) for those who read answers: an answer in message notation
/// whose error is the problem.
std::string notationOfProblem(std::string_view json);

/// Throws the error that an answer holds, CtlError AnsweredError.
[[noreturn]] void throwAnsweredError(std::string_view json);

/// Each throws CtlError AnsweredError: with the answer's own error when it holds one in place of what was asked for,
/// else saying that it cannot be read. An error beside counts is left to the counts' `failure`.
QORIngestResult readIngestReply(std::string_view json);
QORCollectResult readCollectReply(std::string_view json);
std::vector<QORViewColumn> readViewsReply(std::string_view json);
QORPtr<const QORVocMap> readVocabularyReply(std::string_view json);
/// From the health: false when it says that the asker sees no environment. An agent that does not say has not been
/// asked by anybody who must be told.
bool readAccess(std::string_view json);
QORDatabaseStatus readStatusReply(std::string_view json);
/// From the status; nothing of an agent that sends nothing on.
std::optional<AgentForwarding> readForwardingReply(std::string_view json);
/// What an agent says of its settings; empty for one that says nothing.
std::string readSettingsReply(std::string_view json);
/// From the status; nothing of an agent that has not collected.
std::optional<AgentCollected> readCollectedReply(std::string_view json);
/// From the status; none of an agent that does not tell.
std::vector<AgentCollector> readCollectorsReply(std::string_view json);
/// From an agent's numbers, in Prometheus's form: those that were met.
std::vector<AgentLimit> readMetLimits(std::string_view metrics);
AgentHealth readHealthReply(std::string_view json);
std::vector<QORCheckFinding> readCheckReply(std::string_view json);
Backend::Pruned readPruneReply(std::string_view json);
QORIdentityList readIdentitiesReply(std::string_view json);
/// Of a change: `key` is what says that it was made.
void readChangeReply(std::string_view json, const char* key);
std::string readTokenReply(std::string_view json);
std::uint64_t readRevokedReply(std::string_view json);

}  // namespace QOR
