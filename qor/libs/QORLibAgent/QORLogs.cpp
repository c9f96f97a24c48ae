#include "QORLibAgent/QORLogs.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORLogCounters.h"
#include "QORLibAgent/QORSecurity.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

thread_local std::string lastFailure;

/// Up to here skipping records is cheaper than finding out where to begin.
constexpr std::size_t skippable = 200;
/// Records of several environments are put in order this many at a time.
constexpr std::uint64_t sortable = 2048;

/// What the calling thread's client may have of what it asks for.
struct Wanted {
    bool all = false;
    std::vector<QOREID> eids;

    explicit Wanted(const QOREnvSelection& selection) {
        const QORClientContextPtr client = QORAccessChecker::getClientContext();
        const bool free = QORAccessChecker::hasFullAccess(client);
        all = free && selection.isAll();
        if (all || selection.isNone()) return;
        const std::set<QOREID> own = free ? std::set<QOREID>() : client->objects();
        if (selection.isAll()) {
            eids.assign(own.begin(), own.end());
        } else if (free || own.contains(selection.eid())) {
            eids.push_back(selection.eid());
        }
    }
    bool nothing() const { return !all && eids.empty(); }
};

std::string toJson(const std::vector<QOREID>& eids) {
    std::string json = "[";
    for (const QOREID& eid : eids) {
        if (json.size() > 1) json += ',';
        json += '"' + eid.toString() + '"';
    }
    return json += ']';
}

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

/// Where a record stands in its log. The first two columns of every select below are these.
struct Mark {
    std::int64_t seq = 0;
    std::string time;
};

Mark readMark(const ASStatement& row) {
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

constexpr std::string_view operationColumns =
    "SELECT o.seq, o.time, o.id, o.parent_id, o.op, o.status, o.eid, o.message, "
    "(SELECT group_concat(e.eid, ' ') FROM qor_operation_environment e WHERE e.operation = o.seq AND e.position >= 0) "
    "FROM (";
constexpr std::string_view operationOrder =
    ") p CROSS JOIN qor_operation o ON o.seq = p.seq "
    "ORDER BY o.time DESC, o.seq DESC";
constexpr std::string_view eventColumns = "SELECT o.seq, o.time, o.eid, o.source, o.category, o.info FROM (";
constexpr std::string_view eventOrder = ") p CROSS JOIN qor_event o ON o.seq = p.seq ORDER BY o.time DESC, o.seq DESC";

/// One log, one selection of environments, one span of time: what is asked, in the database's terms. Everything is
/// read in one transaction, so that sizes, positions and records fit together.
class LogQuery {
public:
    LogQuery(QORLogKind kind, Wanted wanted, std::string category, std::int64_t from, std::int64_t to)
        : m_kind(kind), m_wanted(std::move(wanted)), m_category(std::move(category)), m_from(from), m_to(to) {
        addScopes();
    }

    std::uint64_t count() {
        if (m_from > m_to) return 0;
        if (!isSingle() || m_to == endOfRequests) return count(m_from, m_to);
        // What is newer than the span is wanted for positions too, and each of the two has one end to look at.
        return m_scopes.front().scope.count(m_from, QORLogScope::endOfTime) - above();
    }

    /// Selects records from a position on, by number of arrival and time, then what else there is of them.
    ASStatement& select(std::uint64_t position, std::size_t most, std::uint64_t size) {
        if (!isSingle()) return selectSorted(position, most, size);
        if (position == m_nextPosition && m_last) return selectBehind(*m_last, most);
        if (position <= skippable) return selectSkipping(m_to, position, most);
        QORLogScope& scope = m_scopes.front().scope;
        const std::uint64_t newer = above() + position;
        const QORLogScope::Place place = scope.find(newer);
        return selectSkipping(place.last, newer - place.newer, most);
    }
    /// Tells which records were read, so that reading on is cheap.
    void setRead(std::uint64_t nextPosition, Mark last) {
        m_nextPosition = nextPosition;
        m_last = std::move(last);
    }

private:
    struct Weighted {
        QORLogScope scope;
        std::int64_t weight;
    };

    /// Requests tell times in 32 bits; where those end, counters need no closer look.
    static constexpr std::int64_t endOfRequests = std::numeric_limits<std::int32_t>::max();

    bool isSingle() const { return m_scopes.size() == 1 && m_wanted.eids.size() <= 1; }
    /// Records that are newer than the span.
    std::uint64_t above() {
        if (!m_above) m_above = m_scopes.front().scope.count(m_to + 1, QORLogScope::endOfTime);
        return *m_above;
    }

    bool isOperations() const { return m_kind == QORLogKind::Operations; }

    void addScope(std::string name, std::int64_t weight) {
        m_scopes.push_back({QORLogScope(*m_tran, m_kind, std::move(name)), weight});
    }
    void addScopes() {
        if (m_wanted.all) return addScope(isOperations() ? allOperationsScope() : allEventsScope(m_category), 1);
        for (const QOREID& eid : m_wanted.eids)
            addScope(isOperations() ? operationScope(eid) : eventScope(eid, m_category), 1);
        if (isOperations() && m_wanted.eids.size() > 1) addSharedScopes();
    }
    /// An operation of several of the environments counts in each of them, but is one.
    void addSharedScopes() {
        ASStatement& shared = m_tran->prepare(
            "SELECT scope, count(*) FROM qor_operation_scope WHERE eid IN (SELECT value FROM json_each(?)) "
            "GROUP BY scope HAVING count(*) > 1");
        const std::string json = toJson(m_wanted.eids);
        shared.bind(1, std::string_view(json));
        shared.execute();
        while (shared.fetch())
            addScope(std::string(shared.text(1)), 1 - shared.integer(2));
        shared.close();
    }

    std::uint64_t count(std::int64_t from, std::int64_t to) {
        std::int64_t records = 0;
        for (Weighted& one : m_scopes)
            records += one.weight * static_cast<std::int64_t>(one.scope.count(from, to));
        return static_cast<std::uint64_t>(records);
    }

    /// The records of the scopes, as an inner select up to its conditions on time.
    std::string inner() const {
        if (!isOperations()) {
            return std::string("SELECT seq FROM qor_event WHERE category = ? AND ") +
                   (m_wanted.all                ? ""
                    : m_wanted.eids.size() == 1 ? "eid = ? AND "
                                                : "eid IN (SELECT value FROM json_each(?)) AND ");
        }
        if (m_wanted.all) return "SELECT seq FROM qor_operation WHERE ";
        if (m_wanted.eids.size() == 1)
            return "SELECT operation AS seq FROM qor_operation_environment WHERE eid = ? AND ";
        return "SELECT operation AS seq FROM qor_operation_environment "
               "WHERE eid IN (SELECT value FROM json_each(?)) AND ";
    }
    const char* arrival() const { return isOperations() && !m_wanted.all ? "operation" : "seq"; }

    ASStatement& prepare(const std::string& conditionsAndOrder) {
        const std::string sql = std::string(isOperations() ? operationColumns : eventColumns) + inner() +
                                conditionsAndOrder + std::string(isOperations() ? operationOrder : eventOrder);
        ASStatement& statement = m_tran->prepare(sql);
        m_index = 1;
        if (!isOperations()) statement.bind(m_index++, std::string_view(m_category));
        if (!m_wanted.all) {
            const std::string eids =
                m_wanted.eids.size() == 1 ? m_wanted.eids.front().toString() : toJson(m_wanted.eids);
            statement.bind(m_index++, std::string_view(eids));
        }
        return statement;
    }
    void bindTime(ASStatement& statement, std::int64_t second) {
        const std::string text = time2dbstr(second);
        statement.bind(m_index++, std::string_view(text));
    }

    void bindNumber(ASStatement& statement, std::int64_t number) { statement.bind(m_index++, number); }

    std::string newestFirst() const { return std::string(" ORDER BY time DESC, ") + arrival() + " DESC LIMIT ?"; }

    ASStatement& selectSkipping(std::int64_t last, std::uint64_t skip, std::size_t most) {
        ASStatement& statement = prepare("time BETWEEN ? AND ?" + newestFirst() + " OFFSET ?");
        bindTime(statement, m_from);
        bindTime(statement, last);
        bindNumber(statement, static_cast<std::int64_t>(most));
        bindNumber(statement, static_cast<std::int64_t>(skip));
        statement.execute();
        return statement;
    }

    ASStatement& selectBehind(const Mark& mark, std::size_t most) {
        ASStatement& statement =
            prepare(std::string("time >= ? AND (time, ") + arrival() + ") < (?, ?)" + newestFirst());
        bindTime(statement, m_from);
        statement.bind(m_index++, std::string_view(mark.time));
        bindNumber(statement, mark.seq);
        bindNumber(statement, static_cast<std::int64_t>(most));
        statement.execute();
        return statement;
    }

    /// Records of several environments have no common index: a span that holds few is looked for, and sorted.
    ASStatement& selectSorted(std::uint64_t position, std::size_t most, std::uint64_t size) {
        std::int64_t first = m_from;
        std::int64_t last = m_to;
        std::uint64_t newer = 0;
        for (std::uint64_t inside = size; inside > sortable && first < last;) {
            const std::int64_t middle = first + (last - first) / 2;
            const std::uint64_t upper = count(middle + 1, last);
            if (position - newer < upper) {
                first = middle + 1;
                inside = upper;
            } else {
                newer += upper;
                last = middle;
                inside -= upper;
            }
        }
        ASStatement& statement = prepare(std::string("time BETWEEN ? AND ?") +
                                         (isOperations() ? " GROUP BY operation" : "") + newestFirst() + " OFFSET ?");
        bindTime(statement, first);
        bindTime(statement, last);
        bindNumber(statement, static_cast<std::int64_t>(most));
        bindNumber(statement, static_cast<std::int64_t>(position - newer));
        statement.execute();
        return statement;
    }

    QORRdbmsTran m_tran{ASAccess::Read};
    QORLogKind m_kind;
    Wanted m_wanted;
    std::string m_category;
    std::int64_t m_from;
    std::int64_t m_to;
    std::vector<Weighted> m_scopes;
    std::optional<std::uint64_t> m_above;
    unsigned m_index = 1;
    std::uint64_t m_nextPosition = 0;
    std::optional<Mark> m_last;
};

template <class Record>
class LogSource final : public QORLogResult<Record>::Source {
public:
    /// \param first position of the log's record that is the first of the result
    LogSource(std::unique_ptr<LogQuery> query, std::uint64_t first, std::uint64_t size)
        : m_query(std::move(query)), m_first(first), m_size(size) {}

    std::vector<Record> read(std::size_t from, std::size_t most) override {
        const std::uint64_t position = m_first + from;
        ASStatement& rows = m_query->select(position, most, m_size);
        std::vector<Record> records;
        Mark last;
        while (rows.fetch()) {
            records.push_back(readRecord(rows, static_cast<Record*>(nullptr)));
            last = readMark(rows);
        }
        rows.close();
        if (records.empty()) {
            throw QORException(errFailure, "the log has no record at position " + std::to_string(position),
                               "qor/libs/QORLibAgent/QORLogs", __LINE__);
        }
        m_query->setRead(position + records.size(), std::move(last));
        return records;
    }

private:
    std::unique_ptr<LogQuery> m_query;
    std::uint64_t m_first;
    std::uint64_t m_size;
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
    Wanted wanted(request.envs);
    if (wanted.nothing() || request.from > request.to) return 0;
    try {
        auto query =
            std::make_unique<LogQuery>(request.kind, std::move(wanted), request.category, request.from, request.to);
        const std::uint64_t size = query->count();
        const auto first = static_cast<std::uint64_t>(std::max(request.first, 0));
        const std::uint64_t found = size > first ? size - first : 0;
        const std::uint64_t taken = std::min(found, static_cast<std::uint64_t>(std::max(request.most, 0)));
        result = QORLogResult<Record>(std::make_unique<LogSource<Record>>(std::move(query), first, size), taken);
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
