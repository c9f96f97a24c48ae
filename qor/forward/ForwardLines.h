/// \file
/// Stored records as lines of NDJSON again, from which an equal record is made.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "QORLibAgent/QORRecordChanges.h"

namespace QOR {

/// A record on its way to another agent.
struct ForwardLine {
    QORRecordChange record{};
    std::string text{};  ///< with its line's end
    /// Environments that it is about, touches or is below: who may write about them is told by where these are.
    std::vector<std::string> needs{};
};

/// Reads records as they are now, from the databases that the changes were told by. What is gone by now is left out;
/// of a record that is told of several times the first place stays.
///
/// An event without an identifier gets one that is made of `stream`, its number of arrival and what it says: the same
/// whenever it is read, also out of a copy of the database, and another one when a later event has its number.
/// \throws AException, QORException
std::vector<ForwardLine> readForwardLines(const std::vector<QORRecordChange>& changes, const QORGUIDBase& stream);

/// Puts environments in front that the lines need and whose own change comes later: a record is sent as it is by now,
/// and may be about an environment that was not there when it changed first. Those that are above others come before
/// them. \param sent up to this change of the process's own database everything has been sent \throws AException
void putEnvironmentsAhead(std::vector<ForwardLine>& lines, std::int64_t sent);

}  // namespace QOR
