#include "QORDBSchema/QORSchemaTables.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORDBSchema/QORSchemaEngine.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

/// A database's own. Who may see what is in it is decided anew where a copy lies: whoever can read a database can
/// copy it; what a copy signs it signs with a secret of its own.
constexpr std::array<std::string_view, 30> ownTables{"qor_change",
                                                     "qor_environment_change",
                                                     "qor_schema_version",
                                                     "qor_database",
                                                     "qor_copy",
                                                     "qor_operation_change",
                                                     "qor_event_change",
                                                     "qor_log_replaced",
                                                     "qor_server",
                                                     "qor_placement",
                                                     "qor_touched_server",
                                                     "qor_held",
                                                     "qor_followed",
                                                     "qor_removal",
                                                     "qor_moved",
                                                     "qor_count_due",
                                                     "qor_identity",
                                                     "qor_identity_environment",
                                                     "qor_token",
                                                     "qor_ended_session",
                                                     "qor_identity_change",
                                                     "qor_commit",
                                                     "qor_secret",
                                                     "qor_record_number",
                                                     "qor_record_change",
                                                     "qor_record_due",
                                                     "qor_handover",
                                                     "qor_forward_position",
                                                     "qor_forward_refused",
                                                     "qor_forward_target"};

struct TypeKind {
    std::string_view type;
    QORSchemaColumnKind kind;
};

/// Under the names of all engines, none of which means two things.
constexpr TypeKind typeKinds[] = {
    {"int", QORSchemaColumnKind::Integer},       {"integer", QORSchemaColumnKind::Integer},
    {"bigint", QORSchemaColumnKind::Integer},    {"int8", QORSchemaColumnKind::Integer},
    {"int4", QORSchemaColumnKind::SmallInteger}, {"nvarchar", QORSchemaColumnKind::Text},
    {"char", QORSchemaColumnKind::Text},         {"longtext", QORSchemaColumnKind::Text},
    {"text", QORSchemaColumnKind::Text},         {"uniqueidentifier", QORSchemaColumnKind::Guid},
    {"uuid", QORSchemaColumnKind::Guid},         {"datetime", QORSchemaColumnKind::Time},
    {"timestamp", QORSchemaColumnKind::Time},    {"image", QORSchemaColumnKind::Bytes},
    {"bytea", QORSchemaColumnKind::Bytes},       {"", QORSchemaColumnKind::Mixed},
};

QORSchemaColumnKind kindOf(std::string_view table, std::string_view column, std::string_view type) {
    for (const TypeKind& one : typeKinds) {
        if (one.type == type) return one.kind;
    }
    throw QORException(errFailure,
                       std::string(table) + '.' + std::string(column) + " has the type \"" + std::string(type) +
                           "\", which is none of this host's schema",
                       QOR_SOURCE_PATH, __LINE__);
}

bool isOwn(std::string_view table) {
    return std::find(ownTables.begin(), ownTables.end(), table) != ownTables.end();
}

std::vector<QORSchemaTable> tablesByName(ASSession& session) {
    std::vector<QORSchemaTable> tables;
    std::vector<std::pair<std::int64_t, std::size_t>> key;  // places in the key of the last table, columns
    ASStatement& columns = session.prepare(QORSchemaEngine::of(session.engine()).tableColumns);
    columns.execute();
    while (columns.fetch()) {
        const std::string name(columns.text(1));
        if (isOwn(name)) continue;
        if (tables.empty() || tables.back().name != name) {
            tables.push_back({name, {}, {}});
            key.clear();
        }
        QORSchemaTable& table = tables.back();
        if (const std::int64_t place = columns.integer(4); place > 0) {
            key.emplace_back(place, table.columns.size());
            std::sort(key.begin(), key.end());
            table.key.clear();
            for (const auto& [ignored, column] : key)
                table.key.push_back(column);
        }
        table.columns.push_back({std::string(columns.text(2)), kindOf(name, columns.text(2), columns.text(3))});
    }
    columns.close();
    return tables;
}

std::set<std::pair<std::string, std::string>> references(ASSession& session) {
    std::set<std::pair<std::string, std::string>> found;
    ASStatement& select = session.prepare(QORSchemaEngine::of(session.engine()).references);
    select.execute();
    while (select.fetch())
        found.emplace(select.text(1), select.text(2));
    select.close();
    return found;
}

}  // namespace

std::vector<QORSchemaTable> readTables(ASSession& session) {
    std::vector<QORSchemaTable> left = tablesByName(session);
    const auto refers = references(session);
    std::vector<QORSchemaTable> ordered;
    while (!left.empty()) {
        const auto isFree = [&](const QORSchemaTable& table) {
            return std::none_of(left.begin(), left.end(), [&](const QORSchemaTable& other) {
                return &other != &table && refers.count({table.name, other.name}) != 0;
            });
        };
        auto next = std::find_if(left.begin(), left.end(), isFree);
        if (next == left.end())
            throw QORException(errFailure, "the tables of the schema refer to each other in a circle", QOR_SOURCE_PATH,
                               __LINE__);
        ordered.push_back(std::move(*next));
        left.erase(next);
    }
    return ordered;
}

}  // namespace QOR
