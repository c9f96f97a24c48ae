/// \file
/// Whole numbers out of the database, which are known until it changes.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

class ASSession;

/// The whole numbers in a select's only row, null as 0; none where there is no row. For a select whose answer follows
/// from what the database holds alone: where the engine tells that this is as it was when the session asked last
/// (SQLite does, in a transaction that has read something and written nothing), it is not asked again.
/// \throws AException also for what is no whole number
QOR_API std::vector<std::int64_t> readNumbers(ASSession& session, std::string_view sql, unsigned columns);

}  // namespace QOR
