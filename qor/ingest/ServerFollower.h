/// \file
/// ServerFollower: what servers that keep records still have to be told, beside those who store them.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "QORServers/QORServers.h"
#include "ingest/ServerRemovals.h"

namespace QOR {

/// One turn after the other: ends a hand-over whose command has ended before, brings the schema and the copies of the
/// environments up to date, sees to what an agent
/// that ended left undone or could not do because a server was away, and clears up. Where that is much, it has servers'
/// writers wait for moments only, and leaves them as long in between. Used by one thread. What a turn cannot do the
/// next one tries again.
class ServerUpkeep {
public:
    /// What fails with a server is logged, once until it works again, and does not keep others from their turn.
    void turn();

private:
    void settleLast();
    void visit(const QORPlacement& placement, const QORServer& server);
    static bool isAnyAway(const QORPlacement& placement);
    void seeToNotes(const QORPlacement& placement, const QORServer& from);
    /// \returns whether they are seen to
    static bool seeTo(const std::vector<ArrivalNote>& notes, const QORPlacement& placement, const QORServer& from);

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
