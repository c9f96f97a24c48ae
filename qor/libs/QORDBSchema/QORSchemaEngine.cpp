#include "QORDBSchema/QORSchemaEngine.h"

#include <array>

#include "QORDBSchema/PostgresSchema.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

bool hasRows(ASStatement& statement) {
    statement.execute();
    const bool found = statement.fetch();
    statement.close();
    return found;
}

constexpr std::array sqliteSteps{QORVersionedStep{1, &inventorySchema}, QORVersionedStep{2, &logSchema},
                                 QORVersionedStep{3, &counterSchema},   QORVersionedStep{4, &documentSchema},
                                 QORVersionedStep{5, &upkeepSchema},    QORVersionedStep{6, &requestSchema}};
constexpr std::array<std::string_view, 2> sqliteParts{"CREATE TRIGGER ", "CREATE INDEX "};

bool isThereInSqlite(ASSession& session, const QORSchemaPart& part) {
    ASStatement& select = session.prepare("SELECT 1 FROM sqlite_master WHERE name = ? AND sql = ?");
    select.bind(1, part.name).bind(2, part.sql);
    return hasRows(select);
}

std::string removalFromSqlite(const QORSchemaPart& part) {
    return (part.sql.starts_with("CREATE TRIGGER") ? "DROP TRIGGER IF EXISTS " : "DROP INDEX IF EXISTS ") +
           ASSession::quoteIdentifier(part.name);
}

constexpr std::array postgresSteps{QORVersionedStep{5, &postgresTables}, QORVersionedStep{6, &postgresUpkeep}};
constexpr std::array<std::string_view, 4> postgresParts{"CREATE FUNCTION ", "CREATE TRIGGER ", "CREATE INDEX ",
                                                        "CREATE UNIQUE INDEX "};

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
        return hasRows(select);
    }
    ASStatement& select = session.prepare(
        part.sql.starts_with("CREATE TRIGGER ")
            ? "SELECT 1 FROM pg_trigger t JOIN pg_class c ON c.oid = t.tgrelid WHERE t.tgname = CAST(? AS text) AND "
              "c.relnamespace = CAST(current_schema() AS regnamespace) AND t.tgenabled IN ('O', 'A')"
            : "SELECT 1 FROM pg_class c JOIN pg_index i ON i.indexrelid = c.oid WHERE c.relname = CAST(? AS text) AND "
              "c.relnamespace = CAST(current_schema() AS regnamespace) AND i.indisvalid");
    select.bind(1, part.name);
    return hasRows(select);
}

std::string removalFromPostgres(const QORSchemaPart& part) {
    // Triggers depend on functions, which are therefore replaced as they stand.
    if (part.sql.starts_with("CREATE FUNCTION ")) return {};
    const std::string name = ASSession::quoteIdentifier(part.name);
    if (!part.sql.starts_with("CREATE TRIGGER ")) return "DROP INDEX IF EXISTS " + name;
    return "DROP TRIGGER IF EXISTS " + name + " ON " + std::string(between(part.sql, " ON ", " "));
}

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
    .hasAnything = "SELECT 1 FROM sqlite_master WHERE substr(name, 1, 7) <> 'sqlite_' LIMIT 1",
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
    .hasAnything =
        "SELECT 1 FROM pg_class c WHERE c.relnamespace = CAST(current_schema() AS regnamespace) "
        "AND c.relkind IN ('r', 'p', 'v', 'm', 'f') AND NOT EXISTS (SELECT 1 FROM pg_depend d WHERE d.objid = c.oid "
        "AND d.classid = CAST('pg_class' AS regclass) AND d.deptype = 'e') LIMIT 1",
    .isThere = isThereInPostgres,
    .removal = removalFromPostgres,
};

}  // namespace

const QORSchemaEngine& QORSchemaEngine::of(ASEngine engine) noexcept {
    return engine == ASEngine::PostgreSQL ? postgres : sqlite;
}

}  // namespace QOR
