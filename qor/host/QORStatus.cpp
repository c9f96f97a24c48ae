#include "host/QORStatus.h"

#include <algorithm>

#include "QORDBSchema/QORDBSchema.h"
#include "QORServers/QORServers.h"

namespace QOR {
namespace {

void addUp(std::vector<QORUnreadableDocuments>& all, const std::vector<QORUnreadableDocuments>& more) {
    for (const QORUnreadableDocuments& one : more) {
        const auto same = std::find_if(all.begin(), all.end(), [&](const QORUnreadableDocuments& other) {
            return other.table == one.table && other.column == one.column;
        });
        if (same == all.end()) {
            all.push_back(one);
        } else {
            same->count += one.count;
        }
    }
}

void addServer(QORDatabaseStatus& status, const QORServer& server) {
    QORServerStatus& own = status.servers.emplace_back();
    own.name = server.name;
    try {
        QORServers::instance().run(server, [&](QORRdbms& database) {
            QORRdbmsTran transaction(database, ASAccess::Read);
            own.schemaVersion = QORDBSchema::inspect(*transaction).version;
            const auto unreadable = unreadableDocuments(*transaction);
            if (unreadable && status.unreadable) addUp(*status.unreadable, *unreadable);
        });
    } catch (const AException& failure) {
        own.failure = failure.text();
    }
}

}  // namespace

QORDatabaseStatus readDatabaseStatus() {
    QORDatabaseStatus status;
    const ASDatabaseOptions options = QORRdbms::instance().options();
    status.name = QORDBSchema::databaseName(options.connectionString);
    status.readOnly = options.readOnly;
    {
        QORRdbmsTran transaction(ASAccess::Read);
        status.engine = transaction->engine() == ASEngine::SQLite ? "SQLite" : "PostgreSQL";
        status.schemaVersion = QORDBSchema::inspect(*transaction).version;
        status.unreadable = unreadableDocuments(*transaction);
    }
    const auto placement = QORServers::instance().placement();
    for (const QORServer& server : placement->servers())
        addServer(status, server);
    return status;
}

}  // namespace QOR
