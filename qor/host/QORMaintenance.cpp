#include "host/QORMaintenance.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <mutex>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORDBSchema/QORSchemaRows.h"
#include "QORDBSchema/QORStoredDocuments.h"
#include "QORLibAgent/QORLogCheck.h"
#include "QORLibAgent/QORRecordChanges.h"
#include "QORServers/QORServers.h"
#include "rdbmspp/engine/ASFaults.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

/// Records of one transaction: some hundredths of a second, for which other writers wait.
constexpr std::int64_t recordsOfTransaction = 500;
constexpr unsigned transactionsOfStep = 10;
constexpr std::int64_t pagesOfStep = 2000;

std::vector<std::string> texts(ASSession& session, std::string_view sql) {
    ASStatement& select = session.prepare(sql);
    select.execute();
    std::vector<std::string> found;
    while (select.fetch())
        found.emplace_back(select.text(1));
    select.close();
    return found;
}

/// A database that is looked after: the process's own, or that of a server that keeps records of it.
class Place {
public:
    Place() : m_database(&QORRdbms::instance()) {}
    explicit Place(const QORServer& server)
        : m_server(server), m_database(&QORServers::instance().database(server.name)) {}

    /// Nothing for the process's own.
    const std::optional<QORServer>& server() const noexcept { return m_server; }
    QORRdbms& database() const noexcept { return *m_database; }
    /// Runs in a transaction of its own. Failures name the server.
    template <class Work>
    auto reading(Work work) const {
        return named([&] {
            QORRdbmsTran tran(*m_database, ASAccess::Read);
            return work(*tran);
        });
    }
    /// It may have to be run again: what it found before this returns is not true yet.
    void writing(const std::function<void(ASSession&)>& work) const {
        named([&] { m_database->write(work); });
    }
    std::string named(const std::string& text) const {
        return m_server ? "server \"" + m_server->name + "\": " + text : text;
    }
    void requireOurs() const {
        const QORSchemaState state = reading([](ASSession& session) { return QORDBSchema::inspect(session); });
        if (state.kind == QORSchemaState::Kind::Ours && state.version == QORDBSchema::currentVersion()) return;
        throw QORException(errBadRequest, named("the database is not one that this program keeps records in"),
                           QOR_SOURCE_PATH, __LINE__);
    }

private:
    template <class Work>
    auto named(Work work) const -> decltype(work()) {
        try {
            return work();
        } catch (const AException& failure) {
            if (!m_server) throw;
            throw QORServers::naming(m_server->name, failure);
        }
    }

    std::optional<QORServer> m_server;
    QORRdbms* m_database;
};
using Places = std::vector<Place>;

Places servers() {
    Places all;
    const auto placement = QORServers::instance().refresh();
    for (const QORServer& server : placement->servers())
        all.emplace_back(server);
    return all;
}
Places everywhere() {
    Places all = servers();
    all.insert(all.begin(), Place());
    return all;
}
/// Where records are.
Places withRecords() {
    Places all = servers();
    if (all.empty()) all.emplace_back();
    return all;
}

using Findings = std::vector<QORCheckFinding>;

bool isSqlite(ASSession& session) {
    return session.engine() == ASEngine::SQLite;
}

// PostgreSQL has no check of its own that reads everything; what it has met in the meantime it remembers.
std::vector<std::string> integrityFaults(ASSession& session) {
    if (!isSqlite(session)) {
        return texts(session,
                     "SELECT checksum_failures || ' pages had another checksum than they should' FROM pg_stat_database "
                     "WHERE datname = current_database() AND checksum_failures > 0 UNION ALL "
                     "SELECT 'the index ' || CAST(CAST(indexrelid AS regclass) AS text) || ' is not finished' "
                     "FROM pg_index WHERE NOT indisvalid");
    }
    std::vector<std::string> faults = texts(session, "PRAGMA integrity_check(100)");
    std::erase(faults, "ok");
    return faults;
}

/// Indexes can be made anew from their tables; a table has nothing to be made from.
Findings checkIntegrity(const Place& place, bool mend) {
    const auto before = place.reading(integrityFaults);
    std::vector<std::string> after = before;
    if (mend && !before.empty()) {
        place.writing([](ASSession& session) {
            if (isSqlite(session)) session.execute("REINDEX");
        });
        after = place.reading(integrityFaults);
    }
    if (after.empty()) place.database().faults().sound();
    Findings findings;
    for (const std::string& fault : before) {
        const bool mended = std::find(after.begin(), after.end(), fault) == after.end();
        findings.push_back({fault, mended});
    }
    return findings;
}

Findings checkSchema(const Place& place, bool mend) {
    Findings findings;
    for (const std::string& name : place.reading([](ASSession& session) { return QORDBSchema::missingParts(session); }))
        findings.push_back({name + " is missing or not what it was", mend});
    if (mend && !findings.empty()) place.writing([](ASSession& session) { QORDBSchema::restoreParts(session); });
    if (const auto& server = place.server()) {
        const auto held = place.reading(
            [](ASSession& session) { return texts(session, "SELECT remainder || ' of ' || modulus FROM qor_held"); });
        const std::string expected = std::to_string(server->remainder) + " of " + std::to_string(server->modulus);
        if (held != std::vector{expected})
            findings.push_back({"keeps the environments of remainder " + (held.empty() ? "none" : held.front()) +
                                    ", and is taken for that of " + expected,
                                false});
    }
    return findings;
}

Findings findStrayRows(const Place& place, bool mend) {
    const auto strays = [](ASSession& session) {
        return texts(session,
                     isSqlite(session)
                         ? "SELECT \"table\" FROM pragma_foreign_key_check"
                         : "SELECT 'qor_environment_address' FROM qor_environment_address a WHERE NOT EXISTS "
                           "(SELECT FROM qor_environment e WHERE e.eid = a.eid) UNION ALL "
                           "SELECT 'qor_operation_environment' FROM qor_operation_environment e WHERE NOT EXISTS "
                           "(SELECT FROM qor_operation o WHERE o.seq = e.operation)");
    };
    const auto tables = place.reading(strays);
    if (tables.empty()) return {};
    if (mend) {
        place.writing([](ASSession& session) {
            mendStrayTouched(session);
            session.execute(
                "DELETE FROM qor_environment_address WHERE NOT EXISTS (SELECT 1 FROM qor_environment e "
                "WHERE e.eid = qor_environment_address.eid)");
        });
    }
    const auto left = mend ? place.reading(strays) : tables;
    Findings findings;
    for (auto table = tables.begin(); table != tables.end();) {
        const auto count = std::count(table, tables.end(), *table);
        findings.push_back({std::to_string(count) + " rows of " + *table + " belong to nothing",
                            std::find(left.begin(), left.end(), *table) == left.end()});
        const std::string done = *table;
        table = std::find_if(table, tables.end(), [&](const std::string& other) { return other != done; });
    }
    return findings;
}

/// Records that nobody looks for where they are.
Findings checkPlacement(const Place& place) {
    Findings findings;
    const auto& server = place.server();
    if (!server) return findings;
    const std::string held = "satisfies_hash_partition(CAST('qor_spread' AS regclass), " +
                             std::to_string(server->modulus) + ", " + std::to_string(server->remainder) + ", eid)";
    for (const std::string table : {"qor_operation", "qor_event", "qor_backup"}) {
        std::string count = "SELECT count(*) FROM ";
        count.append(table).append(" WHERE NOT ").append(held);
        const std::int64_t strays = place.reading([&](ASSession& session) { return readNumber(session, count); });
        if (strays != 0)
            findings.push_back({std::to_string(strays) + " records of " + table + " belong to another server", false});
    }
    return findings;
}

Findings checkForeignKeys(const Place& place, bool mend) {
    Findings findings = findStrayRows(place, mend);
    for (QORCheckFinding& finding : checkPlacement(place))
        findings.push_back(std::move(finding));
    return findings;
}

Findings checkDocuments(const Place& place, bool mend) {
    QORDocumentCheck check(mend ? QORDocumentCheck::Mode::Mend : QORDocumentCheck::Mode::Look);
    for (bool more = true; more;) {
        QORDocumentCheck next = check;
        const auto step = [&](ASSession& session) {
            next = check;
            more = next.step(session);
        };
        mend ? place.writing(step) : place.reading(step);
        check = std::move(next);
    }
    Findings findings;
    for (const QORDocumentCheck::Column& column : check.columns()) {
        const std::string where = " documents in " + column.table + '.' + column.column;
        if (column.trimmed != 0)
            findings.push_back({std::to_string(column.trimmed) + where + " have something behind their end", mend});
        if (column.unreadable != 0)
            findings.push_back({std::to_string(column.unreadable) + where + " cannot be read", false});
    }
    return findings;
}

std::string tableOf(QORLogKind kind) {
    return kind == QORLogKind::Operations ? "qor_operation" : "qor_event";
}

void checkTimes(const Place& place, QORLogKind kind, bool mend, Findings& findings) {
    const auto count = [&] {
        return place.reading([&](ASSession& session) { return countUnreadableTimes(session, kind); });
    };
    const std::uint64_t before = count();
    if (before == 0) return;
    if (mend) {
        place.writing([&](ASSession& session) {
            session.execute("UPDATE " + tableOf(kind) + " SET time = datetime(time) WHERE time <> datetime(time)");
        });
    }
    findings.push_back({std::to_string(before) + " records of " + tableOf(kind) +
                            " have a time that is not of the form YYYY-MM-DD HH:MM:SS",
                        mend && count() == 0});
}

void checkTouched(const Place& place, bool mend, Findings& findings) {
    const std::uint64_t stray = place.reading(countStrayTouched);
    if (stray == 0) return;
    if (mend) place.writing(mendStrayTouched);
    findings.push_back(
        {std::to_string(stray) + " rows of qor_operation_environment differ from their operation", mend});
}

/// A number that was given out already would be that of another change.
void checkSequence(const Place& place, bool mend, Findings& findings) {
    constexpr const char* behind =
        "SELECT coalesce((SELECT max(n + last - first) FROM qor_record_change), 0) - (SELECT n FROM qor_record_number)";
    if (place.reading([](ASSession& session) { return readNumber(session, behind); }) <= 0) return;
    if (mend) {
        place.writing([](ASSession& session) {
            session.execute(
                "UPDATE qor_record_number SET n = (SELECT max(c.n + c.last - c.first) FROM qor_record_change c)");
        });
    }
    findings.push_back({"the sequence of changed records is longer than its number tells", mend});
}

Findings checkCounters(const Place& place, bool mend) {
    Findings findings;
    checkTouched(place, mend, findings);
    checkSequence(place, mend, findings);
    for (const QORLogKind kind : {QORLogKind::Operations, QORLogKind::Events}) {
        checkTimes(place, kind, mend, findings);
        const auto wrong = place.reading([&](ASSession& session) { return findMiscountedScopes(session, kind); });
        if (wrong.empty()) continue;
        if (mend) {
            for (const std::string& scope : wrong)
                place.writing([&](ASSession& session) { QORLogCounters::recount(session, kind, scope); });
        }
        findings.push_back(
            {std::to_string(wrong.size()) + " groups of records of " + tableOf(kind) + " are counted wrong", mend});
    }
    return findings;
}

struct Part {
    const char* name;
    Findings (*check)(const Place& place, bool mend);
};
constexpr Part parts[] = {{"integrity", &checkIntegrity},
                          {"schema", &checkSchema},
                          {"foreign-keys", &checkForeignKeys},
                          {"documents", &checkDocuments},
                          {"counters", &checkCounters}};

/// The records that one transaction removes, told to whoever counts.
std::vector<std::int64_t> takeOldest(ASSession& session, const std::string& table, std::int64_t before,
                                     std::int64_t most, const std::string& where, QORLogCounters& counters) {
    const bool events = table == "qor_event";
    ASStatement& select = session.prepare("SELECT seq, time, eid, " + std::string(events ? "category" : "NULL") +
                                          " FROM " + table + " WHERE time < ?" + where + " ORDER BY time, seq LIMIT ?");
    select.bind(1, std::string_view(time2dbstr(before))).bind(2, most);
    select.execute();
    std::vector<std::int64_t> sequences;
    while (select.fetch()) {
        sequences.push_back(select.integer(1));
        if (!events || !counters.counts()) continue;
        const std::string text(select.text(2));
        const auto second = parseTime(text);
        QOREID eid;
        if (!select.isNull(3)) eid.fromString(select.text(3));
        if (second && time2dbstr(*second) == text && !select.isNull(4))
            counters.addEvent(*second, eid, select.text(4), -1);
    }
    select.close();
    return sequences;
}

std::string toJson(const std::vector<std::int64_t>& numbers) {
    std::string json = "[";
    for (const std::int64_t one : numbers)
        json += (json.size() > 1 ? "," : "") + std::to_string(one);
    return json + "]";
}

void discountOperation(ASSession& session, std::int64_t sequence, QORLogCounters& counters) {
    ASStatement& select = session.prepare("SELECT time, eid FROM qor_operation WHERE seq = ?");
    select.bind(1, sequence);
    select.execute();
    if (!select.fetch()) return select.close();
    const std::string text(select.text(1));
    QOREID own;
    if (!select.isNull(2)) own.fromString(select.text(2));
    select.close();
    const auto second = parseTime(text);
    if (!second || time2dbstr(*second) != text) return;
    std::vector<QOREID> touched;
    ASStatement& eids = session.prepare("SELECT eid FROM qor_operation_environment WHERE operation = ?");
    eids.bind(1, sequence);
    eids.execute();
    while (eids.fetch()) {
        QOREID eid;
        if (eid.fromString(eids.text(1))) touched.push_back(eid);
    }
    eids.close();
    counters.addOperation(*second, own, touched, -1);
}

/// Where the database counts by itself and knows what belongs to a record.
std::uint64_t removeWithAll(ASSession& session, const std::string& table, std::int64_t before, std::int64_t most,
                            const std::string& where) {
    session
        .prepare("DELETE FROM " + table + " WHERE seq IN (SELECT seq FROM " + table + " WHERE time < ?" + where +
                 " ORDER BY time NULLS FIRST, seq LIMIT ?)")
        .bind(1, std::string_view(time2dbstr(before)))
        .bind(2, most)
        .execute();
    return static_cast<std::uint64_t>(session.changes());
}

/// Where the host counts, and sees to what belongs to a record.
std::uint64_t removeAndCount(ASSession& session, const std::string& table, std::int64_t before, std::int64_t most,
                             const std::string& where) {
    QORLogCounters counters(session);
    const std::vector<std::int64_t> sequences = takeOldest(session, table, before, most, where, counters);
    if (table == "qor_operation" && counters.counts()) {
        for (const std::int64_t sequence : sequences)
            discountOperation(session, sequence, counters);
    }
    const std::string json = toJson(sequences);
    const auto run = [&](const std::string& sql) {
        session.prepare(sql).bind(1, std::string_view(json)).execute(ASTriggers::Skip);
    };
    if (table == "qor_operation")
        run("DELETE FROM qor_operation_environment WHERE operation IN (SELECT value FROM json_each(?))");
    run("DELETE FROM " + table + " WHERE seq IN (SELECT value FROM json_each(?))");
    run("DELETE FROM qor_unreadable_document WHERE source = '" + table +
        "' AND record IN (SELECT value FROM json_each(?))");
    counters.finish();
    return sequences.size();
}

/// What is to be sent elsewhere before it may go.
class Unsent {
public:
    /// Nothing is.
    Unsent() = default;
    /// As home tells it now, whoever it is that sends.
    static Unsent read() {
        return Place().reading([](ASSession& home) {
            Unsent unsent;
            ASStatement& targets = home.prepare("SELECT target, keep FROM qor_forward_target WHERE seen > ?");
            targets.bind(1, currentTime() - std::chrono::seconds(waitingForSenders).count()).execute();
            while (targets.fetch()) {
                unsent.m_sent.try_emplace(std::string(targets.text(1)));
                unsent.m_mostBytes = std::max(unsent.m_mostBytes, static_cast<std::uint64_t>(targets.integer(2)));
            }
            targets.close();
            ASStatement& positions = home.prepare("SELECT target, server, n FROM qor_forward_position");
            positions.execute();
            while (positions.fetch()) {
                const auto target = unsent.m_sent.find(positions.text(1));
                if (target != unsent.m_sent.end())
                    target->second.emplace(std::string(positions.text(2)), positions.integer(3));
            }
            positions.close();
            return unsent;
        });
    }

    bool empty() const noexcept { return m_sent.empty(); }
    /// Of the largest of what senders were told.
    std::uint64_t mostBytes() const noexcept { return m_mostBytes; }
    /// Up to which change of the place everything has been sent everywhere.
    std::int64_t sentUpTo(const Place& place) const {
        const std::string server = place.server() ? place.server()->name : std::string();
        std::int64_t least = std::numeric_limits<std::int64_t>::max();
        for (const auto& [target, position] : m_sent) {
            const auto at = position.find(server);
            least = std::min(least, at == position.end() ? 0 : at->second);
        }
        return least;
    }

private:
    std::map<std::string, QORChangePosition, std::less<>> m_sent;  ///< by target
    std::uint64_t m_mostBytes = 0;
};

/// Leaves out the records that have not been sent, and those of the same log that came behind the first of them: one
/// look at the sequence, whatever it is that waits.
std::string sentOnly(const Place& place, const std::string& table, const Unsent& unsent) {
    const QORChangeKind kind = table == "qor_operation" ? QORChangeKind::Operation
                               : table == "qor_event"   ? QORChangeKind::Event
                                                        : QORChangeKind::Backup;
    const std::string sent = std::to_string(unsent.sentUpTo(place));
    return " AND seq < coalesce((SELECT min(CASE WHEN n <= " + sent + " THEN first + (" + sent +
           " + 1 - n) ELSE first END) FROM qor_record_change WHERE kind = " +
           std::to_string(static_cast<std::int64_t>(kind)) + " AND n + (last - first) > " + sent +
           " AND n >= coalesce((SELECT max(n) FROM qor_record_change WHERE n <= " + sent +
           "), 0)), 9223372036854775807)";
}

std::uint64_t removeOldestWhere(const Place& place, const std::string& table, std::int64_t before, std::int64_t most,
                                const std::string& where) {
    std::uint64_t removed = 0;
    place.writing([&](ASSession& session) {
        removed = isSqlite(session) ? removeAndCount(session, table, before, most, where)
                                    : removeWithAll(session, table, before, most, where);
    });
    return removed;
}

std::uint64_t usageOfAll();

/// One transaction. \returns how many records it removed
std::uint64_t removeOldest(const Place& place, const std::string& table, std::int64_t before, const Unsent& unsent,
                           std::int64_t most = recordsOfTransaction) {
    if (unsent.empty()) return removeOldestWhere(place, table, before, most, {});
    const std::uint64_t sent = removeOldestWhere(place, table, before, most, sentOnly(place, table, unsent));
    if (sent > 0) return sent;
    const std::uint64_t used = usageOfAll();
    if (used <= unsent.mostBytes()) return 0;
    const std::uint64_t removed = removeOldestWhere(place, table, before, most, {});
    if (removed > 0)
        logMessage(1, "QORHost", QOR_SOURCE_PATH, __func__,
                   "%llu records of %s are removed that were not sent on: the database uses %llu bytes, more than "
                   "%llu (--forward-keep)",
                   static_cast<unsigned long long>(removed), table.c_str(), static_cast<unsigned long long>(used),
                   static_cast<unsigned long long>(unsent.mostBytes()));
    return removed;
}

std::uint64_t countOlder(const Place& place, const std::string& table, std::int64_t before) {
    return place.reading([&](ASSession& session) {
        ASStatement& select = session.prepare("SELECT count(*) FROM " + table + " WHERE time < ?");
        select.bind(1, std::string_view(time2dbstr(before))).execute();
        const std::uint64_t count = select.fetch() ? static_cast<std::uint64_t>(select.integer(1)) : 0;
        select.close();
        return count;
    });
}

QORPruneStep pruneTable(const Place& place, const std::string& table, std::int64_t before, const Unsent& unsent) {
    QORPruneStep step;
    step.more = true;
    for (unsigned i = 0; i < transactionsOfStep && step.more; ++i) {
        const std::uint64_t removed = removeOldest(place, table, before, unsent);
        step.done += removed;
        step.more = removed == static_cast<std::uint64_t>(recordsOfTransaction);
    }
    if (!step.more && !unsent.empty()) step.waiting = countOlder(place, table, before);
    return step;
}

/// What tells of records that are no more is of no use to anybody. Of a sequence with more changes to send than it
/// keeps entries, none goes.
void trimSequence(const Place& place, const Unsent& unsent) {
    constexpr std::int64_t mostToSend = 1'000'000;
    if (!unsent.empty() && place.reading(lastRecordChange) - unsent.sentUpTo(place) >= mostToSend) return;
    place.writing(trimRecordChanges);
}

/// One after the other. A server that cannot be reached keeps no other from being done; it is told of when nothing else
/// is left to do.
QORPruneStep pruneEverywhere(const std::string& table, std::int64_t before, bool alsoUnsent) {
    QORPruneStep all;
    std::exception_ptr failure;
    const Unsent unsent = alsoUnsent ? Unsent() : Unsent::read();
    for (const Place& place : withRecords()) {
        try {
            const QORPruneStep step = pruneTable(place, table, before, unsent);
            all.done += step.done;
            all.waiting += step.waiting;
            all.more = step.more;
            if (!step.more) trimSequence(place, unsent);
        } catch (const AException&) {
            if (!failure) failure = std::current_exception();
        }
        if (all.more) return all;
    }
    if (!failure) return all;
    if (all.done == 0) std::rethrow_exception(failure);
    all.more = true;
    return all;
}

constexpr std::string_view freePages = "SELECT freelist_count FROM pragma_freelist_count";
constexpr std::string_view pageSize = "SELECT page_size FROM pragma_page_size";

/// PostgreSQL clears up after itself, when it has time to.
bool givesSpaceBack(ASSession& session) {
    return isSqlite(session) && readNumber(session, "SELECT auto_vacuum FROM pragma_auto_vacuum") == 2;
}

QORPruneStep giveSpaceBack() {
    QORPruneStep step;
    Place().writing([&](ASSession& session) {
        step = {};
        const std::int64_t before = givesSpaceBack(session) ? readNumber(session, freePages) : 0;
        if (before == 0) return;
        session.execute("PRAGMA incremental_vacuum(" + std::to_string(pagesOfStep) + ")");
        const std::int64_t after = readNumber(session, freePages);
        step.done = static_cast<std::uint64_t>((before - after) * readNumber(session, pageSize));
        step.more = after > 0 && after < before;
    });
    return step;
}

/// The file shrinks when its log has been worked into it.
void workLogIn() {
    QORRdbmsTran tran(ASAccess::ReadOne);
    if (isSqlite(*tran)) tran->execute("PRAGMA wal_checkpoint(PASSIVE)");
}

QORPruneStep compact() {
    QORRdbmsTran tran(ASAccess::ReadOne);
    if (!isSqlite(*tran)) {
        throw QORException(errBadRequest, "PostgreSQL writes tables anew itself: VACUUM FULL, by their owner",
                           QOR_SOURCE_PATH, __LINE__);
    }
    const std::int64_t before = readNumber(*tran, "SELECT page_count FROM pragma_page_count");
    QORDBSchema::makeShrinkable(*tran);
    const std::int64_t after = readNumber(*tran, "SELECT page_count FROM pragma_page_count");
    const std::int64_t size = readNumber(*tran, pageSize);
    return {.done = static_cast<std::uint64_t>(std::max<std::int64_t>(before - after, 0) * size)};
}

constexpr const char* logs[] = {"qor_operation", "qor_event"};

/// Of each of the two logs, with all places that have records of it. What fails at one is told when the others are
/// done.
void forAll(const Places& places, const std::function<void(const Place&)>& work) {
    std::exception_ptr failure;
    for (const Place& place : places) {
        try {
            work(place);
        } catch (const AException&) {
            if (!failure) failure = std::current_exception();
        }
    }
    if (failure) std::rethrow_exception(failure);
}

void trimSequences() {
    const Unsent unsent = Unsent::read();
    forAll(withRecords(), [&](const Place& place) { trimSequence(place, unsent); });
}

void keepAge(std::int64_t seconds, const std::stop_token& stop) {
    const std::int64_t before = currentTime() - seconds;
    const Unsent unsent = Unsent::read();
    forAll(withRecords(), [&](const Place& place) {
        for (const char* log : logs) {
            while (!stop.stop_requested() && removeOldest(place, log, before, unsent) != 0) {
            }
        }
    });
}

std::optional<std::int64_t> oldestSecond(const Place& place, const std::string& log) {
    const auto time = place.reading([&](ASSession& session) { return texts(session, "SELECT min(time) FROM " + log); });
    return time.empty() || time.front().empty() ? std::nullopt : parseTime(time.front());
}

/// Removes records of the place where the oldest is, so many at most and none that is younger than the oldest
/// elsewhere. \returns how many; 0 when there are none
std::uint64_t removeOldestOfAll(const Places& places, const std::string& log, const Unsent& unsent, std::int64_t most) {
    if (places.size() == 1) return removeOldest(places.front(), log, lastDbSecond, unsent, most);
    std::vector<std::pair<std::int64_t, const Place*>> oldest;
    for (const Place& place : places) {
        if (const auto second = oldestSecond(place, log)) oldest.emplace_back(*second, &place);
    }
    if (oldest.empty()) return 0;
    std::sort(oldest.begin(), oldest.end());
    const std::int64_t before = oldest.size() == 1 ? lastDbSecond : oldest[1].first + 1;
    return removeOldest(*oldest.front().second, log, before, unsent, most);
}

void keepRecords(std::uint64_t records, const std::stop_token& stop) {
    const Places places = withRecords();
    const Unsent unsent = Unsent::read();
    for (const char* log : logs) {
        std::int64_t count = 0;
        for (const Place& place : places) {
            count += place.reading(
                [&](ASSession& session) { return readNumber(session, "SELECT count(*) FROM " + std::string(log)); });
        }
        std::int64_t surplus = count - static_cast<std::int64_t>(records);
        while (surplus > 0 && !stop.stop_requested()) {
            const std::uint64_t removed =
                removeOldestOfAll(places, log, unsent, std::min(surplus, recordsOfTransaction));
            if (removed == 0) break;
            surplus -= static_cast<std::int64_t>(removed);
        }
    }
}

// What PostgreSQL's files take says little: room that was given up stays theirs. So records count, as long as the
// newest are, and with what indexes have of each.
constexpr std::string_view bytesOfLogs =
    "SELECT CAST(coalesce(sum(n * (size + 200)), 0) AS bigint) FROM ("
    "SELECT (SELECT count(*) FROM qor_operation) AS n, (SELECT avg(pg_column_size(o.*)) FROM (SELECT * FROM "
    "qor_operation ORDER BY time DESC NULLS LAST, seq DESC LIMIT 1000) o) AS size UNION ALL "
    "SELECT (SELECT count(*) FROM qor_event), (SELECT avg(pg_column_size(o.*)) FROM (SELECT * FROM "
    "qor_event ORDER BY time DESC NULLS LAST, seq DESC LIMIT 1000) o)) s";

std::uint64_t usage(const Place& place) {
    return place.reading([](ASSession& session) {
        const std::int64_t bytes =
            isSqlite(session)
                ? (readNumber(session, "SELECT page_count FROM pragma_page_count") - readNumber(session, freePages)) *
                      readNumber(session, pageSize)
                : readNumber(session, bytesOfLogs);
        return static_cast<std::uint64_t>(bytes);
    });
}

std::uint64_t usageOfAll() {
    std::uint64_t used = 0;
    for (const Place& place : withRecords())
        used += usage(place);
    return used;
}

/// The log with the oldest record; empty when neither has any.
std::string oldestLog(const Places& places) {
    std::optional<std::pair<std::int64_t, std::string>> oldest;
    for (const char* log : logs) {
        for (const Place& place : places) {
            const auto second = oldestSecond(place, log);
            if (second && (!oldest || *second < oldest->first)) oldest.emplace(*second, log);
        }
    }
    return oldest ? oldest->second : std::string();
}

void keepBytes(std::uint64_t bytes, const std::stop_token& stop) {
    const Places places = withRecords();
    const Unsent unsent = Unsent::read();
    while (!stop.stop_requested()) {
        if (usageOfAll() <= bytes) return;
        const std::string log = oldestLog(places);
        if (log.empty() || removeOldestOfAll(places, log, unsent, recordsOfTransaction) == 0) return;
    }
}

}  // namespace

const std::vector<std::string>& checkParts() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const Part& part : parts)
            all.emplace_back(part.name);
        return all;
    }();
    return names;
}

std::vector<QORCheckFinding> checkDatabase(std::string_view part, bool mend) {
    const auto* const found =
        std::find_if(std::begin(parts), std::end(parts), [&](const Part& one) { return one.name == part; });
    if (found == std::end(parts))
        throw QORException(errBadRequest, "there is no part " + quoteText(part) + " to check", QOR_SOURCE_PATH,
                           __LINE__);
    Findings findings;
    for (const Place& place : everywhere()) {
        try {
            place.requireOurs();
            for (const QORCheckFinding& one : found->check(place, mend))
                findings.push_back({place.named(one.text), one.mended});
        } catch (const AException& failure) {
            if (!place.server()) throw;
            findings.push_back({failure.text(), false});
        }
    }
    return findings;
}

const std::vector<std::string>& pruneKinds() {
    static const std::vector<std::string> names{"operations", "events", "backups", "space", "compact"};
    return names;
}

QORPruneStep pruneDatabase(std::string_view kind, std::int64_t before, bool unsent) {
    Place().requireOurs();
    if (kind == "operations") return pruneEverywhere("qor_operation", before, unsent);
    if (kind == "events") return pruneEverywhere("qor_event", before, unsent);
    if (kind == "backups") return pruneEverywhere("qor_backup", before, unsent);
    if (kind == "compact") return compact();
    if (kind != "space")
        throw QORException(errBadRequest, quoteText(kind) + " cannot be pruned", QOR_SOURCE_PATH, __LINE__);
    const QORPruneStep step = giveSpaceBack();
    if (!step.more) workLogIn();
    return step;
}

void pruneLogs(const QORRetentionOptions& options, const std::stop_token& stop) {
    if (options.seconds) keepAge(*options.seconds, stop);
    if (options.records) keepRecords(*options.records, stop);
    if (options.bytes) keepBytes(*options.bytes, stop);
    trimSequences();
    bool gave = false;
    while (!stop.stop_requested()) {
        const QORPruneStep step = giveSpaceBack();
        gave = gave || step.done != 0;
        if (!step.more) break;
    }
    if (gave) workLogIn();
}

/// What its thread and whoever changes what may be kept share.
class QORRetention::Work {
public:
    explicit Work(const QORRetentionOptions& options) : m_options(options) {}

    void keep(const QORRetentionOptions& options) {
        const std::lock_guard lock(m_mutex);
        m_options = options;
        m_changed = true;
        m_round.request_stop();
        m_woken.notify_all();
    }

    void run(const std::stop_token& stop) {
        const std::stop_callback ending(stop, [this] {
            const std::lock_guard lock(m_mutex);
            m_round.request_stop();
        });
        std::unique_lock lock(m_mutex);
        // Who has just started has better things to do.
        if (!m_options.any()) rest(lock, stop);
        while (!stop.stop_requested()) {
            m_changed = false;
            m_round = std::stop_source();
            const QORRetentionOptions options = m_options;
            const std::stop_token round = m_round.get_token();
            lock.unlock();
            work(options, round);
            lock.lock();
            rest(lock, stop);
        }
    }

private:
    void rest(std::unique_lock<std::mutex>& lock, const std::stop_token& stop) {
        const std::chrono::minutes pause(m_options.any() ? 1 : 60);
        m_woken.wait_for(lock, stop, pause, [this] { return m_changed; });
    }

    static void work(const QORRetentionOptions& options, const std::stop_token& stop) {
        try {
            options.any() ? pruneLogs(options, stop) : trimSequences();
        } catch (const std::exception& failure) {
            logMessage(1, "QORHost", QOR_SOURCE_PATH, "QORRetention", "old records could not be removed: %s",
                       failure.what());
        }
    }

    std::mutex m_mutex;
    std::condition_variable_any m_woken;
    QORRetentionOptions m_options;  // guarded by m_mutex, as is what follows
    bool m_changed = false;
    std::stop_source m_round;  ///< of what is removed at the moment
};

QORRetention::QORRetention(const QORRetentionOptions& options) : m_work(std::make_unique<Work>(options)) {
    if (QORRdbms::instance().options().readOnly) return;
    m_thread = std::jthread([work = m_work.get()](const std::stop_token& stop) { work->run(stop); });
}

QORRetention::~QORRetention() = default;

void QORRetention::keep(const QORRetentionOptions& options) {
    m_work->keep(options);
}

std::uint64_t strandedBytes() {
    return Place().reading([](ASSession& session) {
        if (!isSqlite(session) || givesSpaceBack(session)) return std::uint64_t{0};
        return static_cast<std::uint64_t>(readNumber(session, freePages) * readNumber(session, pageSize));
    });
}

}  // namespace QOR
