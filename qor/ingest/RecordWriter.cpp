#include "ingest/RecordWriter.h"

#include <chrono>
#include <initializer_list>
#include <utility>

#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORStoredDocuments.h"
#include "QORLibAgent/QORBinder.h"

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

/// A column that something is stored in, and what is stored there.
template <class Stored>
struct Column {
    std::string_view name;
    void (*bind)(QORBinder& to, const Stored& stored);
    /// Instead of that, for one column a member of the configuration.
    void (*bindMember)(QORBinder& to, const Stored& stored, QOREnvMember member) = nullptr;
    QOREnvMember member{};
};

/// The statements that store something in a table, made of its columns.
template <class Stored>
class Table {
public:
    using Columns = std::vector<Column<Stored>>;

    /// \param key the column by which a record is found again, none for records that are only added \param arrival
    /// columns that a record keeps from its first arrival
    Table(const std::string& name, Columns columns, Columns key, Columns arrival)
        : m_columns(std::move(columns)), m_key(std::move(key)), m_arrival(std::move(arrival)) {
        std::string names;
        std::string values;
        for (const Columns* part : {&m_columns, &m_key, &m_arrival}) {
            for (const Column<Stored>& column : *part) {
                names += (names.empty() ? "" : ", ") + std::string(column.name);
                values += values.empty() ? "?" : ", ?";
            }
        }
        m_insert = "INSERT INTO " + name + " (" + names + ") VALUES (" + values + ")";
        if (m_key.empty()) return;
        const std::string keyName(m_key.front().name);
        m_insert += " ON CONFLICT (" + keyName + ") DO NOTHING";
        m_update = "UPDATE " + name + " SET ";
        for (const Column<Stored>& column : m_columns)
            m_update += (&column == m_columns.data() ? "" : ", ") + std::string(column.name) + " = ?";
        m_update += " WHERE " + keyName + " = ?";
    }

    /// \returns false when there is one with its key already, which stays as it is
    bool insert(ASSession& session, const Stored& stored) const {
        run(session, m_insert, stored, {&m_columns, &m_key, &m_arrival});
        return session.changes() > 0;
    }
    void update(ASSession& session, const Stored& stored) const {
        run(session, m_update, stored, {&m_columns, &m_key});
    }

private:
    static void run(ASSession& session, const std::string& sql, const Stored& stored,
                    std::initializer_list<const Columns*> parts) {
        ASStatement& statement = session.prepare(sql);
        QORBinder to(statement);
        for (const Columns* part : parts) {
            for (const Column<Stored>& column : *part) {
                column.bindMember != nullptr ? column.bindMember(to, stored, column.member) : column.bind(to, stored);
            }
        }
        statement.execute(ASTriggers::Skip);
    }

    Columns m_columns;
    Columns m_key;
    Columns m_arrival;
    std::string m_insert;
    std::string m_update;
};

const QORConfigRecord& configOf(const QOREnvironmentRecord& record) {
    static const QORConfigRecord none;
    return record.config ? *record.config : none;
}

void bindConfigText(QORBinder& to, const QOREnvironmentRecord& record, QOREnvMember member) {
    to.text(configOf(record).text(member));
}

const Table<QOREnvironmentRecord>& environments() {
    using Record = QOREnvironmentRecord;
    static const auto table = [] {
        Table<Record>::Columns columns{
            {"parent_eid", [](QORBinder& to, const Record& r) { to.eid(r.parentEid); }},
            {"title", [](QORBinder& to, const Record& r) { to.text(r.title); }},
            {"state", [](QORBinder& to, const Record& r) { to.integer(r.state); }},
            {"transition", [](QORBinder& to, const Record& r) { to.integer(r.transition); }},
            {"ip", [](QORBinder& to, const Record& r) { to.text(firstAddress(configOf(r))); }},
            {"memory", [](QORBinder& to, const Record& r) { to.integer(configOf(r).memory); }},
            {"boot_time", [](QORBinder& to, const Record& r) { to.time(configOf(r).bootTime); }},
            {"config", [](QORBinder& to, const Record& r) { to.text(documentOf(r.config)); }},
            {"virtual_config", [](QORBinder& to, const Record& r) { to.text(documentOf(r.virtualConfig)); }},
            {"updated", [](QORBinder& to, const Record&) { to.time(now()); }},
        };
        for (const QOREnvMemberRow& row : envMembers)
            columns.push_back({row.column, nullptr, bindConfigText, row.member});
        return Table<Record>("qor_environment", std::move(columns),
                             {{"eid", [](QORBinder& to, const Record& r) { to.eid(r.eid); }}}, {});
    }();
    return table;
}

/// An operation with what its columns are made of.
struct StoredOperation {
    explicit StoredOperation(const QOROperationRecord& from)
        : record(from), message(serialized(from.message)), package(parameterText(from.message, "package/name")) {
        if (!package) package = parameterText(from.message, "package");
    }

    const QOROperationRecord& record;
    std::optional<std::string> message;
    std::optional<std::string> package;
    std::int64_t sequence = 0;
};

const Table<StoredOperation>& operations() {
    using Stored = StoredOperation;
    static const Table<Stored> table(
        "qor_operation",
        {
            {"parent_id", [](QORBinder& to, const Stored& s) { to.text(s.record.parentId); }},
            {"op", [](QORBinder& to, const Stored& s) { to.text(s.record.op); }},
            {"status", [](QORBinder& to, const Stored& s) { to.integer(s.record.status); }},
            {"time", [](QORBinder& to, const Stored& s) { to.time(s.record.time); }},
            {"eid", [](QORBinder& to, const Stored& s) { to.eid(s.record.eid); }},
            {"package", [](QORBinder& to, const Stored& s) { to.text(s.package); }},
            {"version",
             [](QORBinder& to, const Stored& s) { to.text(parameterText(s.record.message, "package/version")); }},
            {"message", [](QORBinder& to, const Stored& s) { to.text(s.message); }},
        },
        {{"id", [](QORBinder& to, const Stored& s) { to.text(s.record.id); }}},
        {{"seq", [](QORBinder& to, const Stored& s) { to.integer(s.sequence); }}});
    return table;
}

struct StoredEvent {
    const QOREventRecord& record;
    std::int64_t sequence;
};

const Table<StoredEvent>& events() {
    using Stored = StoredEvent;
    static const Table<Stored> table(
        "qor_event",
        {
            {"seq", [](QORBinder& to, const Stored& s) { to.integer(s.sequence); }},
            {"time", [](QORBinder& to, const Stored& s) { to.time(s.record.time); }},
            {"eid", [](QORBinder& to, const Stored& s) { to.eid(s.record.eid); }},
            {"source", [](QORBinder& to, const Stored& s) { to.text(s.record.source); }},
            {"category", [](QORBinder& to, const Stored& s) { to.text(s.record.category); }},
            {"info", [](QORBinder& to, const Stored& s) { to.text(serialized(s.record.info)); }},
        },
        {}, {});
    return table;
}

const Table<QORBackupRecord>& backups() {
    using Record = QORBackupRecord;
    static const Table<Record> table(
        "qor_backup",
        {
            {"eid", [](QORBinder& to, const Record& r) { to.eid(r.eid); }},
            {"storage_eid", [](QORBinder& to, const Record& r) { to.eid(r.storageEid); }},
            {"time", [](QORBinder& to, const Record& r) { to.time(r.time); }},
            {"size", [](QORBinder& to, const Record& r) { to.integer(r.size); }},
            {"type", [](QORBinder& to, const Record& r) { to.integer(r.type); }},
            {"description", [](QORBinder& to, const Record& r) { to.text(r.description); }},
            {"name", [](QORBinder& to, const Record& r) { to.text(r.name); }},
            {"hostname", [](QORBinder& to, const Record& r) { to.text(r.hostname); }},
            {"info", [](QORBinder& to, const Record& r) { to.bytes(serialized(r.info)); }},
        },
        {{"id", [](QORBinder& to, const Record& r) { to.text(r.id); }}}, {});
    return table;
}

QORPtr<const QOREnvConfig> toConfig(const std::optional<QORConfigRecord>& config) {
    return config ? config->config : nullptr;
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
    const bool added = environments().insert(m_session, record);
    if (!added) {
        environments().update(m_session, record);
        m_replaced["qor_environment"].push_back(record.eid.toString());
        ASStatement& clear = m_session.prepare(deleteAddresses);
        QORBinder(clear).eid(record.eid);
        clear.execute(ASTriggers::Skip);
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
        insert.execute(ASTriggers::Skip);
    }
}

QORStored RecordWriter::put(const QOROperationRecord& record) {
    StoredOperation stored(record);
    if (m_keepEqual && isEqual(record, stored.message)) return QORStored::Unchanged;
    stored.sequence = nextSequence(m_lastOperation, lastOperation);
    if (operations().insert(m_session, stored)) {
        putTouched(stored.sequence, record);
        return QORStored::Added;
    }
    --m_lastOperation;  // the number was not used: the operation keeps that of its first arrival
    const std::int64_t kept = discount(record.id);
    ASStatement& clear = m_session.prepare(deleteTouched);
    QORBinder(clear).integer(kept);
    clear.execute(ASTriggers::Skip);
    operations().update(m_session, stored);
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
    events().insert(m_session, {record, nextSequence(m_lastEvent, lastEvent)});
    if (m_counters.counts() && record.category) m_counters.addEvent(record.time, record.eid, *record.category);
    return QORStored::Added;
}

QORStored RecordWriter::put(const QORBackupRecord& record) {
    if (backups().insert(m_session, record)) return QORStored::Added;
    backups().update(m_session, record);
    m_replaced["qor_backup"].push_back(record.id);
    return QORStored::Replaced;
}

}  // namespace QOR
