#include "ingest/collectors/LibvirtCollector.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <set>
#include <utility>

#include "QORCommon/QORTime.h"
#include "QORCommon/QORUtf8.h"
#include "ingest/collectors/LibvirtConnection.h"
#include "ingest/collectors/LibvirtDefinition.h"
#include "ingest/collectors/LibvirtSources.h"
#include "ingest/collectors/LibvirtTelling.h"

namespace QOR {
namespace {

class LibvirtReading {
public:
    /// \param isFirst nothing of this source has been told: what was before is no news \param seen domains that
    /// another source has told of in this run: one hypervisor may be reached in two ways
    LibvirtReading(QORCollection& collection, const LibvirtConnection& connection, LibvirtTelling& telling,
                   LibvirtPlace& place, LibvirtToldSource& told, bool isFirst, std::set<QOREID>& seen,
                   const LibvirtCollector::Bounds& most)
        : m_collection(collection),
          m_connection(connection),
          m_telling(telling),
          m_place(place),
          m_told(told),
          m_isFirst(isFirst),
          m_seen(seen),
          m_most(most),
          m_begin(place.next) {}

    void read() {
        std::vector<LibvirtDomain> domains = m_connection.domains();
        std::set<QOREID> there;
        for (const LibvirtDomain& domain : domains)
            there.insert(domain.eid);
        if (domains.size() > m_most.domains) {
            m_collection.cannotRead("more than " + std::to_string(m_most.domains) + " domains; the rest is left out");
            domains.resize(m_most.domains);
        }
        for (const LibvirtDomain& domain : domains) {
            if (m_collection.isStopping()) return;
            if (m_seen.insert(domain.eid).second) readUnlessItFails(domain);
        }
        for (auto told = m_told.begin(); told != m_told.end();) {
            if (there.contains(told->first)) {
                ++told;
                continue;
            }
            end(told->first, told->second);
            told = m_told.erase(told);
        }
    }

private:
    void readUnlessItFails(const LibvirtDomain& domain) {
        try {
            read(domain);
        } catch (const LibvirtFailure& failure) {
            if (!m_connection.isAlive()) throw;
            if (failure.code() == VIR_ERR_NO_DOMAIN) return;  // it went meanwhile, which the next run tells
            m_collection.cannotRead("the domain " + toUtf8(domain.name) + ": " + failure.what());
        }
    }

    void read(const LibvirtDomain& domain) {
        const LibvirtState state = m_connection.state(domain);
        const LibvirtLife life = libvirtLife(state, domain.isSaved);
        const auto known = m_told.find(domain.eid);
        const bool isNew = known == m_told.end();
        LibvirtToldDomain told = isNew ? LibvirtToldDomain{.number = m_begin} : known->second;
        const bool isRestarted = told.id >= 0 && domain.id >= 0 && told.id != domain.id;
        told.name = domain.name;
        describe(domain, state, life, told);
        const std::int64_t now = currentTime();
        if (isNew && !m_isFirst && domain.isPersistent) m_telling.tell(libvirtDefined, domain.eid, told, now);
        if (!m_isFirst) {
            const LibvirtLife before = told.life == LibvirtLife::Unknown ? LibvirtLife::Off : told.life;
            for (const LibvirtChange& change : libvirtChanges(before, life, state, isRestarted))
                m_telling.tell(change, domain.eid, told, now);
        }
        told.life = life;
        told.transition = libvirtTransition(state);
        told.id = domain.id;
        told.isPersistent = domain.isPersistent;
        keepNumber(told);
        m_told[domain.eid] = std::move(told);
    }

    void describe(const LibvirtDomain& domain, const LibvirtState& state, LibvirtLife life, LibvirtToldDomain& told) {
        std::vector<LibvirtSaving> snapshots = m_connection.snapshots(domain, m_most.backups);
        const std::vector<LibvirtSaving> checkpoints = m_connection.checkpoints(domain, m_most.backups);
        QOREnvironmentRecord record;
        record.eid = domain.eid;
        record.parentEid = m_collection.machine();
        record.state = static_cast<std::int32_t>(life);
        record.transition = static_cast<std::int32_t>(libvirtTransition(state));
        const std::string active = m_connection.definition(domain, false);
        const auto is = readLibvirtDefinition(active, m_connection.addresses(domain), {});
        if (!is) throw LibvirtFailure("its definition makes no sense", 0, 0);
        record.title = is->title;
        record.config = is->config;
        if (domain.isPersistent) {
            const auto meant = readLibvirtDefinition(domain.id < 0 ? active : m_connection.definition(domain, true), {},
                                                     baseOf(domain, snapshots));
            if (meant) record.virtualConfig = meant->config;
        }
        if (!hasMovedAway(state)) m_telling.tell(record, told);
        tellSavings(snapshots, false, record, told);
        tellSavings(checkpoints, true, record, told);
    }

    /// The backup that the domain goes on from.
    static std::string baseOf(const LibvirtDomain& domain, const std::vector<LibvirtSaving>& snapshots) {
        for (const LibvirtSaving& snapshot : snapshots) {
            if (!snapshot.isCurrent) continue;
            const auto definition = readLibvirtSaving(snapshot.definition);
            if (definition) return LibvirtTelling::backupId(domain.eid, false, snapshot.name, definition->time);
        }
        return {};
    }

    void tellSavings(const std::vector<LibvirtSaving>& savings, bool areCheckpoints,
                     const QOREnvironmentRecord& environment, LibvirtToldDomain& told) {
        std::set<std::string> names;
        for (const LibvirtSaving& saving : savings) {
            names.insert(saving.name);
            if (!m_telling.tell(saving, areCheckpoints, environment, told)) m_collection.passOver(1);
        }
        // Those beyond the bound may still be there.
        if (savings.size() >= m_most.backups) return;
        for (auto backup = told.backups.begin(); backup != told.backups.end();) {
            const auto& [isCheckpoint, name] = backup->first;
            if (isCheckpoint != areCheckpoints || names.contains(name)) {
                ++backup;
                continue;
            }
            m_telling.tellDeleted(isCheckpoint, name, backup->second, environment.eid, told);
            backup = told.backups.erase(backup);
        }
    }

    /// It is there no more.
    void end(const QOREID& eid, LibvirtToldDomain& told) {
        for (const auto& [key, backup] : told.backups)
            m_telling.tellDeleted(key.first, key.second, backup, eid, told);
        const bool hasMoved = told.transition == LibvirtLife::Gone;
        if (!hasMoved) m_telling.tellGone(eid, told);
        const LibvirtState off{
            VIR_DOMAIN_SHUTOFF, hasMoved ? VIR_DOMAIN_SHUTOFF_MIGRATED : VIR_DOMAIN_SHUTOFF_UNKNOWN, {}};
        const std::int64_t now = currentTime();
        for (const LibvirtChange& change : libvirtChanges(told.life, LibvirtLife::Off, off, false))
            m_telling.tell(change, eid, told, now);
        if (told.isPersistent) m_telling.tell(libvirtUndefined, eid, told, now);
        keepNumber(told);
    }

    void keepNumber(const LibvirtToldDomain& told) { m_place.next = std::max(m_place.next, told.number); }

    QORCollection& m_collection;
    const LibvirtConnection& m_connection;
    LibvirtTelling& m_telling;
    LibvirtPlace& m_place;
    LibvirtToldSource& m_told;
    const bool m_isFirst;
    std::set<QOREID>& m_seen;
    const LibvirtCollector::Bounds m_most;
    const std::uint64_t m_begin;
};

}  // namespace

LibvirtCollector::LibvirtCollector() : LibvirtCollector(Bounds()) {}

LibvirtCollector::LibvirtCollector(Bounds most)
    : QORCollector(
          {.name = "libvirt", .source = "socket of libvirt in /run/libvirt", .every = std::chrono::seconds(30)}),
      m_most(most) {}

void LibvirtCollector::setSources(std::vector<std::string> uris) {
    const std::lock_guard lock(m_mutex);
    m_uris = std::move(uris);
}

bool LibvirtCollector::collect(QORCollection& collection) {
    std::vector<LibvirtSource> wanted;
    {
        const std::lock_guard lock(m_mutex);
        for (const std::string& uri : m_uris)
            wanted.push_back({uri, uri});
    }
    if (wanted.empty()) wanted = findLibvirtSources(collection.root());
    LibvirtPlace place(collection.position());
    LibvirtTelling telling(collection, m_most);
    std::set<QOREID> seen;
    bool isThere = false;
    for (const LibvirtSource& source : wanted) {
        if (collection.isStopping()) return true;
        try {
            const auto connection = LibvirtConnection::open(source.uri);
            if (connection == nullptr) continue;
            isThere = true;
            const auto [told, isFirst] = place.sources.try_emplace(source.name);
            LibvirtReading(collection, *connection, telling, place, told->second, isFirst, seen, m_most).read();
        } catch (const LibvirtFailure& failure) {
            isThere = true;
            collection.cannotRead(source.name + ": " + failure.what());
        }
    }
    telling.end();
    if (isThere) collection.setPosition(place.text());
    return isThere;
}

}  // namespace QOR
