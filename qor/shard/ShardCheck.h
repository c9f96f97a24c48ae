/// \file
/// Whether servers and home are as the placement says.
#pragma once

#include <string>
#include <vector>

#include "QORDBSchema/QORSpreadSchema.h"
#include "shard/ShardDatabase.h"

namespace QOR {

/// What is wrong with one server: its version, what it holds, records that belong elsewhere, what home reads by. Reads
/// all its records' environments once. Nothing when all is well.
std::vector<std::string> checkServer(ShardDatabase& home, ShardDatabase& database, const QORSpreadServer& server);

/// What is wrong with home itself.
std::vector<std::string> checkHome(ShardDatabase& home);

}  // namespace QOR
