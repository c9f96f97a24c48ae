#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "commands/Commands.h"
#include "commands/CountRows.h"
#include "commands/RecordProgress.h"
#include "output/Output.h"
#include "output/PersonSize.h"
#include "process/Interrupt.h"
#include "select/TimeBounds.h"

namespace QOR {
namespace {

std::int64_t secondsBefore(const std::string& text) {
    const std::int64_t now = currentTime();
    if (const auto age = parseDuration(text)) return now - *age;
    // Nothing is removed by a word or a sign.
    if (parseTime(text)) return readTime(text, now).value_or(0);
    throw CtlError::usage("--before: " + quoteText(text) +
                          " is neither a time (2024-01-31, 2024-01-31T12:00:00Z) nor an age (90s, 45m, 12h, 30d, 8w)");
}

/// How many records there are to remove; 0 where that cannot be told in no time.
std::uint64_t recordsBefore(Backend& backend, const std::string& kind, std::int64_t before) {
    const std::string view = kind == "operations" ? "vOpLog" : kind == "events" ? "vEventLog" : "vBackupInfo";
    SelectOptions select;
    select.view = view;
    select.fields = {"id"};
    select.where = "time < '" + time2dbstr(before) + "'";
    try {
        const auto counts = countRows(backend, std::move(select), currentTime(),
                                      [](std::string_view, std::string_view) { return "datetime"; });
        return counts && !counts->isBound ? static_cast<std::uint64_t>(counts->total) : 0;
    } catch (const std::exception&) {
        return 0;  // it is removed all the same
    }
}

/// Asks for one kind until it is done, telling how far it is.
class Pruning {
public:
    Pruning(Backend& backend, const PruneOptions& options, const Interrupt& interrupt)
        : m_backend(backend), m_progress(options.progress), m_interrupt(interrupt), m_unsent(options.unsent) {}

    /// \param of records that there are to remove; 0: nobody knows, or it is no records
    std::uint64_t prune(const std::string& kind, std::int64_t before, std::uint64_t of) {
        std::uint64_t done = 0;
        Backend::Pruned pruned;
        do {
            if (m_interrupt.isRequested()) {
                m_stopped = true;
                break;
            }
            pruned = m_backend.prune(kind, before, m_unsent);
            done += pruned.step.done;
            if (pruned.step.more) m_progress.tell(kind, done, of > 0 ? std::max(of, done) : 0, 0);
        } while (pruned.step.more);
        m_stranded = pruned.stranded;
        m_waiting = pruned.step.waiting;
        m_progress.clear();
        return done;
    }
    std::uint64_t pruneRecords(const std::string& kind, std::int64_t before) {
        return prune(kind, before, m_progress.isShown() ? recordsBefore(m_backend, kind, before) : 0);
    }
    bool stopped() const { return m_stopped; }
    std::uint64_t stranded() const { return m_stranded; }
    /// Records of the kind that was pruned last, as old, that wait for being sent on.
    std::uint64_t waiting() const { return m_waiting; }

private:
    Backend& m_backend;
    RecordProgress m_progress;
    const Interrupt& m_interrupt;
    bool m_unsent;
    bool m_stopped = false;
    std::uint64_t m_waiting = 0;
    std::uint64_t m_stranded = 0;
};

/// For people in units.
std::string bytesText(std::uint64_t bytes) {
    return ::isatty(STDOUT_FILENO) != 0 ? showSize(bytes) : std::to_string(bytes) + " bytes";
}

std::vector<std::string> kindsOf(const PruneOptions& options) {
    const bool all = !options.operations && !options.events && !options.backups;
    std::vector<std::string> kinds;
    if (all || options.operations) kinds.emplace_back("operations");
    if (all || options.events) kinds.emplace_back("events");
    if (all || options.backups) kinds.emplace_back("backups");
    return kinds;
}

void tell(const std::string& line) {
    FileOutput out(STDOUT_FILENO);
    out << line << "\n";
    out.flush();
}

}  // namespace

void runPrune(const ConnectionOptions& connection, const PruneOptions& options) {
    if (options.before.empty() && !options.compact)
        throw CtlError::usage("say what goes: --before TIME or AGE, or --compact");
    const std::int64_t before = options.before.empty() ? 0 : secondsBefore(options.before);
    const auto backend = makeBackend(connection, BackendUse::Store);
    const Interrupt interrupt;
    Pruning pruning(*backend, options, interrupt);
    if (!options.before.empty()) {
        for (const std::string& kind : kindsOf(options)) {
            const std::string removed = kind + ": " + std::to_string(pruning.pruneRecords(kind, before)) + " removed";
            const std::uint64_t waiting = pruning.waiting();
            tell(waiting == 0 ? removed
                              : removed + ", " + std::to_string(waiting) +
                                    " wait for being sent to another agent (--unsent removes them)");
        }
    }
    const std::uint64_t given = pruning.prune(options.compact ? "compact" : "space", before, 0);
    tell("space: " + bytesText(given) + " given back");
    if (pruning.stopped()) throw CtlError(CtlExit::Interrupted, "stopped; what was removed stays removed");
    if (pruning.stranded() != 0) {
        std::fprintf(stderr,
                     "qorctl: %llu bytes stay in the file for later records; \"qorctl prune --compact\" writes it anew "
                     "so that they can be given back\n",
                     static_cast<unsigned long long>(pruning.stranded()));
    }
}

}  // namespace QOR
