#include "ingest/RecordWriter.h"

#include <chrono>

#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORStoredDocuments.h"
#include "QORLibAgent/QORBinder.h"

namespace QOR {
namespace {

constexpr std::string_view insertEnvironment =
    "INSERT INTO qor_environment (parent_eid, title, state, transition, name, description, domain, hostname, "
    "architecture, type, os_name, os_platform, os_version, os_kernel, ip, memory, boot_time, config, virtual_config, "
    "updated, eid) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (eid) DO NOTHING";
constexpr std::string_view updateEnvironment =
    "UPDATE qor_environment SET parent_eid = ?, title = ?, state = ?, transition = ?, name = ?, description = ?, "
    "domain = ?, hostname = ?, architecture = ?, type = ?, os_name = ?, os_platform = ?, os_version = ?, "
    "os_kernel = ?, ip = ?, memory = ?, boot_time = ?, config = ?, virtual_config = ?, updated = ? WHERE eid = ?";
constexpr std::string_view deleteAddresses = "DELETE FROM qor_environment_address WHERE eid = ?";
constexpr std::string_view insertAddress =
    "INSERT INTO qor_environment_address (eid, source, position, address) VALUES (?, ?, ?, ?)";

constexpr std::string_view insertOperation =
    "INSERT INTO qor_operation (parent_id, op, status, time, eid, package, version, message, id, seq) "
    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (id) DO NOTHING";
constexpr std::string_view updateOperation =
    "UPDATE qor_operation SET parent_id = ?, op = ?, status = ?, time = ?, eid = ?, package = ?, version = ?, "
    "message = ? WHERE id = ?";
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

constexpr std::string_view insertEvent =
    "INSERT INTO qor_event (seq, time, eid, source, category, info) VALUES (?, ?, ?, ?, ?, ?)";
constexpr const char* lastEvent = "SELECT coalesce(max(seq), 0) FROM qor_event";

constexpr std::string_view insertBackup =
    "INSERT INTO qor_backup (eid, storage_eid, time, size, type, description, name, hostname, info, id) "
    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (id) DO NOTHING";
constexpr std::string_view updateBackup =
    "UPDATE qor_backup SET eid = ?, storage_eid = ?, time = ?, size = ?, type = ?, description = ?, name = ?, "
    "hostname = ?, info = ? WHERE id = ?";

std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::optional<std::string> serialized(const std::optional<QORInfo>& info) {
    if (!info) return std::nullopt;
    return info->serializeToString();
}

std::optional<std::string> documentOf(const std::optional<QORConfigRecord>& config) {
    if (!config) return std::nullopt;
    return config->document.serializeToString();
}

std::optional<std::string> firstAddress(const QORConfigRecord& config) {
    if (config.addresses.empty()) return std::nullopt;
    return config.addresses.front();
}

/// The parameter at a path that a column shows, when it is there and has no parameters of its own.
std::optional<std::string> parameterText(const std::optional<QORInfo>& info, std::string_view path) {
    const QORInfo* parameter = info ? info->findByPath(path) : nullptr;
    if (parameter == nullptr || !parameter->children().empty()) return std::nullopt;
    if (parameter->value().find('\0') != std::string::npos) return std::nullopt;
    return parameter->value();
}

void bindEnvironment(ASStatement& statement, const QOREnvironmentRecord& record) {
    static const QORConfigRecord none;
    const QORConfigRecord& config = record.config ? *record.config : none;
    QORBinder(statement)
        .eid(record.parentEid)
        .text(record.title)
        .integer(record.state)
        .integer(record.transition)
        .text(config.name)
        .text(config.description)
        .text(config.domain)
        .text(config.hostname)
        .text(config.architecture)
        .text(config.type)
        .text(config.osName)
        .text(config.osPlatform)
        .text(config.osVersion)
        .text(config.osKernel)
        .text(firstAddress(config))
        .integer(config.memory)
        .time(config.bootTime)
        .text(documentOf(record.config))
        .text(documentOf(record.virtualConfig))
        .time(now())
        .eid(record.eid);
}

QORBinder bindOperation(ASStatement& statement, const QOROperationRecord& record,
                        const std::optional<std::string>& message) {
    auto package = parameterText(record.message, "package/name");
    if (!package) package = parameterText(record.message, "package");
    QORBinder binder(statement);
    binder.text(record.parentId)
        .text(record.op)
        .integer(record.status)
        .time(record.time)
        .eid(record.eid)
        .text(package)
        .text(parameterText(record.message, "package/version"))
        .text(message)
        .text(record.id);
    return binder;
}

void bindBackup(ASStatement& statement, const QORBackupRecord& record) {
    QORBinder(statement)
        .eid(record.eid)
        .eid(record.storageEid)
        .time(record.time)
        .integer(record.size)
        .integer(record.type)
        .text(record.description)
        .text(record.name)
        .text(record.hostname)
        .bytes(serialized(record.info))
        .text(record.id);
}

QORPtr<const QOREnvConfig> toConfig(const std::optional<QORConfigRecord>& config) {
    if (!config) return nullptr;
    return makeQORPtr<QOREnvConfig>(QOREnvConfigData::fromDocument(config->document));
}

QORPtr<const QOREnv> toEnvironment(const QOREnvironmentRecord& record) {
    return makeQORPtr<QOREnv>(record.eid, record.parentEid, record.title,
                              QOREnv::Status{record.state, record.transition}, toConfig(record.config),
                              toConfig(record.virtualConfig));
}

}  // namespace

QORStored RecordWriter::store(const QORRecord& record) {
    return std::visit([this](const auto& one) { return put(one); }, record);
}

void RecordWriter::finish() {
    if (m_counters.counts()) {
        for (const auto& [table, ids] : m_replaced)
            forgetUnreadableDocuments(m_session, table, ids);
    }
    m_counters.finish();
}

QORStored RecordWriter::put(const QOREnvironmentRecord& record) {
    ASStatement& insert = m_session.prepare(insertEnvironment);
    bindEnvironment(insert, record);
    insert.execute();
    const bool added = m_session.changes() > 0;
    if (!added) {
        ASStatement& update = m_session.prepare(updateEnvironment);
        bindEnvironment(update, record);
        update.execute();
        m_replaced["qor_environment"].push_back(record.eid.toString());
        ASStatement& clear = m_session.prepare(deleteAddresses);
        QORBinder(clear).eid(record.eid);
        clear.execute();
    }
    putAddresses(record.eid, 0, record.config);
    putAddresses(record.eid, 1, record.virtualConfig);
    m_environments.push_back(toEnvironment(record));
    return added ? QORStored::Added : QORStored::Replaced;
}

void RecordWriter::putAddresses(const QOREID& eid, std::int64_t source, const std::optional<QORConfigRecord>& config) {
    if (!config) return;
    std::int64_t position = 0;
    for (const std::string& address : config->addresses) {
        ASStatement& insert = m_session.prepare(insertAddress);
        QORBinder(insert).eid(eid).integer(source).integer(position++).text(address);
        insert.execute();
    }
}

QORStored RecordWriter::put(const QOROperationRecord& record) {
    const auto message = serialized(record.message);
    if (m_keepEqual && isEqual(record, message)) return QORStored::Unchanged;
    m_counters.begin();
    const std::int64_t sequence = nextSequence(m_lastOperation, lastOperation);
    ASStatement& insert = m_session.prepare(insertOperation);
    bindOperation(insert, record, message).integer(sequence);
    insert.execute();
    if (m_session.changes() > 0) {
        putTouched(sequence, record);
        return QORStored::Added;
    }
    --m_lastOperation;  // the number was not used: the operation keeps that of its first arrival
    const std::int64_t kept = discount(record.id);
    ASStatement& clear = m_session.prepare(deleteTouched);
    QORBinder(clear).integer(kept);
    clear.execute();
    ASStatement& update = m_session.prepare(updateOperation);
    bindOperation(update, record, message);
    update.execute();
    putTouched(kept, record);
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
    insert.execute();
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
    insert.execute();
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
    m_counters.begin();
    const std::int64_t sequence = nextSequence(m_lastEvent, lastEvent);
    ASStatement& insert = m_session.prepare(insertEvent);
    QORBinder(insert)
        .integer(sequence)
        .time(record.time)
        .eid(record.eid)
        .text(record.source)
        .text(record.category)
        .text(serialized(record.info));
    insert.execute();
    if (m_counters.counts() && record.category) m_counters.addEvent(record.time, record.eid, *record.category);
    return QORStored::Added;
}

QORStored RecordWriter::put(const QORBackupRecord& record) {
    ASStatement& insert = m_session.prepare(insertBackup);
    bindBackup(insert, record);
    insert.execute();
    if (m_session.changes() > 0) return QORStored::Added;
    ASStatement& update = m_session.prepare(updateBackup);
    bindBackup(update, record);
    update.execute();
    m_replaced["qor_backup"].push_back(record.id);
    return QORStored::Replaced;
}

}  // namespace QOR
