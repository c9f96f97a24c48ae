#include "QORDBSchema/QORSpreadSchema.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <string_view>

#include "QORDBSchema/QORSchemaRows.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

std::string joined(std::initializer_list<std::string_view> pieces) {
    std::string text;
    for (const std::string_view piece : pieces)
        text += piece;
    return text;
}

constexpr std::array tables{
    QORSpreadTable{"qor_operation", "eid"},
    QORSpreadTable{"qor_operation_environment", "own"},
    QORSpreadTable{"qor_event", "eid"},
    QORSpreadTable{"qor_backup", "eid"},
};

/// Each hands out one of the tables, so that what all servers answer is what each of them answers, together.
constexpr std::array<std::string_view, 3> leafViews{"vOpLog", "vEventLog", "vBackupInfo"};

/// For pages, and for those who read a great deal.
constexpr std::array<std::string_view, 2> foreignSuffixes{"", "_long"};

std::string identifier(std::string_view name) {
    return ASSession::quoteIdentifier(name);
}

std::string literal(std::string_view text) {
    return ASSession::quoteLiteral(text);
}

struct DependentView {
    std::string name;
    std::string options;
    std::string select;
};

/// Views of home that depend on the tables, those that others depend on before the others.
std::vector<DependentView> dependentViews(ASSession& home) {
    std::string names;
    for (const QORSpreadTable& table : tables)
        names += (names.empty() ? "" : ", ") + literal(table.name);
    // Cut into lines as the engine does it, a definition is the same text wherever it is read.
    const std::string sql =
        "WITH RECURSIVE d (oid, depth) AS (SELECT c.oid, 0 FROM pg_class c WHERE c.relnamespace = "
        "CAST(current_schema() AS regnamespace) AND c.relname IN (" +
        names +
        ") UNION SELECT r.ev_class, d.depth + 1 FROM d JOIN pg_depend p ON p.refobjid = d.oid "
        "AND p.refclassid = CAST('pg_class' AS regclass) AND p.classid = CAST('pg_rewrite' AS regclass) "
        "JOIN pg_rewrite r ON r.oid = p.objid WHERE r.ev_class <> d.oid) "
        "SELECT CAST(c.relname AS text), coalesce(array_to_string(c.reloptions, ', '), ''), pg_get_viewdef(c.oid) "
        "FROM d JOIN pg_class c ON c.oid = d.oid WHERE c.relkind = 'v' "
        "AND c.relnamespace = CAST(current_schema() AS regnamespace) "
        "GROUP BY c.oid, c.relname, c.reloptions ORDER BY max(d.depth), c.relname";
    std::vector<DependentView> views;
    for (auto& row : readRows(home, sql, 3))
        views.push_back({row[0], row[1], row[2]});
    return views;
}

/// Who may read a table or a view of home may read what stands for it; PUBLIC as the empty name.
std::vector<QORSchemaRow> readersOf(ASSession& home) {
    return readRows(home,
                    "SELECT CAST(c.relname AS text), CASE WHEN a.grantee = 0 THEN 'PUBLIC' "
                    "ELSE quote_ident(pg_get_userbyid(a.grantee)) END FROM pg_class c, aclexplode(c.relacl) a "
                    "WHERE c.relnamespace = CAST(current_schema() AS regnamespace) AND c.relkind IN ('r', 'v') "
                    "AND a.privilege_type = 'SELECT' AND a.grantee <> c.relowner ORDER BY 1, 2",
                    2);
}

/// Writes the statements down, one after the other.
class SpreadScript {
public:
    explicit SpreadScript(ASSession& home)
        : m_path(readCell(home, "SELECT current_setting('search_path')")),
          m_schema(readCell(home, "SELECT CAST(current_schema() AS text)")),
          m_views(dependentViews(home)),
          m_readers(readersOf(home)) {}

    std::vector<std::string> write(ASSession& home, const std::vector<QORSpreadServer>& servers) {
        removeAll(home);
        for (const std::string_view suffix : foreignSuffixes) {
            makeParents(suffix);
            for (const QORSpreadServer& server : servers)
                makeLeaves(server, suffix);
        }
        if (!servers.empty()) refuseRecords();
        add("SELECT set_config('search_path', " + literal(m_path) + ", true)");
        return std::move(m_statements);
    }

private:
    void add(std::string statement) { m_statements.push_back(std::move(statement)); }

    void removeAll(ASSession& home) {
        for (const auto& row : readRows(home,
                                        "SELECT CAST(nspname AS text) FROM pg_namespace WHERE nspname IN ('qor_all', "
                                        "'qor_all_long') OR nspname LIKE 'qor\\_at\\_%' ORDER BY nspname LIKE "
                                        "'qor\\_at\\_%' DESC, nspname",
                                        1))
            add("DROP SCHEMA " + identifier(row.front()) + " CASCADE");
        for (const QORSpreadTable& table : tables)
            add("DROP TRIGGER IF EXISTS qor_elsewhere ON " + own(table));
        add("DROP FUNCTION IF EXISTS " + identifier(m_schema) + ".qor_elsewhere()");
    }

    void makeParents(std::string_view suffix) {
        const std::string schema = "qor_all" + std::string(suffix);
        add("CREATE SCHEMA " + schema);
        add("COMMENT ON SCHEMA " + schema + " IS " + literal(m_schema));
        add("CREATE FUNCTION " + schema +
            ".qor_stays() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN RAISE EXCEPTION '% lies where its environment "
            "belongs: remove it and store it again', TG_TABLE_NAME USING ERRCODE = 'feature_not_supported'; END $$");
        for (const QORSpreadTable& table : tables) {
            const std::string name = schema + '.' + table.name;
            add("CREATE TABLE " + name + " (LIKE " + own(table) + ") PARTITION BY HASH (" + table.key + ")");
            grant(schema, table.name);
        }
        makeViews(schema, [](const DependentView&) { return true; });
        allowUse(schema);
    }

    void makeLeaves(const QORSpreadServer& server, std::string_view suffix) {
        const std::string schema = "qor_at_" + server.name + std::string(suffix);
        const std::string all = "qor_all" + std::string(suffix);
        add("CREATE SCHEMA " + schema);
        for (const QORSpreadTable& table : tables) {
            const std::string name = schema + '.' + table.name;
            add(joined({"CREATE FOREIGN TABLE ", name, " PARTITION OF ", all, ".", table.name,
                        " FOR VALUES WITH (MODULUS ", std::to_string(server.modulus), ", REMAINDER ",
                        std::to_string(server.remainder), ") SERVER qor_", server.name, suffix,
                        " OPTIONS (schema_name ", literal(server.schema), ", table_name ", literal(table.name), ")"}));
            add(joined({"CREATE TRIGGER qor_stays BEFORE UPDATE ON ", name, " FOR EACH ROW WHEN (OLD.", table.key,
                        " IS DISTINCT FROM NEW.", table.key, ") EXECUTE FUNCTION ", all, ".qor_stays()"}));
            grant(schema, table.name);
        }
        makeViews(schema, [](const DependentView& view) {
            return std::find(leafViews.begin(), leafViews.end(), view.name) != leafViews.end();
        });
        allowUse(schema);
    }

    /// With the texts of home's own: a name without a schema is that of the first one of the path that has it.
    template <class Chosen>
    void makeViews(const std::string& schema, Chosen chosen) {
        add("SELECT set_config('search_path', " + literal(schema + ", " + m_path) + ", true)");
        for (const DependentView& view : m_views) {
            if (!chosen(view)) continue;
            add("CREATE VIEW " + schema + '.' + identifier(view.name) +
                (view.options.empty() ? "" : " WITH (" + view.options + ")") + " AS " + view.select);
            grant(schema, view.name);
        }
        add("SELECT set_config('search_path', " + literal(m_path) + ", true)");
    }

    void grant(const std::string& schema, const std::string& name) {
        for (const auto& row : m_readers) {
            if (row[0] == name) add("GRANT SELECT ON " + schema + '.' + identifier(name) + " TO " + row[1]);
        }
    }

    void allowUse(const std::string& schema) {
        std::vector<std::string> roles;
        for (const auto& row : m_readers)
            roles.push_back(row[1]);
        std::sort(roles.begin(), roles.end());
        roles.erase(std::unique(roles.begin(), roles.end()), roles.end());
        for (const std::string& role : roles)
            add(joined({"GRANT USAGE ON SCHEMA ", schema, " TO ", role}));
    }

    /// Nobody looks there for records any more.
    void refuseRecords() {
        const std::string function = identifier(m_schema) + ".qor_elsewhere()";
        add("CREATE FUNCTION " + function +
            " RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN RAISE EXCEPTION 'records of % are kept by the servers that "
            "qor_server names, not here', TG_TABLE_NAME USING ERRCODE = 'QOR01'; END $$");
        for (const QORSpreadTable& table : tables)
            add("CREATE TRIGGER qor_elsewhere BEFORE INSERT OR UPDATE ON " + own(table) +
                " FOR EACH ROW EXECUTE FUNCTION " + function);
    }

    std::string own(const QORSpreadTable& table) const { return identifier(m_schema) + '.' + table.name; }

    std::string m_path;
    std::string m_schema;
    std::vector<DependentView> m_views;
    std::vector<QORSchemaRow> m_readers;
    std::vector<std::string> m_statements;
};

}  // namespace

std::span<const QORSpreadTable> spreadTables() noexcept {
    return tables;
}

std::vector<QORSpreadServer> readSpreadServers(ASSession& home) {
    std::vector<QORSpreadServer> servers;
    if (home.engine() == ASEngine::SQLite || readCell(home, "SELECT to_regclass('qor_server')").empty()) return servers;
    for (auto& row : readRows(home,
                              "SELECT name, number, connection, schema, modulus, remainder FROM qor_server "
                              "ORDER BY number",
                              6))
        servers.push_back({row[0], std::stoi(row[1]), row[2], row[3], std::stoll(row[4]), std::stoll(row[5])});
    return servers;
}

std::vector<std::string> spreadStatements(ASSession& home, const std::vector<QORSpreadServer>& servers) {
    return SpreadScript(home).write(home, servers);
}

void remakeSpread(ASSession& home) {
    for (const std::string& statement : spreadStatements(home, readSpreadServers(home)))
        home.execute(statement);
}

}  // namespace QOR
