// The databases of servers that keep records have the same schema as the one that they keep them for.
#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORDBSchema/QORSpreadSchema.h"
#include "QORServers/QORServers.h"

namespace QOR {
namespace {

[[noreturn]] void refuse(const QORServer& server, const std::string& why) {
    throw QORException(errFailure, "server \"" + server.name + "\": its database " + why, QOR_SOURCE_PATH, __LINE__);
}

QORSchemaState stateOf(QORRdbms& database) {
    QORRdbmsTran tran(database, ASAccess::Read);
    return QORDBSchema::inspect(*tran);
}

}  // namespace

void QORDBSchema::migrateServer(const QORServer& server) {
    QORServers::instance().run(server, [&](QORRdbms& database) {
        const QORSchemaState found = stateOf(database);
        if (found.kind != QORSchemaState::Kind::Ours) refuse(server, "holds no tables of this host");
        if (found.version == currentVersion()) return;
        if (found.version > currentVersion())
            refuse(server, "has version " + std::to_string(found.version) +
                               " of the schema, but this program knows versions up to " +
                               std::to_string(currentVersion()) + ": use the newer program that wrote it");
        database.write([](ASSession& session) { migrate(session); });
        logMessage(2, "QORDBSchema", QOR_SOURCE_PATH, "migrateServer", "Server '%s': schema version %d, was %d",
                   server.name.c_str(), currentVersion(), found.version);
    });
}

// A server that is away does not keep the others' records from anybody.
void QORDBSchema::migrateServers(bool homeChanged) {
    const auto placement = QORServers::instance().placement();
    if (placement->none()) return;
    for (const QORServer& server : placement->servers()) {
        try {
            migrateServer(server);
        } catch (const AException& failure) {
            logMessage(1, "QORDBSchema", QOR_SOURCE_PATH, __func__, "the version of the schema is not known: %s",
                       failure.what());
        }
    }
    if (homeChanged) QORRdbms::instance().write([](ASSession& session) { remakeSpread(session); });
}

}  // namespace QOR
