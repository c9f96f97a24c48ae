/// \file
/// The collector "journal": errors, changes of units and shortages, as the system's journal has them.
#pragma once

#include "QORFunctionality/QORCollector.h"

namespace QOR {

/// Each entry that tells something (readJournalEvent()) is an event of the source "journal". The position is the cursor
/// of the last one that was looked at. The first run begins a week
/// before the last entry.
class JournalCollector final : public QORCollector {
public:
    JournalCollector();
    bool collect(QORCollection& collection) override;
};

}  // namespace QOR
