/// \file
/// QORServers: the databases that share the process's records among them, beside its own.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORServers/QORPlacement.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// The process's database, QORRdbms::instance(), is their home: it says which servers there are and what each has, and
/// keeps what is not divided. Thread-safe.
class QOR_API QORServers {
public:
    static QORServers& instance();

    /// The division as it was read last; read when it was not yet, or home has been configured anew. Never null;
    /// without servers where there are none, as on other engines; hidden where the role may not ask. Costs a look at
    /// home's database only when it is read. \throws AException \throws QORException 1 for a division that makes no
    /// sense
    std::shared_ptr<const QORPlacement> placement();
    /// Reads it anew where it has changed. \returns it \throws as placement()
    std::shared_ptr<const QORPlacement> refresh() { return look().placement; }
    /// What home says at this moment.
    struct Look {
        std::shared_ptr<const QORPlacement> placement;
        bool handsOver = false;  ///< a server is about to give some of its environments away, or has just done so
    };
    /// As refresh().
    Look look();

    /// A server's database, with the options of home's. It is not connected to by that: a server that cannot be reached
    /// is an AException of whoever uses it, which names it. Valid until close().
    /// \throws QORException 1 when there is no server of the name
    QORRdbms& database(std::string_view name);
    /// Does something with a server's database. Each failure names the server. \throws what `work` does
    void run(const QORServer& server, const std::function<void(QORRdbms&)>& work);
    /// Whether the server keeps what the placement says, in the state that the transaction there sees.
    /// \throws AException
    static bool holds(ASSession& session, const QORServer& server);
    /// The failure with the server's name in it.
    static AException naming(std::string_view name, const AException& failure);

    /// Whether the server was found away some seconds ago: whoever can do without it for now need not try.
    bool isAway(std::string_view name) const;
    void noteAway(std::string_view name);

    /// Those that have been used, for whoever reports on them.
    std::vector<std::pair<std::string, QORRdbms*>> used();
    /// A server's connection string with what it leaves out: who somebody is, and how he proves it, is home's.
    static std::string connectionString(const std::string& server, const std::string& home);
    /// Closes everything. Nobody uses a server's database any more.
    void close();

private:
    struct Database {
        std::string connection;
        std::unique_ptr<QORRdbms> database;
    };

    std::shared_ptr<const QORPlacement> read(std::uint64_t generation);
    void retire(Database& database);

    mutable std::mutex m_mutex;
    std::uint64_t m_generation = 0;                            // guarded by m_mutex; of home
    bool m_divides = false;                                    // guarded by m_mutex; home says what servers there are
    bool m_tellsHandovers = false;                             // guarded by m_mutex; and when they change
    std::shared_ptr<const QORPlacement> m_placement;           // guarded by m_mutex; null until it is read
    std::map<std::string, Database, std::less<>> m_databases;  // guarded by m_mutex
    std::map<std::string, std::chrono::steady_clock::time_point, std::less<>> m_away;  // guarded by m_mutex
    std::vector<std::unique_ptr<QORRdbms>> m_retired;  // guarded by m_mutex; somebody may still use them
};

}  // namespace QOR
