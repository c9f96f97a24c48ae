#include "QORDBSchema/QORSchemaEngine.h"

#include <array>

#include "QORDBSchema/PostgresSchema.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

/// Each leads to its version.
constexpr std::array sqliteSteps{
    QORVersionedStep{1, &inventorySchema}, QORVersionedStep{2, &logSchema},     QORVersionedStep{3, &counterSchema},
    QORVersionedStep{4, &documentSchema},  QORVersionedStep{5, &upkeepSchema},  QORVersionedStep{6, &requestSchema},
    QORVersionedStep{7, &changeSchema},    QORVersionedStep{8, &serverSchema},  QORVersionedStep{9, &countingSchema},
    QORVersionedStep{10, &identitySchema}, QORVersionedStep{11, &commitSchema}, QORVersionedStep{12, &secretSchema},
    QORVersionedStep{13, &sequenceSchema}, QORVersionedStep{14, &writerSchema}, QORVersionedStep{15, &handoverSchema},
    QORVersionedStep{16, &forwardSchema},  QORVersionedStep{17, &lengthSchema}, QORVersionedStep{18, &sessionSchema},
    QORVersionedStep{19, &readingSchema},  QORVersionedStep{20, &targetSchema},
};
constexpr std::array<std::string_view, 3> sqliteParts{"CREATE TRIGGER ", "CREATE INDEX ", "CREATE UNIQUE INDEX "};

bool isThereInSqlite(ASSession& session, const QORSchemaPart& part) {
    ASStatement& select = session.prepare("SELECT 1 FROM sqlite_master WHERE name = ? AND sql = ?");
    select.bind(1, part.name).bind(2, part.sql);
    return select.hasRow();
}

std::string removalFromSqlite(const QORSchemaPart& part) {
    return (part.sql.starts_with("CREATE TRIGGER") ? "DROP TRIGGER IF EXISTS " : "DROP INDEX IF EXISTS ") +
           ASSession::quoteIdentifier(part.name);
}

constexpr std::array postgresSteps{
    QORVersionedStep{5, &postgresTables},    QORVersionedStep{6, &postgresUpkeep},
    QORVersionedStep{7, &postgresChanges},   QORVersionedStep{8, &postgresServers},
    QORVersionedStep{9, &postgresCounting},  QORVersionedStep{10, &postgresIdentities},
    QORVersionedStep{11, &postgresCommits},  QORVersionedStep{12, &postgresSecrets},
    QORVersionedStep{13, &postgresSequence}, QORVersionedStep{14, &writerSchema},
    QORVersionedStep{15, &postgresHandover}, QORVersionedStep{16, &postgresForwarding},
    QORVersionedStep{17, &postgresLengths},  QORVersionedStep{18, &postgresSessions},
    QORVersionedStep{19, &postgresReading},  QORVersionedStep{20, &postgresTargets},
};
static_assert(sqliteSteps.back().version == postgresSteps.back().version);
constexpr std::array<std::string_view, 5> postgresParts{
    "CREATE FUNCTION ", "CREATE TRIGGER ", "CREATE CONSTRAINT TRIGGER ", "CREATE INDEX ", "CREATE UNIQUE INDEX "};

bool isTrigger(const QORSchemaPart& part) {
    return part.sql.substr(0, part.sql.find(part.name)).ends_with(" TRIGGER ");
}

/// What stands between two marks of a statement, "" where they do not.
std::string_view between(std::string_view sql, std::string_view begin, std::string_view end) {
    const std::size_t from = sql.find(begin);
    if (from == std::string_view::npos) return {};
    sql.remove_prefix(from + begin.size());
    return sql.substr(0, sql.find(end));
}

// The engine keeps the text of a function's body as it was written. Triggers and indexes it keeps in a form of its own,
// of which is told what can happen to them without anybody meaning harm: that they are switched off, or not finished.
bool isThereInPostgres(ASSession& session, const QORSchemaPart& part) {
    if (part.sql.starts_with("CREATE FUNCTION ")) {
        ASStatement& select = session.prepare(
            "SELECT 1 FROM pg_proc WHERE proname = CAST(? AS text) AND pronamespace = "
            "CAST(current_schema() AS regnamespace) AND prosrc = CAST(? AS text)");
        select.bind(1, part.name).bind(2, between(part.sql, "$$", "$$"));
        return select.hasRow();
    }
    ASStatement& select = session.prepare(
        isTrigger(part)
            ? "SELECT 1 FROM pg_trigger t JOIN pg_class c ON c.oid = t.tgrelid WHERE t.tgname = CAST(? AS text) AND "
              "c.relnamespace = CAST(current_schema() AS regnamespace) AND t.tgenabled IN ('O', 'A')"
            : "SELECT 1 FROM pg_class c JOIN pg_index i ON i.indexrelid = c.oid WHERE c.relname = CAST(? AS text) AND "
              "c.relnamespace = CAST(current_schema() AS regnamespace) AND i.indisvalid");
    select.bind(1, part.name);
    return select.hasRow();
}

std::string removalFromPostgres(const QORSchemaPart& part) {
    // Triggers depend on functions, which are therefore replaced as they stand.
    if (part.sql.starts_with("CREATE FUNCTION ")) return {};
    const std::string name = ASSession::quoteIdentifier(part.name);
    if (!isTrigger(part)) return "DROP INDEX IF EXISTS " + name;
    return "DROP TRIGGER IF EXISTS " + name + " ON " + std::string(between(part.sql, " ON ", " "));
}

// 'nvarchar(64)' is the type nvarchar with the length 64; a cast reads the digits and stops at what follows them.
// 'decimal(10,2)' has the length 10. What is no 31-bit number is no length.
constexpr const char* sqliteViewColumns =
    "SELECT m.name AS \"viewName\", c.name AS \"name\","
    " lower(trim(CASE WHEN instr(c.type, '(') > 0 THEN substr(c.type, 1, instr(c.type, '(') - 1) ELSE c.type END))"
    " AS \"type\","
    " CASE WHEN instr(c.type, '(') > 0 AND CAST(substr(c.type, instr(c.type, '(') + 1) AS INTEGER)"
    " BETWEEN 0 AND 2147483647 THEN CAST(substr(c.type, instr(c.type, '(') + 1) AS INTEGER) ELSE 0 END AS \"length\","
    " 'UTF-8' AS \"charSet\", 'BINARY' AS \"collation\", c.cid AS \"position\""
    " FROM sqlite_master m JOIN pragma_table_info(m.name) c"
    " WHERE m.type = 'view' AND lower(m.name) <> 'schematable'";

constexpr const char* sqliteViewOrder = " ORDER BY m.name, c.cid";

#define QOR_POSTGRES_VIEWS                                                                   \
    " FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace"                         \
    " JOIN pg_attribute a ON a.attrelid = c.oid AND a.attnum > 0 AND NOT a.attisdropped"     \
    " JOIN pg_type d ON d.oid = a.atttypid"                                                  \
    " JOIN pg_type t ON t.oid = CASE WHEN d.typtype = 'd' THEN d.typbasetype ELSE d.oid END" \
    " WHERE c.relkind IN ('v', 'm') AND pg_table_is_visible(c.oid)"                          \
    " AND n.nspname NOT LIKE 'pg\\_%' AND n.nspname <> 'information_schema' AND lower(c.relname) <> 'schematable'"

// Views and materialised views that a bare name finds, whichever schema of the search path they are in. A domain is
// what it is made of. Types have the names that clients know them by; one that they know nothing like keeps its own.
// The length of a text or a number lies above the four bytes that its modifier counts; a type without one may have a
// comment that says 'nvarchar(64)'.
constexpr const char* postgresViewColumns =
    "SELECT CAST(c.relname AS text) AS \"viewName\", CAST(a.attname AS text) AS \"name\","
    " CASE t.typname WHEN 'uuid' THEN 'uniqueidentifier' WHEN 'text' THEN 'nvarchar' WHEN 'varchar' THEN 'nvarchar'"
    " WHEN 'name' THEN 'nvarchar' WHEN 'bpchar' THEN 'char' WHEN 'int2' THEN 'smallint' WHEN 'int4' THEN 'int'"
    " WHEN 'int8' THEN 'bigint' WHEN 'bool' THEN 'bit' WHEN 'float4' THEN 'float' WHEN 'float8' THEN 'double'"
    " WHEN 'numeric' THEN 'decimal' WHEN 'timestamp' THEN 'datetime' WHEN 'timestamptz' THEN 'datetime'"
    " WHEN 'date' THEN 'datetime' WHEN 'bytea' THEN 'image' ELSE CAST(t.typname AS text) END AS \"type\","
    " CASE WHEN t.typname IN ('varchar', 'bpchar') AND a.atttypmod > 4 THEN a.atttypmod - 4"
    " WHEN t.typname = 'numeric' AND a.atttypmod > 4 THEN ((a.atttypmod - 4) >> 16) & 65535"
    " WHEN t.typname = 'text' THEN"
    " coalesce(CAST(substring(col_description(c.oid, a.attnum) FROM '^nvarchar\\((\\d{1,9})\\)$') AS int), 0)"
    " ELSE 0 END AS \"length\","
    " CAST('UTF-8' AS text) AS \"charSet\", CAST('BINARY' AS text) AS \"collation\","
    " CAST(a.attnum - 1 AS int) AS \"position\"" QOR_POSTGRES_VIEWS;

// Those that the select above gives a name that says all, or none, being texts anyway, are left out.
constexpr const char* postgresColumnTypes =
    "SELECT CAST(c.relname AS text), CAST(a.attname AS text), CAST(t.typname AS text)" QOR_POSTGRES_VIEWS
    " AND t.typname NOT IN ('uuid', 'text', 'varchar', 'bpchar', 'int2', 'int4', 'int8', 'float4', 'float8',"
    " 'timestamp', 'date', 'bytea')";

constexpr const char* postgresViewOrder = " ORDER BY CAST(c.relname AS text) COLLATE \"C\", a.attnum";

// A table whose key is none of its columns keeps the order of arrival in its rowid, which has a column of its own in
// other engines. Columns that are computed are none.
constexpr const char* sqliteTableColumns =
    "SELECT m.name, c.name, lower(CASE WHEN instr(c.type, '(') > 0 THEN substr(c.type, 1, instr(c.type, '(') - 1) "
    "ELSE c.type END), c.pk, c.cid FROM sqlite_master m JOIN pragma_table_xinfo(m.name) c "
    "WHERE m.type = 'table' AND substr(m.name, 1, 4) = 'qor_' AND c.hidden = 0 UNION ALL "
    "SELECT l.name, 'rowid', 'integer', 0, -1 FROM pragma_table_list l WHERE l.schema = 'main' AND l.type = 'table' "
    "AND l.wr = 0 AND substr(l.name, 1, 4) = 'qor_' AND NOT EXISTS (SELECT 1 FROM pragma_table_xinfo(l.name) k "
    "WHERE k.pk = 1 AND lower(k.type) = 'integer') ORDER BY 1, 5";

constexpr QORSchemaEngine sqlite{
    .steps = sqliteSteps,
    .parts = sqliteParts,
    .alone = "",
    .markTable =
        "CREATE TABLE qor_schema_version (version int NOT NULL PRIMARY KEY, mark nvarchar(64) NOT NULL, "
        "applied datetime NOT NULL)",
    .hasMark =
        "SELECT 1 FROM pragma_table_info('qor_schema_version') WHERE name IN ('version', 'mark') "
        "GROUP BY 1 HAVING count(*) = 2",
    .hasIdentity = "SELECT 1 FROM pragma_table_info('qor_database') WHERE name = 'id'",
    .isFilling = "SELECT 1 FROM pragma_table_info('qor_copy') LIMIT 1",
    .hasAnything = "SELECT 1 FROM sqlite_master WHERE substr(name, 1, 7) <> 'sqlite_' LIMIT 1",
    .tableColumns = sqliteTableColumns,
    .indexes =
        "SELECT t.name, i.name, c.name FROM sqlite_schema t JOIN pragma_index_list(t.name) i "
        "JOIN pragma_index_info(i.name) c WHERE t.type = 'table' AND substr(t.name, 1, 4) = 'qor_' "
        "AND i.partial = 0 ORDER BY t.name, i.name, c.seqno",
    .references =
        "SELECT DISTINCT m.name, f.\"table\" FROM sqlite_master m JOIN pragma_foreign_key_list(m.name) f "
        "WHERE m.type = 'table'",
    .sequenceFilling = &sequenceFilling,
    .afterFilling = "",
    .viewColumns = sqliteViewColumns,
    .viewName = "m.name",
    .viewOrder = sqliteViewOrder,
    .columnTypes = "",
    .isThere = isThereInSqlite,
    .removal = removalFromSqlite,
};

// Tables of extensions do not make a database somebody's: administrators install them everywhere.
constexpr QORSchemaEngine postgres{
    .steps = postgresSteps,
    .parts = postgresParts,
    .alone = "SELECT pg_advisory_xact_lock(hashtextextended('qor schema ' || current_schema(), 0))",
    .markTable =
        "CREATE TABLE qor_schema_version (version int NOT NULL PRIMARY KEY, mark text COLLATE \"C\" NOT NULL, "
        "applied timestamp(0) NOT NULL)",
    .hasMark =
        "SELECT 1 FROM information_schema.columns WHERE table_schema = current_schema() "
        "AND table_name = 'qor_schema_version' AND column_name IN ('version', 'mark') HAVING count(*) = 2",
    .hasIdentity =
        "SELECT 1 FROM information_schema.columns WHERE table_schema = current_schema() "
        "AND table_name = 'qor_database' AND column_name = 'id'",
    .isFilling =
        "SELECT 1 FROM pg_class WHERE relnamespace = CAST(current_schema() AS regnamespace) AND relname = 'qor_copy'",
    .hasAnything =
        "SELECT 1 FROM pg_class c WHERE c.relnamespace = CAST(current_schema() AS regnamespace) "
        "AND c.relkind IN ('r', 'p', 'v', 'm', 'f') AND NOT EXISTS (SELECT 1 FROM pg_depend d WHERE d.objid = c.oid "
        "AND d.classid = CAST('pg_class' AS regclass) AND d.deptype = 'e') LIMIT 1",
    .tableColumns =
        "SELECT CAST(c.relname AS text), CAST(a.attname AS text), CAST(t.typname AS text), "
        "coalesce((SELECT k.place FROM unnest(CAST(i.indkey AS int2[])) WITH ORDINALITY k (number, place) "
        "WHERE k.number = a.attnum), 0) FROM pg_class c JOIN pg_attribute a ON a.attrelid = c.oid AND a.attnum > 0 "
        "AND NOT a.attisdropped AND a.attgenerated = '' JOIN pg_type t ON t.oid = a.atttypid "
        "LEFT JOIN pg_index i ON i.indrelid = c.oid AND i.indisprimary WHERE c.relkind = 'r' "
        "AND c.relnamespace = CAST(current_schema() AS regnamespace) AND c.relname LIKE 'qor\\_%' "
        "ORDER BY CAST(c.relname AS text) COLLATE \"C\", a.attnum",
    .indexes =
        "SELECT t.relname::text, i.relname::text, a.attname::text FROM pg_index x "
        "JOIN pg_class t ON t.oid = x.indrelid JOIN pg_class i ON i.oid = x.indexrelid "
        "CROSS JOIN LATERAL unnest(x.indkey::int2[]) WITH ORDINALITY k (n, place) "
        "JOIN pg_attribute a ON a.attrelid = t.oid AND a.attnum = k.n "
        "WHERE t.relnamespace = current_schema()::regnamespace AND left(t.relname, 4) = 'qor_' "
        "AND x.indpred IS NULL ORDER BY 1, 2, k.place",
    .references =
        "SELECT DISTINCT CAST(c.relname AS text), CAST(r.relname AS text) FROM pg_constraint f "
        "JOIN pg_class c ON c.oid = f.conrelid JOIN pg_class r ON r.oid = f.confrelid WHERE f.contype = 'f' "
        "AND c.relnamespace = CAST(current_schema() AS regnamespace)",
    .sequenceFilling = &postgresSequenceFilling,
    .afterFilling =
        "SELECT format('SELECT setval(pg_get_serial_sequence(%L, %L), max(%I)) FROM %I HAVING max(%3$I) IS NOT NULL', "
        "c.relname, a.attname, a.attname, c.relname) FROM pg_class c JOIN pg_attribute a ON a.attrelid = c.oid "
        "AND a.attidentity <> '' WHERE c.relkind = 'r' AND c.relnamespace = CAST(current_schema() AS regnamespace) "
        "UNION ALL SELECT format('ANALYZE %I', c.relname) FROM pg_class c WHERE c.relkind = 'r' "
        "AND c.relnamespace = CAST(current_schema() AS regnamespace) AND c.relname LIKE 'qor\\_%'",
    .viewColumns = postgresViewColumns,
    .viewName = "c.relname",
    .viewOrder = postgresViewOrder,
    .columnTypes = postgresColumnTypes,
    .isThere = isThereInPostgres,
    .removal = removalFromPostgres,
};

}  // namespace

const QORSchemaEngine& QORSchemaEngine::of(ASEngine engine) noexcept {
    return engine == ASEngine::PostgreSQL ? postgres : sqlite;
}

}  // namespace QOR
