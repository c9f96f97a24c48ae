#include "ingest/collectors/LibvirtLife.h"

#include <algorithm>
#include <array>

#include "ingest/collectors/LibvirtConnection.h"

namespace QOR {
namespace {

/// Why a domain is in a state, and what led to it.
struct StateCause {
    int state;
    int reason;
    LibvirtChange change;
};
constexpr std::array<StateCause, 24> stateCauses{{
    {VIR_DOMAIN_RUNNING, VIR_DOMAIN_RUNNING_BOOTED, {"start", "started", "booted"}},
    {VIR_DOMAIN_RUNNING, VIR_DOMAIN_RUNNING_MIGRATED, {"migrate", "started", "migrated"}},
    {VIR_DOMAIN_RUNNING, VIR_DOMAIN_RUNNING_RESTORED, {"restore", "started", "restored"}},
    {VIR_DOMAIN_RUNNING, VIR_DOMAIN_RUNNING_FROM_SNAPSHOT, {"revert", "started", "snapshot"}},
    {VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_USER, {"suspend", "suspended", "user"}},
    {VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_MIGRATION, {"suspend", "suspended", "migration"}},
    {VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_SAVE, {"suspend", "suspended", "save"}},
    {VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_DUMP, {"suspend", "suspended", "dump"}},
    {VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_IOERROR, {"suspend", "suspended", "ioerror", true}},
    {VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_WATCHDOG, {"suspend", "suspended", "watchdog", true}},
    {VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_FROM_SNAPSHOT, {"suspend", "suspended", "snapshot"}},
    {VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_SNAPSHOT, {"suspend", "suspended", "snapshot"}},
    {VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_POSTCOPY, {"suspend", "suspended", "migration"}},
    {VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_POSTCOPY_FAILED, {"suspend", "suspended", "migration", true}},
    {VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_CRASHED, {"crash", "crashed", "panicked", true}},
    {VIR_DOMAIN_CRASHED, VIR_DOMAIN_CRASHED_PANICKED, {"crash", "crashed", "panicked", true}},
    {VIR_DOMAIN_SHUTOFF, VIR_DOMAIN_SHUTOFF_SHUTDOWN, {"stop", "stopped", "shutdown"}},
    {VIR_DOMAIN_SHUTOFF, VIR_DOMAIN_SHUTOFF_DESTROYED, {"stop", "stopped", "destroyed"}},
    {VIR_DOMAIN_SHUTOFF, VIR_DOMAIN_SHUTOFF_CRASHED, {"crash", "stopped", "crashed", true}},
    {VIR_DOMAIN_SHUTOFF, VIR_DOMAIN_SHUTOFF_MIGRATED, {"migrate", "stopped", "migrated"}},
    {VIR_DOMAIN_SHUTOFF, VIR_DOMAIN_SHUTOFF_SAVED, {"save", "stopped", "saved"}},
    {VIR_DOMAIN_SHUTOFF, VIR_DOMAIN_SHUTOFF_FAILED, {"stop", "stopped", "failed", true}},
    {VIR_DOMAIN_SHUTOFF, VIR_DOMAIN_SHUTOFF_FROM_SNAPSHOT, {"revert", "stopped", "snapshot"}},
    {VIR_DOMAIN_SHUTOFF, VIR_DOMAIN_SHUTOFF_DAEMON, {"stop", "stopped", "daemon", true}},
}};

/// What led to the state, for its reason; else what usually does.
LibvirtChange causeOf(const LibvirtState& state, const LibvirtChange& usual, LibvirtLife life) {
    const auto* const found = std::find_if(stateCauses.begin(), stateCauses.end(), [&](const StateCause& one) {
        return one.state == state.state && one.reason == state.reason;
    });
    LibvirtChange change = found == stateCauses.end() ? usual : found->change;
    change.life = life;
    return change;
}

bool isActive(LibvirtLife life) noexcept {
    return life == LibvirtLife::Running || life == LibvirtLife::Paused || life == LibvirtLife::Asleep;
}

constexpr LibvirtChange usualStart{"start", "started", ""};
constexpr LibvirtChange usualStop{"stop", "stopped", ""};
constexpr LibvirtChange usualCrash{"crash", "crashed", "", true};

/// Within one life from its start to its end.
LibvirtChange changeOfActive(LibvirtLife before, LibvirtLife now, const LibvirtState& state) {
    switch (now) {
        case LibvirtLife::Paused:
            return causeOf(state, {"suspend", "suspended", ""}, now);
        case LibvirtLife::Asleep:
            return {"sleep", "asleep", "", false, now};
        default:
            if (before == LibvirtLife::Asleep) return {"wakeup", "started", "wakeup", false, now};
            return {"resume", "resumed", "", false, now};
    }
}

LibvirtLife pausedLife(int reason) noexcept {
    return reason == VIR_DOMAIN_PAUSED_CRASHED ? LibvirtLife::Crashed : LibvirtLife::Paused;
}

LibvirtLife transitionOfJob(int job) noexcept {
    switch (job) {
        case VIR_DOMAIN_JOB_OPERATION_START:
        case VIR_DOMAIN_JOB_OPERATION_RESTORE:
        case VIR_DOMAIN_JOB_OPERATION_MIGRATION_IN:
            return LibvirtLife::Running;
        case VIR_DOMAIN_JOB_OPERATION_SAVE:
            return LibvirtLife::Saved;
        case VIR_DOMAIN_JOB_OPERATION_MIGRATION_OUT:
            return LibvirtLife::Gone;
        default:
            return LibvirtLife::Unknown;
    }
}

LibvirtLife transitionOfPaused(int reason) noexcept {
    switch (reason) {
        case VIR_DOMAIN_PAUSED_STARTING_UP:
            return LibvirtLife::Running;
        case VIR_DOMAIN_PAUSED_SHUTTING_DOWN:
            return LibvirtLife::Off;
        case VIR_DOMAIN_PAUSED_SAVE:
            return LibvirtLife::Saved;
        case VIR_DOMAIN_PAUSED_DUMP:
        case VIR_DOMAIN_PAUSED_SNAPSHOT:
            return LibvirtLife::Running;
        default:
            return LibvirtLife::Unknown;
    }
}

}  // namespace

std::string_view libvirtLifeName(LibvirtLife life) noexcept {
    switch (life) {
        case LibvirtLife::Gone:
            return "gone";
        case LibvirtLife::Off:
            return "off";
        case LibvirtLife::Saved:
            return "saved";
        case LibvirtLife::Paused:
            return "paused";
        case LibvirtLife::Running:
            return "running";
        case LibvirtLife::Crashed:
            return "crashed";
        case LibvirtLife::Asleep:
            return "asleep";
        default:
            return "unknown";
    }
}

LibvirtLife libvirtLife(const LibvirtState& state, bool isSaved) noexcept {
    switch (state.state) {
        case VIR_DOMAIN_RUNNING:
        case VIR_DOMAIN_BLOCKED:
        case VIR_DOMAIN_SHUTDOWN:  // that is its transition
            return LibvirtLife::Running;
        case VIR_DOMAIN_PAUSED:
            return pausedLife(state.reason);
        case VIR_DOMAIN_SHUTOFF:
            return isSaved ? LibvirtLife::Saved : LibvirtLife::Off;
        case VIR_DOMAIN_CRASHED:
            return LibvirtLife::Crashed;
        case VIR_DOMAIN_PMSUSPENDED:
            return LibvirtLife::Asleep;
        default:
            return LibvirtLife::Unknown;
    }
}

LibvirtLife libvirtTransition(const LibvirtState& state) noexcept {
    if (state.state == VIR_DOMAIN_SHUTDOWN) return LibvirtLife::Off;
    if (state.job) {
        const LibvirtLife of = transitionOfJob(*state.job);
        if (of != LibvirtLife::Unknown) return of;
    }
    return state.state == VIR_DOMAIN_PAUSED ? transitionOfPaused(state.reason) : LibvirtLife::Unknown;
}

bool hasMovedAway(const LibvirtState& state) noexcept {
    return state.state == VIR_DOMAIN_SHUTOFF && state.reason == VIR_DOMAIN_SHUTOFF_MIGRATED;
}

std::vector<LibvirtChange> libvirtChanges(LibvirtLife before, LibvirtLife now, const LibvirtState& state,
                                          bool isRestarted) {
    std::vector<LibvirtChange> changes;
    if (now == LibvirtLife::Unknown) return changes;
    if (isActive(before) && isActive(now) && isRestarted) {
        changes.push_back(usualStop);
        changes.back().life = LibvirtLife::Off;
        before = LibvirtLife::Off;
    }
    if (before == now) return changes;
    if (isActive(now)) {
        if (isActive(before)) return {changeOfActive(before, now, state)};
        const LibvirtState start{
            state.state == VIR_DOMAIN_RUNNING ? VIR_DOMAIN_RUNNING : VIR_DOMAIN_NOSTATE, state.reason, {}};
        changes.push_back(causeOf(start, usualStart, LibvirtLife::Running));
        if (now != LibvirtLife::Running) changes.push_back(changeOfActive(LibvirtLife::Running, now, state));
    } else if (now == LibvirtLife::Crashed) {
        changes.push_back(causeOf(state, usualCrash, now));
    } else if (isActive(before) || before == LibvirtLife::Crashed) {
        changes.push_back(causeOf(state, usualStop, now));
    }
    return changes;
}

}  // namespace QOR
