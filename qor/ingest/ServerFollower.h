/// \file
/// ServerFollower: what servers that keep records still have to be told, beside those who store them.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "QORServers/QORServers.h"

namespace QOR {

/// One turn after the other: ends a hand-over whose command has ended before, brings the schema and the copies of the
/// environments up to date, sees to what an agent
/// that ended left undone or could not do because a server was away, and clears up. Used by one thread. What a turn
/// cannot do the next one tries again.
class ServerUpkeep {
public:
    /// What fails with a server is logged, once until it works again, and does not keep others from their turn.
    void turn();

private:
    void settleLast();
    void visit(const QORPlacement& placement, const QORServer& server);
    void seeToNotes(const QORPlacement& placement, const QORServer& from);

    std::map<std::string, std::int64_t> m_seen;  ///< by server: the last note of the turn before
    std::set<std::string> m_current;             ///< servers whose schema is of this program's version
    std::set<std::string> m_failing;
    bool m_settles = true;  ///< hand-overs could be looked at
};

/// Does so about once a second for as long as it lives, on a thread of its own. Does nothing where there are no
/// servers.
class ServerFollower {
public:
    ServerFollower();

private:
    std::jthread m_thread;
};

}  // namespace QOR
