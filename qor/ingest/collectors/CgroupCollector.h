/// \file
/// The collector "cgroups": when a unit or container runs into its limits.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "QORFunctionality/QORCollector.h"

namespace QOR {

/// Reads what the kernel counts for each control group (/sys/fs/cgroup, version 2). A counter that has grown since the
/// run before is an alert (CollectedAlerts), which is cleared when it has not for ten runs, or when its group is gone;
/// processor time that was withheld is one by its share. What was counted before the first run is no news. The position
/// has the alerts that are raised and, in a second line, the counters that are not 0. Those of processor time grow
/// whatever happens: their latest ones are remembered, and the position has them as they were when something else of it
/// changed last.
class CgroupCollector final : public QORCollector {
public:
    CgroupCollector();
    bool collect(QORCollection& collection) override;

    /// What the last run left.
    struct Memory {
        std::string position;  ///< that it gave; a run that finds another one remembers nothing
        std::map<std::string, std::uint64_t, std::less<>> times;
    };

private:
    Memory m_memory;
};

}  // namespace QOR
