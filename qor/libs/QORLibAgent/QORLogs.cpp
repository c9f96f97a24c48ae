#include "QORLibAgent/QORLogs.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORLogCounters.h"
#include "QORLibAgent/QORSecurity.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

constexpr const char* sourcePath = "qor/libs/QORLibAgent/QORLogs";

thread_local std::string lastFailure;

/// Up to here skipping records is cheaper than finding out where to begin.
constexpr std::uint64_t skippable = 200;
/// A span that holds no more records is read without looking for a narrower one: of one scope they come in order, of
/// several they have to be sorted.
constexpr std::uint64_t skippedOfOne = 256;
constexpr std::uint64_t sorted = 2048;

/// What the calling thread's client may have of what it asks for. With full access an environment's records are those
/// that belong to it or touch it; another client has, of the records that it may see at all, the same.
class Wanted {
public:
    Wanted(QORLogKind kind, const QOREnvSelection& selection, std::string category)
        : m_kind(kind), m_category(std::move(category)) {
        const QORRowAccess access = QORRowAccess::current();
        if (selection.isNone()) return;
        if (selection.isAll()) {
            addAll(access);
        } else {
            addOne(access, selection.eid());
        }
    }

    /// No two of them have a record in common.
    const std::vector<std::string>& scopes() const noexcept { return m_scopes; }

private:
    std::string all() const {
        return m_kind == QORLogKind::Operations ? allOperationsScope() : allEventsScope(m_category);
    }
    std::string of(const QOREID& owner) const {
        return m_kind == QORLogKind::Operations ? operationScope(owner) : eventScope(owner, m_category);
    }
    void addAll(const QORRowAccess& access) {
        if (access.isFull()) return m_scopes.push_back(all());
        for (const QOREID& owner : access.owners())
            m_scopes.push_back(of(owner));
    }
    void addOne(const QORRowAccess& access, const QOREID& eid) {
        if (access.sees(eid)) m_scopes.push_back(of(eid));
        if (m_kind == QORLogKind::Operations) addTouched(access, eid);
    }
    void addTouched(const QORRowAccess& access, const QOREID& touched) {
        if (access.isFull()) return m_scopes.push_back(touchedScope(touched));
        for (const QOREID& owner : access.owners()) {
            if (owner != touched) m_scopes.push_back(touchedScope(owner, touched));
        }
    }

    QORLogKind m_kind;
    std::string m_category;
    std::vector<std::string> m_scopes;
};

std::string readText(const ASStatement& row, unsigned column) {
    return row.isNull(column) ? std::string() : std::string(row.text(column));
}

QOREID readEid(const ASStatement& row, unsigned column) {
    QOREID eid;
    if (!row.isNull(column)) eid.fromString(row.text(column));
    return eid;
}

QORInfo readInfo(const ASStatement& row, unsigned column) {
    QORInfo info;
    if (!row.isNull(column)) info.deserializeFromString(row.text(column));
    return info;
}

std::set<QOREID> readEids(const ASStatement& row, unsigned column) {
    std::set<QOREID> eids;
    std::string_view rest = row.isNull(column) ? std::string_view() : row.text(column);
    while (!rest.empty()) {
        QOREID eid;
        if (eid.fromString(rest.substr(0, rest.find(' ')))) eids.insert(eid);
        rest.remove_prefix(std::min(rest.size(), std::max<std::size_t>(rest.find(' '), 1)));
        if (!rest.empty()) rest.remove_prefix(1);
    }
    return eids;
}

/// The first two columns of every select below are these.
QORLogMark readMark(const ASStatement& row) {
    return {row.integer(1), std::string(row.text(2))};
}

QORRequestProgressData readRecord(const ASStatement& row, QORRequestProgressData*) {
    QORRequestProgressData data;
    data.time = str2time(row.text(2));
    data.id = readText(row, 3);
    data.parentId = readText(row, 4);
    data.op = readText(row, 5);
    data.status = static_cast<int>(row.integer(6));
    data.eid = readEid(row, 7);
    data.message = readInfo(row, 8);
    data.eids = readEids(row, 9);
    return data;
}

QOREvent readRecord(const ASStatement& row, QOREvent*) {
    QOREvent event;
    event.time = str2time(row.text(2));
    event.eid = readEid(row, 3);
    event.source = readText(row, 4);
    event.category = readText(row, 5);
    event.info = readInfo(row, 6);
    return event;
}

/// The select of a page of a log's records, around the select that finds them by arrival and time. The order says where
/// nulls go, though there are none: an index serves no other.
std::string pageSql(const ASDialect& dialect, QORLogKind kind, const std::string& records) {
    const bool operations = kind == QORLogKind::Operations;
    const std::string columns =
        operations ? "o.id, o.parent_id, o.op, o.status, o.eid, o.message, (SELECT " + dialect.joinedGuids("e.eid") +
                         " FROM qor_operation_environment e WHERE e.operation = o.seq AND e.position >= 0)"
                   : "o.eid, o.source, o.category, o.info";
    return "SELECT o.seq, o.time, " + columns + " FROM (SELECT seq FROM (" + records +
           ") r ORDER BY time DESC NULLS LAST, seq DESC LIMIT ? OFFSET ?) p" +
           dialect.lookUp(operations ? "qor_operation" : "qor_event", "o", "o.seq = p.seq", "p.seq") +
           " ORDER BY o.time DESC, o.seq DESC";
}

/// Some scopes of one log and a span of time: what is asked, in the database's terms. Everything is read in one
/// transaction, so that sizes, positions and records fit together.
class LogQuery {
public:
    LogQuery(QORLogKind kind, const std::vector<std::string>& scopes, std::int64_t from, std::int64_t to)
        : m_kind(kind), m_scopes(*m_tran, kind), m_from(from), m_to(to) {
        for (const std::string& scope : scopes)
            m_scopes.add(scope);
    }

    void count() {
        if (m_to == endOfRequests) {
            m_size = m_scopes.count(m_from, m_to);
            return;
        }
        // What is newer than the span is wanted for positions too, and each of the two has one end to look at.
        const std::uint64_t all = m_scopes.count(m_from, QORLogScopes::endOfTime);
        m_size = all - std::min(all, above());
    }

    std::uint64_t size() const noexcept { return m_size; }

    /// Does without the counters from now on, which do not agree with the records. Tells the size anew.
    void walk() {
        m_walks = true;
        m_last.reset();
        const QORLogScopes::Records records = m_scopes.records(m_from, m_to);
        ASStatement& select = m_tran->prepare("SELECT count(*) FROM (" + records.sql + ") r");
        bindAll(select, records);
        select.execute();
        m_size = select.fetch() ? static_cast<std::uint64_t>(select.integer(1)) : 0;
        select.close();
    }
    bool walks() const noexcept { return m_walks; }

    /// Selects records from a position on, by number of arrival and time, then what else there is of them. Null when
    /// the counters are found not to know where that is.
    ASStatement* select(std::uint64_t position, std::size_t most) {
        const bool goesOn = position == m_nextPosition && m_last;
        const bool looksFor = !m_walks && !goesOn && position > skippable && !isShort();
        std::int64_t last = m_to;
        std::uint64_t skip = goesOn ? 0 : position;
        if (looksFor) {
            const auto place = m_scopes.find(above() + position, m_scopes.isSingle() ? skippedOfOne : sorted);
            if (!place) return nullptr;
            if (place->last < m_to) {
                last = place->last;
                skip = above() + position - place->newer;
            }
        }
        const auto first = beginning(position + most - 1);
        if (!first) return nullptr;
        return &selectFrom(*first, last, skip, most, goesOn ? &*m_last : nullptr);
    }
    /// Tells which records were read, so that reading on is cheap.
    void setRead(std::uint64_t nextPosition, QORLogMark last) {
        m_nextPosition = nextPosition;
        m_last = std::move(last);
    }

private:
    /// Requests tell times in 32 bits; where those end, counters need no closer look.
    static constexpr std::int64_t endOfRequests = std::numeric_limits<std::int32_t>::max();

    /// Records that are newer than the span.
    std::uint64_t above() {
        if (!m_above) m_above = m_scopes.count(m_to + 1, QORLogScopes::endOfTime);
        return *m_above;
    }

    /// Whether all records are as soon sorted as looked for.
    bool isShort() const { return !m_scopes.isSingle() && m_size <= sorted; }

    /// The second before which nothing lies down to a position. Records of one scope come in order and are read as far
    /// as they are wanted; those of several are all looked at before the first is known.
    std::optional<std::int64_t> beginning(std::uint64_t position) {
        if (m_walks || m_scopes.isSingle() || isShort()) return m_from;
        const auto place = m_scopes.find(above() + position, sorted);
        if (!place) return std::nullopt;
        return std::max(m_from, place->first);
    }

    static unsigned bindAll(ASStatement& statement, const QORLogScopes::Records& records) {
        unsigned index = 0;
        for (const std::string& parameter : records.parameters)
            statement.bind(++index, std::string_view(parameter));
        return index;
    }

    ASStatement& selectFrom(std::int64_t first, std::int64_t last, std::uint64_t skip, std::size_t most,
                            const QORLogMark* behind) {
        const QORLogScopes::Records records = m_scopes.records(first, last, behind);
        ASStatement& statement = m_tran->prepare(pageSql(ASDialect::of(m_tran->engine()), m_kind, records.sql));
        unsigned index = bindAll(statement, records);
        statement.bind(++index, static_cast<std::int64_t>(most));
        statement.bind(++index, static_cast<std::int64_t>(skip));
        statement.execute();
        return statement;
    }

    QORRdbmsTran m_tran{ASAccess::Read};
    QORLogKind m_kind;
    QORLogScopes m_scopes;
    std::int64_t m_from;
    std::int64_t m_to;
    std::uint64_t m_size = 0;
    bool m_walks = false;
    std::optional<std::uint64_t> m_above;
    std::uint64_t m_nextPosition = 0;
    std::optional<QORLogMark> m_last;
};

template <class Record>
class LogSource final : public QORLogResult<Record>::Source {
public:
    /// \param first position of the log's record that is the first of the result \param most of the records
    LogSource(std::unique_ptr<LogQuery> query, int first, int most)
        : m_query(std::move(query)),
          m_first(static_cast<std::uint64_t>(std::max(first, 0))),
          m_bound(static_cast<std::uint64_t>(std::max(most, 0))) {}

    std::size_t size() const noexcept override {
        return m_query->size() > m_first ? std::min(m_query->size() - m_first, m_bound) : 0;
    }

    std::vector<Record> read(std::size_t from, std::size_t most) override {
        std::vector<Record> records = readSome(m_first + from, std::min(most, size() - from));
        if (m_query->walks() || records.size() == std::min(most, size() - from)) return records;
        logMessage(1, "QORLibAgent", sourcePath, __func__,
                   "The log has fewer records than its counters tell; \"qorctl check --mend\" counts them anew");
        m_query->walk();
        return from < size() ? readSome(m_first + from, std::min(most, size() - from)) : std::vector<Record>();
    }

private:
    std::vector<Record> readSome(std::uint64_t position, std::size_t most) {
        std::vector<Record> records;
        ASStatement* const rows = m_query->select(position, most);
        if (rows == nullptr) return records;
        QORLogMark last;
        while (rows->fetch()) {
            records.push_back(readRecord(*rows, static_cast<Record*>(nullptr)));
            last = readMark(*rows);
        }
        rows->close();
        if (!records.empty()) m_query->setRead(position + records.size(), std::move(last));
        return records;
    }

    std::unique_ptr<LogQuery> m_query;
    std::uint64_t m_first;
    std::uint64_t m_bound;
};

int fail(std::string reason) {
    lastFailure = std::move(reason);
    return -1;
}

struct LogRequest {
    QORLogKind kind;
    const QOREnvSelection& envs;
    std::string category;
    int first;
    int most;
    int from;
    int to;
};

template <class Record>
int fill(QORLogResult<Record>& result, const LogRequest& request) {
    result = {};
    lastFailure.clear();
    const Wanted wanted(request.kind, request.envs, request.category);
    if (wanted.scopes().empty() || request.from > request.to) return 0;
    try {
        auto query = std::make_unique<LogQuery>(request.kind, wanted.scopes(), request.from, request.to);
        query->count();
        result =
            QORLogResult<Record>(std::make_unique<LogSource<Record>>(std::move(query), request.first, request.most));
        return 0;
    } catch (const std::exception& failure) {
        return fail(failure.what());
    }
}

}  // namespace

QOROpLogAgent::QOROpLogAgent(const QOREID& owner) : m_owner(owner) {}

int QOROpLogAgent::getOps(QOROpLogResult& result, const QOREnvSelection& envs, const QORPtr<QORLocalAccess>&,
                          const std::string& idFilter, const std::string& opFilter, int state, int flags, int most,
                          int from, int to) {
    result = {};
    if (m_owner.isValid()) return fail("this host keeps no operation log of " + m_owner.toString());
    if (!idFilter.empty() || !opFilter.empty() || state != 0 || flags != 0) {
        return fail("operations are found by environment and time only");
    }
    return fill(result, {QORLogKind::Operations, envs, {}, 0, most, from, to});
}

QOREventLogAgent::QOREventLogAgent(const QOREID& owner) : m_owner(owner) {}

int QOREventLogAgent::getEvents(QOREventLogResult& result, const QOREnvSelection& envs, int first, int most,
                                const QORPtr<QORLocalAccess>&, const std::string& category, int flags, int from,
                                int to) {
    result = {};
    if (m_owner.isValid()) return fail("this host keeps no event log of " + m_owner.toString());
    if (category.empty() || flags != 0) return fail("events are found by category, environment and time only");
    return fill(result, {QORLogKind::Events, envs, category, first, most, from, to});
}

const char* getErrorMessage() noexcept {
    return lastFailure.c_str();
}

}  // namespace QOR
