#include "QORLibAgent/QORLogCounters.h"

#include <algorithm>
#include <limits>
#include <span>
#include <string_view>

#include "QORCommon/QORException.h"
#include "QORCommon/QORTime.h"

namespace QOR {
namespace {

constexpr const char* sourcePath = "qor/libs/QORLibAgent/QORLogCounters";

/// Widths of buckets as powers of two, the widest first.
constexpr std::array<int, 7> levels{24, 20, 16, 12, 8, 4, 0};
constexpr std::int64_t splitAbove = 256;

/// The marks of scopes' names: no GUID contains them.
constexpr char sharedMark = '+';
constexpr char categoryMark = '/';

/// The statements for one log; they differ in the table.
struct CounterSql {
    std::string_view put;
    std::string_view splitting;
    std::string_view markSplit;
    std::string_view edges;
    std::string_view find;
};

#define QOR_COUNTER_SQL(table)                                                                                      \
    CounterSql {                                                                                                    \
        "INSERT INTO " table                                                                                        \
        " (scope, level, bucket, n) SELECT j.value->>0, j.value->>1, j.value->>2, j.value->>3 FROM json_each(?) j " \
        "WHERE j.value->>4 IS NULL OR EXISTS (SELECT 1 FROM " table                                                 \
        " p WHERE p.scope = j.value->>0 AND p.level = j.value->>4 AND p.bucket = j.value->>5 AND p.split = 1) "     \
        "ON CONFLICT (scope, level, bucket) DO UPDATE SET n = n + excluded.n",                                      \
            "SELECT j.key, c.split FROM json_each(?) j CROSS JOIN " table                                           \
            " c ON c.scope = j.value->>0 AND c.level = j.value->>1 AND c.bucket = j.value->>2 "                     \
            "WHERE c.split = 1 OR c.n > ?",                                                                         \
            "UPDATE " table " SET split = 1 WHERE scope = ? AND level = ? AND bucket = ?",                          \
            "SELECT coalesce(sum(CASE WHEN bucket > low AND bucket < high THEN n END), 0), "                        \
            "coalesce(max(CASE WHEN bucket = low THEN n END), 0), "                                                 \
            "coalesce(max(CASE WHEN bucket = low THEN split END), 0), "                                             \
            "coalesce(max(CASE WHEN bucket = high THEN n END), 0), "                                                \
            "coalesce(max(CASE WHEN bucket = high THEN split END), 0) "                                             \
            "FROM (SELECT ? AS low, ? AS high) CROSS JOIN " table                                                   \
            " WHERE scope = ? AND level = ? AND bucket BETWEEN low AND high",                                       \
            "SELECT bucket, n, split FROM " table                                                                   \
            " WHERE scope = ? AND level = ? AND bucket BETWEEN ? AND ? ORDER BY bucket DESC"                        \
    }

constexpr CounterSql operationSql = QOR_COUNTER_SQL("qor_operation_count");
constexpr CounterSql eventSql = QOR_COUNTER_SQL("qor_event_count");

#undef QOR_COUNTER_SQL

const CounterSql& sqlOf(QORLogKind kind) {
    return kind == QORLogKind::Operations ? operationSql : eventSql;
}

/// The seconds of the records of a scope, as a FROM clause with its parameters.
struct RecordSource {
    std::string_view from;
    std::vector<std::string> parameters;
};

/// Operations of exactly some environments: those of one of them that have as many as these, and none but these.
constexpr std::string_view sharedRecords =
    "(SELECT e.time AS time FROM qor_operation_environment e WHERE e.eid = ? AND e.time BETWEEN ? AND ? AND "
    "(SELECT count(DISTINCT o.eid) = CAST(? AS INTEGER) AND min(o.eid IN (SELECT value FROM json_each(?))) "
    "FROM qor_operation_environment o WHERE o.operation = e.operation))";

/// Of the members of a shared scope the one with the fewest operations around a second: its are looked through.
std::string rarestMember(ASSession& session, std::string_view members, std::int64_t second) {
    std::string rarest(members.substr(0, 36));
    std::int64_t fewest = -1;
    for (std::size_t at = 0; at < members.size(); at += 37) {
        ASStatement& select =
            session.prepare("SELECT n FROM qor_operation_count WHERE scope = ? AND level = ? AND bucket = ?");
        select.bind(1, members.substr(at, 36)).bind(2, std::int64_t{levels[0]}).bind(3, second >> levels[0]);
        select.execute();
        const std::int64_t records = select.fetch() ? select.integer(1) : 0;
        select.close();
        if (fewest >= 0 && records >= fewest) continue;
        fewest = records;
        rarest = members.substr(at, 36);
    }
    return rarest;
}

std::string membersJson(std::string_view members) {
    std::string json = "[";
    for (std::size_t at = 0; at < members.size(); at += 37) {
        json += at == 0 ? "\"" : ",\"";
        json += members.substr(at, 36);
        json += '"';
    }
    return json += ']';
}

RecordSource recordsOf(ASSession& session, QORLogKind kind, const std::string& scope, std::int64_t from,
                       std::int64_t to) {
    std::string first = time2dbstr(from);
    std::string last = time2dbstr(to);
    const std::size_t mark = scope.find(categoryMark);
    if (kind == QORLogKind::Events && mark == 0) {
        return {"qor_event WHERE category = ? AND time BETWEEN ? AND ?",
                {scope.substr(1), std::move(first), std::move(last)}};
    }
    if (kind == QORLogKind::Events) {
        return {"qor_event WHERE category = ? AND eid = ? AND time BETWEEN ? AND ?",
                {scope.substr(mark + 1), scope.substr(0, mark), std::move(first), std::move(last)}};
    }
    if (scope.empty()) return {"qor_operation WHERE time BETWEEN ? AND ?", {std::move(first), std::move(last)}};
    if (scope.front() == sharedMark) {
        const std::string_view members = std::string_view(scope).substr(1);
        return {sharedRecords,
                {rarestMember(session, members, from), std::move(first), std::move(last),
                 std::to_string((members.size() + 1) / 37), membersJson(members)}};
    }
    return {"qor_operation_environment WHERE eid = ? AND time BETWEEN ? AND ?",
            {scope, std::move(first), std::move(last)}};
}

void bindAll(ASStatement& statement, unsigned& index, const std::vector<std::string>& parameters) {
    for (const std::string& parameter : parameters)
        statement.bind(index++, std::string_view(parameter));
}

void appendJsonText(std::string& out, std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    out += '"';
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == '"' || byte == '\\') {
            out += "\\u00";
            out += digits[byte >> 4];
            out += digits[byte & 15];
        } else {
            out += c;
        }
    }
    out += '"';
}

/// A counter that is to change.
struct Entry {
    const std::string* scope;
    std::size_t level;
    std::int64_t bucket;
    std::int64_t change;
};

std::string toJson(std::span<const Entry> entries) {
    std::string json = "[";
    for (const Entry& entry : entries) {
        if (json.size() > 1) json += ',';
        json += '[';
        appendJsonText(json, *entry.scope);
        json += ',' + std::to_string(levels[entry.level]) + ',' + std::to_string(entry.bucket) + ',' +
                std::to_string(entry.change);
        if (entry.level > 0) {
            const int wider = levels[entry.level - 1];
            json += ',' + std::to_string(wider) + ',' + std::to_string(entry.bucket >> (wider - levels[entry.level]));
        }
        json += ']';
    }
    return json += ']';
}

/// Writes the counters of one log.
class CounterWriter {
public:
    CounterWriter(ASSession& session, QORLogKind kind) : m_session(session), m_kind(kind), m_sql(sqlOf(kind)) {}

    /// Changes counters; those below a bucket that is not split are passed over. \returns those of the entries whose
    /// buckets were split before
    std::vector<Entry> put(std::span<const Entry> entries) {
        std::vector<Entry> split;
        if (entries.empty()) return split;
        const std::string json = toJson(entries);
        m_session.prepare(m_sql.put).bind(1, std::string_view(json)).execute();
        ASStatement& select = m_session.prepare(m_sql.splitting);
        select.bind(1, std::string_view(json)).bind(2, splitAbove);
        select.execute();
        while (select.fetch()) {
            const Entry& entry = entries[static_cast<std::size_t>(select.integer(1))];
            if (select.integer(2) != 0) {
                split.push_back(entry);
            } else if (entry.level + 1 < levels.size()) {
                m_full.push_back(entry);
            }
        }
        select.close();
        return split;
    }

    /// Splits the buckets that have become too full.
    void split() {
        while (!m_full.empty()) {
            const Entry full = m_full.back();
            m_full.pop_back();
            splitBucket(full);
        }
    }

private:
    void splitBucket(const Entry& full) {
        m_session.prepare(m_sql.markSplit)
            .bind(1, std::string_view(*full.scope))
            .bind(2, std::int64_t{levels[full.level]})
            .bind(3, full.bucket)
            .execute();
        const std::int64_t first = full.bucket << levels[full.level];
        const std::int64_t last = first + (std::int64_t{1} << levels[full.level]) - 1;
        const std::size_t level = full.level + 1;
        const RecordSource source = recordsOf(m_session, m_kind, *full.scope, first, last);
        ASStatement& select = m_session.prepare("SELECT CAST(strftime('%s', time) AS INTEGER) >> ?, count(*) FROM " +
                                                std::string(source.from) + " GROUP BY 1");
        unsigned index = 1;
        select.bind(index++, std::int64_t{levels[level]});
        bindAll(select, index, source.parameters);
        select.execute();
        std::vector<Entry> parts;
        while (select.fetch())
            parts.push_back({full.scope, level, select.integer(1), select.integer(2)});
        select.close();
        put(parts);
    }

    ASSession& m_session;
    QORLogKind m_kind;
    const CounterSql& m_sql;
    std::vector<Entry> m_full;
};

/// The changes at one level.
template <class Changes>
std::vector<Entry> entriesOf(const Changes& changes, std::size_t level) {
    std::vector<Entry> entries;
    for (const auto& [scope, seconds] : changes) {
        const std::size_t own = entries.size();
        for (const auto& [second, change] : seconds) {
            if (change == 0) continue;
            const std::int64_t bucket = second >> levels[level];
            if (entries.size() > own && entries.back().bucket == bucket) {
                entries.back().change += change;
            } else {
                entries.push_back({&scope, level, bucket, change});
            }
        }
    }
    return entries;
}

/// Drops the entries that lie in none of the wider buckets. Both are in the same order.
void keepWithin(const std::vector<Entry>& wider, std::vector<Entry>& entries) {
    std::set<std::pair<const std::string*, std::int64_t>> within;
    for (const Entry& entry : wider)
        within.emplace(entry.scope, entry.bucket);
    std::erase_if(entries, [&](const Entry& entry) {
        return !within.contains({entry.scope, entry.bucket >> (levels[entry.level - 1] - levels[entry.level])});
    });
}

/// Notes which scopes of several environments there are.
void putShared(ASSession& session, const std::set<std::string>& scopes) {
    std::string json = "[";
    for (const std::string& scope : scopes) {
        if (json.size() > 1) json += ',';
        json += '[';
        appendJsonText(json, scope);
        for (std::size_t at = 1; at < scope.size(); at += 37) {
            json += ',';
            appendJsonText(json, std::string_view(scope).substr(at, 36));
        }
        json += ']';
    }
    json += ']';
    session
        .prepare(
            "INSERT OR IGNORE INTO qor_operation_scope (scope, eid) SELECT s.value->>0, e.value FROM json_each(?) s "
            "CROSS JOIN json_each(s.value) e WHERE NOT EXISTS (SELECT 1 FROM qor_operation_scope o "
            "WHERE o.eid = s.value->>1 AND o.scope = s.value->>0) AND e.key > 0")
        .bind(1, std::string_view(json))
        .execute();
}

/// Few changes are written at all levels at once: statements cost more than counters then.
constexpr std::size_t fewChanges = 64;

}  // namespace

std::string allOperationsScope() {
    return {};
}

std::string operationScope(const QOREID& eid) {
    return eid.toString();
}

std::string operationScope(const std::set<QOREID>& eids) {
    std::string scope;
    for (const QOREID& eid : eids) {
        scope += scope.empty() ? sharedMark : ' ';
        scope += eid.toString();
    }
    return scope;
}

std::string allEventsScope(std::string_view category) {
    return categoryMark + std::string(category);
}

std::string eventScope(const QOREID& eid, std::string_view category) {
    return eid.toString() + categoryMark + std::string(category);
}

void QORLogCounters::add(const std::string& scope, std::int64_t second, std::int64_t change) {
    m_changes[scope][second] += change;
}

void QORLogCounters::addOperation(std::int64_t second, const std::set<QOREID>& eids, std::int64_t change) {
    add(allOperationsScope(), second, change);
    for (const QOREID& eid : eids)
        add(operationScope(eid), second, change);
    if (eids.size() < 2) return;
    std::string scope = operationScope(eids);
    add(scope, second, change);
    if (change > 0) m_shared.insert(std::move(scope));
}

void QORLogCounters::addEvent(std::int64_t second, const QOREID& eid, std::string_view category, std::int64_t change) {
    add(allEventsScope(category), second, change);
    if (eid.isValid()) add(eventScope(eid, category), second, change);
}

void QORLogCounters::write(ASSession& session) {
    if (m_changes.empty()) return;
    CounterWriter writer(session, m_kind);
    std::vector<Entry> entries = entriesOf(m_changes, 0);
    if (entries.size() <= fewChanges / levels.size()) {
        for (std::size_t level = 1; level < levels.size(); ++level) {
            const std::vector<Entry> finer = entriesOf(m_changes, level);
            entries.insert(entries.end(), finer.begin(), finer.end());
        }
        writer.put(entries);
    } else {
        for (std::size_t level = 0; level < levels.size() && !entries.empty(); ++level) {
            const std::vector<Entry> split = writer.put(entries);
            if (level + 1 == levels.size()) break;
            entries = entriesOf(m_changes, level + 1);
            keepWithin(split, entries);
        }
    }
    writer.split();
    if (!m_shared.empty()) putShared(session, m_shared);
    m_changes.clear();
    m_shared.clear();
}

QORLogScope::QORLogScope(ASSession& session, QORLogKind kind, std::string scope)
    : m_session(session), m_kind(kind), m_scope(std::move(scope)) {}

std::uint64_t QORLogScope::count(std::int64_t from, std::int64_t to) {
    return from > to ? 0 : countWithin(0, from, to);
}

/// Sums the buckets that lie in the span, and looks into the first and the last where they lie in it in part.
std::uint64_t QORLogScope::countWithin(std::size_t level, std::int64_t from, std::int64_t to) {
    const int width = levels[level];
    const std::int64_t first = from >> width;
    const std::int64_t last = to >> width;
    ASStatement& select = m_session.prepare(sqlOf(m_kind).edges);
    select.bind(1, first).bind(2, last).bind(3, std::string_view(m_scope)).bind(4, std::int64_t{width});
    select.execute();
    if (!select.fetch()) throw QORException(errFailure, "a sum of counters is missing", sourcePath, __LINE__);
    auto records = static_cast<std::uint64_t>(select.integer(1));
    const Bucket lower{static_cast<std::uint64_t>(select.integer(2)), select.integer(3) != 0};
    const Bucket upper{static_cast<std::uint64_t>(select.integer(4)), select.integer(5) != 0};
    select.close();
    const std::int64_t endOfFirst = ((first + 1) << width) - 1;
    records += countPart(level, lower, from, std::min(to, endOfFirst));
    if (last > first) records += countPart(level, upper, last << width, to);
    return records;
}

std::uint64_t QORLogScope::countPart(std::size_t level, const Bucket& bucket, std::int64_t from, std::int64_t to) {
    if (bucket.records == 0 || to - from + 1 == std::int64_t{1} << levels[level]) return bucket.records;
    return bucket.split ? countWithin(level + 1, from, to) : countRecords(from, to);
}

std::uint64_t QORLogScope::countRecords(std::int64_t from, std::int64_t to) {
    const RecordSource source = recordsOf(m_session, m_kind, m_scope, from, to);
    ASStatement& select = m_session.prepare("SELECT count(*) FROM " + std::string(source.from));
    unsigned index = 1;
    bindAll(select, index, source.parameters);
    select.execute();
    const std::int64_t records = select.fetch() ? select.integer(1) : 0;
    select.close();
    return static_cast<std::uint64_t>(records);
}

QORLogScope::Place QORLogScope::find(std::uint64_t position) {
    Place place{std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max(), 0};
    for (const int level : levels) {
        ASStatement& select = m_session.prepare(sqlOf(m_kind).find);
        select.bind(1, std::string_view(m_scope)).bind(2, std::int64_t{level});
        select.bind(3, place.first >> level).bind(4, place.last >> level);
        select.execute();
        std::int64_t bucket = 0;
        std::uint64_t records = 0;
        bool split = false;
        bool found = false;
        while (!found && select.fetch()) {
            bucket = select.integer(1);
            records = static_cast<std::uint64_t>(select.integer(2));
            split = select.integer(3) != 0;
            found = place.newer + records > position;
            if (!found) place.newer += records;
        }
        select.close();
        if (!found) throw QORException(errFailure, "the log has no such record", sourcePath, __LINE__);
        place.first = bucket << level;
        place.last = place.first + (std::int64_t{1} << level) - 1;
        if (!split) break;
    }
    return place;
}

}  // namespace QOR
