#include "QORDBSchema/SchemaTable.h"

#include "QORCommon/QORLogger.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "rdbmspp/sql/ASCursor.h"

namespace QOR {
namespace {

// 'nvarchar(64)' is the type nvarchar with the length 64; a cast reads the digits and stops at what follows them.
// 'decimal(10,2)' has the length 10. What is no 31-bit number is no length.
constexpr const char* select =
    "SELECT m.name AS \"viewName\", c.name AS \"name\","
    " lower(trim(CASE WHEN instr(c.type, '(') > 0 THEN substr(c.type, 1, instr(c.type, '(') - 1) ELSE c.type END))"
    " AS \"type\","
    " CASE WHEN instr(c.type, '(') > 0 AND CAST(substr(c.type, instr(c.type, '(') + 1) AS INTEGER)"
    " BETWEEN 0 AND 2147483647 THEN CAST(substr(c.type, instr(c.type, '(') + 1) AS INTEGER) ELSE 0 END AS \"length\","
    " 'UTF-8' AS \"charSet\", 'BINARY' AS \"collation\", c.cid AS \"position\""
    " FROM sqlite_master m JOIN pragma_table_info(m.name) c"
    " WHERE m.type = 'view' AND lower(m.name) <> 'schematable'";

constexpr const char* order = " ORDER BY m.name, c.cid";

/// Views of which the engine cannot tell the columns. The select over all of them fails at the first such view, so
/// usually one attempt says that there is none.
std::vector<std::string> unreadableViews(ASSession& session) {
    std::vector<std::string> bad;
    try {
        ASStatement& all = session.prepare(std::string("SELECT count(*) FROM (") + select + ")");
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

void requireSqlite(ASEngine engine) {
    if (engine != ASEngine::SQLite) throw AException("the views of this database engine cannot be listed");
}

}  // namespace

std::string schemaTableSql(const std::vector<std::string>& without) {
    std::string sql = select;
    if (!without.empty()) {
        sql += " AND m.name NOT IN (";
        for (std::size_t i = 0; i < without.size(); ++i) {
            if (i > 0) sql += ", ";
            sql += ASSession::quoteLiteral(without[i]);
        }
        sql += ')';
    }
    return sql + order;
}

SchemaTable::SchemaTable(const std::string& sql)
    : metaData(ASDomain::derived(sql, "SchemaTable")), position("position", ASType::Int) {
    position.Register(metaData.domain());
}

SchemaTable::SchemaTable() : SchemaTable((requireSqlite(QORRdbms::instance().engine()), schemaTableSql({}))) {}

SchemaTable::SchemaTable(ASSession& session)
    : SchemaTable((requireSqlite(session.engine()), schemaTableSql(unreadableViews(session)))) {}

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
