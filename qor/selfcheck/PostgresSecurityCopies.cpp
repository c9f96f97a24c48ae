#include "selfcheck/PostgresSecurityCopies.h"

#include <algorithm>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORGuid.h"
#include "QORCommon/QORSourcePath.h"
#include "QORDBSchema/QORDBSchema.h"

namespace QOR {
namespace {

// Views that a bare name finds, materialised ones among them, and their columns under the names that operators know
// types by.
constexpr const char* viewNames =
    "SELECT CAST(relname AS text) FROM pg_class WHERE relkind IN ('v', 'm') AND pg_table_is_visible(oid) "
    "AND relnamespace NOT IN (SELECT oid FROM pg_namespace WHERE nspname IN ('pg_catalog', 'information_schema')) "
    "AND lower(relname) <> 'schematable' ORDER BY CAST(relname AS text) COLLATE \"C\"";
// None where the database keeps its records itself.
constexpr const char* relationsOfServers =
    "SELECT CAST(relname AS text) FROM pg_class WHERE relnamespace = to_regnamespace('qor_all_long')";
constexpr const char* columnNames =
    "SELECT CAST(a.attname AS text) FROM pg_attribute a WHERE a.attrelid = to_regclass(%) AND a.attnum > 0 "
    "AND NOT a.attisdropped ORDER BY a.attnum";
constexpr const char* columnTypes =
    "SELECT CASE t.typname WHEN 'uuid' THEN 'uniqueidentifier' WHEN 'timestamp' THEN 'datetime' "
    "WHEN 'timestamptz' THEN 'datetime' WHEN 'date' THEN 'datetime' WHEN 'bytea' THEN 'image' "
    "WHEN 'int2' THEN 'smallint' WHEN 'int4' THEN 'int' WHEN 'int8' THEN 'bigint' WHEN 'float4' THEN 'float' "
    "WHEN 'float8' THEN 'float' WHEN 'numeric' THEN 'decimal' WHEN 'text' THEN 'nvarchar' "
    "ELSE CAST(t.typname AS text) END FROM pg_attribute a JOIN pg_type t ON t.oid = a.atttypid "
    "WHERE a.attrelid = to_regclass(%) AND a.attnum > 0 AND NOT a.attisdropped ORDER BY a.attnum";

std::string about(std::string select, const std::string& relation) {
    return select.replace(select.find('%'), 1, quotedText(quotedName(relation)));
}

[[noreturn]] void fail(const AException& error, const std::string& sql) {
    throw QORException(errFailure, sql + ": " + error.text(), QOR_SOURCE_PATH, __LINE__);
}

std::string newName() {
    std::string name = QORGUIDBase::random().toString();
    std::erase(name, '-');
    return "qor_check_" + name;
}

}  // namespace

// ---- a connection ---------------------------------------------------------------------------------------------------

void PostgresCheckedDatabase::run(const std::string& sql) {
    try {
        m_database.write([&](ASSession& session) { session.execute(sql); });
    } catch (const AException& error) {
        fail(error, sql);
    }
}

std::vector<std::string> PostgresCheckedDatabase::select(const std::string& sql, std::size_t most) {
    try {
        QORRdbmsTran tran(m_database, ASAccess::Read);
        ASStatement& statement = tran->prepare(sql);
        statement.execute();
        std::vector<std::string> found;
        while (found.size() < most && statement.fetch())
            found.emplace_back(statement.text(1));
        statement.close();
        return found;
    } catch (const AException& error) {
        fail(error, sql);
    }
}

std::string PostgresCheckedDatabase::whole(const std::string& relation) {
    if (!m_ofServers) {
        const auto names = values(relationsOfServers);
        m_ofServers.emplace(names.begin(), names.end());
    }
    return (m_ofServers->contains(relation) ? "qor_all_long." : "") + quotedName(relation);
}

std::vector<QORCheckedView> PostgresCheckedDatabase::listViews() {
    std::vector<QORCheckedView> views;
    for (std::string& name : values(viewNames)) {
        std::vector<std::string> names = values(about(columnNames, name));
        std::vector<std::string> types = values(about(columnTypes, name));
        if (names.size() != types.size()) continue;  // it was changed at this moment
        QORCheckedView& view = views.emplace_back();
        for (std::size_t i = 0; i < names.size(); ++i)
            view.columns.push_back({std::move(names[i]), std::move(types[i]), {}, {}});
        view.name = std::move(name);
    }
    return views;
}

bool PostgresCheckedDatabase::isHostDatabase() {
    QORRdbmsTran tran(m_database, ASAccess::Read);
    const QORSchemaState state = QORDBSchema::inspect(*tran);
    return state.kind == QORSchemaState::Kind::Ours && state.version == QORDBSchema::currentVersion();
}

void PostgresCheckedDatabase::makeHostTables() {
    m_database.write([](ASSession& session) { QORDBSchema::migrate(session); });
}

// ---- copies ---------------------------------------------------------------------------------------------------------

PostgresSecurityCopies::PostgresSecurityCopies(const std::string& connectionString)
    : m_connectionString(connectionString), m_whole({.connectionString = connectionString}) {}

PostgresSecurityCopies::~PostgresSecurityCopies() {
    try {
        dropPart();
    } catch (const std::exception&) {
        // The server has gone; the schema's name says what it is.
    }
}

ASDatabaseOptions PostgresSecurityCopies::wholeOptions() const {
    return {.connectionString = m_connectionString, .readOnly = true};
}

QORVisiblePart PostgresSecurityCopies::makePart(const std::vector<QORCheckedView>& views,
                                                const std::set<std::string>& eids) {
    dropPart();
    const std::string schema = newName();
    m_whole.run("CREATE SCHEMA " + schema);
    m_part = schema;
    QORVisiblePart part{wholeOptions(), {}};
    part.database.schema = m_part;
    if (m_whole.isHostDatabase()) copyRecords(eids);
    for (const QORCheckedView& view : views) {
        try {
            copyView(view, view.access(eids));
        } catch (const QORException&) {
            continue;  // a view that fails on what the client may see fails for full access too
        }
        part.sizes[view.name] =
            std::stoul(m_whole.values("SELECT count(*) FROM " + m_part + "." + rowsOf(view)).front());
    }
    return part;
}

void PostgresSecurityCopies::copyView(const QORCheckedView& view, const std::string& condition) {
    const std::string name = m_part + "." + quotedName(view.name);
    const std::string rows = m_part + "." + rowsOf(view);
    m_whole.run("DROP VIEW IF EXISTS " + name);  // the host's own, which selects from its tables
    m_whole.run("CREATE TABLE " + rows + " AS SELECT " + columnsOf(view) + " FROM " + m_whole.whole(view.name) +
                " WHERE " + condition);
    m_whole.run("CREATE VIEW " + name + " AS SELECT * FROM " + rows);
}

void PostgresSecurityCopies::copyRecords(const std::set<std::string>& eids) {
    PostgresCheckedDatabase({.connectionString = m_connectionString, .schema = m_part}).makeHostTables();
    if (eids.empty()) return;
    for (const QORRecordTable& table : checkedTables)
        copyTable(table, eids);
}

void PostgresSecurityCopies::copyTable(const QORRecordTable& table, const std::set<std::string>& eids) {
    std::string columns;
    for (const auto& column : m_whole.values(about(columnNames, table.name)))
        columns += (columns.empty() ? "" : ", ") + quotedName(column);
    m_whole.run("INSERT INTO " + m_part + "." + table.name + " (" + columns + ") SELECT " + columns + " FROM " +
                m_whole.whole(table.name) + " WHERE " + table.owner + " IN (" + quotedList(eids) + ")");
}

void PostgresSecurityCopies::dropPart() {
    if (!m_part.empty()) m_whole.run("DROP SCHEMA " + std::exchange(m_part, {}) + " CASCADE");
}

}  // namespace QOR
