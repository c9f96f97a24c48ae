/// \file
/// QORLogCounters: keeps the counters of a log in step with its records, and answers from them how many records there
/// are in a span of time and where the record of a given position lies.
///
/// Counters are kept by scope (which records) and bucket of time, and buckets are split as they fill; see the schema.
/// Everything works within the caller's transaction: counters are never seen apart from the records that they count.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORGuid.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// Which of the two logs.
enum class QORLogKind { Operations, Events };

/// Names of scopes.
QOR_API std::string allOperationsScope();
QOR_API std::string operationScope(const QOREID& eid);
/// The operations that are of exactly these environments, two or more.
QOR_API std::string operationScope(const std::set<QOREID>& eids);
QOR_API std::string allEventsScope(std::string_view category);
QOR_API std::string eventScope(const QOREID& eid, std::string_view category);

/// Gathers what records add to the counters and takes from them, and writes it all at once.
class QOR_API QORLogCounters {
public:
    explicit QORLogCounters(QORLogKind kind) : m_kind(kind) {}

    /// \param change 1 for a record that is there now, -1 for one that is not any more
    void add(const std::string& scope, std::int64_t second, std::int64_t change = 1);
    /// An operation, in all its scopes. \param eids its own environment and those that it touches
    void addOperation(std::int64_t second, const std::set<QOREID>& eids, std::int64_t change = 1);
    void addEvent(std::int64_t second, const QOREID& eid, std::string_view category, std::int64_t change = 1);

    /// Writes what was gathered. The transaction must be for writing, and the records must be in their tables.
    /// \throws AException
    void write(ASSession& session);

private:
    using Seconds = std::map<std::int64_t, std::int64_t>;

    QORLogKind m_kind;
    std::map<std::string, Seconds, std::less<>> m_changes;
    std::set<std::string> m_shared;  // scopes of several environments
};

/// One scope of a log, read within a transaction.
class QOR_API QORLogScope {
public:
    /// A span of seconds that holds a record, and how many records of the scope are newer than those in it.
    struct Place {
        std::int64_t first = 0;
        std::int64_t last = 0;
        std::uint64_t newer = 0;
    };

    QORLogScope(ASSession& session, QORLogKind kind, std::string scope);

    /// Records from one second to another, both included.
    std::uint64_t count(std::int64_t from, std::int64_t to);
    /// Where the record lies that `position` records are newer than; there must be one.
    Place find(std::uint64_t position);

    /// The latest second that counts.
    static constexpr std::int64_t endOfTime = (std::int64_t{1} << 40) - 1;

private:
    struct Bucket {
        std::uint64_t records = 0;
        bool split = false;
    };
    std::uint64_t countWithin(std::size_t level, std::int64_t from, std::int64_t to);
    std::uint64_t countPart(std::size_t level, const Bucket& bucket, std::int64_t from, std::int64_t to);
    std::uint64_t countRecords(std::int64_t from, std::int64_t to);

    ASSession& m_session;
    QORLogKind m_kind;
    std::string m_scope;
};

}  // namespace QOR
