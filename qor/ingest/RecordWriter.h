/// \file
/// RecordWriter: puts records into the host's tables, within the caller's transaction.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "QORLibAgent/QOREnv.h"
#include "QORLibAgent/QORLogCounters.h"
#include "QORLibAgent/QORRecordChanges.h"
#include "ingest/QORRecords.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// What became of a record.
enum class QORStored { Added, Replaced, Unchanged };

/// Lives within one transaction for writing, whose write lock lets it give out arrival numbers. Statements are
/// prepared once a connection and reused. They skip triggers: what these do for other programs, counting and
/// forgetting, is done here. \throws AException from every method
class RecordWriter {
public:
    /// \param keepEqual an operation that is stored already, with the same status and message, is left alone
    RecordWriter(ASSession& session, bool keepEqual)
        : m_session(session), m_keepEqual(keepEqual), m_counters(session) {}

    QORStored store(const QORRecord& record);

    /// What belongs to the records as a whole: the counters of the logs, what is known of documents that are no more,
    /// which environments changed, and the sequence of changed records. Before the transaction is committed.
    void finish();

private:
    QORStored put(const QOREnvironmentRecord& record);
    QORStored put(const QOROperationRecord& record);
    QORStored put(const QOREventRecord& record);
    QORStored put(const QORBackupRecord& record);

    void putAddresses(const QOREID& eid, std::int64_t source, const std::optional<QORConfigRecord>& config);
    void putTouched(std::int64_t operation, const QOROperationRecord& record);
    void putManyTouched(std::int64_t operation, const QOROperationRecord& record);
    /// Takes an operation that is about to be replaced out of what is counted here. \returns its sequence number
    std::int64_t discount(const std::string& operationId);
    void noteBackup(const std::string& id);
    bool isEqual(const QOROperationRecord& record, const std::optional<std::string>& message);
    std::int64_t nextSequence(std::int64_t& last, const char* select);

    ASSession& m_session;
    bool m_keepEqual;
    std::int64_t m_lastOperation = -1;  // not yet asked for
    std::int64_t m_lastEvent = -1;
    std::map<std::string_view, std::vector<std::string>> m_replaced;  // by table
    std::vector<std::string> m_environments;                          // that were stored
    QORLogCounters m_counters;
    QORRecordNotes m_notes;
};

}  // namespace QOR
