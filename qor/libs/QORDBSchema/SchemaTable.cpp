#include "QORDBSchema/SchemaTable.h"

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORDBSchema/QORSchemaEngine.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "rdbmspp/sql/ASCursor.h"

namespace QOR {
namespace {

/// Views of which the engine cannot tell the columns. The select over all of them fails at the first such view, so
/// usually one attempt says that there is none.
std::vector<std::string> unreadableViews(ASSession& session) {
    std::vector<std::string> bad;
    // A view of PostgreSQL's cannot outlive what it selects from.
    if (session.engine() != ASEngine::SQLite) return bad;
    try {
        ASStatement& all = session.prepare(std::string("SELECT count(*) FROM (") +
                                           QORSchemaEngine::of(ASEngine::SQLite).viewColumns + ")");
        all.execute();
        all.fetch();
        all.close();
        return bad;
    } catch (const AException& error) {
        logMessage(3, "QORDBSchema", QOR_SOURCE_PATH, __func__,
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
            logMessage(1, "QORDBSchema", QOR_SOURCE_PATH, __func__, "View %s is left out: %s", view.c_str(),
                       error.what());
            bad.push_back(std::move(view));
        }
    }
    return bad;
}

}  // namespace

std::string schemaTableSql(ASEngine engine, const std::vector<std::string>& without) {
    const QORSchemaEngine& schema = QORSchemaEngine::of(engine);
    std::string sql = schema.viewColumns;
    if (!without.empty()) {
        sql += " AND " + std::string(schema.viewName) + " NOT IN (";
        for (std::size_t i = 0; i < without.size(); ++i) {
            if (i > 0) sql += ", ";
            sql += ASSession::quoteLiteral(without[i]);
        }
        sql += ')';
    }
    return sql + schema.viewOrder;
}

SchemaTable::SchemaTable(const std::string& sql)
    : metaData(ASDomain::derived(sql, "SchemaTable")), position("position", ASType::Int) {
    position.Register(metaData.domain());
}

SchemaTable::SchemaTable() : SchemaTable(schemaTableSql(QORRdbms::instance().engine(), {})) {}

SchemaTable::SchemaTable(ASSession& session)
    : SchemaTable(schemaTableSql(session.engine(), unreadableViews(session))) {}

std::map<std::string, ASStorages, std::less<>> columnStorages(ASSession& session) {
    std::map<std::string, ASStorages, std::less<>> storages;
    const std::string_view types = QORSchemaEngine::of(session.engine()).columnTypes;
    if (types.empty()) return storages;
    ASStatement& columns = session.prepare(types);
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
