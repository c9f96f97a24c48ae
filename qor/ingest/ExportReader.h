/// \file
/// Internal: the records of an export that come next, wherever they lie.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "ingest/QORExportPosition.h"

namespace QOR {

/// Environments whose records alone are exported.
struct ExportOwners {
    std::vector<QOREID> environments{};
    std::string list{};  ///< the same as recordList() writes them
};

/// Some records of one kind, in their order.
struct ExportPiece {
    std::string lines{};
    std::uint64_t records = 0;
    std::uint64_t unreadable = 0;  ///< of these, those that lack a document
    std::string last{};            ///< all that is wanted up to this place is in it; empty: there is nothing
    bool atEnd = false;            ///< nothing of the kind lies behind it
};

/// Reads what comes behind the position, of the kind that it says. All of it is one state of the division among
/// servers: of environments that are handed over meanwhile nothing is missed, and nothing comes twice. Takes bounded
/// time, so that where few of many records are wanted it may find none though there are more. Any thread. \param owners
/// nothing: records of all \throws AException, and QORException errDeadline; of a server with its name
ExportPiece readExportPiece(const QORExportPosition& position, const std::optional<ExportOwners>& owners);

}  // namespace QOR
