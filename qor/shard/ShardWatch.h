/// \file
/// What changes of a database's records while they are on their way elsewhere.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// Some of what has been noted, in its order.
struct ShardChanges {
    /// By tables that have records: numbers (seq) of those that came, went or changed.
    std::map<std::string, std::vector<std::int64_t>> numbers;
    std::vector<std::string> emptied;   ///< tables that have lost all their records, before or between these changes
    std::vector<std::int64_t> entries;  ///< what is to be forgotten when they have been followed

    bool empty() const noexcept { return entries.empty(); }
};

/// Notes by triggers, in the transactions that change records and whoever makes them. Every function runs within the
/// caller's transaction on the database and throws AException.
class ShardWatch {
public:
    static bool isOn(ASSession& session);
    /// Waits for whoever is writing. When the transaction has been committed nothing is missed any more.
    static void begin(ASSession& session);
    /// Also forgets what was noted. Nothing when it is off.
    static void end(ASSession& session);
    /// From now on the session's transaction itself is not noted, until it ends.
    static void leaveOut(ASSession& session);
    /// The next changes, some thousands at most.
    static ShardChanges read(ASSession& session);
    static void forget(ASSession& session, const ShardChanges& changes);
};

}  // namespace QOR
