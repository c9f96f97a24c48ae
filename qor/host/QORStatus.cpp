#include "host/QORStatus.h"

#include <algorithm>

#include "QORCommon/QORException.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORLibAgent/QORRecordState.h"
#include "QORLibAgent/QORSecurity.h"
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

std::uint64_t sizeOfDatabase(ASSession& session) {
    ASStatement& select = session.prepare(session.engine() == ASEngine::SQLite
                                              ? "SELECT page_count * page_size FROM pragma_page_count, pragma_page_size"
                                              : "SELECT pg_database_size(current_database())");
    select.execute();
    const std::uint64_t bytes = select.fetch() ? static_cast<std::uint64_t>(select.integer(1)) : 0;
    select.close();
    return bytes;
}

/// In the order of QORChangeKind.
std::vector<QORViewRecords> noRecords() {
    return {{"vEnvironment"}, {"vOpLog"}, {"vEventLog"}, {"vBackupInfo"}};
}

/// Home has all environments, whoever has their records; with servers it has nothing else.
constexpr std::size_t firstDividedKind = static_cast<std::size_t>(QORChangeKind::Operation);

/// \param first, end kinds in the order of QORChangeKind
void addRecords(ASSession& session, std::size_t first, std::size_t end, std::vector<QORViewRecords>& all) {
    QORClientContext everybody;
    everybody.fullAccess = true;
    const QORRowAccess access(everybody);
    for (std::size_t kind = first; kind < end; ++kind) {
        const QORRecordState state = recordState(session, static_cast<QORChangeKind>(kind), access);
        all[kind].records += static_cast<std::uint64_t>(state.records);
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
            status.bytes += sizeOfDatabase(*transaction);
            if (status.records) addRecords(*transaction, firstDividedKind, changeKindCount, *status.records);
        });
    } catch (const AException& failure) {
        own.failure = failure.text();
    } catch (const QORException& failure) {
        // Of a server that hangs: the request's deadline has passed, and what is known by now is told all the same.
        own.failure = "server \"" + server.name + "\": " + failure.message();
    }
    if (!own.failure.empty()) status.records.reset();
}

}  // namespace

QORDatabaseStatus readDatabaseStatus() {
    QORDatabaseStatus status;
    const ASDatabaseOptions options = QORRdbms::instance().options();
    const auto placement = QORServers::instance().placement();
    status.name = QORDBSchema::databaseName(options.connectionString);
    status.readOnly = options.readOnly;
    {
        QORRdbmsTran transaction(ASAccess::Read);
        status.engine = transaction->engine() == ASEngine::SQLite ? "SQLite" : "PostgreSQL";
        status.schemaVersion = QORDBSchema::inspect(*transaction).version;
        status.unreadable = unreadableDocuments(*transaction);
        status.bytes = sizeOfDatabase(*transaction);
        if (status.schemaVersion == QORDBSchema::currentVersion()) status.records = noRecords();
        const bool isDivided = !placement->servers().empty();
        if (status.records)
            addRecords(*transaction, 0, isDivided ? firstDividedKind : changeKindCount, *status.records);
    }
    for (const QORServer& server : placement->servers())
        addServer(status, server);
    return status;
}

}  // namespace QOR
