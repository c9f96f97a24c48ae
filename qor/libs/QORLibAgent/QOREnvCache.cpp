#include "QORLibAgent/QOREnvCache.h"

#include <algorithm>
#include <atomic>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

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

bool byEid(const Env& a, const Env& b) {
    return a->getEID() < b->getEID();
}

/// In order, the last of those with one identifier kept.
void sortUnique(std::vector<Env>& envs) {
    std::erase(envs, nullptr);
    std::stable_sort(envs.begin(), envs.end(), byEid);
    std::size_t kept = 0;
    for (std::size_t i = 0; i < envs.size(); ++i) {
        if (i + 1 < envs.size() && envs[i]->getEID() == envs[i + 1]->getEID()) continue;
        if (kept != i) envs[kept] = std::move(envs[i]);
        ++kept;
    }
    envs.resize(kept);
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

/// The chunk with the changes put in; both are sorted.
std::vector<Env> merged(const Chunk& chunk, std::vector<Env>::iterator change, std::vector<Env>::iterator end) {
    std::vector<Env> result;
    result.reserve(chunk.size() + static_cast<std::size_t>(end - change));
    for (const Env& env : chunk) {
        while (change != end && byEid(*change, env))
            result.push_back(std::move(*change++));
        if (change != end && (*change)->getEID() == env->getEID()) {
            result.push_back(std::move(*change++));
        } else {
            result.push_back(env);
        }
    }
    std::move(change, end, std::back_inserter(result));
    return result;
}

/// The chunks with sorted changes put in. Chunks that nothing changes in are shared.
Chunks withChanges(const Chunks& chunks, std::vector<Env>& changes) {
    Chunks result;
    result.reserve(chunks.size() + 1);
    auto change = changes.begin();
    for (std::size_t i = 0; i < chunks.size(); ++i) {
        // A change before the first environment of the next chunk belongs here.
        const auto end = i + 1 == chunks.size()
                             ? changes.end()
                             : std::lower_bound(change, changes.end(), chunks[i + 1]->front(), byEid);
        if (change == end) {
            result.push_back(chunks[i]);
            continue;
        }
        std::vector<Env> envs = merged(*chunks[i], change, end);
        change = end;
        if (envs.size() <= largestChunk) {
            result.push_back(std::make_shared<const Chunk>(std::move(envs)));
        } else {
            appendChunks(std::move(envs), result);
        }
    }
    return result;
}

QOREID toEid(std::string_view text) {
    QOREID eid;
    eid.fromString(text);
    return eid;
}

QORPtr<const QOREnvConfig> readConfig(const ASStatement& row, unsigned column) {
    if (row.isNull(column)) return nullptr;
    QORInfo document;
    if (document.deserializeFromString(row.text(column)) != 0) return nullptr;
    return makeQORPtr<QOREnvConfig>(QOREnvConfigData::fromDocument(document));
}

std::optional<std::string> readText(const ASStatement& row, unsigned column) {
    if (row.isNull(column)) return std::nullopt;
    return std::string(row.text(column));
}

Env readEnv(const ASStatement& row) {
    const QOREnv::Status status{static_cast<int>(row.integer(4)), static_cast<int>(row.integer(5))};
    return makeQORPtr<QOREnv>(toEid(row.text(1)), row.isNull(2) ? QOREID() : toEid(row.text(2)), readText(row, 3),
                              status, readConfig(row, 6), readConfig(row, 7));
}

bool hasTable(ASSession& session) {
    ASStatement& find = session.prepare(
        session.engine() == ASEngine::SQLite
            ? "SELECT count(*) FROM pragma_table_info('qor_environment') "
              "WHERE name IN ('eid', 'config', 'virtual_config')"
            : "SELECT count(*) FROM information_schema.columns WHERE table_schema = current_schema() "
              "AND table_name = 'qor_environment' AND column_name IN ('eid', 'config', 'virtual_config')");
    find.execute();
    const bool found = find.fetch() && find.integer(1) == 3;
    find.close();
    return found;
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
    sortUnique(envs);
    if (envs.empty()) return;
    QORPtr<const QOREnvList> before;  // outlives the lock: letting go of the last snapshot takes time
    const std::scoped_lock lock(m_mutex);
    before = m_list;
    Chunks chunks;
    if (before->empty()) {
        appendChunks(std::move(envs), chunks);
    } else {
        chunks = withChanges(before->chunks(), envs);
    }
    m_list = makeQORPtr<QOREnvList>(std::move(chunks));
}

void QOREnvCache::replace(std::vector<QORPtr<const QOREnv>> envs) {
    sortUnique(envs);
    Chunks chunks;
    appendChunks(std::move(envs), chunks);
    QORPtr<const QOREnvList> list = makeQORPtr<QOREnvList>(std::move(chunks));
    const std::scoped_lock lock(m_mutex);
    m_list.swap(list);
}

void QOREnvCache::load() {
    const auto writing = lockForWriting();
    std::vector<Env> envs;
    QORRdbmsTran tran(ASAccess::Read);
    if (hasTable(*tran)) {
        ASStatement& select = tran->prepare(
            "SELECT eid, parent_eid, title, state, transition, config, virtual_config FROM qor_environment");
        select.execute();
        while (select.fetch())
            envs.push_back(readEnv(select));
        select.close();
    }
    tran.commit();
    replace(std::move(envs));
}

QOREnvCache* envCache() noexcept {
    return theCache.load(std::memory_order_acquire);
}

void setEnvCache(QOREnvCache* cache) noexcept {
    theCache.store(cache, std::memory_order_release);
}

}  // namespace QOR
