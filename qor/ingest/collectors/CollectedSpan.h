/// \file
/// How far a log of operations has been collected.
#pragma once

#include <cstdint>
#include <string>

#include "QORFunctionality/QORCollector.h"
#include "ingest/LogFile.h"

namespace QOR {

/// Kept as a collector's position: the time of the last entry. What is older by more than a day has been stored, and is
/// not brought again: it may have been removed since. Within that day clocks are set, and what has begun comes to its
/// end. Used by one thread.
class CollectedSpan {
public:
    /// \param position of the last run; empty: everything is new
    explicit CollectedSpan(const std::string& position);

    /// Entries of this time and later are to be brought. In seconds since the epoch, as all times here.
    std::int64_t begin() const noexcept { return m_begin; }
    /// An entry has been seen.
    void take(std::int64_t time) noexcept;
    /// For the next run. A clock that was ahead does not keep what comes later from being brought.
    std::string position() const;
    /// Tells what of the log made no sense or could not be read. Where all could, the next run begins at position();
    /// else at the same: what could not be read now may be later.
    void end(QORCollection& collection, const LogReading& log) const;

private:
    std::int64_t m_begin;
    std::int64_t m_last;
};

}  // namespace QOR
