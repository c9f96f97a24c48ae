/// \file
/// QOREnvCache: the environments of this host in memory, and the snapshots that requests take of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORReferenceCounter.h"
#include "QORLibAgent/QOREnv.h"

namespace QOR {

struct QOREnvChange;

/// Environments in the order of their identifiers. Immutable, so that a request may keep one while the cache goes on
/// changing: what did not change is shared between snapshots.
class QOR_API QOREnvList final : public QORReferenceCounter {
public:
    using Env = QORPtr<const QOREnv>;
    /// Never empty.
    using Chunk = std::vector<Env>;
    using Chunks = std::vector<std::shared_ptr<const Chunk>>;

    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Env;
        using difference_type = std::ptrdiff_t;
        using pointer = const Env*;
        using reference = const Env&;

        const_iterator() = default;
        const_iterator(const Chunks* chunks, std::size_t chunk) noexcept : m_chunks(chunks), m_chunk(chunk) {}
        reference operator*() const noexcept { return (*(*m_chunks)[m_chunk])[m_at]; }
        pointer operator->() const noexcept { return &**this; }
        const_iterator& operator++() noexcept {
            if (++m_at == (*m_chunks)[m_chunk]->size()) {
                ++m_chunk;
                m_at = 0;
            }
            return *this;
        }
        const_iterator operator++(int) noexcept {
            const_iterator before = *this;
            ++*this;
            return before;
        }
        friend bool operator==(const const_iterator&, const const_iterator&) = default;

    private:
        const Chunks* m_chunks = nullptr;
        std::size_t m_chunk = 0;
        std::size_t m_at = 0;
    };

    QOREnvList() = default;
    /// \param chunks in order, each of them too
    explicit QOREnvList(Chunks chunks);
    ~QOREnvList() override;

    const_iterator begin() const noexcept { return {&m_chunks, 0}; }
    const_iterator end() const noexcept { return {&m_chunks, m_chunks.size()}; }
    std::size_t size() const noexcept { return m_size; }
    bool empty() const noexcept { return m_size == 0; }
    /// Null when it is not in the list.
    Env find(const QOREID& eid) const;
    const Chunks& chunks() const noexcept { return m_chunks; }

private:
    Chunks m_chunks;
    std::size_t m_size = 0;
};

/// Thread-safe. What a client gets follows from the client context of the calling thread: all environments with full
/// access, otherwise those that its identities stand for.
class QOR_API QOREnvCache {
public:
    QOREnvCache();
    ~QOREnvCache();
    QOREnvCache(const QOREnvCache&) = delete;
    QOREnvCache& operator=(const QOREnvCache&) = delete;

    /// A snapshot; never null.
    QORPtr<const QOREnvList> getEnvList() const;
    /// One environment; null when it is not known, or not the client's.
    QORPtr<const QOREnv> getEnvCopy(const QOREID& eid) const;

    /// Puts environments in, each in place of the one with its identifier; of several with one identifier the last
    /// counts. Snapshots that were taken before do not change.
    void update(std::vector<QORPtr<const QOREnv>> envs);
    /// Takes the place of everything.
    void replace(std::vector<QORPtr<const QOREnv>> envs);
    /// Reads all environments from the host's database, in place of everything. A database that is not the host's
    /// own has none. \throws AException
    void load();
    /// Takes in what has become of the environments in the database since it was read last, whoever changed them: what
    /// was committed before the call is known after it. Costs one short select where nothing has. After a failure the
    /// cache is what it was, and the next call takes in what this one did not. Not within a transaction of the calling
    /// thread's that writes; whatever request the thread serves, it is not broken off. \throws AException
    void refresh();

private:
    QORPtr<const QOREnvList> current() const;
    void change(std::vector<QOREnvChange> changes);
    void replaceAll(std::vector<QOREnvChange> all);
    void read(std::optional<std::int64_t> since);

    std::mutex m_reading;                  // held while the database is read and until the list is what was read
    bool m_unnumbered = false;             // guarded by m_reading; the database numbers no changes
    std::optional<std::int64_t> m_number;  // guarded by m_reading; of the state that was read last
    mutable std::mutex m_mutex;
    QORPtr<const QOREnvList> m_list;  // guarded by m_mutex; never null
};

/// The cache of this process; null until a host has made one, and when that is gone.
QOR_API QOREnvCache* envCache() noexcept;
/// \param cache must outlive its use by others; null for none
QOR_API void setEnvCache(QOREnvCache* cache) noexcept;

}  // namespace QOR
