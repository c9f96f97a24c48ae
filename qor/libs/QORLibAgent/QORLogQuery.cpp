#include "QORLibAgent/QORLogQuery.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <map>
#include <set>
#include <string_view>
#include <thread>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORSourcePath.h"
#include "QORServers/QORServers.h"
#include "rdbmspp/engine/ASDialect.h"

namespace QOR {
namespace {

/// Up to here skipping records is cheaper than finding out where to begin.
constexpr std::uint64_t skippable = 200;
/// A span that holds no more records is read without looking for a narrower one: of one scope they come in order, of
/// several they have to be sorted.
constexpr std::uint64_t skippedOfOne = 256;
constexpr std::uint64_t sorted = 2048;
/// Of many scopes, each may have so many before its counters are divided further: to narrow such a span, all its
/// records would be read as well.
constexpr std::uint64_t undividedOfEach = 256;
constexpr std::uint64_t mostSorted = 16'384;
/// Requests tell times in 32 bits; where those end, counters need no closer look.
constexpr std::int64_t endOfRequests = std::numeric_limits<std::int32_t>::max();

constexpr const char* newestFirst = " r ORDER BY time DESC NULLS LAST, seq DESC LIMIT ?";

const char* orderText(QORLogOrder order) {
    return order == QORLogOrder::NewestFirst ? " r ORDER BY time DESC NULLS LAST, seq DESC"
                                             : " r ORDER BY time NULLS FIRST, seq";
}

/// The select of what there is of records, around one of the column seq, p, that finds them.
std::string recordsSql(const ASDialect& dialect, QORLogKind kind, const std::string& found) {
    const bool operations = kind == QORLogKind::Operations;
    const std::string columns =
        operations ? "o.id, o.parent_id, o.op, o.status, o.eid, o.message, (SELECT " + dialect.joinedGuids("e.eid") +
                         " FROM qor_operation_environment e WHERE e.operation = o.seq AND e.position >= 0)"
                   : "o.eid, o.source, o.category, o.info";
    return "SELECT o.seq, o.time, " + columns + " FROM " + found + " p" +
           dialect.lookUp(operations ? "qor_operation" : "qor_event", "o", "o.seq = p.seq", "p.seq");
}

/// The select of a page of a log's records, around the select that finds them by arrival and time. The order says where
/// nulls go, though there are none: an index serves no other.
std::string pageSql(const ASDialect& dialect, QORLogKind kind, const std::string& records) {
    return recordsSql(dialect, kind, "(SELECT seq FROM (" + records + ")" + newestFirst + " OFFSET ?)") +
           " ORDER BY o.time DESC, o.seq DESC";
}

unsigned bindAll(ASStatement& statement, const QORLogScopes::Records& records) {
    unsigned index = 0;
    for (const std::string& parameter : records.parameters)
        statement.bind(++index, std::string_view(parameter));
    return index;
}

/// The servers that keep operations of others which touch an environment. One that the placement does not know keeps
/// nothing any more.
std::set<const QORServer*> serversTouching(const QORPlacement& placement, const QOREID& eid) {
    std::set<const QORServer*> servers;
    QORRdbmsTran home(ASAccess::Read);
    const ASDialect& dialect = ASDialect::of(home->engine());
    ASStatement& select = home->prepare("SELECT server FROM qor_touched_server WHERE eid = " + dialect.guid("?"));
    select.bind(1, eid.toString()).execute();
    while (select.fetch()) {
        if (const QORServer* const server = placement.find(select.text(1))) servers.insert(server);
    }
    select.close();
    return servers;
}

std::set<const QORServer*> serversOf(const QORPlacement& placement, const QORLogScope& scope) {
    std::set<const QORServer*> servers;
    if (scope.where == QORLogScope::Where::Everywhere) {
        for (const QORServer& server : placement.servers())
            servers.insert(&server);
        return servers;
    }
    if (scope.where == QORLogScope::Where::Touching) servers = serversTouching(placement, scope.eid);
    servers.insert(&placement.of(scope.eid));
    return servers;
}

}  // namespace

QORLogQuery::QORLogQuery(QORLogKind kind, const std::vector<QORLogScope>& scopes, std::int64_t from, std::int64_t to)
    : m_kind(kind), m_from(from), m_to(to) {
    constexpr auto betweenLooks = std::chrono::milliseconds(20);
    constexpr auto longestMove = std::chrono::seconds(10);
    const auto until = QORRequestControl::Clock::now() + longestMove;
    m_placement = QORServers::instance().placement();
    while (!open(scopes)) {
        QORRequestControl::checkCurrent();
        if (QORRequestControl::Clock::now() >= until)
            throw QORException(errFailure, "the servers do not keep what the database says that they keep",
                               QOR_SOURCE_PATH, __LINE__);
        std::this_thread::sleep_for(betweenLooks);
        m_placement = QORServers::instance().refresh();
    }
}

/// \returns false where environments are just being moved
bool QORLogQuery::open(const std::vector<QORLogScope>& scopes) {
    m_parts.clear();
    std::map<int, std::pair<const QORServer*, std::vector<std::string>>> byNumber;
    if (m_placement->none()) {
        std::vector<std::string> names;
        names.reserve(scopes.size());
        for (const QORLogScope& scope : scopes)
            names.push_back(scope.name);
        addPart(nullptr, QORRdbms::instance(), names);
        return true;
    }
    for (const QORLogScope& scope : scopes) {
        for (const QORServer* const server : serversOf(*m_placement, scope)) {
            auto& [of, names] = byNumber[server->number];
            of = server;
            names.push_back(scope.name);
        }
    }
    return std::all_of(byNumber.begin(), byNumber.end(),
                       [&](const auto& one) { return openOn(*one.second.first, one.second.second); });
}

bool QORLogQuery::openOn(const QORServer& server, const std::vector<std::string>& scopes) {
    bool same = false;
    QORServers::instance().run(server, [&](QORRdbms& database) {
        addPart(&server, database, scopes);
        same = QORServers::holds(*m_parts.back()->tran, server);
    });
    return same;
}

void QORLogQuery::addPart(const QORServer* server, QORRdbms& database, const std::vector<std::string>& scopes) {
    auto part = std::make_unique<Part>(server, database, m_kind);
    for (const std::string& scope : scopes)
        part->scopes.add(scope);
    m_parts.push_back(std::move(part));
}

template <class Work>
void QORLogQuery::ask(const Part& part, Work work) {
    try {
        work();
    } catch (const AException& failure) {
        if (part.server == nullptr) throw;
        throw QORServers::naming(part.server->name, failure);
    }
}

template <class Work>
std::uint64_t QORLogQuery::sum(Work work) {
    std::uint64_t all = 0;
    for (const auto& part : m_parts)
        ask(*part, [&] { all += work(*part); });
    return all;
}

std::uint64_t QORLogQuery::countOf(std::int64_t from, std::int64_t to) {
    return sum([&](Part& part) { return part.scopes.count(from, to); });
}

void QORLogQuery::count() {
    if (m_to == endOfRequests) {
        m_size = countOf(m_from, m_to);
        return;
    }
    // What is newer than the span is wanted for positions too, and each of the two has one end to look at.
    const std::uint64_t all = countOf(m_from, QORLogScopes::endOfTime);
    m_size = all - std::min(all, above());
}

std::uint64_t QORLogQuery::tally() {
    return sum([&](Part& part) { return part.scopes.tally(m_from, m_to); });
}

void QORLogQuery::walk() {
    m_walks = true;
    m_last.reset();
    m_size = sum([&](Part& part) {
        const QORLogScopes::Records records = part.scopes.records(m_from, m_to);
        ASStatement& select = part.tran->prepare("SELECT count(*) FROM (" + records.sql + ") r");
        bindAll(select, records);
        select.execute();
        const std::uint64_t found = select.fetch() ? static_cast<std::uint64_t>(select.integer(1)) : 0;
        select.close();
        return found;
    });
}

std::vector<ASStatement*> QORLogQuery::select(std::uint64_t position, std::size_t most) {
    std::optional<QORLogMark> behind;
    if (position == m_nextPosition) behind = m_last;
    const auto start = behind ? Place{m_to, 0} : startOf(position);
    if (!start) return {};
    const bool limited = limitsEach(start->skip + most);
    const auto first = limited ? m_from : beginning(position + most - 1);
    if (!first) return {};
    Place place = *start;
    if (m_parts.size() > 1 && place.skip > 0) {
        behind = markBefore(*first, place, limited ? place.skip : 0);
        if (!behind) return {};
        place.skip = 0;
    }
    std::vector<ASStatement*> results;
    for (const auto& part : m_parts)
        ask(*part, [&] {
            const std::size_t each = limited ? place.skip + most : 0;
            const auto records = part->scopes.records(*first, place.last, behind ? &*behind : nullptr, each);
            results.push_back(&selectFrom(*part, records, place.skip, most));
        });
    return results;
}

void QORLogQuery::setRead(std::uint64_t nextPosition, QORLogMark last) {
    m_nextPosition = nextPosition;
    m_last = std::move(last);
}

void QORLogQuery::selectFirst(const QORLogMark* behind, QORLogOrder order, std::size_t most,
                              const std::function<void(ASStatement&)>& read) {
    const std::string limit = std::string(orderText(order)) + " LIMIT " + std::to_string(most) + ")";
    for (const auto& part : m_parts) {
        ask(*part, [&] {
            const ASDialect& dialect = ASDialect::of(part->tran->engine());
            for (const auto& group : part->scopes.firstRecords(m_from, m_to, behind, order, most)) {
                ASStatement& select =
                    part->tran->prepare(recordsSql(dialect, m_kind, "(SELECT seq FROM (" + group.sql + ")" + limit));
                bindAll(select, group);
                select.execute();
                read(select);
                select.close();
            }
        });
    }
}

void QORLogQuery::selectThese(const std::vector<std::int64_t>& numbers, const std::function<void(ASStatement&)>& read) {
    std::string list;
    for (const std::int64_t number : numbers)
        list.append(list.empty() ? "[\"" : ",\"").append(std::to_string(number)).append("\"");
    if (list.empty()) return;
    list += ']';
    for (const auto& part : m_parts) {
        ask(*part, [&] {
            const ASDialect& dialect = ASDialect::of(part->tran->engine());
            ASStatement& select = part->tran->prepare(recordsSql(
                dialect, m_kind, std::string("(SELECT CAST(j.value AS bigint) AS seq FROM ") + dialect.eachText + ")"));
            select.bind(1, std::string_view(list)).execute();
            read(select);
            select.close();
        });
    }
}

QORLogMark QORLogQuery::markOf(const ASStatement& row) {
    return {row.integer(1), std::string(row.text(2))};
}

/// From which second on, going back, to skip how many records. Nothing when the counters do not know.
std::optional<QORLogQuery::Place> QORLogQuery::startOf(std::uint64_t position) {
    const bool looksFor = !m_walks && position > skippable && !isShort();
    if (!looksFor) return Place{m_to, position};
    const auto place = find(above() + position);
    if (!place) return std::nullopt;
    if (place->last >= m_to) return Place{m_to, position};
    return Place{place->last, above() + position - place->newer};
}

std::optional<QORLogScopes::Place> QORLogQuery::find(std::uint64_t position) {
    std::vector<QORLogScopes*> scopes;
    for (const auto& part : m_parts)
        scopes.push_back(&part->scopes);
    const std::uint64_t undivided =
        std::min(undividedOfEach * sum([](Part& part) { return part.scopes.size(); }), mostSorted);
    return QORLogScopes::find(scopes, position, isSingle() ? skippedOfOne : std::max(sorted, undivided));
}

/// Records that are newer than the span.
std::uint64_t QORLogQuery::above() {
    if (!m_above) m_above = countOf(m_to + 1, QORLogScopes::endOfTime);
    return *m_above;
}

bool QORLogQuery::isSingle() const {
    return std::all_of(m_parts.begin(), m_parts.end(), [](const auto& part) { return part->scopes.isSingle(); });
}

/// Whether the newest of each scope, so many that none of that many of all can be missed, are as soon sorted as what
/// all of them have in a span that is still to be found.
bool QORLogQuery::limitsEach(std::uint64_t most) {
    return !isSingle() && most * sum([](Part& part) { return part.scopes.size(); }) <= sorted &&
           std::all_of(m_parts.begin(), m_parts.end(), [](const auto& part) { return part->scopes.limitsEach(); });
}

/// Whether all records are as soon sorted as looked for.
bool QORLogQuery::isShort() const {
    return !isSingle() && m_size <= sorted;
}

/// The second before which nothing lies down to a position. Records of one scope come in order and are read as far as
/// they are wanted; those of several are all looked at before the first is known.
std::optional<std::int64_t> QORLogQuery::beginning(std::uint64_t position) {
    if (m_walks || isSingle() || isShort()) return m_from;
    const auto place = find(above() + position);
    if (!place) return std::nullopt;
    return std::max(m_from, place->first);
}

/// The last of the records that are skipped. How many of them each database has is not known, so that each may have
/// all.
std::optional<QORLogMark> QORLogQuery::markBefore(std::int64_t first, const Place& place, std::size_t each) {
    std::vector<QORLogMark> marks;
    for (const auto& part : m_parts) {
        ask(*part, [&] {
            const QORLogScopes::Records records = part->scopes.records(first, place.last, nullptr, each);
            ASStatement& select = part->tran->prepare("SELECT seq, time FROM (" + records.sql + ")" + newestFirst);
            const unsigned index = bindAll(select, records);
            select.bind(index + 1, static_cast<std::int64_t>(place.skip)).execute();
            while (select.fetch())
                marks.push_back(markOf(select));
            select.close();
        });
    }
    if (marks.size() < place.skip) return std::nullopt;
    const auto last = marks.begin() + static_cast<std::ptrdiff_t>(place.skip) - 1;
    std::nth_element(marks.begin(), last, marks.end());
    return *last;
}

ASStatement& QORLogQuery::selectFrom(Part& part, const QORLogScopes::Records& records, std::uint64_t skip,
                                     std::size_t most) const {
    ASStatement& statement = part.tran->prepare(pageSql(ASDialect::of(part.tran->engine()), m_kind, records.sql));
    const unsigned index = bindAll(statement, records);
    statement.bind(index + 1, static_cast<std::int64_t>(most));
    statement.bind(index + 2, static_cast<std::int64_t>(skip));
    statement.execute();
    return statement;
}

}  // namespace QOR
