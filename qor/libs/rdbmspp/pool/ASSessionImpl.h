/// \file
/// Internal: what a pooled connection carries along.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "QORCommon/QORRequestControl.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/engine/OdbcConnection.h"
#include "rdbmspp/pool/ASKnownNumbers.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// Prepared statements by their texts, the least recently used of which go first. What it hands out stays valid
/// until trim().
template <class Statement>
class ASStatementCache {
public:
    struct Entry {
        std::unique_ptr<Statement> statement;
        std::string_view key;  ///< the map's
        bool leased = false;
    };

    Entry* find(std::string_view sql) {
        const auto found = m_byText.find(sql);
        if (found == m_byText.end()) return nullptr;
        m_entries.splice(m_entries.begin(), m_entries, found->second);
        return &*found->second;
    }
    Entry& insert(std::string_view sql, std::unique_ptr<Statement> statement) {
        m_entries.push_front(Entry{std::move(statement), {}, false});
        const auto added = m_byText.emplace(std::string(sql), m_entries.begin()).first;
        m_entries.front().key = added->first;
        return m_entries.front();
    }
    void trim(std::size_t kept) {
        while (m_entries.size() > kept && !m_entries.back().leased) {
            m_byText.erase(m_byText.find(m_entries.back().key));
            m_entries.pop_back();
        }
    }
    std::size_t size() const noexcept { return m_entries.size(); }
    auto begin() noexcept { return m_entries.begin(); }
    auto end() noexcept { return m_entries.end(); }

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
    };
    std::list<Entry> m_entries;
    std::unordered_map<std::string, typename std::list<Entry>::iterator, Hash, std::equal_to<>> m_byText;
};

/// A cursor's hold on a prepared statement; gives it back to the session's cache, closed and without long values.
class ASStatementLease {
public:
    using Cache = ASStatementCache<OdbcStatement>;

    ASStatementLease() = default;
    explicit ASStatementLease(Cache::Entry& entry) : m_entry(&entry) { entry.leased = true; }
    explicit ASStatementLease(std::unique_ptr<OdbcStatement> own) : m_own(std::move(own)) {}
    ~ASStatementLease() { release(); }
    ASStatementLease(ASStatementLease&& other) noexcept
        : m_entry(std::exchange(other.m_entry, nullptr)), m_own(std::move(other.m_own)) {}
    ASStatementLease& operator=(ASStatementLease&& other) noexcept {
        release();
        m_entry = std::exchange(other.m_entry, nullptr);
        m_own = std::move(other.m_own);
        return *this;
    }

    explicit operator bool() const noexcept { return m_entry || m_own; }
    OdbcStatement* operator->() const noexcept { return m_entry ? m_entry->statement.get() : m_own.get(); }

private:
    void release() noexcept {
        if (m_entry) {
            m_entry->statement->giveBack();
            m_entry->leased = false;
            m_entry = nullptr;
        }
        m_own.reset();
    }
    Cache::Entry* m_entry = nullptr;
    std::unique_ptr<OdbcStatement> m_own;
};

/// Which file it is, and in what state. A file that was replaced under its name is another one.
struct ASFileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;  ///< 0: there is none
    std::int64_t size = 0;
    std::int64_t changed = 0;  ///< nanoseconds

    static ASFileIdentity of(const std::string& path) noexcept;
    bool isSameFile(const ASFileIdentity& other) const noexcept {
        return device == other.device && inode == other.inode;
    }
    friend bool operator==(const ASFileIdentity&, const ASFileIdentity&) = default;
};

struct ASStatement::Impl {
    explicit Impl(OdbcConnection& connection, std::string_view sql);

    OdbcStatement statement;
    const ASDialect& dialect;
    std::int64_t* changes = nullptr;
    bool columnsBound = false;
    std::string decoded;
};

/// How a session's connections are opened. A connection of SQLite's driver whose rows come one by one (StepAPI) never
/// runs a PRAGMA that sets something, nor an INSERT behind WITH, and does not say so: only cursors' selects go there.
struct ASConnectionSource {
    std::string string;
    std::string streamingString;     ///< of connections whose rows come one by one; empty: there are none
    std::string database;            ///< its name for people
    ASFaults* faults = nullptr;      ///< the database's; never null once connections are opened
    std::vector<std::string> setup;  ///< run on each connection first; those of the engine that the driver would
                                     ///< run too, but without telling when one fails
    std::string journal;             ///< the statement that sets its mode; empty where it is left as it is
    std::chrono::milliseconds patience{5000};  ///< with locks of others
    bool queryOnly = false;
};

/// By what a transaction is known after its commit; nothing where it has written nothing.
struct ASCommitToken {
    std::string transaction;  ///< the engine's identifier
    std::string token;        ///< empty where the database keeps none
};

struct ASSession::Impl {
    static constexpr std::size_t keptStatements = 64;

    explicit Impl(const ASConnectionSource& source);

    /// A prepared statement for one cursor.
    ASStatementLease lease(const std::string& sql);
    /// The same on the streaming connection, which must be there (mayStream()).
    ASStatementLease leaseStreaming(const std::string& sql);
    bool mayStream() const noexcept { return !inTransaction && !source.streamingString.empty(); }
    /// Begins a transaction on the connection.
    void begin(ASAccess access);
    /// What is done from now on is a single read, of which nobody knows yet whether it computes anything. One that does
    /// begins a transaction first.
    void beginSingle() noexcept;
    /// The single read's statement is about to run. \param computes whether the database computes something for it
    /// that could write
    void readySingle(bool computes);
    /// The next statement reads rows of other servers, or does not.
    void setElsewhere(bool elsewhere);
    /// Whether the single read has failed for no other reason than that the connection was lost while it lay idle.
    bool wasLostIdle() const noexcept { return single && untouched && isLost(); }
    /// Does what a single read begins with, and once more where a new connection helps. References to what the session
    /// was made of do not outlive this.
    template <class Work>
    static void doSingle(ASSession& session, Work work) {
        try {
            return work();
        } catch (const AException&) {
            if (!session.impl().wasLostIdle()) throw;
        }
        replaceLost(session);
        work();
    }
    ASCommitToken leaveToken(ASSession& session);
    /// For the end of what the session has left behind; null where nobody has to be waited for.
    std::shared_ptr<QORRequestControl> timeToTidy(std::chrono::milliseconds limit) const;
    /// Begins a transaction on the streaming connection, where all cursors run until it ends. \returns false when there
    /// is no such connection
    bool beginLong();
    void endLong() noexcept;
    bool isLong() const noexcept { return inLong; }
    bool isBroken() const noexcept { return connection.isBroken() || (streaming && streaming->isBroken()); }
    bool isLost() const noexcept { return connection.isLost() || (streaming && streaming->isLost()); }
    std::unique_ptr<OdbcConnection> connectStreaming() const;
    void setUp(OdbcConnection& opened) const;
    void setJournal(OdbcConnection& opened) const;
    /// Ends what a transaction has left running and lets go of surplus statements.
    void tidy();

    ASConnectionSource source;
    OdbcConnection connection;
    const ASDialect* dialect;
    std::string spareText;  ///< of the last select that was written, whose memory the next one uses
    ASStatementCache<OdbcStatement> selects;
    ASStatementCache<ASStatement> statements;
    ASKnownNumbers numbers;
    void openStreaming();
    static void replaceLost(ASSession& session);

    std::unique_ptr<OdbcConnection> streaming;  ///< opened when it is first needed
    ASStatementCache<OdbcStatement> streamed;
    bool inTransaction = false;
    bool inLong = false;
    bool single = false;        ///< a single read that has not needed a transaction so far
    bool untouched = false;     ///< and nothing of it was answered
    bool begun = false;         ///< it has needed one
    bool elsewhere = false;     ///< single reads read rows of other servers
    bool elsewhereNow = false;  ///< so does what is read in the transaction
    std::int64_t bound = 0;     ///< of the session's statements, milliseconds; 0: none
    std::int64_t changes = 0;
    bool keepsTokens = false;        ///< known to do so; else it is looked at again
    QORRdbms::Impl* pool = nullptr;  ///< whose it is
    std::uint64_t generation = 0;
    std::uint64_t time = 0;  ///< when it was opened, counted in losses of connections
};

}  // namespace QOR
