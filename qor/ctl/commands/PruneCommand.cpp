#include <unistd.h>

#include <cstdio>

#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "commands/Commands.h"
#include "process/Interrupt.h"

namespace QOR {
namespace {

std::int64_t secondsBefore(const std::string& text) {
    if (const auto age = parseDuration(text)) return currentTime() - *age;
    if (const auto time = parseTime(text)) return *time;
    throw CtlError::usage("--before: " + quoteText(text) +
                          " is neither a time (2024-01-31, 2024-01-31T12:00:00Z) nor an age (90s, 45m, 12h, 30d, 8w)");
}

/// Asks for one kind until it is done, telling how far it is.
class Pruning {
public:
    Pruning(Backend& backend, bool shows, const Interrupt& interrupt)
        : m_backend(backend), m_shows(shows || ::isatty(STDERR_FILENO) != 0), m_interrupt(interrupt) {}

    std::uint64_t prune(const std::string& kind, std::int64_t before) {
        std::uint64_t done = 0;
        Backend::Pruned pruned;
        do {
            if (m_interrupt.isRequested()) {
                m_stopped = true;
                break;
            }
            pruned = m_backend.prune(kind, before);
            done += pruned.step.done;
            if (m_shows && pruned.step.more)
                std::fprintf(stderr, "%s: %llu\n", kind.c_str(), static_cast<unsigned long long>(done));
        } while (pruned.step.more);
        m_stranded = pruned.stranded;
        return done;
    }
    bool stopped() const { return m_stopped; }
    std::uint64_t stranded() const { return m_stranded; }

private:
    Backend& m_backend;
    bool m_shows;
    const Interrupt& m_interrupt;
    bool m_stopped = false;
    std::uint64_t m_stranded = 0;
};

std::vector<std::string> kindsOf(const PruneOptions& options) {
    const bool all = !options.operations && !options.events && !options.backups;
    std::vector<std::string> kinds;
    if (all || options.operations) kinds.emplace_back("operations");
    if (all || options.events) kinds.emplace_back("events");
    if (all || options.backups) kinds.emplace_back("backups");
    return kinds;
}

void tell(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace

void runPrune(const ConnectionOptions& connection, const PruneOptions& options) {
    if (options.before.empty() && !options.compact)
        throw CtlError::usage("say what goes: --before TIME or AGE, or --compact");
    const std::int64_t before = options.before.empty() ? 0 : secondsBefore(options.before);
    const auto backend = makeBackend(connection, BackendUse::Store);
    const Interrupt interrupt;
    Pruning pruning(*backend, options.progress, interrupt);
    if (!options.before.empty()) {
        for (const std::string& kind : kindsOf(options))
            tell(kind + ": " + std::to_string(pruning.prune(kind, before)) + " removed");
    }
    const std::uint64_t given = pruning.prune(options.compact ? "compact" : "space", before);
    tell("space: " + std::to_string(given) + " bytes given back");
    if (pruning.stopped()) throw CtlError(CtlExit::Interrupted, "stopped; what was removed stays removed");
    if (pruning.stranded() != 0) {
        std::fprintf(stderr,
                     "qorctl: %llu bytes stay in the file for later records; \"qorctl prune --compact\" writes it anew "
                     "so that they can be given back\n",
                     static_cast<unsigned long long>(pruning.stranded()));
    }
}

}  // namespace QOR
