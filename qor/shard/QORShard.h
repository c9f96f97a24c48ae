/// \file
/// Spreads a database's records over several servers, adds servers, and checks them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "shard/ShardFile.h"

namespace QOR {

/// How far a move of records is.
struct QORShardProgress {
    std::string to;  ///< the server that they go to; empty: to all
    std::uint64_t records = 0;
    std::uint64_t of = 0;
    std::uint64_t resumed = 0;  ///< of those done, by earlier runs
};

struct QORShardOptions {
    std::string home;                  ///< connection string of the database that agents are pointed at
    std::vector<ShardServer> servers;  ///< all of them, those that there are already too
    bool showPasswords = false;        ///< in what script() writes
    std::string split{};  ///< the server that gives half of its environments to a new one; empty: the largest
    std::function<void(const QORShardProgress&)> progress{};  ///< called now and then
    std::function<bool()> stop{};  ///< asked now and then; when it is true the move ends, to be gone on with
};

struct QORShardReport {
    std::vector<std::string> done;    ///< what was made, a line each; none when all was there
    bool stopped = false;             ///< the rest is still to do
    std::uint64_t waited = 0;         ///< the most records that were worked on while those who store had to wait
    std::vector<std::string> faults;  ///< what is not as it should be, a line each
};

/// Like a copy of a database (copy/QORDatabaseCopy.h) it reports how far it is and may be ended; but its databases are
/// in use all the while, and what it makes is not finished once and for all: it sets up what is missing and checks what
/// is there; run again it goes on where it was ended. One at a time for a home, used by one thread.
class QORShard {
public:
    /// Opens home and the servers. \throws QORException 1 for databases that are not fit for it; AException
    explicit QORShard(QORShardOptions options);
    ~QORShard();
    QORShard(const QORShard&) = delete;
    QORShard& operator=(const QORShard&) = delete;

    /// \throws QORException 1 naming what is in the way, and what an administrator has to do; AException
    QORShardReport run();

    /// The statements of a first set-up, with what each is for; none is run, and no server is asked. Home exists.
    /// \throws as run()
    static std::vector<std::string> script(const QORShardOptions& options);

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
