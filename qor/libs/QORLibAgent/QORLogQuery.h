/// \file
/// Internal: what is asked of a log, of whichever databases have its records.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "QORLibAgent/QORLogCounters.h"
#include "QORServers/QORPlacement.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// A scope of a log, and where its records lie.
struct QORLogScope {
    enum class Where {
        Everywhere,
        WithOwner,  ///< with the records of `eid`
        Touching,   ///< with the records of `eid`, and wherever operations of others touch it
    };

    std::string name;
    Where where = Where::Everywhere;
    QOREID eid{};
};

/// Some scopes of one log and a span of time. What one database is asked is asked in one transaction, so that sizes,
/// positions and records fit together. Several see states of about the same time; none of them misses a record, or has
/// one of another's, because environments were moved between them.
/// Used by the thread that made it. \throws AException, and QORException errDeadline, from every method; a failure of a
/// server names it
class QORLogQuery {
public:
    /// \param scopes no two of them have a record in common
    QORLogQuery(QORLogKind kind, const std::vector<QORLogScope>& scopes, std::int64_t from, std::int64_t to);

    void count();
    std::uint64_t size() const noexcept { return m_size; }

    /// As QORLogScopes::tally().
    std::uint64_t tally();

    /// Does without the counters from now on, which do not agree with the records. Tells the size anew.
    void walk();
    bool walks() const noexcept { return m_walks; }

    /// Selects records from a position on, newest first, by number of arrival and time, then what else there is of
    /// them: a result of each database, whose first `most` records in the order of both are those. No result when the
    /// counters are found not to know where the position is.
    std::vector<ASStatement*> select(std::uint64_t position, std::size_t most);
    /// Tells which records were read, so that reading on is cheap.
    void setRead(std::uint64_t nextPosition, QORLogMark last);

    /// Selects the first `most` records, or those behind a mark, without asking for a position. \param read called with
    /// a result, which it reads, for each database or a part of one: what comes first of all is among what it is given
    void selectFirst(const QORLogMark* behind, QORLogOrder order, std::size_t most,
                     const std::function<void(ASStatement&)>& read);
    /// Selects records by their numbers of arrival, in any order and whatever scope they are of.
    void selectThese(const std::vector<std::int64_t>& numbers, const std::function<void(ASStatement&)>& read);

    /// Of a row of a result.
    static QORLogMark markOf(const ASStatement& row);

private:
    /// What one database has of it.
    struct Part {
        Part(const QORServer* of, QORRdbms& database, QORLogKind kind)
            : server(of), tran(database, ASAccess::ReadKnown), scopes(*tran, kind) {}

        const QORServer* server;  ///< null for the process's own database
        QORRdbmsTran tran;
        QORLogScopes scopes;
    };
    struct Place {
        std::int64_t last;
        std::uint64_t skip;
    };

    bool open(const std::vector<QORLogScope>& scopes);
    bool openOn(const QORServer& server, const std::vector<std::string>& scopes);
    void addPart(const QORServer* server, QORRdbms& database, const std::vector<std::string>& scopes);
    template <class Work>
    static void ask(const Part& part, Work work);
    template <class Work>
    std::uint64_t sum(Work work);
    std::uint64_t countOf(std::int64_t from, std::int64_t to);
    std::optional<QORLogScopes::Place> find(std::uint64_t position);
    std::uint64_t above();
    bool isSingle() const;
    bool isShort() const;
    std::optional<Place> startOf(std::uint64_t position);
    std::optional<std::int64_t> beginning(std::uint64_t position);
    bool limitsEach(std::uint64_t most);
    std::optional<QORLogMark> markBefore(std::int64_t first, const Place& place, std::size_t each);
    ASStatement& selectFrom(Part& part, const QORLogScopes::Records& records, std::uint64_t skip,
                            std::size_t most) const;

    QORLogKind m_kind;
    std::int64_t m_from;
    std::int64_t m_to;
    std::shared_ptr<const QORPlacement> m_placement;
    std::vector<std::unique_ptr<Part>> m_parts;
    std::uint64_t m_size = 0;
    bool m_walks = false;
    std::optional<std::uint64_t> m_above;
    std::uint64_t m_nextPosition = 0;
    std::optional<QORLogMark> m_last;
};

}  // namespace QOR
