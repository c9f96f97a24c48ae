#include "forward/ForwardLines.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORLibAgent/QOREnv.h"
#include "QORLibAgent/QORInfo.h"
#include "QORServers/QORServers.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

using Buffer = rapidjson::StringBuffer;
using Json = rapidjson::Writer<Buffer>;
/// What is known of a record before its line is put together.
struct Made {
    std::string text{};
    std::vector<std::string> needs{};
};
using Lines = std::map<std::string, Made, std::less<>>;  ///< by the identifier

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

void putDocument(Json& json, std::string_view name, const ASStatement& row, unsigned column) {
    if (row.isNull(column)) return;
    const auto info = infoOf(row.text(column));
    if (!info) return;
    key(json, name);
    putInfo(json, *info);
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
        if (member.name() == "memory") return m_columns.hasMemory;
        return member.name() == "boot_time" && m_columns.hasBootTime && parseInt64(member.value());
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

void putConfig(Json& json, std::string_view name, const ASStatement& row, unsigned column,
               const ConfigColumns& columns) {
    if (row.isNull(column)) return;
    const auto config = infoOf(row.text(column));
    if (!config) return;
    key(json, name);
    ConfigWriter(json, columns).write(*config);
}

/// One object in a line.
template <class Members>
std::string lineOf(std::string_view kind, Members members) {
    Buffer buffer;
    Json json(buffer);
    json.StartObject();
    put(json, "kind", kind);
    members(json);
    json.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize()) + '\n';
}

/// Identifiers as one parameter, a JSON array.
std::string arrayOf(const std::vector<std::string>& ids) {
    std::string array;
    for (const std::string& id : ids) {
        array += array.empty() ? '[' : ',';
        appendJsonString(id, array);
    }
    return array + ']';
}

/// The rows of that parameter. \param type of PostgreSQL's
std::string listOf(ASEngine engine, const std::string& type) {
    if (engine == ASEngine::SQLite) return "(SELECT value FROM json_each(?))";
    return "(SELECT CAST(value AS " + type + ") FROM json_array_elements_text(CAST(? AS json)))";
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

Lines readEnvironments(ASSession& session, const std::string& ids) {
    // The texts of the configuration stand behind the others, in their order.
    constexpr unsigned firstText = 11;
    std::string sql = "SELECT eid, parent_eid, title, state, transition, ip, memory, boot_time, config, virtual_config";
    for (const QOREnvMemberRow& row : envMembers)
        sql.append(", ").append(row.column);
    sql += " FROM qor_environment WHERE eid IN " + listOf(session.engine(), "uuid");
    Lines lines;
    forRows(session, sql, ids, [&](const ASStatement& row) {
        ConfigColumns columns;
        for (unsigned at = 0; at < envMembers.size(); ++at) {
            if (row.isNull(firstText + at)) columns.nulls.insert({envMembers[at].group, envMembers[at].name});
        }
        columns.hasAddress = !row.isNull(6);
        columns.hasMemory = !row.isNull(7);
        columns.hasBootTime = !row.isNull(8);
        Made& made = lines[std::string(row.text(1))];
        need(made.needs, row, 2);
        made.text = lineOf("environment", [&](Json& json) {
            putColumn(json, "eid", row, 1);
            putColumn(json, "parent_eid", row, 2);
            putColumn(json, "title", row, 3);
            putNumber(json, "state", row, 4);
            putNumber(json, "transition", row, 5);
            putConfig(json, "config", row, 9, columns);
            putConfig(json, "virtual_config", row, 10, {});
        });
    });
    return lines;
}

Lines readOperations(ASSession& session, const std::string& ids) {
    const std::string list = listOf(session.engine(), "text");
    std::map<std::int64_t, std::vector<std::string>> touched;
    forRows(session,
            "SELECT operation, eid FROM qor_operation_environment WHERE operation IN (SELECT seq FROM qor_operation "
            "WHERE id IN " +
                list + ") ORDER BY operation, position",
            ids, [&](const ASStatement& row) { touched[row.integer(1)].emplace_back(row.text(2)); });
    Lines lines;
    forRows(session, "SELECT seq, id, parent_id, op, status, time, eid, message FROM qor_operation WHERE id IN " + list,
            ids, [&](const ASStatement& row) {
                Made& made = lines[std::string(row.text(2))];
                made.needs = touched[row.integer(1)];
                need(made.needs, row, 7);
                made.text = lineOf("operation", [&](Json& json) {
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
                    putDocument(json, "message", row, 8);
                });
            });
    return lines;
}

/// Its own identifier, or one made of what it is.
std::string identifierOf(const ASStatement& event, const QORGUIDBase& stream) {
    if (!event.isNull(7)) return std::string(event.text(7));
    std::string name;
    for (unsigned column = 1; column <= 6; ++column) {
        const std::string_view text = event.isNull(column) ? std::string_view() : event.text(column);
        name += event.isNull(column) ? "-" : std::to_string(text.size());
        name.append(":").append(text);
    }
    return QORGUIDBase::fromName(stream, name).toString();
}

Lines readEvents(ASSession& session, const std::string& ids, const QORGUIDBase& stream) {
    Lines lines;
    forRows(session,
            "SELECT seq, time, eid, source, category, info, uid FROM qor_event WHERE seq IN " +
                listOf(session.engine(), "bigint"),
            ids, [&](const ASStatement& row) {
                Made& made = lines[std::string(row.text(1))];
                need(made.needs, row, 3);
                made.text = lineOf("event", [&](Json& json) {
                    put(json, "id", identifierOf(row, stream));
                    putColumn(json, "time", row, 2);
                    putColumn(json, "eid", row, 3);
                    putColumn(json, "source", row, 4);
                    putColumn(json, "category", row, 5);
                    putDocument(json, "info", row, 6);
                });
            });
    return lines;
}

Lines readBackups(ASSession& session, const std::string& ids) {
    Lines lines;
    forRows(session,
            "SELECT id, eid, storage_eid, time, size, type, description, name, hostname, info FROM qor_backup "
            "WHERE id IN " +
                listOf(session.engine(), "text"),
            ids, [&](const ASStatement& row) {
                Made& made = lines[std::string(row.text(1))];
                need(made.needs, row, 2);
                made.text = lineOf("backup", [&](Json& json) {
                    putColumn(json, "id", row, 1);
                    putColumn(json, "eid", row, 2);
                    putColumn(json, "storage_eid", row, 3);
                    putColumn(json, "time", row, 4);
                    putNumber(json, "size", row, 5);
                    putNumber(json, "type", row, 6);
                    putColumn(json, "description", row, 7);
                    putColumn(json, "name", row, 8);
                    putColumn(json, "hostname", row, 9);
                    if (row.isNull(10)) return;
                    const auto info = infoOf(row.bytes(10));
                    if (!info) return;
                    key(json, "info");
                    putInfo(json, *info);
                });
            });
    return lines;
}

Lines readKind(ASSession& session, QORChangeKind kind, const std::vector<std::string>& ids, const QORGUIDBase& stream) {
    std::string array;
    if (kind == QORChangeKind::Event && session.engine() == ASEngine::SQLite) {
        for (const std::string& id : ids)
            array += (array.empty() ? "[" : ",") + id;  // numbers, as the column is
        array += ']';
    } else {
        array = arrayOf(ids);
    }
    switch (kind) {
        case QORChangeKind::Environment:
            return readEnvironments(session, array);
        case QORChangeKind::Operation:
            return readOperations(session, array);
        case QORChangeKind::Event:
            return readEvents(session, array, stream);
        case QORChangeKind::Backup:
            return readBackups(session, array);
    }
    return {};
}

/// What is asked of one database.
using Wanted = std::map<QORChangeKind, std::vector<std::string>>;
using Found = std::map<QORChangeKind, Lines>;

Found readFrom(QORRdbms& database, const Wanted& wanted, const QORGUIDBase& stream) {
    Found found;
    QORRdbmsTran tran(database, ASAccess::Read);
    for (const auto& [kind, ids] : wanted)
        found[kind] = readKind(*tran, kind, ids, stream);
    return found;
}

/// Those whose change has not been sent.
std::vector<std::string> unsent(ASSession& session, const std::set<std::string>& eids, std::int64_t sent) {
    std::vector<std::string> found;
    const std::string array = arrayOf({eids.begin(), eids.end()});
    ASStatement& select = session.prepare(
        "SELECT DISTINCT eid FROM qor_record_change WHERE kind = 0 AND n > CAST(? AS bigint) AND eid IN " +
        listOf(session.engine(), "uuid"));
    select.bind(1, sent).bind(2, std::string_view(array)).execute();
    while (select.fetch())
        found.emplace_back(select.text(1));
    select.close();
    return found;
}

/// Of environments that have not been sent, those that the lines need, with what these need themselves.
Lines unsentEnvironments(const std::vector<ForwardLine>& lines, std::int64_t sent) {
    Lines all;
    std::set<std::string> known;
    std::set<std::string> asked;
    for (const ForwardLine& line : lines)
        asked.insert(line.needs.begin(), line.needs.end());
    QORRdbmsTran tran(ASAccess::Read);
    while (!asked.empty()) {
        known.insert(asked.begin(), asked.end());
        const std::vector<std::string> eids = unsent(*tran, asked, sent);
        asked.clear();
        if (eids.empty()) break;
        for (auto& [eid, made] : readEnvironments(*tran, arrayOf(eids))) {
            for (const std::string& parent : made.needs) {
                if (!known.contains(parent)) asked.insert(parent);
            }
            all.emplace(eid, std::move(made));
        }
    }
    return all;
}

}  // namespace

void putEnvironmentsAhead(std::vector<ForwardLine>& lines, std::int64_t sent) {
    Lines environments = unsentEnvironments(lines, sent);
    if (environments.empty()) return;
    std::set<std::string> ahead;
    std::vector<ForwardLine> ordered;
    for (const auto& [first, ignored] : environments) {
        std::vector<std::string> way;  // from it up to the first that is there already
        std::string at = first;
        for (auto found = environments.find(at); found != environments.end() && ahead.insert(at).second;
             found = environments.find(at)) {
            way.push_back(at);
            if (found->second.needs.empty()) break;
            at = found->second.needs.front();
        }
        for (auto eid = way.rbegin(); eid != way.rend(); ++eid)
            ordered.push_back({{.kind = QORChangeKind::Environment, .id = *eid, .owner = {}},
                               std::move(environments[*eid].text),
                               {}});
    }
    for (ForwardLine& line : lines) {
        const bool done = line.record.kind == QORChangeKind::Environment && ahead.contains(line.record.id);
        if (!done) ordered.push_back(std::move(line));
    }
    lines = std::move(ordered);
}

std::vector<ForwardLine> readForwardLines(const std::vector<QORRecordChange>& changes, const QORGUIDBase& stream) {
    std::map<std::string, Wanted> wanted;
    for (const QORRecordChange& one : changes)
        wanted[one.server][one.kind].push_back(one.id);
    std::map<std::string, Found> found;
    for (const auto& [server, of] : wanted) {
        if (server.empty()) {
            found[server] = readFrom(QORRdbms::instance(), of, stream);
            continue;
        }
        const auto placement = QORServers::instance().placement();
        for (const QORServer& one : placement->servers()) {
            if (one.name != server) continue;
            QORServers::instance().run(
                one, [&, &of = of](QORRdbms& database) { found[one.name] = readFrom(database, of, stream); });
        }
    }
    std::vector<ForwardLine> lines;
    for (const QORRecordChange& one : changes) {
        Lines& of = found[one.server][one.kind];
        const auto line = of.find(one.id);
        if (line == of.end()) continue;
        lines.push_back({one, std::move(line->second.text), std::move(line->second.needs)});
        of.erase(line);
    }
    return lines;
}

}  // namespace QOR
