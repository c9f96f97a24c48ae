/// \file
/// RecordBatch: puts many records into the host's tables by a few statements, each with one parameter for all of them,
/// where a round trip costs more than what it brings. The database counts the logs itself.
#pragma once

#include <array>
#include <span>
#include <vector>

#include "ingest/QORIngest.h"
#include "ingest/QORRecords.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// What became of them, by QORRecordKind.
using RecordBatchCounts = std::array<QORIngestCounts, recordKindCount>;

/// Stores the records as if one after the other, within the caller's transaction for writing: of several with one
/// identifier the last stays. \param keepEqual an operation that is stored already, with the same status and message,
/// is left alone \throws AException
RecordBatchCounts storeTogether(ASSession& session, std::span<const QORRecord> records, bool keepEqual);

}  // namespace QOR
