/// \file
/// What is told of domains, as records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "QORFunctionality/QORCollector.h"
#include "ingest/QORRecords.h"
#include "ingest/collectors/LibvirtCollector.h"
#include "ingest/collectors/LibvirtPlace.h"

namespace QOR {

struct LibvirtSaving;

/// Brings records of a run. Used by its thread.
class LibvirtTelling {
public:
    LibvirtTelling(QORCollection& collection, const LibvirtCollector::Bounds& most);

    /// What an environment is, unless that has been told.
    void tell(const QOREnvironmentRecord& environment, LibvirtToldDomain& told);
    /// The environment of a domain that is no more, as it was last; nothing of one that another machine has now.
    void tellGone(const QOREID& eid, const LibvirtToldDomain& told);
    /// Something that happened: an operation and an event. A flood is counted (end()). \param time in seconds since the
    /// epoch
    void tell(const LibvirtChange& change, const QOREID& eid, LibvirtToldDomain& told, std::int64_t time);

    /// Identifies the backup that a snapshot is.
    static std::string backupId(const QOREID& eid, bool isCheckpoint, const std::string& name, std::int64_t time);
    /// A snapshot or checkpoint, unless it has been told. \returns false for what makes no sense
    bool tell(const LibvirtSaving& saving, bool isCheckpoint, const QOREnvironmentRecord& environment,
              LibvirtToldDomain& told);
    /// One that has been deleted.
    void tellDeleted(bool isCheckpoint, const std::string& name, const LibvirtToldBackup& backup, const QOREID& eid,
                     const LibvirtToldDomain& told);

    /// Tells what has been left out.
    void end();

private:
    QORInfo messageOf(const LibvirtChange& change, const QOREID& eid, const LibvirtToldDomain& told) const;

    QORCollection& m_collection;
    const LibvirtCollector::Bounds m_most;
    const QOREnvironmentRecord m_machine;
    std::size_t m_told = 0;
    std::map<QOREID, std::size_t> m_ofOne;
    std::size_t m_leftOut = 0;
    std::string m_mostOf;        ///< the name of a domain of which something was left out
    std::string m_firstLeftOut;  ///< what tells it from other floods
    std::int64_t m_from = 0;
    std::int64_t m_until = 0;
};

}  // namespace QOR
