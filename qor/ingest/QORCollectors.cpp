#include "ingest/QORCollectors.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "QORCommon/QORNoDestructor.h"
#include "QORFunctionality/QORCollector.h"
#include "ingest/CollectorRun.h"
#include "ingest/collectors/AptCollector.h"
#include "ingest/collectors/CgroupCollector.h"
#include "ingest/collectors/ContainerCollector.h"
#include "ingest/collectors/DpkgCollector.h"
#include "ingest/collectors/FilesystemCollector.h"
#include "ingest/collectors/JournalCollector.h"
#include "ingest/collectors/LibvirtCollector.h"
#include "ingest/collectors/MachineCollector.h"
#include "ingest/collectors/PressureCollector.h"

namespace QOR {
namespace {

/// Those that come with the host. The machine is first: what others tell belongs to it.
struct OwnCollectors {
    MachineCollector machine;
    DpkgCollector dpkg;
    AptCollector apt;
    PressureCollector pressure;
    FilesystemCollector filesystems;
    CgroupCollector cgroups;
    JournalCollector journal;
    LibvirtCollector libvirt;
    ContainerCollector docker{ContainerCollector::Engine::Docker};
    ContainerCollector podman{ContainerCollector::Engine::Podman};
    ContainerCollector machined{ContainerCollector::Engine::Machined};
    ContainerCollector lxc{ContainerCollector::Engine::Lxc};
    ContainerCollector lxd{ContainerCollector::Engine::Lxd};
};

OwnCollectors& ownCollectors() {
    static QORNoDestructor<OwnCollectors> own;
    return *own;
}

}  // namespace

const char* collectOutcomeName(QORCollectOutcome outcome) noexcept {
    constexpr const char* names[collectOutcomeCount] = {"done", "none", "failed", "hung"};
    return names[static_cast<std::size_t>(outcome)];
}

void QORCollectResult::merge(const std::string& collector, const QORCollectResult& other) {
    stored.merge(other.stored);
    malformed += other.malformed;
    unreadable.insert(unreadable.end(), other.unreadable.begin(), other.unreadable.end());
    const bool isOfSource =
        other.outcome >= QORCollectOutcome::Failed && !other.stored.failure && other.unreadable.empty();
    if (isOfSource) unreadable.push_back(collector + ": " + other.text);
    if (text.empty()) text = other.text;
    if (outcome == QORCollectOutcome::None || other.outcome > std::max(outcome, QORCollectOutcome::None))
        outcome = other.outcome;
}

void registerCollectors() {
    ownCollectors();
}

void setLibvirtSources(std::vector<std::string> uris) {
    ownCollectors().libvirt.setSources(std::move(uris));
}

QORCollectResult runCollector(QORCollector& collector, const QORCollectOptions& options, const std::stop_token& stop) {
    CollectorRun run(collector.traits().name, options, stop);
    bool isThere = false;
    std::string failure;
    try {
        isThere = collector.collect(run);
    } catch (const std::exception& exception) {
        failure = exception.what();
    } catch (...) {  // NOLINT(bugprone-empty-catch): a plug-in may throw anything
        failure = "it threw what is no exception";
    }
    QORCollectResult result = run.end(failure);
    result.outcome = isThere ? QORCollectOutcome::Done : QORCollectOutcome::None;
    if (!result.text.empty()) result.outcome = QORCollectOutcome::Failed;
    return result;
}

}  // namespace QOR
