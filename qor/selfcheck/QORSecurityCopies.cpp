#include "selfcheck/QORSecurityCopies.h"

#include "QORDBSchema/QORDBSchema.h"
#include "rdbmspp/engine/ASDialect.h"
#include "selfcheck/PostgresSecurityCopies.h"
#include "selfcheck/SqliteSecurityCopies.h"

namespace QOR {

std::unique_ptr<QORSecurityCopies> QORSecurityCopies::of(const std::string& connectionString) {
    QORRdbms probe;
    probe.configure({.connectionString = connectionString, .readOnly = true});
    if (probe.engine() == ASEngine::PostgreSQL) return std::make_unique<PostgresSecurityCopies>(connectionString);
    return std::make_unique<SqliteSecurityCopies>(QORDBSchema::databaseName(connectionString));
}

std::string rowsOf(const QORCheckedView& view) {
    return quotedName("rows of " + view.name);
}

std::string columnsOf(const QORCheckedView& view) {
    std::string list;
    for (const QORCheckedColumn& column : view.columns)
        list += (list.empty() ? "" : ", ") + quotedName(column.name);
    return list;
}

}  // namespace QOR
