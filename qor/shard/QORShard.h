/// \file
/// Spreads a database's records over several servers, adds servers, and checks them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "shard/ShardFile.h"

namespace QOR {

struct QORShardOptions {
    std::string home;                  ///< connection string of the database that agents are pointed at
    std::vector<ShardServer> servers;  ///< all of them, those that there are already too
};

struct QORShardReport {
    std::vector<std::string> done;    ///< what was made, a line each; none when all was there
    std::vector<std::string> faults;  ///< what is not as it should be, a line each
};

/// Sets up what is missing and checks what is there; run again it goes on where it was ended. One at a time for a home,
/// used by one thread.
class QORShard {
public:
    /// Opens home and the servers. \throws QORException 1 for databases that are not fit for it; AException
    explicit QORShard(QORShardOptions options);
    ~QORShard();
    QORShard(const QORShard&) = delete;
    QORShard& operator=(const QORShard&) = delete;

    /// \throws QORException 1 naming what is in the way, and what an administrator has to do; AException
    QORShardReport run();

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
