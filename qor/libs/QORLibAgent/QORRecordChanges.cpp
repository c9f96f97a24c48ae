#include "QORLibAgent/QORRecordChanges.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORSourcePath.h"
#include "QORLibAgent/QORHostTables.h"
#include "QORServers/QORServers.h"
#include "rdbmspp/engine/ASDialect.h"

namespace QOR {
namespace {

/// Records of others that a restricted reader passes over in one go.
constexpr std::int64_t mostLookedAt = 5000;
constexpr std::int64_t entriesAtOnce = 1000;
constexpr std::int64_t mostEntries = 1'000'000;

/// What a kind's records are, by its number.
struct KindTable {
    const char* name;
    const char* id;  ///< the column that people know a record by
};
constexpr std::array<KindTable, changeKindCount> tables{
    {{"qor_environment", "eid"}, {"qor_operation", "id"}, {"qor_event", "seq"}, {"qor_backup", "id"}}};

/// A run of changes whose records' numbers follow each other.
struct Entry {
    std::int64_t n;
    QORChangeKind kind;
    std::int64_t first;
    std::int64_t last;
    std::string eid;

    std::int64_t end() const noexcept { return n + (last - first); }
    const KindTable& table() const { return tables.at(static_cast<std::size_t>(kind)); }
};

std::vector<Entry> fetchEntries(ASStatement& select) {
    std::vector<Entry> entries;
    select.execute();
    while (select.fetch())
        entries.push_back({select.integer(1), static_cast<QORChangeKind>(select.integer(2)), select.integer(3),
                           select.integer(4), select.isNull(5) ? std::string() : std::string(select.text(5))});
    select.close();
    return entries;
}

/// From the one on that tells of a change, or of those behind it.
std::vector<Entry> entriesFrom(ASSession& session, std::int64_t change) {
    ASStatement& select = session.prepare(
        "SELECT n, kind, first, last, eid FROM qor_record_change WHERE n >= coalesce((SELECT max(n) FROM "
        "qor_record_change WHERE n <= CAST(? AS bigint)), 0) ORDER BY n LIMIT CAST(? AS bigint)");
    select.bind(1, change).bind(2, entriesAtOnce);
    return fetchEntries(select);
}

std::optional<Entry> lastEntry(ASSession& session) {
    const std::vector<Entry> last = fetchEntries(
        session.prepare("SELECT n, kind, first, last, eid FROM qor_record_change ORDER BY n DESC LIMIT 1"));
    return last.empty() ? std::nullopt : std::optional(last.front());
}

/// Reads the sequence of one database in the order of its numbers.
class Reading {
public:
    /// \param server its name in positions
    Reading(ASSession& session, const std::string& server, const std::set<QORChangeKind>& kinds,
            const QORRowAccess& access, std::size_t most, QORRecordChanges& into)
        : m_session(session), m_server(server), m_kinds(kinds), m_access(access), m_most(most), m_into(into) {}

    /// \param behind the number up to which all was read \returns the number up to which it is now
    std::int64_t from(std::int64_t behind) {
        m_behind = behind;
        const std::int64_t last = lastRecordChange(m_session);
        if (m_behind > last) {
            m_into.reset = true;
            m_behind = last;
        }
        while (m_behind < last && mayGoOn())
            takeEntries(last);
        if (m_behind < last) m_into.atEnd = false;
        return m_behind;
    }

private:
    bool mayGoOn() const { return m_into.records.size() < m_most && m_lookedAt < mostLookedAt; }

    void takeEntries(std::int64_t last) {
        const std::vector<Entry> entries = entriesFrom(m_session, m_behind + 1);
        for (const Entry& entry : entries) {
            if (!mayGoOn()) return;
            passTo(std::min(entry.n - 1, last));
            while (m_behind < entry.end() && mayGoOn())
                take(entry);
        }
        if (entries.empty() || entries.back().end() <= m_behind) {
            if (static_cast<std::int64_t>(entries.size()) < entriesAtOnce) passTo(last);
        }
    }

    /// What is told of nowhere has been forgotten.
    void passTo(std::int64_t change) {
        if (change <= m_behind) return;
        miss(change - m_behind);
        m_behind = change;
    }

    void miss(std::int64_t changes) {
        m_missing += static_cast<std::uint64_t>(changes);
        m_into.missing += static_cast<std::uint64_t>(changes);
    }

    void take(const Entry& entry) {
        ++m_lookedAt;
        if (m_kinds.count(entry.kind) == 0) {
            m_behind = entry.end();
        } else if (entry.kind == QORChangeKind::Environment) {
            m_behind = entry.end();
            tell(entry.kind, entry.eid, entry.eid);
        } else {
            takeRecords(entry, entry.first + (m_behind + 1 - entry.n));
        }
    }

    void takeRecords(const Entry& entry, std::int64_t first) {
        const KindTable& table = entry.table();
        const std::int64_t room = static_cast<std::int64_t>(m_most - m_into.records.size());
        const std::int64_t most = m_access.isFull() ? room : mostLookedAt;
        ASStatement& select = m_session.prepare("SELECT seq, " + std::string(table.id) + ", eid FROM " + table.name +
                                                " WHERE seq BETWEEN CAST(? AS bigint) AND CAST(? AS bigint) ORDER BY "
                                                "seq LIMIT CAST(? AS bigint)");
        select.bind(1, first).bind(2, entry.last).bind(3, most);
        select.execute();
        std::int64_t found = 0;
        std::int64_t next = first;
        while (m_into.records.size() < m_most && select.fetch()) {
            ++found;
            miss(select.integer(1) - next);
            next = select.integer(1) + 1;
            m_behind = entry.n + (next - 1 - entry.first);
            tell(entry.kind, std::string(select.text(2)), select.isNull(3) ? std::string_view() : select.text(3));
        }
        // Where the room was used up there may be more; else that was all.
        if (found < most && m_into.records.size() < m_most) miss(entry.last + 1 - std::exchange(next, entry.last + 1));
        select.close();
        m_lookedAt += found;
        m_behind = entry.n + (next - 1 - entry.first);
    }

    void tell(QORChangeKind kind, std::string id, std::string_view owner) {
        QOREID eid;
        if (!owner.empty()) eid.fromString(owner);
        if (m_access.sees(eid)) m_into.records.push_back({kind, std::move(id), eid, m_server, m_behind, m_missing});
    }

    ASSession& m_session;
    const std::string& m_server;
    const std::set<QORChangeKind>& m_kinds;
    const QORRowAccess& m_access;
    const std::size_t m_most;
    QORRecordChanges& m_into;
    std::int64_t m_behind = 0;
    std::int64_t m_lookedAt = 0;
    std::uint64_t m_missing = 0;  ///< in this database
};

/// Each database that has a sequence, by its server's name, "" first.
void forEachDatabase(const std::function<void(const std::string& name, QORRdbms& database)>& work) {
    work({}, QORRdbms::instance());
    const auto placement = QORServers::instance().placement();
    for (const QORServer& server : placement->servers())
        QORServers::instance().run(server, [&](QORRdbms& database) { work(server.name, database); });
}

/// Whoever forgot servers that he cannot see would begin anew when he sees them again.
void requireServersOf(const QORChangePosition& position) {
    const bool namesServers =
        std::any_of(position.begin(), position.end(), [](const auto& one) { return !one.first.empty(); });
    if (namesServers && QORServers::instance().placement()->isHidden())
        throw QORException(errFailure,
                           "which servers keep records cannot be read: the database's role may not select from "
                           "qor_placement and qor_server",
                           QOR_SOURCE_PATH, __LINE__);
}

void putEntry(ASSession& session, std::int64_t n, QORChangeKind kind, std::int64_t first, std::int64_t last,
              const std::string& eid) {
    ASStatement& insert = session.prepare(
        "INSERT INTO qor_record_change (n, kind, first, last, eid) VALUES (?, ?, ?, ?, ?) "
        "ON CONFLICT (n) DO UPDATE SET last = excluded.last");
    insert.bind(1, n).bind(2, static_cast<std::int64_t>(kind)).bind(3, first).bind(4, last);
    eid.empty() ? insert.bindNull(5) : insert.bind(5, std::string_view(eid));
    insert.execute(ASTriggers::Skip);
}

/// Whether any record of the entry is left.
bool tellsOfAny(ASSession& session, const Entry& entry) {
    const bool environment = entry.kind == QORChangeKind::Environment;
    ASStatement& select =
        session.prepare("SELECT 1 FROM " + std::string(entry.table().name) +
                        (environment ? " WHERE eid = " + ASDialect::of(session.engine()).guid("?")
                                     : " WHERE seq BETWEEN CAST(? AS bigint) AND CAST(? AS bigint) LIMIT 1"));
    if (environment) {
        select.bind(1, std::string_view(entry.eid));
    } else {
        select.bind(1, entry.first).bind(2, entry.last);
    }
    return select.hasRow();
}

}  // namespace

// The triggers of the tables do the same.
void QORRecordNotes::finish(ASSession& session) {
    std::int64_t last = lastRecordChange(session);
    const std::int64_t before = last;
    for (const std::string& eid : std::exchange(m_environments, {}))
        putEntry(session, ++last, QORChangeKind::Environment, 0, 0, eid);
    std::optional<Entry> latest;
    if (last == before) latest = lastEntry(session);
    for (std::size_t kind = 0; kind < m_numbers.size(); ++kind) {
        std::vector<std::int64_t> numbers = std::exchange(m_numbers[kind], {});
        std::sort(numbers.begin(), numbers.end());
        numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
        for (auto from = numbers.begin(); from != numbers.end();) {
            auto to = from + 1;
            while (to != numbers.end() && *to == *(to - 1) + 1)
                ++to;
            const auto of = static_cast<QORChangeKind>(kind);
            const bool goesOn = latest && latest->kind == of && latest->last + 1 == *from;
            putEntry(session, goesOn ? latest->n : last + 1, of, goesOn ? latest->first : *from, *(to - 1), {});
            last += to - from;
            latest.reset();
            from = to;
        }
    }
    if (last == before) return;
    session.prepare("UPDATE qor_record_number SET n = ?").bind(1, last).execute(ASTriggers::Skip);
}

QORChangePosition QORChangeReader::end() {
    QORChangePosition position;
    forEachDatabase([&](const std::string& name, QORRdbms& database) {
        QORRdbmsTran tran(database, ASAccess::ReadOne);
        position[name] = lastRecordChange(*tran);
    });
    return position;
}

QORChangePosition QORChangeReader::knownEnd(std::vector<std::string>& away) {
    QORChangePosition position;
    forEachDatabase([&](const std::string& name, QORRdbms& database) {
        // Each has a time of its own: one that hangs takes none of the others', nor is a request's past deadline
        // theirs.
        constexpr auto patience = std::chrono::seconds(2);
        const QORRequestScope bounded(std::make_shared<QORRequestControl>(patience));
        try {
            QORRdbmsTran tran(database, ASAccess::ReadOne);
            position[name] = lastRecordChange(*tran);
        } catch (const AException&) {
            away.push_back(name);
        } catch (const QORException& exception) {
            if (exception.code() != errDeadline) throw;
            away.push_back(name);
        }
    });
    return position;
}

QORRecordChanges QORChangeReader::read(const QORRowAccess& access, std::size_t most) {
    QORRecordChanges changes;
    changes.atEnd = true;
    requireServersOf(m_behind);
    QORChangePosition next;  // of those that there are by now
    forEachDatabase([&](const std::string& name, QORRdbms& database) {
        const auto before = m_behind.find(name);
        if (changes.records.size() >= most) {
            changes.atEnd = false;
            if (before != m_behind.end()) next.insert(*before);
            return;
        }
        // Servers have copies of the environments, whose changes home tells.
        std::set<QORChangeKind> kinds = m_kinds;
        if (!name.empty()) kinds.erase(QORChangeKind::Environment);
        QORRdbmsTran tran(database, ASAccess::Read);
        const std::int64_t behind = before == m_behind.end() ? 0 : before->second;
        next[name] = Reading(*tran, name, kinds, access, most, changes).from(behind);
    });
    m_behind = std::move(next);
    return changes;
}

void trimRecordChanges(ASSession& session) {
    session.execute(
        "DELETE FROM qor_record_change WHERE n < (SELECT n FROM qor_record_change ORDER BY n DESC LIMIT 1 "
        "OFFSET " +
        std::to_string(mostEntries) + ")");
    const std::optional<Entry> last = lastEntry(session);
    if (!last) return;
    std::int64_t kept = 0;
    for (const Entry& entry : entriesFrom(session, 0)) {
        kept = entry.n;
        // The last one stays, to be gone on with.
        if (entry.n == last->n || tellsOfAny(session, entry)) break;
    }
    session.prepare("DELETE FROM qor_record_change WHERE n < ?").bind(1, kept).execute();
}

bool keepsRecordChanges(ASSession& session) {
    return hasColumns(session, "qor_record_number", "'n'", 1);
}

std::int64_t lastRecordChange(ASSession& session) {
    ASStatement& select = session.prepare(lastRecordChangeSql);
    select.execute();
    const std::int64_t last = select.fetch() ? select.integer(1) : 0;
    select.close();
    return last;
}

}  // namespace QOR
