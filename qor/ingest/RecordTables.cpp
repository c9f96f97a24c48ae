#include "ingest/RecordTables.h"

#include "QORCommon/QORTime.h"

namespace QOR {
namespace {

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

const QORConfigRecord& configOf(const QOREnvironmentRecord& record) {
    static const QORConfigRecord none;
    return record.config ? *record.config : none;
}

std::optional<std::string> configText(const QOREnvironmentRecord& record, QOREnvMember member) {
    return configOf(record).text(member);
}

constexpr auto Text = RecordColumnKind::Text;
constexpr auto Integer = RecordColumnKind::Integer;
constexpr auto Guid = RecordColumnKind::Guid;
constexpr auto Time = RecordColumnKind::Time;
constexpr auto Bytes = RecordColumnKind::Bytes;

const char* typeOf(RecordColumnKind kind) {
    switch (kind) {
        case Integer:
            return "bigint";
        case Guid:
            return "uuid";
        case Time:
            return "timestamp(0)";
        default:
            return "text";
    }
}

}  // namespace

void RecordJson::bytes(const std::optional<std::string>& value) {
    if (!value) return null();
    static constexpr char digits[] = "0123456789abcdef";
    m_out += '"';
    for (const char byte : *value) {
        m_out += digits[static_cast<unsigned char>(byte) >> 4];
        m_out += digits[static_cast<unsigned char>(byte) & 15];
    }
    m_out += '"';
}

std::string ignoringSql(std::string_view once) {
    if (once.empty()) return {};
    const std::string column(once);
    return " ON CONFLICT (" + column + ") WHERE " + column + " IS NOT NULL DO NOTHING";
}

std::string storeManySql(const std::string& table, const std::vector<RecordColumnName>& columns, std::string_view key,
                         std::string_view once) {
    std::string names;
    std::string values;
    std::string types;
    std::string changes;
    for (const auto& [name, kind] : columns) {
        const std::string column(name);
        const char* const comma = names.empty() ? "" : ", ";
        names.append(comma).append(column);
        values.append(comma).append(kind == Bytes ? "decode(r." + column + ", 'hex')" : "r." + column);
        types.append(comma).append(column).append(" ").append(typeOf(kind));
        if (name != key && name != arrivalColumn)
            changes.append(changes.empty() ? "" : ", ").append(column).append(" = excluded.").append(column);
    }
    // A row that was replaced bears the transaction that did it.
    return "WITH stored AS (INSERT INTO " + table + " (" + names + ") SELECT " + values +
           " FROM json_to_recordset(CAST(? AS json)) AS r (" + types + ")" +
           (key.empty() ? ignoringSql(once) : " ON CONFLICT (" + std::string(key) + ") DO UPDATE SET " + changes) +
           " RETURNING xmax = 0 AS added) SELECT count(*) FROM stored WHERE added";
}

StoredOperation::StoredOperation(const QOROperationRecord& from)
    : record(from), message(serialized(from.message)), package(parameterText(from.message, "package/name")) {
    if (!package) package = parameterText(from.message, "package");
}

const RecordTable<QOREnvironmentRecord>& environmentTable() {
    using Record = QOREnvironmentRecord;
    static const auto table = [] {
        RecordTable<Record>::Columns columns{
            {"parent_eid", Guid, [](auto& to, const Record& r) { to.eid(r.parentEid); }},
            {"title", Text, [](auto& to, const Record& r) { to.text(r.title); }},
            {"state", Integer, [](auto& to, const Record& r) { to.integer(r.state); }},
            {"transition", Integer, [](auto& to, const Record& r) { to.integer(r.transition); }},
            {"ip", Text, [](auto& to, const Record& r) { to.text(firstAddress(configOf(r))); }},
            {"memory", Integer, [](auto& to, const Record& r) { to.integer(configOf(r).memory); }},
            {"boot_time", Time, [](auto& to, const Record& r) { to.time(configOf(r).bootTime); }},
            {"config", Text, [](auto& to, const Record& r) { to.text(documentOf(r.config)); }},
            {"virtual_config", Text, [](auto& to, const Record& r) { to.text(documentOf(r.virtualConfig)); }},
            {"updated", Time, [](auto& to, const Record&) { to.time(currentTime()); }},
            {"reporter", Text, [](auto& to, const Record& r) { to.text(r.reporter); }},
        };
        for (const QOREnvMemberRow& row : envMembers)
            columns.emplace_back(row.column, configText, row.member);
        return RecordTable<Record>("qor_environment", std::move(columns),
                                   {{"eid", Guid, [](auto& to, const Record& r) { to.eid(r.eid); }}}, {});
    }();
    return table;
}

const RecordTable<StoredOperation>& operationTable() {
    using Stored = StoredOperation;
    static const RecordTable<Stored> table(
        "qor_operation",
        {
            {"parent_id", Text, [](auto& to, const Stored& s) { to.text(s.record.parentId); }},
            {"op", Text, [](auto& to, const Stored& s) { to.text(s.record.op); }},
            {"status", Integer, [](auto& to, const Stored& s) { to.integer(s.record.status); }},
            {"time", Time, [](auto& to, const Stored& s) { to.time(s.record.time); }},
            {"eid", Guid, [](auto& to, const Stored& s) { to.eid(s.record.eid); }},
            {"package", Text, [](auto& to, const Stored& s) { to.text(s.package); }},
            {"version", Text,
             [](auto& to, const Stored& s) { to.text(parameterText(s.record.message, "package/version")); }},
            {"message", Text, [](auto& to, const Stored& s) { to.text(s.message); }},
            {"reporter", Text, [](auto& to, const Stored& s) { to.text(s.record.reporter); }},
        },
        {{"id", Text, [](auto& to, const Stored& s) { to.text(s.record.id); }}},
        {{"seq", Integer, [](auto& to, const Stored& s) { to.integer(s.sequence); }}});
    return table;
}

const RecordTable<StoredEvent>& eventTable() {
    using Stored = StoredEvent;
    static const RecordTable<Stored> table(
        "qor_event",
        {
            {"time", Time, [](auto& to, const Stored& s) { to.time(s.record.time); }},
            {"eid", Guid, [](auto& to, const Stored& s) { to.eid(s.record.eid); }},
            {"source", Text, [](auto& to, const Stored& s) { to.text(s.record.source); }},
            {"category", Text, [](auto& to, const Stored& s) { to.text(s.record.category); }},
            {"info", Text, [](auto& to, const Stored& s) { to.text(serialized(s.record.info)); }},
            {"uid", Guid, [](auto& to, const Stored& s) { to.eid(s.record.id); }},
            {"reporter", Text, [](auto& to, const Stored& s) { to.text(s.record.reporter); }},
        },
        {}, {{"seq", Integer, [](auto& to, const Stored& s) { to.integer(s.sequence); }}}, "uid");
    return table;
}

const RecordTable<QORBackupRecord>& backupTable() {
    using Record = QORBackupRecord;
    static const RecordTable<Record> table(
        "qor_backup",
        {
            {"eid", Guid, [](auto& to, const Record& r) { to.eid(r.eid); }},
            {"storage_eid", Guid, [](auto& to, const Record& r) { to.eid(r.storageEid); }},
            {"time", Time, [](auto& to, const Record& r) { to.time(r.time); }},
            {"size", Integer, [](auto& to, const Record& r) { to.integer(r.size); }},
            {"type", Integer, [](auto& to, const Record& r) { to.integer(r.type); }},
            {"description", Text, [](auto& to, const Record& r) { to.text(r.description); }},
            {"name", Text, [](auto& to, const Record& r) { to.text(r.name); }},
            {"hostname", Text, [](auto& to, const Record& r) { to.text(r.hostname); }},
            {"info", Bytes, [](auto& to, const Record& r) { to.bytes(serialized(r.info)); }},
            {"reporter", Text, [](auto& to, const Record& r) { to.text(r.reporter); }},
        },
        {{"id", Text, [](auto& to, const Record& r) { to.text(r.id); }}}, {});
    return table;
}

}  // namespace QOR
