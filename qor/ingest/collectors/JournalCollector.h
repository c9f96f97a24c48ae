/// \file
/// The collector "journal": errors, changes of units and shortages, as the system's journal has them.
#pragma once

#include <cstddef>

#include "QORFunctionality/QORCollector.h"

namespace QOR {

/// Each entry that tells something (readJournalEvent()) is an event of the source "journal"; what a run brings is
/// bounded, and what it left out is told as one event. The position is the cursor of the last entry that was looked at,
/// and where files could not be read, from where on they are read again. The first run begins a week before the last
/// entry.
class JournalCollector final : public QORCollector {
public:
    /// Of a run.
    struct Bounds {
        std::size_t entries = 20'000;  ///< that are looked at; the rest in the next runs
        std::size_t events = 1000;     ///< that are brought
        std::size_t ofOne = 200;       ///< of these, about one unit
    };

    JournalCollector() : JournalCollector(Bounds()) {}
    explicit JournalCollector(Bounds most);
    bool collect(QORCollection& collection) override;

private:
    const Bounds m_most;
};

}  // namespace QOR
