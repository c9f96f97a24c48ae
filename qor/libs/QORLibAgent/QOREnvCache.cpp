#include "QORLibAgent/QOREnvCache.h"

#include <algorithm>
#include <atomic>
#include <iterator>
#include <utility>

#include "QORCommon/QORRequestControl.h"
#include "QORLibAgent/QOREnvTable.h"
#include "QORLibAgent/QORSecurity.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

using Env = QOREnvList::Env;
using Chunk = QOREnvList::Chunk;
using Chunks = QOREnvList::Chunks;

/// A change copies one chunk and the list of chunks: with these sizes both stay short for any host.
constexpr std::size_t usualChunk = 256;
constexpr std::size_t largestChunk = 512;

std::atomic<QOREnvCache*> theCache{nullptr};

bool byEid(const QOREnvChange& a, const QOREnvChange& b) {
    return a.eid < b.eid;
}

/// In order, the last of those of one environment kept.
void sortUnique(std::vector<QOREnvChange>& changes) {
    std::stable_sort(changes.begin(), changes.end(), byEid);
    std::size_t kept = 0;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        if (i + 1 < changes.size() && changes[i].eid == changes[i + 1].eid) continue;
        if (kept != i) changes[kept] = std::move(changes[i]);
        ++kept;
    }
    changes.resize(kept);
}

/// Those that are there.
std::vector<Env> environmentsOf(std::vector<QOREnvChange>&& changes) {
    std::vector<Env> envs;
    envs.reserve(changes.size());
    for (QOREnvChange& change : changes) {
        if (change.env) envs.push_back(std::move(change.env));
    }
    return envs;
}

std::vector<QOREnvChange> changesOf(std::vector<Env>&& envs) {
    std::vector<QOREnvChange> changes;
    changes.reserve(envs.size());
    for (Env& env : envs) {
        if (!env) continue;
        const QOREID eid = env->getEID();
        changes.push_back({eid, std::move(env)});
    }
    return changes;
}

/// Appends sorted environments as chunks of the usual size.
void appendChunks(std::vector<Env>&& envs, Chunks& chunks) {
    for (std::size_t from = 0; from < envs.size(); from += usualChunk) {
        const std::size_t to = std::min(from + usualChunk, envs.size());
        const auto first = envs.begin() + static_cast<std::ptrdiff_t>(from);
        const auto last = envs.begin() + static_cast<std::ptrdiff_t>(to);
        chunks.push_back(std::make_shared<const Chunk>(std::make_move_iterator(first), std::make_move_iterator(last)));
    }
}

using Change = std::vector<QOREnvChange>::iterator;

/// The chunk with the changes put in; both are sorted.
std::vector<Env> merged(const Chunk& chunk, Change change, Change end) {
    std::vector<Env> result;
    result.reserve(chunk.size() + static_cast<std::size_t>(end - change));
    const auto take = [&] {
        if (change->env) result.push_back(std::move(change->env));
        ++change;
    };
    for (const Env& env : chunk) {
        while (change != end && change->eid < env->getEID())
            take();
        if (change != end && change->eid == env->getEID()) {
            take();
        } else {
            result.push_back(env);
        }
    }
    while (change != end)
        take();
    return result;
}

/// The chunks with sorted changes put in. Chunks that nothing changes in are shared.
Chunks withChanges(const Chunks& chunks, std::vector<QOREnvChange>& changes) {
    Chunks result;
    result.reserve(chunks.size() + 1);
    auto change = changes.begin();
    for (std::size_t i = 0; i < chunks.size(); ++i) {
        // A change before the first environment of the next chunk belongs here.
        const auto end =
            i + 1 == chunks.size()
                ? changes.end()
                : std::lower_bound(change, changes.end(), chunks[i + 1]->front(),
                                   [](const QOREnvChange& one, const Env& env) { return one.eid < env->getEID(); });
        if (change == end) {
            result.push_back(chunks[i]);
            continue;
        }
        std::vector<Env> envs = merged(*chunks[i], change, end);
        change = end;
        if (envs.size() > largestChunk) {
            appendChunks(std::move(envs), result);
        } else if (!envs.empty()) {
            result.push_back(std::make_shared<const Chunk>(std::move(envs)));
        }
    }
    return result;
}

}  // namespace

QOREnvList::QOREnvList(Chunks chunks) : m_chunks(std::move(chunks)) {
    for (const auto& chunk : m_chunks)
        m_size += chunk->size();
}

QOREnvList::~QOREnvList() = default;

QOREnvList::Env QOREnvList::find(const QOREID& eid) const {
    const auto chunk = std::lower_bound(m_chunks.begin(), m_chunks.end(), eid,
                                        [](const auto& one, const QOREID& key) { return one->back()->getEID() < key; });
    if (chunk == m_chunks.end()) return nullptr;
    const auto env = std::lower_bound((*chunk)->begin(), (*chunk)->end(), eid,
                                      [](const Env& one, const QOREID& key) { return one->getEID() < key; });
    return env != (*chunk)->end() && (*env)->getEID() == eid ? *env : nullptr;
}

QOREnvCache::QOREnvCache() : m_list(makeQORPtr<QOREnvList>()) {}
QOREnvCache::~QOREnvCache() {
    QOREnvCache* own = this;
    theCache.compare_exchange_strong(own, nullptr);
}

QORPtr<const QOREnvList> QOREnvCache::current() const {
    const std::scoped_lock lock(m_mutex);
    return m_list;
}

QORPtr<const QOREnvList> QOREnvCache::getEnvList() const {
    QORPtr<const QOREnvList> all = current();
    const QORRowAccess access = QORRowAccess::current();
    if (access.isFull()) return all;
    std::vector<Env> own;
    for (const QOREID& eid : access.owners()) {
        if (Env env = all->find(eid)) own.push_back(std::move(env));
    }
    Chunks chunks;
    appendChunks(std::move(own), chunks);
    return makeQORPtr<QOREnvList>(std::move(chunks));
}

QORPtr<const QOREnv> QOREnvCache::getEnvCopy(const QOREID& eid) const {
    return QORRowAccess::current().sees(eid) ? current()->find(eid) : nullptr;
}

void QOREnvCache::update(std::vector<QORPtr<const QOREnv>> envs) {
    change(changesOf(std::move(envs)));
}

void QOREnvCache::change(std::vector<QOREnvChange> changes) {
    sortUnique(changes);
    if (changes.empty()) return;
    QORPtr<const QOREnvList> before;  // outlives the lock: letting go of the last snapshot takes time
    const std::scoped_lock lock(m_mutex);
    before = m_list;
    Chunks chunks;
    if (before->empty()) {
        appendChunks(environmentsOf(std::move(changes)), chunks);
    } else {
        chunks = withChanges(before->chunks(), changes);
    }
    m_list = makeQORPtr<QOREnvList>(std::move(chunks));
}

void QOREnvCache::replace(std::vector<QORPtr<const QOREnv>> envs) {
    replaceAll(changesOf(std::move(envs)));
}

void QOREnvCache::replaceAll(std::vector<QOREnvChange> all) {
    sortUnique(all);
    Chunks chunks;
    appendChunks(environmentsOf(std::move(all)), chunks);
    QORPtr<const QOREnvList> list = makeQORPtr<QOREnvList>(std::move(chunks));
    const std::scoped_lock lock(m_mutex);
    m_list.swap(list);
}

void QOREnvCache::load() {
    const std::scoped_lock reading(m_reading);
    read(std::nullopt);
}

void QOREnvCache::refresh() {
    const std::scoped_lock reading(m_reading);
    if (!m_unnumbered) read(m_number);
}

void QOREnvCache::read(std::optional<std::int64_t> since) {
    // What is half read is of no use to the next request either.
    const QORRequestScope unbounded(nullptr);
    QORRdbmsTran tran(ASAccess::Read);
    QOREnvState state = readEnvironments(*tran, since, std::max(current()->size() / 2, usualChunk));
    tran.commit();
    if (state.whole) {
        replaceAll(std::move(state.changes));
    } else {
        change(std::move(state.changes));
    }
    m_number = state.number;
    m_unnumbered = !state.number;
}

QOREnvCache* envCache() noexcept {
    return theCache.load(std::memory_order_acquire);
}

void setEnvCache(QOREnvCache* cache) noexcept {
    theCache.store(cache, std::memory_order_release);
}

}  // namespace QOR
