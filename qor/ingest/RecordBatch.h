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

/// A record and when it came. Refers to it.
struct ArrivedRecord {
    const QORRecord* record;
    std::int64_t number = 0;  ///< among all arrivals; 0: the database gives one out
    std::uint64_t line = 0;   ///< of the request that brought it
};

/// Stores the records as if one after the other, within the caller's transaction for writing: of several with one
/// identifier the last stays, with the number of the first. All of them are numbered, or none is; environments never
/// are. \param keepEqual an operation that is stored already, with the same status and message, is left alone
/// \throws AException
RecordBatchCounts storeTogether(ASSession& session, std::span<const ArrivedRecord> records, bool keepEqual);

}  // namespace QOR
