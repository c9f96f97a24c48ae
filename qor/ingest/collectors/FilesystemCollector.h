/// \file
/// The collector "filesystems": when file systems run out of room, or do not answer.
#pragma once

#include <chrono>
#include <utility>

#include "QORFunctionality/QORCollector.h"
#include "ingest/collectors/MountProbes.h"

namespace QOR {

/// Asks each file system that is mounted (mountsWithRoom()) how much room it has. Little room for bytes or for files is
/// an alert (CollectedAlerts), and so is a mount that answers with an error, or does not answer, which is asked again
/// when it has come back. The position names the alerts that are raised: "space:/srv/a\040b". A file system that turns
/// read-only keeps its alerts, and is asked as long as it has any.
class FilesystemCollector final : public QORCollector {
public:
    /// How long it waits.
    struct Patience {
        std::chrono::milliseconds each = std::chrono::seconds(5);  ///< for a mount
        std::chrono::milliseconds all = std::chrono::seconds(20);  ///< a run; the rest is asked the next time
    };

    explicit FilesystemCollector(MountProbes::Ask ask = askMount) : FilesystemCollector(std::move(ask), Patience()) {}
    FilesystemCollector(MountProbes::Ask ask, Patience patience);
    bool collect(QORCollection& collection) override;

private:
    const Patience m_patience;
    MountProbes m_probes;
};

}  // namespace QOR
