/// \file
/// What an entry of the journal comes to.
#pragma once

#include <optional>
#include <string>

#include "QORLibAgent/QORInfo.h"

namespace QOR {

class Journal;

struct JournalEvent {
    std::string category;  ///< "env_status" or "resource_alert"
    QORInfo info;
    std::string speaker;  ///< the unit or, where it has none, the program that it is about
};

/// Has the journal give what may be an event of this machine: errors, what its service manager tells of units, and
/// warnings of its kernel. \param machine as in /etc/machine-id; empty: of whatever machine
void matchEvents(Journal& journal, const std::string& machine);

/// \returns nothing for an entry that is none
std::optional<JournalEvent> readJournalEvent(const Journal& journal);

}  // namespace QOR
