/// \file
/// Collectors are run: what they read is brought into the host's database.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <stop_token>
#include <string>
#include <vector>

#include "ingest/QORIngest.h"

namespace QOR {

class QORCollector;

struct QORCollectOptions {
    std::filesystem::path root = "/";  ///< the directory that stands for "/"
    QORIngestOptions ingest;
    /// Called whenever records have been stored, by the thread that runs the collector; may be empty.
    std::function<void()> stored{};
};

/// From the third on, the worse the later.
enum class QORCollectOutcome {
    Done,
    None,    ///< there is no such source here
    Failed,  ///< QORCollectResult::text says why
    Hung,    ///< it takes longer than it may
};
constexpr std::size_t collectOutcomeCount = 4;
/// "done", "none", "failed", "hung".
const char* collectOutcomeName(QORCollectOutcome outcome) noexcept;

/// Of one collector, or of several together.
struct QORCollectResult {
    /// An environment counts as replaced when it was known, operations and events as unchanged; an operation is
    /// replaced when it has come to an end since.
    QORIngestResult stored;
    std::uint64_t malformed = 0;          ///< lines of the sources that could not be understood
    std::vector<std::string> unreadable;  ///< what could not be read, with the reason
    QORCollectOutcome outcome = QORCollectOutcome::None;
    std::string text{};  ///< why it failed; empty where it did not

    /// Adds what a collector did: something has been done when one of them has, failed when one of them did, and hangs
    /// when one of them does.
    void merge(const std::string& collector, const QORCollectResult& other);
};

/// The collectors that come with the host are known to QORCollectorRegistry from now on. Any thread, any number of
/// times.
void registerCollectors();
/// Which hypervisors the collector "libvirt" asks from its next run on, by their URIs; none: those whose sockets are
/// there. Any thread. \pre checkLibvirtSource()
void setLibvirtSources(std::vector<std::string> uris);

/// Runs one in this thread. QORRdbms must be open for writing. Failures of the source and of the database are in the
/// result. \throws AException where the database cannot even be asked; QORException errForbidden, as QORIngest::store()
QORCollectResult runCollector(QORCollector& collector, const QORCollectOptions& options, const std::stop_token& stop);

}  // namespace QOR
