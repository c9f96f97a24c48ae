#include "QORLibAgent/QORLogs.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORLogQuery.h"
#include "QORLibAgent/QORSecurity.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

thread_local std::string lastFailure;

/// What the calling thread's client may have of what it asks for. With full access an environment's records are those
/// that belong to it or touch it; another client has, of the records that it may see at all, the same.
class Wanted {
public:
    /// \param category of events; nothing: any, and none
    Wanted(QORLogKind kind, const QOREnvSelection& selection, std::optional<std::string> category)
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
    const std::vector<QORLogScope>& scopes() const noexcept { return m_scopes; }

private:
    using Where = QORLogScope::Where;

    QORLogScope all() const {
        if (m_kind == QORLogKind::Operations) return {allOperationsScope()};
        return {m_category ? allEventsScope(*m_category) : anyEventsScope()};
    }
    QORLogScope of(const QOREID& owner) const {
        if (m_kind == QORLogKind::Operations) return {operationScope(owner), Where::WithOwner, owner};
        return {m_category ? eventScope(owner, *m_category) : anyEventScope(owner), Where::WithOwner, owner};
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
        if (access.isFull()) return m_scopes.push_back({touchedScope(touched), Where::Touching, touched});
        for (const QOREID& owner : access.owners()) {
            if (owner != touched) m_scopes.push_back({touchedScope(owner, touched), Where::WithOwner, owner});
        }
    }

    QORLogKind m_kind;
    std::optional<std::string> m_category;
    std::vector<QORLogScope> m_scopes;
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

template <class Record>
class LogSource final : public QORLogResult<Record>::Source {
public:
    /// \param first position of the log's record that is the first of the result \param most of the records
    LogSource(std::unique_ptr<QORLogQuery> query, int first, int most)
        : m_query(std::move(query)),
          m_first(static_cast<std::uint64_t>(std::max(first, 0))),
          m_bound(static_cast<std::uint64_t>(std::max(most, 0))) {}

    std::size_t size() const noexcept override {
        return m_query->size() > m_first ? std::min(m_query->size() - m_first, m_bound) : 0;
    }

    std::vector<Record> read(std::size_t from, std::size_t most) override {
        std::vector<Record> records = readSome(m_first + from, std::min(most, size() - from));
        if (m_query->walks() || records.size() == std::min(most, size() - from)) return records;
        logMessage(1, "QORLibAgent", QOR_SOURCE_PATH, __func__,
                   "The log has fewer records than its counters tell; \"qorctl check --mend\" counts them anew");
        m_query->walk();
        return from < size() ? readSome(m_first + from, std::min(most, size() - from)) : std::vector<Record>();
    }

private:
    struct Found {
        QORLogMark mark;
        Record record;
    };

    std::vector<Record> readSome(std::uint64_t position, std::size_t most) {
        const std::vector<ASStatement*> results = m_query->select(position, most);
        std::vector<Found> found;
        for (ASStatement* const rows : results) {
            while (rows->fetch())
                found.push_back({QORLogQuery::markOf(*rows), readRecord(*rows, static_cast<Record*>(nullptr))});
            rows->close();
        }
        if (results.size() > 1)
            std::sort(found.begin(), found.end(),
                      [](const Found& left, const Found& right) { return left.mark < right.mark; });
        if (found.size() > most) found.resize(most);
        std::vector<Record> records;
        records.reserve(found.size());
        for (Found& one : found)
            records.push_back(std::move(one.record));
        if (!found.empty()) m_query->setRead(position + found.size(), std::move(found.back().mark));
        return records;
    }

    std::unique_ptr<QORLogQuery> m_query;
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
        auto query = std::make_unique<QORLogQuery>(request.kind, wanted.scopes(), request.from, request.to);
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

template <class Record>
QORLogWalk<Record>::QORLogWalk(const QORLogSpanOfTime& span)
    : m_order(span.order), m_counted(std::is_same_v<Record, QORRequestProgressData> || span.category) {
    constexpr QORLogKind kind =
        std::is_same_v<Record, QORRequestProgressData> ? QORLogKind::Operations : QORLogKind::Events;
    const Wanted wanted(kind, span.envs, span.category);
    if (wanted.scopes().empty() || span.from > span.to) return;
    m_query = std::make_unique<QORLogQuery>(kind, wanted.scopes(), span.from, span.to);
}

template <class Record>
QORLogWalk<Record>::~QORLogWalk() = default;

template <class Record>
std::vector<QORLogFound<Record>> QORLogWalk<Record>::read(const QORLogMark* behind, std::size_t most) {
    return readIn(m_order, behind, most);
}

template <class Record>
std::vector<QORLogFound<Record>> QORLogWalk<Record>::readIn(QORLogOrder order, const QORLogMark* behind,
                                                            std::size_t most) {
    std::vector<QORLogFound<Record>> found;
    if (m_query == nullptr) return found;
    m_query->selectFirst(behind, order, most, [&](ASStatement& rows) {
        while (rows.fetch())
            found.push_back({QORLogQuery::markOf(rows), readRecord(rows, static_cast<Record*>(nullptr))});
    });
    const auto newer = [](const auto& left, const auto& right) { return left.mark < right.mark; };
    const auto older = [](const auto& left, const auto& right) { return right.mark < left.mark; };
    if (order == QORLogOrder::NewestFirst) {
        std::sort(found.begin(), found.end(), newer);
    } else {
        std::sort(found.begin(), found.end(), older);
    }
    if (found.size() > most) found.resize(most);
    return found;
}

template <class Record>
std::vector<QORLogFound<Record>> QORLogWalk<Record>::find(const std::vector<std::int64_t>& numbers) {
    std::vector<QORLogFound<Record>> found;
    if (m_query == nullptr) return found;
    const QORRowAccess access = QORRowAccess::current();
    m_query->selectThese(numbers, [&](ASStatement& rows) {
        while (rows.fetch()) {
            Record record = readRecord(rows, static_cast<Record*>(nullptr));
            if (access.sees(record.eid)) found.push_back({QORLogQuery::markOf(rows), std::move(record)});
        }
    });
    return found;
}

template <class Record>
std::uint64_t QORLogWalk<Record>::count() {
    if (m_query == nullptr) return 0;
    if (m_counted) {
        m_query->count();
    } else {
        m_query->walk();
    }
    return m_query->size();
}

template <class Record>
std::uint64_t QORLogWalk<Record>::tally() {
    return m_query == nullptr ? 0 : m_query->tally();
}

template <class Record>
std::vector<QORLogMark> QORLogWalk<Record>::ends() {
    std::vector<QORLogMark> marks;
    for (const QORLogOrder order : {QORLogOrder::NewestFirst, QORLogOrder::OldestFirst}) {
        for (auto& found : readIn(order, nullptr, 1))
            marks.push_back(std::move(found.mark));
    }
    return marks;
}

template class QORLogWalk<QORRequestProgressData>;
template class QORLogWalk<QOREvent>;

const char* getErrorMessage() noexcept {
    return lastFailure.c_str();
}

}  // namespace QOR
