/// \file
/// Everything that a process needs to serve operators: the database, the plug-ins and the router, in the right order.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QORDBSchema/QORDBSchema.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORLibAgent/QORSecurity.h"
#include "host/QORClientSession.h"
#include "host/QORDatabaseLock.h"
#include "host/QOREnvFollower.h"
#include "host/QORPlugInLoader.h"
#include "host/QORRouter.h"
#include "ingest/ServerFollower.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// How a host is set up.
struct QORHostOptions {
    ASDatabaseOptions database;
    /// What becomes of a database that is missing, old or another program's. With database.readOnly nothing is ever
    /// written.
    QORSchemaMode schemaMode = QORSchemaMode::Own;
    /// Empty: defaultPlugInDirectory().
    std::filesystem::path plugInDirectory;
    /// A vocabulary on top of the one that is shipped; empty for none.
    std::filesystem::path vocabularyFile;
    /// True for a host that serves clients of different rights: metadata that depends on who asks first is then
    /// loaded as a client without rights. False leaves the order to the requests.
    bool prime = true;
    /// Of answers that are not streamed.
    QORAnswerLimits answers{};
    /// The database is this host's alone to keep: another one with the same wish is refused, as is this one when there
    /// is another. Not with database.readOnly, and not where the database is a server's, which any number may use.
    bool exclusive = false;
    /// The host lasts: what others change of the environments is taken in within a second, and servers that keep
    /// records are looked after.
    bool follows = false;
};

/// The host in a process; at most one at a time. All sessions must be gone before it is.
class QORHost {
public:
    /// Must be the first thing that a process does: settles what can be set only before the database's first use.
    static void prepareProcess();

    /// Loads the plug-ins, reads the vocabulary, opens the database, loads its environments into the cache and, when
    /// asked to, primes the plug-ins. Mistakes in the vocabulary that leave it usable, a plug-in that is refused and a
    /// priming request that fails are logged; the host works without. \throws QORException, AException naming what
    /// cannot be opened, or is another host's
    explicit QORHost(QORHostOptions options);
    /// Unloads the plug-ins, then closes the database.
    ~QORHost();
    QORHost(const QORHost&) = delete;
    QORHost& operator=(const QORHost&) = delete;

    /// \param own what the client may see
    std::unique_ptr<QORClientSession> newSession(QORClientContextPtr own) const;
    QORRouter& router() const noexcept { return *m_router; }
    const QORPlugInLoader& plugIns() const noexcept { return m_plugIns; }
    const std::vector<QORPlugInLoader::Refusal>& refusedPlugIns() const noexcept { return m_refused; }
    const QORHostOptions& options() const noexcept { return m_options; }

private:
    QORHostOptions m_options;
    std::optional<QORDatabaseLock> m_lock;
    QOREnvCache m_environments;
    QORPlugInLoader m_plugIns;
    std::vector<QORPlugInLoader::Refusal> m_refused;
    std::unique_ptr<QORRouter> m_router;
    std::optional<QOREnvFollower> m_follower;
    std::optional<ServerFollower> m_serverFollower;
};

}  // namespace QOR
