#include "host/QORStatus.h"

#include "QORDBSchema/QORDBSchema.h"

namespace QOR {

QORDatabaseStatus readDatabaseStatus() {
    QORDatabaseStatus status;
    const ASDatabaseOptions options = QORRdbms::instance().options();
    status.name = QORDBSchema::databaseName(options.connectionString);
    status.readOnly = options.readOnly;
    QORRdbmsTran transaction(ASAccess::Read);
    status.engine = transaction->engine() == ASEngine::SQLite ? "SQLite" : "PostgreSQL";
    status.schemaVersion = QORDBSchema::inspect(*transaction).version;
    status.unreadable = unreadableDocuments(*transaction);
    return status;
}

}  // namespace QOR
