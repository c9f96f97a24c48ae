#include "QORDBSchema/SchemaTable.h"

#include "QORCommon/QORLogger.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "rdbmspp/sql/ASCursor.h"

namespace QOR {
namespace {

// 'nvarchar(64)' is the type nvarchar with the length 64; a cast reads the digits and stops at what follows them.
// 'decimal(10,2)' has the length 10. What is no 31-bit number is no length.
constexpr const char* sqliteSelect =
    "SELECT m.name AS \"viewName\", c.name AS \"name\","
    " lower(trim(CASE WHEN instr(c.type, '(') > 0 THEN substr(c.type, 1, instr(c.type, '(') - 1) ELSE c.type END))"
    " AS \"type\","
    " CASE WHEN instr(c.type, '(') > 0 AND CAST(substr(c.type, instr(c.type, '(') + 1) AS INTEGER)"
    " BETWEEN 0 AND 2147483647 THEN CAST(substr(c.type, instr(c.type, '(') + 1) AS INTEGER) ELSE 0 END AS \"length\","
    " 'UTF-8' AS \"charSet\", 'BINARY' AS \"collation\", c.cid AS \"position\""
    " FROM sqlite_master m JOIN pragma_table_info(m.name) c"
    " WHERE m.type = 'view' AND lower(m.name) <> 'schematable'";

constexpr const char* sqliteOrder = " ORDER BY m.name, c.cid";

// Views and materialised views that a bare name finds, whichever schema of the search path they are in. A domain is
// what it is made of. Types have the names that clients know them by; one that they know nothing like keeps its own.
// The length of a text or a number lies above the four bytes that its modifier counts.
constexpr const char* postgresSelect =
    "SELECT CAST(c.relname AS text) AS \"viewName\", CAST(a.attname AS text) AS \"name\","
    " CASE t.typname WHEN 'uuid' THEN 'uniqueidentifier' WHEN 'text' THEN 'nvarchar' WHEN 'varchar' THEN 'nvarchar'"
    " WHEN 'name' THEN 'nvarchar' WHEN 'bpchar' THEN 'char' WHEN 'int2' THEN 'smallint' WHEN 'int4' THEN 'int'"
    " WHEN 'int8' THEN 'bigint' WHEN 'bool' THEN 'bit' WHEN 'float4' THEN 'float' WHEN 'float8' THEN 'double'"
    " WHEN 'numeric' THEN 'decimal' WHEN 'timestamp' THEN 'datetime' WHEN 'timestamptz' THEN 'datetime'"
    " WHEN 'date' THEN 'datetime' WHEN 'bytea' THEN 'image' ELSE CAST(t.typname AS text) END AS \"type\","
    " CASE WHEN t.typname IN ('varchar', 'bpchar') AND a.atttypmod > 4 THEN a.atttypmod - 4"
    " WHEN t.typname = 'numeric' AND a.atttypmod > 4 THEN ((a.atttypmod - 4) >> 16) & 65535 ELSE 0 END AS \"length\","
    " CAST('UTF-8' AS text) AS \"charSet\", CAST('BINARY' AS text) AS \"collation\","
    " CAST(a.attnum - 1 AS int) AS \"position\"";

constexpr const char* postgresFrom =
    " FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace"
    " JOIN pg_attribute a ON a.attrelid = c.oid AND a.attnum > 0 AND NOT a.attisdropped"
    " JOIN pg_type d ON d.oid = a.atttypid"
    " JOIN pg_type t ON t.oid = CASE WHEN d.typtype = 'd' THEN d.typbasetype ELSE d.oid END"
    " WHERE c.relkind IN ('v', 'm') AND pg_table_is_visible(c.oid)"
    " AND n.nspname NOT LIKE 'pg\\_%' AND n.nspname <> 'information_schema' AND lower(c.relname) <> 'schematable'";

constexpr const char* postgresOrder = " ORDER BY CAST(c.relname AS text) COLLATE \"C\", a.attnum";

/// Views of which the engine cannot tell the columns. The select over all of them fails at the first such view, so
/// usually one attempt says that there is none.
std::vector<std::string> unreadableViews(ASSession& session) {
    std::vector<std::string> bad;
    // A view of PostgreSQL's cannot outlive what it selects from.
    if (session.engine() != ASEngine::SQLite) return bad;
    try {
        ASStatement& all = session.prepare(std::string("SELECT count(*) FROM (") + sqliteSelect + ")");
        all.execute();
        all.fetch();
        all.close();
        return bad;
    } catch (const AException& error) {
        logMessage(3, "QORDBSchema", "qor/libs/QORDBSchema/SchemaTable", __func__,
                   "Not every view can be described (%s) - trying one by one...", error.what());
    }
    std::vector<std::string> views;
    ASStatement& names = session.prepare("SELECT name FROM sqlite_master WHERE type = 'view'");
    names.execute();
    while (names.fetch())
        views.emplace_back(names.text(1));
    names.close();
    for (std::string& view : views) {
        try {
            ASStatement& columns = session.prepare("SELECT count(*) FROM pragma_table_info(?)");
            columns.bind(1, view);
            columns.execute();
            columns.fetch();
            columns.close();
        } catch (const AException& error) {
            logMessage(1, "QORDBSchema", "qor/libs/QORDBSchema/SchemaTable", __func__, "View %s is left out: %s",
                       view.c_str(), error.what());
            bad.push_back(std::move(view));
        }
    }
    return bad;
}

}  // namespace

std::string schemaTableSql(ASEngine engine, const std::vector<std::string>& without) {
    const bool sqlite = engine == ASEngine::SQLite;
    std::string sql = sqlite ? sqliteSelect : std::string(postgresSelect) + postgresFrom;
    if (!without.empty()) {
        sql += sqlite ? " AND m.name NOT IN (" : " AND c.relname NOT IN (";
        for (std::size_t i = 0; i < without.size(); ++i) {
            if (i > 0) sql += ", ";
            sql += ASSession::quoteLiteral(without[i]);
        }
        sql += ')';
    }
    return sql + (sqlite ? sqliteOrder : postgresOrder);
}

SchemaTable::SchemaTable(const std::string& sql)
    : metaData(ASDomain::derived(sql, "SchemaTable")), position("position", ASType::Int) {
    position.Register(metaData.domain());
}

SchemaTable::SchemaTable() : SchemaTable(schemaTableSql(QORRdbms::instance().engine(), {})) {}

SchemaTable::SchemaTable(ASSession& session)
    : SchemaTable(schemaTableSql(session.engine(), unreadableViews(session))) {}

// Those that SchemaTable knows by a name that says all, or by none and that are texts anyway, are left out.
std::map<std::string, ASStorages, std::less<>> columnStorages(ASSession& session) {
    std::map<std::string, ASStorages, std::less<>> storages;
    if (session.engine() != ASEngine::PostgreSQL) return storages;
    ASStatement& columns = session.prepare(
        std::string("SELECT CAST(c.relname AS text), CAST(a.attname AS text), CAST(t.typname AS text)") + postgresFrom +
        " AND t.typname NOT IN ('uuid', 'text', 'varchar', 'bpchar', 'int2', 'int4', 'int8', 'float4', 'float8',"
        " 'timestamp', 'date', 'bytea')");
    columns.execute();
    while (columns.fetch()) {
        const std::string_view type = columns.text(3);
        const ASStorage storage = type == "bool"          ? ASStorage::Boolean
                                  : type == "numeric"     ? ASStorage::Decimal
                                  : type == "timestamptz" ? ASStorage::ZonedTime
                                                          : ASStorage::Other;
        storages[std::string(columns.text(1))].emplace(columns.text(2), storage);
    }
    columns.close();
    return storages;
}

ASOrder SchemaTable::order() const {
    ASOrder keys(metaData.viewName);
    keys << ASOrder(position);
    return keys;
}

void selectAllAttributes(ASProject& project, const SchemaTable& table) {
    table.metaData.selectAll(project);
}

std::vector<QORViewColumn> readViews(ASSession& session) {
    const SchemaTable table(session);
    ASCursor cursor(session);
    selectAllAttributes(cursor.Filter().Project(), table);
    cursor.Order(table.order());
    std::vector<QORViewColumn> columns;
    while (cursor.Fetch()) {
        const auto& row = table.metaData;
        columns.push_back({row.viewName->Str(), row.name->Str(), row.type->Str(), row.length->value()});
    }
    return columns;
}

}  // namespace QOR
