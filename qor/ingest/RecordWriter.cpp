#include "ingest/RecordWriter.h"

#include <utility>

#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORStoredDocuments.h"
#include "QORLibAgent/QORBinder.h"
#include "QORLibAgent/QOREnvTable.h"
#include "ingest/RecordTables.h"

namespace QOR {
namespace {

constexpr std::string_view deleteAddresses = "DELETE FROM qor_environment_address WHERE eid = ?";
constexpr std::string_view insertAddress =
    "INSERT INTO qor_environment_address (eid, source, position, address) VALUES (?, ?, ?, ?)";

constexpr std::string_view selectOperation = "SELECT seq, status, message, time, eid FROM qor_operation WHERE id = ?";
constexpr std::string_view selectTouched = "SELECT eid FROM qor_operation_environment WHERE operation = ?";
constexpr std::string_view deleteTouched = "DELETE FROM qor_operation_environment WHERE operation = ?";
constexpr std::string_view insertTouched =
    "INSERT INTO qor_operation_environment (operation, position, own, time, eid) VALUES (?, ?, ?, ?, ?)";
/// Many at once: a statement for each would cost more than what it stores.
constexpr std::string_view insertManyTouched =
    "INSERT INTO qor_operation_environment (operation, position, own, time, eid) "
    "SELECT o.operation, e.key, o.own, o.time, e.value "
    "FROM (SELECT ? AS operation, ? AS own, ? AS time) o CROSS JOIN json_each(?) e";
constexpr const char* lastOperation = "SELECT coalesce(max(seq), 0) FROM qor_operation";

constexpr const char* lastEvent = "SELECT coalesce(max(seq), 0) FROM qor_event";

}  // namespace

QORStored RecordWriter::store(const QORRecord& record) {
    return std::visit([this](const auto& one) { return put(one); }, record);
}

void RecordWriter::finish() {
    if (m_counters.counts()) {
        for (const auto& [table, ids] : m_replaced)
            forgetUnreadableDocuments(m_session, table, ids);
        noteChangedEnvironments(m_session, m_environments);
        for (const std::string& eid : m_environments)
            m_notes.addEnvironment(eid);
        m_notes.finish(m_session);
    }
    m_counters.finish();
}

QORStored RecordWriter::put(const QOREnvironmentRecord& record) {
    const bool added = environmentTable().insert(m_session, record);
    m_environments.push_back(record.eid.toString());
    if (!added) {
        environmentTable().update(m_session, record);
        m_replaced["qor_environment"].push_back(m_environments.back());
        ASStatement& clear = m_session.prepare(deleteAddresses);
        QORBinder(clear).eid(record.eid);
        clear.execute(ASTriggers::Skip);
    }
    putAddresses(record.eid, 0, record.config);
    putAddresses(record.eid, 1, record.virtualConfig);
    return added ? QORStored::Added : QORStored::Replaced;
}

void RecordWriter::putAddresses(const QOREID& eid, std::int64_t source, const std::optional<QORConfigRecord>& config) {
    if (!config) return;
    std::int64_t position = 0;
    for (const std::string& address : config->addresses) {
        ASStatement& insert = m_session.prepare(insertAddress);
        QORBinder(insert).eid(eid).integer(source).integer(position++).text(address);
        insert.execute(ASTriggers::Skip);
    }
}

QORStored RecordWriter::put(const QOROperationRecord& record) {
    StoredOperation stored(record);
    if (m_keepEqual && isEqual(record, stored.message)) return QORStored::Unchanged;
    stored.sequence = nextSequence(m_lastOperation, lastOperation);
    if (operationTable().insert(m_session, stored)) {
        putTouched(stored.sequence, record);
        m_notes.add(QORChangeKind::Operation, stored.sequence);
        return QORStored::Added;
    }
    --m_lastOperation;  // the number was not used: the operation keeps that of its first arrival
    const std::int64_t kept = discount(record.id);
    ASStatement& clear = m_session.prepare(deleteTouched);
    QORBinder(clear).integer(kept);
    clear.execute(ASTriggers::Skip);
    operationTable().update(m_session, stored);
    putTouched(kept, record);
    m_notes.add(QORChangeKind::Operation, kept);
    m_replaced["qor_operation"].push_back(record.id);
    return QORStored::Replaced;
}

bool RecordWriter::isEqual(const QOROperationRecord& record, const std::optional<std::string>& message) {
    ASStatement& select = m_session.prepare(selectOperation);
    QORBinder(select).text(record.id);
    select.execute();
    const bool equal = select.fetch() && select.integer(2) == record.status && select.isNull(3) == !message &&
                       (!message || select.text(3) == *message);
    select.close();
    return equal;
}

std::int64_t RecordWriter::discount(const std::string& operationId) {
    ASStatement& select = m_session.prepare(selectOperation);
    QORBinder(select).text(operationId);
    select.execute();
    if (!select.fetch()) throw AException("an operation that is there cannot be found");
    const std::int64_t sequence = select.integer(1);
    const std::string stored(select.text(4));
    QOREID own;
    if (!select.isNull(5)) own.fromString(select.text(5));
    select.close();
    const std::int64_t time = str2time(stored);
    // What another program wrote in a form of its own is in no counter.
    if (!m_counters.counts() || time2dbstr(time) != stored) return sequence;
    std::vector<QOREID> eids;
    ASStatement& touched = m_session.prepare(selectTouched);
    QORBinder(touched).integer(sequence);
    touched.execute();
    while (touched.fetch()) {
        QOREID eid;
        if (eid.fromString(touched.text(1))) eids.push_back(eid);
    }
    touched.close();
    m_counters.addOperation(time, own, eids, -1);
    return sequence;
}

void RecordWriter::putTouched(std::int64_t operation, const QOROperationRecord& record) {
    if (m_counters.counts()) m_counters.addOperation(record.time, record.eid, record.eids);
    if (record.eids.size() > 1) return putManyTouched(operation, record);
    if (record.eids.empty()) return;
    ASStatement& insert = m_session.prepare(insertTouched);
    QORBinder(insert).integer(operation).integer(0).eid(record.eid).time(record.time).eid(record.eids.front());
    insert.execute(ASTriggers::Skip);
}

void RecordWriter::putManyTouched(std::int64_t operation, const QOROperationRecord& record) {
    std::string json;
    json.reserve(record.eids.size() * 39 + 2);
    for (const QOREID& eid : record.eids) {
        json += json.empty() ? '[' : ',';
        json += '"' + eid.toString() + '"';
    }
    json += ']';
    ASStatement& insert = m_session.prepare(insertManyTouched);
    QORBinder(insert).integer(operation).eid(record.eid).time(record.time).text(json);
    insert.execute(ASTriggers::Skip);
}

std::int64_t RecordWriter::nextSequence(std::int64_t& last, const char* select) {
    if (last < 0) {
        ASStatement& query = m_session.prepare(select);
        query.execute();
        last = query.fetch() ? query.integer(1) : 0;
        query.close();
    }
    return ++last;
}

QORStored RecordWriter::put(const QOREventRecord& record) {
    const std::int64_t sequence = nextSequence(m_lastEvent, lastEvent);
    if (!eventTable().insert(m_session, {record, sequence})) {
        --m_lastEvent;
        return QORStored::Unchanged;
    }
    m_notes.add(QORChangeKind::Event, sequence);
    if (m_counters.counts() && record.category) m_counters.addEvent(record.time, record.eid, *record.category);
    return QORStored::Added;
}

QORStored RecordWriter::put(const QORBackupRecord& record) {
    const bool added = backupTable().insert(m_session, record);
    if (!added) backupTable().update(m_session, record);
    noteBackup(record.id);
    if (added) return QORStored::Added;
    m_replaced["qor_backup"].push_back(record.id);
    return QORStored::Replaced;
}

void RecordWriter::noteBackup(const std::string& id) {
    if (!m_counters.counts()) return;
    ASStatement& select = m_session.prepare("SELECT seq FROM qor_backup WHERE id = ?");
    QORBinder(select).text(id);
    select.execute();
    if (select.fetch()) m_notes.add(QORChangeKind::Backup, select.integer(1));
    select.close();
}

}  // namespace QOR
