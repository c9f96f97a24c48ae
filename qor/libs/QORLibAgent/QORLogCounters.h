/// \file
/// The counters of the logs: how many records there are in a span of time, and where the record of a given position
/// lies, without walking the log.
///
/// Counters are kept by scope (which records) and bucket of time, and buckets are split as they fill; see the schema.
/// The database keeps them itself, whoever changes a log. Whoever changes many records at once counts them by himself,
/// which is cheaper: QORLogCounters. Everything works within the caller's transaction: counters are never seen apart
/// from the records that they count.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORGuid.h"
#include "QORLibAgent/QORLogOrder.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// Names of scopes. Those of different environments have no record in common.
QOR_API std::string allOperationsScope();
/// Operations that belong to an environment.
QOR_API std::string operationScope(const QOREID& own);
/// Operations that touch an environment and do not belong to it.
QOR_API std::string touchedScope(const QOREID& touched);
/// Of these, the operations that belong to `own`, which is another one.
QOR_API std::string touchedScope(const QOREID& own, const QOREID& touched);
QOR_API std::string allEventsScope(std::string_view category);
QOR_API std::string eventScope(const QOREID& eid, std::string_view category);
/// Events of any category and of none, which nobody counts: of everybody, and of one environment.
QOR_API std::string anyEventsScope();
QOR_API std::string anyEventScope(const QOREID& eid);

/// Counts what statements do to the logs that skip triggers (ASTriggers::Skip), instead of the database, and writes it
/// all at once. What other statements of the same transaction do before and after that the database counts as ever; in
/// between they are refused (ASSession::setOwing()), as is a commit.
/// \throws AException from every method that writes
class QOR_API QORLogCounters {
public:
    /// The transaction must be for writing, and outlive this.
    explicit QORLogCounters(ASSession& session) : m_session(session) {}
    QORLogCounters(const QORLogCounters&) = delete;
    QORLogCounters& operator=(const QORLogCounters&) = delete;

    /// Whether what is done without triggers must be told here. Where they cannot be skipped the database counts.
    bool counts() const noexcept { return m_session.skipsTriggers(); }

    /// An operation. \param own its environment, invalid for none \param touched the environments of its list
    /// \param change 1 for one that is there now, -1 for one that is not any more
    void addOperation(std::int64_t second, const QOREID& own, const std::vector<QOREID>& touched, int change = 1);
    void addEvent(std::int64_t second, const QOREID& eid, std::string_view category, int change = 1);

    /// Writes what was told. The records must be in their tables.
    void finish();

    /// Counts a scope anew, from its records; what is no scope loses its counters.
    static void recount(ASSession& session, QORLogKind kind, const std::string& scope);

private:
    /// By scope: in which seconds there are how many more.
    using Scopes = std::map<std::string, std::vector<std::pair<std::int64_t, int>>, std::less<>>;

    void add(QORLogKind kind, const std::string& scope, std::int64_t second, int change);

    ASSession& m_session;
    std::array<Scopes, 2> m_scopes;  // by QORLogKind
};

/// The records of some scopes of one log, read within a transaction. No two of the scopes may have a record in common.
/// Counters are read once: what the transaction itself changes after the first question is for another object.
class QOR_API QORLogScopes {
public:
    /// A span of seconds that holds a record: how many records are newer than those in it, and how many are in it.
    struct Place {
        std::int64_t first = 0;
        std::int64_t last = 0;
        std::uint64_t newer = 0;
        std::uint64_t inside = 0;
    };
    /// A select of the columns seq and time, with its parameters in order. Of a single scope it comes from an index in
    /// the order of the log, either way.
    struct Records {
        std::string sql;
        std::vector<std::string> parameters;
    };

    QORLogScopes(ASSession& session, QORLogKind kind);

    void add(const std::string& scope);
    bool empty() const noexcept { return m_count == 0; }
    bool isSingle() const noexcept { return m_count == 1; }
    std::size_t size() const noexcept { return m_count; }
    /// Whether records() can stop at the first ones of each scope.
    bool limitsEach() const noexcept;

    /// Records from one second to another, both included.
    std::uint64_t count(std::int64_t from, std::int64_t to);
    /// A number that is another one once records were added or removed, as far as counters tell: of events of any
    /// category it takes no notice of the span, nor of those that have none.
    std::uint64_t tally(std::int64_t from, std::int64_t to);
    /// Where the record lies that `position` records are newer than. Nothing when there is none: then the position
    /// lies beyond the end, or the counters do not agree with the records.
    /// \param enough a span that holds so few records need not be narrowed
    std::optional<Place> find(std::uint64_t position, std::uint64_t enough) { return find({this}, position, enough); }
    /// The same among the records of one log that lie in several databases.
    static std::optional<Place> find(const std::vector<QORLogScopes*>& parts, std::uint64_t position,
                                     std::uint64_t enough);
    /// The records from one second to another. \param behind of these, those that come after this one in the log
    /// \param each of these, only so many of each scope, the newest; 0 for all. Only where limitsEach()
    Records records(std::int64_t from, std::int64_t to, const QORLogMark* behind = nullptr, std::size_t each = 0) const;

    /// The first `most` records from one second to another, in order, a select for each of as few groups of scopes as
    /// may be: what comes first of all of them is among what comes first of each. Each scope is read no further.
    std::vector<Records> firstRecords(std::int64_t from, std::int64_t to, const QORLogMark* behind, QORLogOrder order,
                                      std::size_t most) const;

    /// The latest second that counts.
    static constexpr std::int64_t endOfTime = (std::int64_t{1} << 40) - 1;

private:
    /// The scopes of one form.
    struct Part {
        std::size_t form;
        std::string first;
        std::string json;
        std::size_t scopes = 0;
    };
    /// Records of buckets at the end of a span, by whether the bucket is split.
    struct Edge {
        std::uint64_t whole = 0;
        std::uint64_t split = 0;
    };

    std::uint64_t countWithin(std::size_t level, std::int64_t from, std::int64_t to);
    std::uint64_t countPart(std::size_t level, const Edge& edge, std::int64_t from, std::int64_t to);
    std::uint64_t countWhole(std::size_t level, std::int64_t bucket, std::int64_t from, std::int64_t to);
    /// Counters of one level, the latest first.
    using Buckets = std::vector<std::pair<std::int64_t, std::uint64_t>>;
    const Buckets& widest();
    const Buckets& finer(std::size_t level, std::int64_t bucket);
    Buckets fetchFiner(std::size_t level, std::int64_t bucket);
    std::optional<std::uint64_t> countWidest(std::int64_t from, std::int64_t to);
    template <class Ask>
    static Buckets bucketsOf(const std::vector<QORLogScopes*>& parts, Ask ask);
    static Buckets fetchBuckets(ASStatement& select);

    ASSession& m_session;
    const ASDialect& m_dialect;
    QORLogKind m_kind;
    std::size_t m_count = 0;
    std::vector<std::pair<std::size_t, std::string>> m_scopes;  ///< with their forms
    std::string m_json;                                         ///< all scopes
    std::vector<Part> m_parts;
    std::optional<Buckets> m_widest;
    std::map<std::pair<std::size_t, std::int64_t>, Buckets> m_finer;  ///< by the level and number of what they divide
};

}  // namespace QOR
