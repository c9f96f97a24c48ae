#include "QORLibAgent/QORLogCounters.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <span>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORBinder.h"
#include "rdbmspp/engine/ASDialect.h"

namespace QOR {
namespace {

/// Widths of buckets as powers of two, the widest first.
constexpr std::array<int, 7> levels{24, 20, 16, 12, 8, 4, 0};
constexpr std::int64_t splitAbove = 256;

/// The marks of scopes' names: no GUID contains them.
constexpr char touchedMark = '>';
constexpr char categoryMark = '/';
constexpr std::size_t guidLength = 36;

/// The forms of scopes, and where their records are found.
struct Form {
    std::string_view table;
    std::string_view seq;   ///< the column of the arrival
    std::string_view one;   ///< what finds the records of one scope, with its pieces as parameters
    std::string_view each;  ///< the same for the scope j.value; <...> is a text that is a GUID
};
constexpr std::array<Form, 8> forms{{
    {"qor_operation", "seq", "1 = 1", "1 = 1"},
    {"qor_operation", "seq", "r.eid = ?", "r.eid = <j.value>"},
    {"qor_operation_environment", "operation", "r.eid = ? AND r.eid IS DISTINCT FROM r.own",
     "r.eid = <substr(j.value, 2)> AND r.eid IS DISTINCT FROM r.own"},
    {"qor_operation_environment", "operation", "r.eid = ? AND r.own = ? AND r.eid <> r.own",
     "r.eid = <substr(j.value, 38)> AND r.own = <substr(j.value, 1, 36)> AND r.eid <> r.own"},
    {"qor_event", "seq", "r.category = ?", "r.category = substr(j.value, 2)"},
    {"qor_event", "seq", "r.category = ? AND r.eid = ?",
     "r.category = substr(j.value, 38) AND r.eid = <substr(j.value, 1, 36)>"},
    {"qor_event", "seq", "1 = 1", "1 = 1"},
    {"qor_event", "seq", "r.eid = ?", "r.eid = <j.value>"},
}};
/// The forms from here on have no counters.
constexpr std::size_t uncounted = 6;

/// Nothing for a text that is no scope.
std::optional<std::size_t> formOf(QORLogKind kind, std::string_view scope) {
    if (kind == QORLogKind::Events) {
        if (scope.starts_with(categoryMark)) return 4;
        if (scope.size() > guidLength && scope[guidLength] == categoryMark) return 5;
        if (scope.empty()) return 6;
        if (scope.size() == guidLength) return 7;
        return std::nullopt;
    }
    if (scope.empty()) return 0;
    if (scope.size() == guidLength) return 1;
    if (scope.size() == guidLength + 1 && scope.front() == touchedMark) return 2;
    if (scope.size() == 2 * guidLength + 1 && scope[guidLength] == touchedMark) return 3;
    return std::nullopt;
}

std::vector<std::string> piecesOf(std::size_t form, const std::string& scope) {
    switch (form) {
        case 0:
        case 6:
            return {};
        case 1:
        case 7:
            return {scope};
        case 2:
        case 4:
            return {scope.substr(1)};
        default:
            return {scope.substr(guidLength + 1), scope.substr(0, guidLength)};
    }
}

/// The statements for one log; they differ in the table.
struct CounterSql {
    std::string_view find;
    std::string_view insert;
    std::string_view update;
    std::string_view remove;
    std::string_view markSplit;
    std::string_view removeScope;
};

#define QOR_COUNTER_SQL(table)                                                             \
    CounterSql {                                                                           \
        "SELECT n, split FROM " table " WHERE scope = ? AND level = ? AND bucket = ?",     \
            "INSERT INTO " table " (n, scope, level, bucket) VALUES (?, ?, ?, ?)",         \
            "UPDATE " table " SET n = ? WHERE scope = ? AND level = ? AND bucket = ?",     \
            "DELETE FROM " table " WHERE scope = ? AND level = ? AND bucket = ?",          \
            "UPDATE " table " SET split = 1 WHERE scope = ? AND level = ? AND bucket = ?", \
            "DELETE FROM " table " WHERE scope = ?"                                        \
    }

constexpr CounterSql operationSql = QOR_COUNTER_SQL("qor_operation_count");
constexpr CounterSql eventSql = QOR_COUNTER_SQL("qor_event_count");

#undef QOR_COUNTER_SQL

const CounterSql& sqlOf(QORLogKind kind) {
    return kind == QORLogKind::Operations ? operationSql : eventSql;
}

/// The statements that read the counters of one log, as an engine takes them.
struct ScopesSql {
    ScopesSql(const ASDialect& dialect, const std::string& table) {
        const std::string each = dialect.eachText;
        const auto counters = [&](std::string_view alias, std::string_view condition, std::string_view per) {
            return dialect.lookUp(table, alias, condition, per);
        };
        const auto sum = [](const std::string& condition) {
            return "coalesce(sum(CASE WHEN " + condition + " THEN c.n END), 0)";
        };
        edges = "SELECT " + sum("c.bucket > low AND c.bucket < high") + ", " + sum("c.bucket = low AND c.split = 0") +
                ", " + sum("c.bucket = low AND c.split = 1") + ", " + sum("c.bucket = high AND c.split = 0") + ", " +
                sum("c.bucket = high AND c.split = 1") +
                " FROM (SELECT CAST(? AS bigint) AS low, CAST(? AS bigint) AS high) e CROSS JOIN " + each +
                counters("c", "c.scope = j.value AND c.level = ? AND c.bucket BETWEEN low AND high", "j.value");
        widest = "SELECT c.bucket, sum(c.n) FROM " + each +
                 counters("c", "c.scope = j.value AND c.level = ?", "j.value") +
                 " GROUP BY c.bucket ORDER BY c.bucket DESC";
        finer = "SELECT c.bucket AS bucket, c.n AS n FROM " + each +
                counters("p", "p.scope = j.value AND p.level = ? AND p.bucket = ? AND p.split = 1", "j.value") +
                counters("c", "c.scope = p.scope AND c.level = ? AND c.bucket BETWEEN ? AND ?", "p.scope");
        unsplit =
            counters("c", "c.scope = j.value AND c.level = ? AND c.bucket = ? AND c.split = 0 AND c.n > 0", "j.value");
        notSplit = dialect.none("FROM " + table +
                                " p WHERE p.scope = j.value AND p.level = ? AND p.bucket = ? AND p.split = 1");
    }

    std::string edges;
    std::string widest;
    std::string finer;
    std::string unsplit;  ///< the scopes whose bucket is whole, to be joined with j
    std::string notSplit;
};

const ScopesSql& scopesSql(const ASDialect& dialect, QORLogKind kind) {
    const auto make = [](ASEngine engine) {
        return std::array{ScopesSql(ASDialect::of(engine), "qor_operation_count"),
                          ScopesSql(ASDialect::of(engine), "qor_event_count")};
    };
    static const auto sqlite = make(ASEngine::SQLite);
    static const auto postgres = make(ASEngine::PostgreSQL);
    return (dialect.engine == ASEngine::SQLite ? sqlite : postgres)[static_cast<std::size_t>(kind)];
}

/// The condition that finds the records of the scope j.value.
std::string eachOf(const ASDialect& dialect, const Form& form) {
    std::string sql;
    std::string_view rest = form.each;
    for (std::size_t at = rest.find('<'); at != std::string_view::npos; at = rest.find('<')) {
        // A condition that two columns differ is no text between marks.
        if (rest.substr(at, 2) == "<>") {
            sql += rest.substr(0, at + 2);
            rest.remove_prefix(at + 2);
            continue;
        }
        const std::size_t end = rest.find('>', at);
        sql += rest.substr(0, at);
        sql += dialect.guid(rest.substr(at + 1, end - at - 1));
        rest.remove_prefix(end + 1);
    }
    return sql += rest;
}

/// A time that the database can have.
std::string boundText(const ASDialect& dialect, std::int64_t second) {
    return time2dbstr(std::clamp(second, dialect.firstSecond, lastDbSecond));
}

/// Adds a text to an array, which is always whole.
void appendToArray(std::string& json, std::string_view text) {
    if (json.empty()) json = "[]";
    json.pop_back();
    if (json.size() > 1) json += ',';
    appendJsonString(text, json);
    json += ']';
}

/// A counter.
struct Bucket {
    const std::string* scope;
    std::size_t level;
    std::int64_t number;

    std::int64_t first() const { return number * (std::int64_t{1} << levels[level]); }
    std::int64_t last() const { return first() + (std::int64_t{1} << levels[level]) - 1; }
};

void bind(QORBinder& to, const Bucket& bucket) {
    to.text(*bucket.scope).integer(levels[bucket.level]).integer(bucket.number);
}

/// Writes the counters of one log, each with a statement of its own: statements that are kept prepared cost less than
/// one that takes many counters out of a list.
class CounterWriter {
public:
    CounterWriter(ASSession& session, QORLogKind kind) : m_session(session), m_kind(kind), m_sql(sqlOf(kind)) {}

    /// Changes the counters of a scope. \param scope outlives this \param changes in the order of their seconds
    void put(const std::string& scope, std::span<const std::pair<std::int64_t, int>> changes, std::size_t level = 0) {
        while (!changes.empty()) {
            const Bucket bucket{&scope, level, changes.front().first >> levels[level]};
            const std::int64_t last = bucket.last();
            std::int64_t sum = 0;
            std::size_t within = 0;
            for (; within < changes.size() && changes[within].first <= last; ++within)
                sum += changes[within].second;
            if (put(bucket, sum)) put(scope, changes.first(within), level + 1);
            changes = changes.subspan(within);
        }
    }

    /// Splits the buckets that have become too full.
    void split() {
        while (!m_full.empty()) {
            const Bucket full = m_full.back();
            m_full.pop_back();
            run(m_sql.markSplit, full);
            putRecords(*full.scope, full.level + 1, full.first(), full.last());
        }
    }

    /// The counters of the records from one second to another at a level.
    void putRecords(const std::string& scope, std::size_t level, std::int64_t from, std::int64_t to) {
        QORLogScopes scopes(m_session, m_kind);
        scopes.add(scope);
        const QORLogScopes::Records records = scopes.records(from, to);
        ASStatement& select = m_session.prepare("SELECT qor_second(time) >> ? AS number, count(*) FROM (" +
                                                records.sql + ") r GROUP BY number HAVING number IS NOT NULL");
        QORBinder binder(select);
        binder.integer(levels[level]);
        for (const std::string& parameter : records.parameters)
            binder.text(parameter);
        select.execute();
        std::vector<std::pair<std::int64_t, std::int64_t>> counts;
        while (select.fetch())
            counts.emplace_back(select.integer(1), select.integer(2));
        select.close();
        for (const auto& [number, count] : counts)
            put({&scope, level, number}, count);
    }

private:
    /// What a counter says; nothing where there is none.
    struct State {
        std::int64_t n = 0;
        bool split = false;
    };

    /// \returns whether the bucket is split, so that those within it change as well
    bool put(const Bucket& bucket, std::int64_t change) {
        const std::optional<State> before = find(bucket);
        if (!before) {
            // Where nothing is counted nothing can be taken away; the counters were wrong before.
            if (change > 0) run(m_sql.insert, bucket, change);
        } else if (before->n + change == 0) {
            run(m_sql.remove, bucket);
        } else if (change != 0) {
            run(m_sql.update, bucket, before->n + change);
        }
        const State state = before.value_or(State{});
        const bool narrowest = bucket.level + 1 == levels.size();
        if (!state.split && !narrowest && state.n + change > splitAbove) m_full.push_back(bucket);
        return state.split && !narrowest;
    }

    std::optional<State> find(const Bucket& bucket) {
        ASStatement& select = m_session.prepare(m_sql.find);
        QORBinder to(select);
        bind(to, bucket);
        select.execute();
        std::optional<State> state;
        if (select.fetch()) state = State{select.integer(1), select.integer(2) != 0};
        select.close();
        return state;
    }

    /// \param n where the statement sets it
    void run(std::string_view sql, const Bucket& bucket, std::optional<std::int64_t> n = {}) {
        ASStatement& statement = m_session.prepare(sql);
        QORBinder to(statement);
        if (n) to.integer(*n);
        bind(to, bucket);
        statement.execute(ASTriggers::Skip);
    }

    ASSession& m_session;
    QORLogKind m_kind;
    const CounterSql& m_sql;
    std::vector<Bucket> m_full;
};

}  // namespace

std::string allOperationsScope() {
    return {};
}

std::string operationScope(const QOREID& own) {
    return own.toString();
}

std::string touchedScope(const QOREID& touched) {
    return touchedMark + touched.toString();
}

std::string touchedScope(const QOREID& own, const QOREID& touched) {
    return own.toString() + touchedMark + touched.toString();
}

std::string allEventsScope(std::string_view category) {
    return categoryMark + std::string(category);
}

std::string eventScope(const QOREID& eid, std::string_view category) {
    return eid.toString() + categoryMark + std::string(category);
}

std::string anyEventsScope() {
    return {};
}

std::string anyEventScope(const QOREID& eid) {
    return eid.toString();
}

void QORLogCounters::add(QORLogKind kind, const std::string& scope, std::int64_t second, int change) {
    m_session.setOwing(true);
    m_scopes[static_cast<std::size_t>(kind)][scope].emplace_back(second, change);
}

void QORLogCounters::addOperation(std::int64_t second, const QOREID& own, const std::vector<QOREID>& touched,
                                  int change) {
    add(QORLogKind::Operations, allOperationsScope(), second, change);
    if (own.isValid()) add(QORLogKind::Operations, operationScope(own), second, change);
    for (const QOREID& eid : touched) {
        if (eid == own) continue;
        add(QORLogKind::Operations, touchedScope(eid), second, change);
        if (own.isValid()) add(QORLogKind::Operations, touchedScope(own, eid), second, change);
    }
}

void QORLogCounters::addEvent(std::int64_t second, const QOREID& eid, std::string_view category, int change) {
    if (category.empty()) return;
    add(QORLogKind::Events, allEventsScope(category), second, change);
    if (eid.isValid()) add(QORLogKind::Events, eventScope(eid, category), second, change);
}

void QORLogCounters::finish() {
    for (const QORLogKind kind : {QORLogKind::Operations, QORLogKind::Events}) {
        Scopes& scopes = m_scopes[static_cast<std::size_t>(kind)];
        CounterWriter writer(m_session, kind);
        for (auto& [scope, changes] : scopes) {
            std::sort(changes.begin(), changes.end());
            writer.put(scope, changes);
        }
        writer.split();
        scopes.clear();
    }
    m_session.setOwing(false);
}

void QORLogCounters::recount(ASSession& session, QORLogKind kind, const std::string& scope) {
    if (session.engine() != ASEngine::SQLite) {
        ASStatement& counting =
            session.prepare(kind == QORLogKind::Operations ? "SELECT qor_operation_recount(CAST(? AS text))"
                                                           : "SELECT qor_event_recount(CAST(? AS text))");
        counting.bind(1, std::string_view(scope)).execute();
        counting.close();
        return;
    }
    session.prepare(sqlOf(kind).removeScope).bind(1, std::string_view(scope)).execute(ASTriggers::Skip);
    const auto form = formOf(kind, scope);
    if (!form || *form >= uncounted) return;
    CounterWriter writer(session, kind);
    writer.putRecords(scope, 0, std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max());
    writer.split();
}

QORLogScopes::QORLogScopes(ASSession& session, QORLogKind kind)
    : m_session(session), m_dialect(ASDialect::of(session.engine())), m_kind(kind) {}

void QORLogScopes::add(const std::string& scope) {
    const auto known = formOf(m_kind, scope);
    if (!known) throw QORException(errFailure, "\"" + scope + "\" is no scope of a log", QOR_SOURCE_PATH, __LINE__);
    const std::size_t form = *known;
    auto part = std::find_if(m_parts.begin(), m_parts.end(), [&](const Part& one) { return one.form == form; });
    if (part == m_parts.end()) part = m_parts.insert(m_parts.end(), {form, scope, {}, 0});
    appendToArray(part->json, scope);
    appendToArray(m_json, scope);
    m_scopes.emplace_back(form, scope);
    ++part->scopes;
    ++m_count;
}

std::uint64_t QORLogScopes::count(std::int64_t from, std::int64_t to) {
    if (from > to) return 0;
    if (const auto whole = countWidest(from, to)) return *whole;
    return countWithin(0, from, to);
}

/// What the widest buckets say by themselves, which are read for positions anyway; nothing where an end of the span
/// lies within one.
std::optional<std::uint64_t> QORLogScopes::countWidest(std::int64_t from, std::int64_t to) {
    const std::int64_t first = from >> levels[0];
    const std::int64_t last = to >> levels[0];
    if (first << levels[0] != from || ((last + 1) << levels[0]) - 1 != to) return std::nullopt;
    std::uint64_t records = 0;
    for (const auto& [bucket, within] : widest())
        records += bucket >= first && bucket <= last ? within : 0;
    return records;
}

std::uint64_t QORLogScopes::tally(std::int64_t from, std::int64_t to) {
    const bool counted =
        std::all_of(m_scopes.begin(), m_scopes.end(), [](const auto& scope) { return scope.first < uncounted; });
    if (counted) return count(from, to);
    std::uint64_t records = 0;
    for (const auto& [form, scope] : m_scopes) {
        // The scopes of one category each, which begin with this one's name and the mark.
        std::string first = scope + categoryMark;
        ASStatement& select = m_session.prepare(
            "SELECT coalesce(sum(n), 0) FROM qor_event_count WHERE scope >= ? AND scope < ? AND level = ?");
        QORBinder binder(select);
        binder.text(first);
        ++first.back();
        binder.text(first).integer(levels[0]);
        select.execute();
        if (select.fetch()) records += static_cast<std::uint64_t>(select.integer(1));
        select.close();
    }
    return records;
}

/// Sums the buckets that lie in the span, and looks into the first and the last where they lie in it in part.
std::uint64_t QORLogScopes::countWithin(std::size_t level, std::int64_t from, std::int64_t to) {
    const int width = levels[level];
    const std::int64_t first = from >> width;
    const std::int64_t last = to >> width;
    ASStatement& select = m_session.prepare(scopesSql(m_dialect, m_kind).edges);
    QORBinder(select).integer(first).integer(last).text(m_json).integer(width);
    select.execute();
    if (!select.fetch()) throw QORException(errFailure, "a sum of counters is missing", QOR_SOURCE_PATH, __LINE__);
    const auto number = [&](unsigned column) { return static_cast<std::uint64_t>(select.integer(column)); };
    std::uint64_t records = number(1);
    const Edge lower{number(2), number(3)};
    const Edge upper{number(4), number(5)};
    select.close();
    const std::int64_t endOfFirst = ((first + 1) << width) - 1;
    records += countPart(level, lower, from, std::min(to, endOfFirst));
    if (last > first) records += countPart(level, upper, last << width, to);
    return records;
}

std::uint64_t QORLogScopes::countPart(std::size_t level, const Edge& edge, std::int64_t from, std::int64_t to) {
    const bool complete = to - from + 1 == std::int64_t{1} << levels[level];
    if (complete) return edge.whole + edge.split;
    std::uint64_t records = 0;
    if (edge.whole != 0) records += countWhole(level, from >> levels[level], from, to);
    if (edge.split != 0) records += countWithin(level + 1, from, to);
    return records;
}

/// Walks the records of the scopes whose bucket is not split.
std::uint64_t QORLogScopes::countWhole(std::size_t level, std::int64_t bucket, std::int64_t from, std::int64_t to) {
    std::uint64_t records = 0;
    for (const Part& part : m_parts) {
        const Form& form = forms[part.form];
        ASStatement& select = m_session.prepare(
            std::string("SELECT count(*) FROM ") + m_dialect.eachText + scopesSql(m_dialect, m_kind).unsplit +
            m_dialect.lookUp(form.table, "r", eachOf(m_dialect, form) + " AND r.time BETWEEN ? AND ?", "c.n"));
        QORBinder(select)
            .text(part.json)
            .integer(levels[level])
            .integer(bucket)
            .text(boundText(m_dialect, from))
            .text(boundText(m_dialect, to));
        select.execute();
        if (select.fetch()) records += static_cast<std::uint64_t>(select.integer(1));
        select.close();
    }
    return records;
}

QORLogScopes::Buckets QORLogScopes::fetchBuckets(ASStatement& select) {
    Buckets buckets;
    select.execute();
    while (select.fetch())
        buckets.emplace_back(select.integer(1), static_cast<std::uint64_t>(select.integer(2)));
    select.close();
    return buckets;
}

const QORLogScopes::Buckets& QORLogScopes::widest() {
    if (!m_widest) {
        ASStatement& select = m_session.prepare(scopesSql(m_dialect, m_kind).widest);
        QORBinder(select).text(m_json).integer(levels[0]);
        m_widest = fetchBuckets(select);
    }
    return *m_widest;
}

/// The buckets of one level within one of the level above. The beginning and the end of a page mostly lie in the same.
const QORLogScopes::Buckets& QORLogScopes::finer(std::size_t level, std::int64_t bucket) {
    const std::pair key(level, bucket);
    const auto known = m_finer.find(key);
    return known != m_finer.end() ? known->second : m_finer.emplace(key, fetchFiner(level, bucket)).first->second;
}

/// What a bucket holds, by the buckets of the next level: their counters where it is split, the records themselves
/// where it is not.
QORLogScopes::Buckets QORLogScopes::fetchFiner(std::size_t level, std::int64_t bucket) {
    const int width = levels[level];
    const int next = levels[level + 1];
    const std::int64_t first = bucket << width;
    const std::int64_t last = first + (std::int64_t{1} << width) - 1;
    std::string sql = "SELECT bucket, sum(n) FROM (" + scopesSql(m_dialect, m_kind).finer;
    for (const Part& part : m_parts) {
        const Form& form = forms[part.form];
        sql += " UNION ALL SELECT " + m_dialect.storedSeconds("r.time") + " >> ?, 1 FROM " + m_dialect.eachText +
               m_dialect.lookUp(
                   form.table, "r",
                   eachOf(m_dialect, form) + " AND r.time BETWEEN ? AND ? AND " + scopesSql(m_dialect, m_kind).notSplit,
                   "j.value");
    }
    ASStatement& select = m_session.prepare(sql + ") b WHERE bucket IS NOT NULL GROUP BY bucket ORDER BY bucket DESC");
    QORBinder binder(select);
    binder.text(m_json).integer(width).integer(bucket).integer(next).integer(first >> next).integer(last >> next);
    for (const Part& part : m_parts)
        binder.integer(next)
            .text(part.json)
            .text(boundText(m_dialect, first))
            .text(boundText(m_dialect, last))
            .integer(width)
            .integer(bucket);
    return fetchBuckets(select);
}

/// The counters of all together.
template <class Ask>
QORLogScopes::Buckets QORLogScopes::bucketsOf(const std::vector<QORLogScopes*>& parts, Ask ask) {
    if (parts.size() == 1) return ask(*parts.front());
    std::map<std::int64_t, std::uint64_t, std::greater<>> sums;
    for (QORLogScopes* const part : parts) {
        for (const auto& [bucket, records] : ask(*part))
            sums[bucket] += records;
    }
    return {sums.begin(), sums.end()};
}

std::optional<QORLogScopes::Place> QORLogScopes::find(const std::vector<QORLogScopes*>& parts, std::uint64_t position,
                                                      std::uint64_t enough) {
    Place place{std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max(), 0, 0};
    for (std::size_t level = 0; level < levels.size(); ++level) {
        const auto buckets = bucketsOf(parts, [&](QORLogScopes& part) {
            return level == 0 ? part.widest() : part.finer(level - 1, place.first >> levels[level - 1]);
        });
        auto found = buckets.begin();
        for (; found != buckets.end() && place.newer + found->second <= position; ++found)
            place.newer += found->second;
        if (found == buckets.end()) return std::nullopt;
        place.first = found->first << levels[level];
        place.last = place.first + (std::int64_t{1} << levels[level]) - 1;
        place.inside = found->second;
        if (place.inside <= enough) break;
    }
    return place;
}

std::vector<QORLogScopes::Records> QORLogScopes::firstRecords(std::int64_t from, std::int64_t to,
                                                              const QORLogMark* behind, QORLogOrder order,
                                                              std::size_t most) const {
    constexpr std::size_t scopesAtOnce = 50;  // an engine takes a union of some hundreds
    const bool newest = order == QORLogOrder::NewestFirst;
    const std::string ordered =
        (newest ? " ORDER BY time DESC NULLS LAST, seq DESC LIMIT " : " ORDER BY time NULLS FIRST, seq LIMIT ") +
        std::to_string(most);
    std::vector<Records> groups;
    for (std::size_t at = 0; at < m_scopes.size(); ++at) {
        if (at % scopesAtOnce == 0) groups.emplace_back();
        Records& group = groups.back();
        const auto& [number, scope] = m_scopes[at];
        const Form& form = forms[number];
        const std::string seq = "r." + std::string(form.seq);
        if (!group.sql.empty()) group.sql += " UNION ALL ";
        group.sql.append("SELECT seq, time FROM (SELECT ").append(seq).append(" AS seq, r.time AS time FROM ");
        group.sql.append(form.table).append(" r WHERE ").append(form.one);
        for (std::string& piece : piecesOf(number, scope))
            group.parameters.push_back(std::move(piece));
        // Of two bounds at one end an engine may choose the wider one.
        if (newest || behind == nullptr) {
            group.sql += " AND r.time >= ?";
            group.parameters.push_back(boundText(m_dialect, from));
        }
        if (!newest || behind == nullptr) {
            group.sql += " AND r.time <= ?";
            group.parameters.push_back(boundText(m_dialect, to));
        }
        if (behind != nullptr) {
            group.sql.append(" AND (r.time, ").append(seq).append(newest ? ") < " : ") > ");
            group.sql += "(?, CAST(? AS bigint))";
            group.parameters.push_back(behind->time);
            group.parameters.push_back(std::to_string(behind->seq));
        }
        group.sql.append(ordered).append(") s");
        group.sql += std::to_string(at % scopesAtOnce);
    }
    return groups;
}

bool QORLogScopes::limitsEach() const noexcept {
    return m_dialect.limitsLookUps ||
           std::all_of(m_parts.begin(), m_parts.end(), [](const Part& part) { return part.scopes == 1; });
}

QORLogScopes::Records QORLogScopes::records(std::int64_t from, std::int64_t to, const QORLogMark* behind,
                                            std::size_t each) const {
    constexpr const char* newest = " ORDER BY r.time DESC NULLS LAST, ";
    Records records;
    for (const Part& part : m_parts) {
        const Form& form = forms[part.form];
        const std::string seq = "r." + std::string(form.seq);
        const std::string columns = seq + " AS seq, r.time AS time";
        const bool one = part.scopes == 1;
        std::string within = one ? std::string(form.one) : eachOf(m_dialect, form);
        within.append(" AND r.time >= ? AND ");
        within += behind == nullptr ? "r.time <= ?" : "(r.time, " + seq + ") < (?, CAST(? AS bigint))";
        const std::string limit = each == 0 ? "" : newest + seq + " DESC LIMIT CAST(? AS bigint)";
        if (!records.sql.empty()) records.sql += " UNION ALL ";
        if (one) {
            if (each != 0) records.sql += "SELECT seq, time FROM (";
            records.sql.append("SELECT ").append(columns).append(" FROM ").append(form.table);
            records.sql.append(" r WHERE ").append(within);
            if (each != 0) records.sql.append(limit).append(") r");
            for (std::string& piece : piecesOf(part.form, part.first))
                records.parameters.push_back(std::move(piece));
        } else {
            records.sql.append("SELECT ").append(columns).append(" FROM ").append(m_dialect.eachText);
            records.sql += m_dialect.lookUp(form.table, "r", within, "j.value", limit);
            records.parameters.push_back(part.json);
        }
        records.parameters.push_back(boundText(m_dialect, from));
        records.parameters.push_back(behind == nullptr ? boundText(m_dialect, to) : behind->time);
        if (behind != nullptr) records.parameters.push_back(std::to_string(behind->seq));
        if (each != 0) records.parameters.push_back(std::to_string(each));
    }
    return records;
}

}  // namespace QOR
