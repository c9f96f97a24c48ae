/// \file
/// Stored records as lines of NDJSON again, from which an equal record is made.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "ingest/QORRecords.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

struct RecordLine {
    std::string text{};  ///< with its line's end
    /// Environments that it is about, touches or is below: who may write about them is told by where these are.
    std::vector<std::string> needs{};
    bool lacksDocument = false;  ///< one that cannot be read
};
/// By what tells a record from others of its kind: the environment's identifier, the event's number, else the record's
/// own identifier.
using RecordLines = std::map<std::string, RecordLine, std::less<>>;

/// Reads records as they are now. What is gone is left out.
/// \param stream an event without an identifier gets one that is made of this, its number of arrival and what it says:
/// the same whenever it is read, also out of a copy of the database, and another one when a later event has its number.
/// Null: it gets none
/// \throws AException
RecordLines readRecordLines(ASSession& session, QORRecordKind kind, const std::vector<std::string>& ids,
                            const QORGUIDBase* stream);

/// A record that was made here as a line, from which an equal one is read. \pre its texts are UTF-8
std::string lineOf(const QOREnvironmentRecord& record);
std::string lineOf(const QOROperationRecord& record);
std::string lineOf(const QOREventRecord& record);
std::string lineOf(const QORBackupRecord& record);

/// Identifiers as the parameter of a statement, where recordListSql() has its place.
std::string recordList(const std::vector<std::string>& ids);
/// A select of the identifiers in that parameter. \param type of PostgreSQL's
std::string recordListSql(ASEngine engine, const std::string& type);

}  // namespace QOR
