#include "ingest/RecordBatch.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "ingest/RecordTables.h"

namespace QOR {
namespace {

/// Rows of these environments or operations, whose others go.
constexpr std::string_view removeAddresses =
    "DELETE FROM qor_environment_address WHERE eid IN "
    "(SELECT CAST(value AS uuid) FROM json_array_elements_text(CAST(? AS json)))";
constexpr std::string_view storeAddresses =
    "INSERT INTO qor_environment_address (eid, source, position, address) SELECT r.eid, r.source, r.position, "
    "r.address "
    "FROM json_to_recordset(CAST(? AS json)) AS r (eid uuid, source int, position int, address text)";
constexpr std::string_view removeTouched =
    "DELETE FROM qor_operation_environment WHERE operation IN (SELECT seq FROM qor_operation WHERE id IN "
    "(SELECT value FROM json_array_elements_text(CAST(? AS json))))";
constexpr std::string_view storeTouched =
    "INSERT INTO qor_operation_environment (operation, eid, position, own, time) "
    "SELECT o.seq, e.eid, e.place - 1, o.eid, o.time "
    "FROM json_to_recordset(CAST(? AS json)) AS r (id text, eids uuid[]) JOIN qor_operation o ON o.id = r.id "
    "CROSS JOIN unnest(r.eids) WITH ORDINALITY AS e (eid, place)";
constexpr std::string_view selectStored =
    "SELECT id, status, message FROM qor_operation WHERE id IN "
    "(SELECT value FROM json_array_elements_text(CAST(? AS json)))";

void appendElement(std::string& array, std::string_view text) {
    array += array.empty() ? '[' : ',';
    appendJsonString(text, array);
}

/// \param array without its end; nothing is run for an empty one
void run(ASSession& session, std::string_view sql, std::string array) {
    if (array.empty()) return;
    array += ']';
    session.prepare(sql).bind(1, std::string_view(array)).execute();
}

/// The records of one kind: the last of each identifier, in the order in which the first ones came.
template <class Record>
class Latest {
public:
    struct One {
        const Record* record;
        std::int64_t number;
    };

    template <class Key>
    void add(const Key& key, const Record& record, std::int64_t number) {
        const auto [place, isNew] = m_places.try_emplace(std::string(key), m_records.size());
        if (isNew) {
            m_records.push_back({&record, number});
        } else {
            m_records[place->second].record = &record;
        }
        ++m_count;
    }

    const std::vector<One>& records() const noexcept { return m_records; }
    bool isNumbered() const noexcept { return !m_records.empty() && m_records.front().number != 0; }
    /// \param added how many of the records that are stored were new
    QORIngestCounts counts(std::uint64_t added, std::uint64_t unchanged = 0) const {
        return {added, m_count - added, unchanged};
    }

private:
    std::map<std::string, std::size_t, std::less<>> m_places;
    std::vector<One> m_records;
    std::uint64_t m_count = 0;
};

QORIngestCounts storeEnvironments(ASSession& session, const Latest<QOREnvironmentRecord>& environments) {
    std::string rows;
    std::string eids;
    std::string addresses;
    for (const auto& [record, number] : environments.records()) {
        environmentTable().append(rows, *record);
        appendElement(eids, record->eid.toString());
        for (const auto& [source, config] : {std::pair(0, &record->config), std::pair(1, &record->virtualConfig)}) {
            if (!*config) continue;
            std::int64_t position = 0;
            for (const std::string& address : (*config)->addresses) {
                addresses += addresses.empty() ? '[' : ',';
                RecordJson row(addresses);
                row.column("eid");
                row.eid(record->eid);
                row.column("source");
                row.integer(source);
                row.column("position");
                row.integer(position++);
                row.column("address");
                row.text(address);
                row.end();
            }
        }
    }
    if (rows.empty()) return {};
    const std::uint64_t added = environmentTable().storeMany(session, std::move(rows));
    if (added < environments.records().size()) run(session, removeAddresses, std::move(eids));
    run(session, storeAddresses, std::move(addresses));
    return environments.counts(added);
}

QORIngestCounts storeBackups(ASSession& session, const Latest<QORBackupRecord>& backups) {
    std::string rows;
    for (const auto& [record, number] : backups.records())
        backupTable().append(rows, *record, number);
    if (rows.empty()) return {};
    return backups.counts(backupTable().storeMany(session, std::move(rows), backups.isNumbered()));
}

QORIngestCounts storeEvents(ASSession& session, const std::vector<ArrivedRecord>& events) {
    std::string rows;
    for (const ArrivedRecord& event : events)
        eventTable().append(rows, {std::get<QOREventRecord>(*event.record), 0}, event.number);
    if (rows.empty()) return {};
    const std::uint64_t added = eventTable().storeMany(session, std::move(rows), events.front().number != 0);
    return {added, 0, events.size() - added};
}

QORIngestCounts storeOperations(ASSession& session, const Latest<QOROperationRecord>& operations,
                                std::uint64_t unchanged) {
    std::string rows;
    std::string ids;
    std::string touched;
    for (const auto& [record, number] : operations.records()) {
        operationTable().append(rows, StoredOperation(*record), number);
        appendElement(ids, record->id);
        if (record->eids.empty()) continue;
        touched += touched.empty() ? '[' : ',';
        RecordJson row(touched);
        row.column("id");
        row.text(record->id);
        row.column("eids");
        std::string eids;
        for (const QOREID& eid : record->eids)
            appendElement(eids, eid.toString());
        touched += eids + ']';
        row.end();
    }
    if (rows.empty()) return {0, 0, unchanged};
    const std::uint64_t added = operationTable().storeMany(session, std::move(rows), operations.isNumbered());
    if (added < operations.records().size()) run(session, removeTouched, std::move(ids));
    run(session, storeTouched, std::move(touched));
    return operations.counts(added, unchanged);
}

/// Leaves out operations that are what they were when their turn comes.
class Equal {
public:
    Equal(ASSession& session, std::span<const ArrivedRecord> records) {
        std::string ids;
        for (const ArrivedRecord& one : records) {
            if (const auto* operation = std::get_if<QOROperationRecord>(one.record)) appendElement(ids, operation->id);
        }
        if (ids.empty()) return;
        ASStatement& select = session.prepare(selectStored);
        select.bind(1, std::string_view(ids + ']')).execute();
        while (select.fetch()) {
            std::optional<std::string> message;
            if (!select.isNull(3)) message.emplace(select.text(3));
            m_known[std::string(select.text(1))] = {select.integer(2), std::move(message)};
        }
        select.close();
    }

    bool take(const QOROperationRecord& record) {
        Known now{record.status, StoredOperation(record).message};
        const auto [place, isNew] = m_known.try_emplace(record.id, now);
        if (!isNew && place->second == now) return true;
        place->second = std::move(now);
        return false;
    }

private:
    using Known = std::pair<std::int64_t, std::optional<std::string>>;  // status and message
    std::map<std::string, Known, std::less<>> m_known;
};

}  // namespace

RecordBatchCounts storeTogether(ASSession& session, std::span<const ArrivedRecord> records, bool keepEqual) {
    Latest<QOREnvironmentRecord> environments;
    Latest<QOROperationRecord> operations;
    Latest<QORBackupRecord> backups;
    std::vector<ArrivedRecord> events;
    std::uint64_t unchanged = 0;
    std::optional<Equal> equal;
    if (keepEqual) equal.emplace(session, records);
    for (const ArrivedRecord& one : records) {
        const QORRecord& record = *one.record;
        if (const auto* environment = std::get_if<QOREnvironmentRecord>(&record)) {
            environments.add(environment->eid.toString(), *environment, 0);
        } else if (const auto* backup = std::get_if<QORBackupRecord>(&record)) {
            backups.add(backup->id, *backup, one.number);
        } else if (kindOf(record) == QORRecordKind::Event) {
            events.push_back(one);
        } else if (const auto& operation = std::get<QOROperationRecord>(record); equal && equal->take(operation)) {
            ++unchanged;
        } else {
            operations.add(operation.id, operation, one.number);
        }
    }
    // The logs last: others wait for the counters of all their records until this transaction ends.
    RecordBatchCounts counts;
    counts[static_cast<std::size_t>(QORRecordKind::Environment)] = storeEnvironments(session, environments);
    counts[static_cast<std::size_t>(QORRecordKind::Backup)] = storeBackups(session, backups);
    counts[static_cast<std::size_t>(QORRecordKind::Event)] = storeEvents(session, events);
    counts[static_cast<std::size_t>(QORRecordKind::Operation)] = storeOperations(session, operations, unchanged);
    return counts;
}

}  // namespace QOR
