#include "ingest/RecordLines.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORLibAgent/QOREnv.h"
#include "QORLibAgent/QORInfo.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

using Json = rapidjson::Writer<rapidjson::StringBuffer>;
void put(Json& json, std::string_view text) {
    json.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}
void key(Json& json, std::string_view name) {
    json.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
}
void put(Json& json, std::string_view name, std::string_view text) {
    key(json, name);
    put(json, text);
}
/// What is null is left out.
void putColumn(Json& json, std::string_view name, const ASStatement& row, unsigned column) {
    if (!row.isNull(column)) put(json, name, row.text(column));
}
void putNumber(Json& json, std::string_view name, const ASStatement& row, unsigned column) {
    key(json, name);
    json.Int64(row.integer(column));
}

void putInfo(Json& json, const QORInfo& info);

/// A parameter: its text, or what is in it.
void putParameter(Json& json, const QORInfo& parameter) {
    parameter.children().empty() ? put(json, parameter.value()) : putInfo(json, parameter);
}

/// Parameters of one name stand there as members of one name: what reads records takes them so, each in its place. Not
/// deeper than QORInfo::maxDepth.
void putInfo(Json& json, const QORInfo& info) {
    json.StartObject();
    for (const QORInfo& child : info.children()) {
        key(json, child.name());
        putParameter(json, child);
    }
    json.EndObject();
}

std::optional<QORInfo> infoOf(std::string_view text) {
    QORInfo info;
    if (info.deserializeFromString(text) != 0) return std::nullopt;
    return info;
}

/// \returns false for one that cannot be read, which is left out
bool putDocument(Json& json, std::string_view name, std::string_view document) {
    const auto info = infoOf(document);
    if (!info) return false;
    key(json, name);
    putInfo(json, *info);
    return true;
}
bool putDocument(Json& json, std::string_view name, const ASStatement& row, unsigned column) {
    return row.isNull(column) || putDocument(json, name, row.text(column));
}

/// What the columns of an environment say of its configuration that the document does not: whether a text was missing
/// or empty, and what was a number.
struct ConfigColumns {
    std::set<std::pair<std::string_view, std::string_view>> nulls{};  ///< groups and names
    bool hasAddress = true;
    bool hasMemory = false;
    bool hasBootTime = false;
};

class ConfigWriter {
public:
    ConfigWriter(Json& json, const ConfigColumns& columns) : m_json(json), m_columns(columns) {}

    void write(const QORInfo& config) {
        m_json.StartObject();
        bool addressesDone = false;
        for (const QORInfo& child : config.children()) {
            if (child.name() == "ip") {
                if (!std::exchange(addressesDone, true)) putAddresses(config);
                continue;
            }
            key(m_json, child.name());
            if (child.name() == "os") {
                child.children().empty() ? static_cast<void>(m_json.Null()) : putOs(child);
            } else if (isNumber(child)) {
                putRaw(child.value());
            } else {
                putText({}, child);
            }
        }
        m_json.EndObject();
    }

private:
    /// Whether a member is stored as a number, and is one.
    bool isNumber(const QORInfo& member) const {
        const bool isStored =
            member.name() == "memory" ? m_columns.hasMemory : member.name() == "boot_time" && m_columns.hasBootTime;
        return isStored && parseInt64(member.value());
    }
    void putOs(const QORInfo& os) {
        m_json.StartObject();
        for (const QORInfo& child : os.children()) {
            key(m_json, child.name());
            putText("os", child);
        }
        m_json.EndObject();
    }
    void putText(std::string_view group, const QORInfo& parameter) {
        if (parameter.empty() && m_columns.nulls.contains({group, parameter.name()})) {
            m_json.Null();
        } else {
            putParameter(m_json, parameter);
        }
    }
    void putRaw(const std::string& number) { m_json.RawValue(number.data(), number.size(), rapidjson::kNumberType); }
    void putAddresses(const QORInfo& config) {
        std::vector<const QORInfo*> addresses;
        for (const QORInfo& child : config.children()) {
            if (child.name() == "ip") addresses.push_back(&child);
        }
        key(m_json, "ip");
        if (addresses.size() == 1 && addresses.front()->empty() && !m_columns.hasAddress) {
            m_json.Null();
            return;
        }
        m_json.StartArray();
        for (const QORInfo* address : addresses)
            put(m_json, address->value());
        m_json.EndArray();
    }

    Json& m_json;
    const ConfigColumns& m_columns;
};

/// \returns as putDocument()
bool putConfig(Json& json, std::string_view name, const ASStatement& row, unsigned column,
               const ConfigColumns& columns) {
    if (row.isNull(column)) return true;
    const auto config = infoOf(row.text(column));
    if (!config) return false;
    key(json, name);
    ConfigWriter(json, columns).write(*config);
    return true;
}

/// One object in a line.
template <class Members>
std::string lineOf(QORRecordKind kind, Members members) {
    rapidjson::StringBuffer buffer;
    Json json(buffer);
    json.StartObject();
    put(json, "kind", recordKindName(kind));
    members(json);
    json.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize()) + '\n';
}

template <class Row>
void forRows(ASSession& session, const std::string& sql, const std::string& array, Row row) {
    ASStatement& select = session.prepare(sql);
    select.bind(1, std::string_view(array)).execute();
    while (select.fetch())
        row(select);
    select.close();
}

void need(std::vector<std::string>& needs, const ASStatement& row, unsigned column) {
    if (!row.isNull(column)) needs.emplace_back(row.text(column));
}

RecordLines readEnvironments(ASSession& session, const std::string& ids) {
    // The texts of the configuration stand behind the others, in their order.
    constexpr unsigned firstText = 11;
    std::string sql = "SELECT eid, parent_eid, title, state, transition, ip, memory, boot_time, config, virtual_config";
    for (const QOREnvMemberRow& row : envMembers)
        sql.append(", ").append(row.column);
    sql += " FROM qor_environment WHERE eid IN " + recordListSql(session.engine(), "uuid");
    RecordLines lines;
    forRows(session, sql, ids, [&](const ASStatement& row) {
        ConfigColumns columns;
        for (unsigned at = 0; at < envMembers.size(); ++at) {
            if (row.isNull(firstText + at)) columns.nulls.insert({envMembers[at].group, envMembers[at].name});
        }
        columns.hasAddress = !row.isNull(6);
        columns.hasMemory = !row.isNull(7);
        columns.hasBootTime = !row.isNull(8);
        RecordLine& made = lines[std::string(row.text(1))];
        need(made.needs, row, 2);
        made.text = lineOf(QORRecordKind::Environment, [&](Json& json) {
            putColumn(json, "eid", row, 1);
            putColumn(json, "parent_eid", row, 2);
            putColumn(json, "title", row, 3);
            putNumber(json, "state", row, 4);
            putNumber(json, "transition", row, 5);
            const bool hasConfig = putConfig(json, "config", row, 9, columns);
            const bool hasVirtual = putConfig(json, "virtual_config", row, 10, {});
            made.lacksDocument = !hasConfig || !hasVirtual;
        });
    });
    return lines;
}

RecordLines readOperations(ASSession& session, const std::string& ids) {
    const std::string list = recordListSql(session.engine(), "text");
    std::map<std::int64_t, std::vector<std::string>> touched;
    forRows(session,
            "SELECT operation, eid FROM qor_operation_environment WHERE operation IN (SELECT seq FROM qor_operation "
            "WHERE id IN " +
                list + ") ORDER BY operation, position",
            ids, [&](const ASStatement& row) { touched[row.integer(1)].emplace_back(row.text(2)); });
    RecordLines lines;
    forRows(session, "SELECT seq, id, parent_id, op, status, time, eid, message FROM qor_operation WHERE id IN " + list,
            ids, [&](const ASStatement& row) {
                RecordLine& made = lines[std::string(row.text(2))];
                made.needs = touched[row.integer(1)];
                need(made.needs, row, 7);
                made.text = lineOf(QORRecordKind::Operation, [&](Json& json) {
                    putColumn(json, "id", row, 2);
                    putColumn(json, "parent_id", row, 3);
                    putColumn(json, "op", row, 4);
                    putNumber(json, "status", row, 5);
                    putColumn(json, "time", row, 6);
                    putColumn(json, "eid", row, 7);
                    key(json, "eids");
                    json.StartArray();
                    for (const std::string& eid : touched[row.integer(1)])
                        put(json, eid);
                    json.EndArray();
                    made.lacksDocument = !putDocument(json, "message", row, 8);
                });
            });
    return lines;
}

/// An identifier made of what it is.
std::string identifierOf(const ASStatement& event, const QORGUIDBase& stream) {
    std::string name;
    for (unsigned column = 1; column <= 6; ++column) {
        const std::string_view text = event.isNull(column) ? std::string_view() : event.text(column);
        name += event.isNull(column) ? "-" : std::to_string(text.size());
        name.append(":").append(text);
    }
    return QORGUIDBase::fromName(stream, name).toString();
}

RecordLines readEvents(ASSession& session, const std::string& ids, const QORGUIDBase* stream) {
    RecordLines lines;
    forRows(session,
            "SELECT seq, time, eid, source, category, info, uid FROM qor_event WHERE seq IN " +
                recordListSql(session.engine(), "bigint"),
            ids, [&](const ASStatement& row) {
                RecordLine& made = lines[std::string(row.text(1))];
                need(made.needs, row, 3);
                made.text = lineOf(QORRecordKind::Event, [&](Json& json) {
                    putColumn(json, "id", row, 7);
                    if (row.isNull(7) && stream != nullptr) put(json, "id", identifierOf(row, *stream));
                    putColumn(json, "time", row, 2);
                    putColumn(json, "eid", row, 3);
                    putColumn(json, "source", row, 4);
                    putColumn(json, "category", row, 5);
                    made.lacksDocument = !putDocument(json, "info", row, 6);
                });
            });
    return lines;
}

RecordLines readBackups(ASSession& session, const std::string& ids) {
    RecordLines lines;
    forRows(session,
            "SELECT id, eid, storage_eid, time, size, type, description, name, hostname, info FROM qor_backup "
            "WHERE id IN " +
                recordListSql(session.engine(), "text"),
            ids, [&](const ASStatement& row) {
                RecordLine& made = lines[std::string(row.text(1))];
                need(made.needs, row, 2);
                made.text = lineOf(QORRecordKind::Backup, [&](Json& json) {
                    putColumn(json, "id", row, 1);
                    putColumn(json, "eid", row, 2);
                    putColumn(json, "storage_eid", row, 3);
                    putColumn(json, "time", row, 4);
                    putNumber(json, "size", row, 5);
                    putNumber(json, "type", row, 6);
                    putColumn(json, "description", row, 7);
                    putColumn(json, "name", row, 8);
                    putColumn(json, "hostname", row, 9);
                    made.lacksDocument = !row.isNull(10) && !putDocument(json, "info", row.bytes(10));
                });
            });
    return lines;
}

void putOptional(Json& json, std::string_view name, const std::optional<std::string>& text) {
    if (text) put(json, name, *text);
}
void putNumber(Json& json, std::string_view name, std::int64_t number) {
    key(json, name);
    json.Int64(number);
}
void putEid(Json& json, std::string_view name, const QORGUIDBase& guid) {
    if (guid.isValid()) put(json, name, guid.toString());
}
void putInfo(Json& json, std::string_view name, const std::optional<QORInfo>& info) {
    if (!info) return;
    key(json, name);
    putInfo(json, *info);
}

void putConfig(Json& json, std::string_view name, const std::optional<QORConfigRecord>& config) {
    if (!config) return;
    ConfigColumns columns;
    for (const QOREnvMemberRow& row : envMembers) {
        if (!config->text(row.member)) columns.nulls.insert({row.group, row.name});
    }
    columns.hasAddress = !config->addresses.empty();
    columns.hasMemory = config->memory.has_value();
    columns.hasBootTime = config->bootTime.has_value();
    key(json, name);
    ConfigWriter(json, columns).write(config->document);
}

}  // namespace

std::string lineOf(const QOREnvironmentRecord& record) {
    return lineOf(QORRecordKind::Environment, [&](Json& json) {
        putEid(json, "eid", record.eid);
        putEid(json, "parent_eid", record.parentEid);
        putOptional(json, "title", record.title);
        putNumber(json, "state", record.state);
        putNumber(json, "transition", record.transition);
        putConfig(json, "config", record.config);
        putConfig(json, "virtual_config", record.virtualConfig);
    });
}

std::string lineOf(const QOROperationRecord& record) {
    return lineOf(QORRecordKind::Operation, [&](Json& json) {
        put(json, "id", record.id);
        putOptional(json, "parent_id", record.parentId);
        putOptional(json, "op", record.op);
        putNumber(json, "status", record.status);
        putNumber(json, "time", record.time);
        putEid(json, "eid", record.eid);
        key(json, "eids");
        json.StartArray();
        for (const QOREID& eid : record.eids)
            put(json, eid.toString());
        json.EndArray();
        putInfo(json, "message", record.message);
    });
}

std::string lineOf(const QOREventRecord& record) {
    return lineOf(QORRecordKind::Event, [&](Json& json) {
        putEid(json, "id", record.id);
        putNumber(json, "time", record.time);
        putEid(json, "eid", record.eid);
        putOptional(json, "source", record.source);
        putOptional(json, "category", record.category);
        putInfo(json, "info", record.info);
    });
}

std::string lineOf(const QORBackupRecord& record) {
    return lineOf(QORRecordKind::Backup, [&](Json& json) {
        put(json, "id", record.id);
        putEid(json, "eid", record.eid);
        putEid(json, "storage_eid", record.storageEid);
        putNumber(json, "time", record.time);
        putNumber(json, "size", record.size);
        putNumber(json, "type", record.type);
        putOptional(json, "description", record.description);
        putOptional(json, "name", record.name);
        putOptional(json, "hostname", record.hostname);
        putInfo(json, "info", record.info);
    });
}

std::string recordList(const std::vector<std::string>& ids) {
    std::string array;
    for (const std::string& id : ids) {
        array += array.empty() ? '[' : ',';
        appendJsonString(id, array);
    }
    return array + ']';
}

std::string recordListSql(ASEngine engine, const std::string& type) {
    if (engine == ASEngine::SQLite) return "(SELECT value FROM json_each(?))";
    return "(SELECT CAST(value AS " + type + ") FROM json_array_elements_text(CAST(? AS json)))";
}

RecordLines readRecordLines(ASSession& session, QORRecordKind kind, const std::vector<std::string>& ids,
                            const QORGUIDBase* stream) {
    std::string array;
    if (kind == QORRecordKind::Event && session.engine() == ASEngine::SQLite) {
        for (const std::string& id : ids)
            array += (array.empty() ? "[" : ",") + id;  // numbers, as the column is
        array += ']';
    } else {
        array = recordList(ids);
    }
    switch (kind) {
        case QORRecordKind::Environment:
            return readEnvironments(session, array);
        case QORRecordKind::Operation:
            return readOperations(session, array);
        case QORRecordKind::Event:
            return readEvents(session, array, stream);
        case QORRecordKind::Backup:
            return readBackups(session, array);
    }
    return {};
}

}  // namespace QOR
