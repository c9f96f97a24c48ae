/// \file
/// Moves records from one database to others while both are in use.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "shard/ShardDatabase.h"
#include "shard/ShardRecords.h"

namespace QOR {

/// Where some of the records go.
struct ShardWay {
    std::string name;  ///< of the server
    ShardDatabase* target;
    ShardShare share;
};

/// Whose records are the source's afterwards; none for a source that gives all away.
struct ShardRest {
    std::string name;
    ShardShare share;
};

/// What is told of it while it goes on.
struct ShardMoveHooks {
    std::function<void(std::uint64_t records, std::uint64_t of, std::uint64_t resumed)> progress;
    std::function<bool()> stop;  ///< true: the move is to end, to be gone on with
};

/// Thrown when it was asked to end.
class ShardStopped {};

/// Copies first, with everybody at work and what changes meanwhile noted in the source; then it has everybody wait for
/// the last changes, and for the switch. Ended at any point, another one goes on. Everything throws QORException,
/// AException and ShardStopped.
class ShardMove {
public:
    ShardMove(ShardDatabase& home, ShardDatabase& source, std::vector<ShardWay> ways, std::vector<ShardRest> rest,
              ShardMoveHooks hooks);

    /// Takes nearly everything to where it goes; the source keeps it.
    void copy();
    /// Gives the rest of the way, and with it the records, away: from then on they are there and not here. Who stores
    /// at the source, or reads through home, waits only for what has changed at last and the few newest records.
    /// \param leave what else is to be done in the source's transaction, which decides \param place says so at home,
    /// within its transaction, which follows \returns how many records were worked on while others waited
    std::uint64_t finish(const std::function<void(ASSession&)>& leave, const std::function<void(ASSession&)>& place);
    /// The same for a source that is home, in one transaction there.
    void finishHome(const std::function<void(ASSession&)>& place);

private:
    void requireFit();
    std::size_t followSome(bool leaves);
    void followOpenly(bool leaves);
    bool handOver(ASSession& source, const std::function<void(ASSession&)>& leave,
                  const std::function<void(ASSession&)>& place, const std::function<void()>& commit);
    void settleAll(ASSession& source);
    void settleRest(ASSession& source);
    [[noreturn]] void refuseCount(std::size_t way, std::int64_t there, std::uint64_t here) const;
    void noteTouched(ASSession& source, const std::string& condition);
    void noteTouchedBy(ASSession& source, const std::vector<std::int64_t>& numbers);
    void took(std::uint64_t records);

    ShardDatabase& m_home;
    ShardDatabase& m_source;
    std::vector<ShardWay> m_ways;
    std::vector<ShardRest> m_rest;
    ShardMoveHooks m_hooks;
    std::vector<ShardRecords> m_records;  ///< of each way
    std::vector<std::int64_t> m_there;    ///< how many each target has; while a source gives records away
    std::vector<std::uint64_t> m_gone;    ///< how many the source has lost to it
    std::uint64_t m_waited = 0;           ///< what has been done while others waited
    ASSession* m_atHome = nullptr;        ///< in whose transaction home is told, while the source is home
    std::uint64_t m_done = 0;
    std::uint64_t m_of = 0;
    std::uint64_t m_resumed = 0;
};

/// Runs `work` in a transaction at home in which nobody reads through it, once that is possible without keeping readers
/// waiting for long. \param stop as above
void alone(ShardDatabase& home, const std::function<void(ASSession&)>& work, const std::function<bool()>& stop);

/// Begins or ends to note what changes in a database, likewise without keeping writers waiting for long.
void watch(ShardDatabase& source, bool on, const std::function<bool()>& stop);

}  // namespace QOR
