/// \file
/// The environments as the database holds them, and what has changed there since it was read last.
///
/// The database numbers what changes its environments, by whatever program it is done, in the order in which it is
/// committed: triggers see to that. Who has read a state and its number can be told later what was changed since.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORLibAgent/QOREnv.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// What became of an environment.
struct QOREnvChange {
    QOREID eid;
    QORPtr<const QOREnv> env;  ///< null: it is there no more
};

/// How the database's environments are, as against a state before.
struct QOREnvState {
    std::optional<std::int64_t> number;  ///< nothing where the database numbers no states
    bool whole = false;                  ///< `changes` are all environments, and there are no others
    std::vector<QOREnvChange> changes;   ///< of several of one environment the last counts
};

/// Reads within a transaction that sees one state. \param since the number of the state before; nothing for all
/// environments \param worthwhile of more changes than these all environments are read instead \throws AException
QOREnvState readEnvironments(ASSession& session, std::optional<std::int64_t> since, std::size_t worthwhile);

/// Notes a change of environments that was made by statements without triggers, within the same transaction.
/// \param eids of the environments \throws AException
QOR_API void noteChangedEnvironments(ASSession& session, const std::vector<std::string>& eids);

}  // namespace QOR
