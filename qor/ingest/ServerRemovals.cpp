#include "ingest/ServerRemovals.h"

#include <algorithm>
#include <utility>

#include "QORCommon/QORText.h"

namespace QOR {
namespace {

/// For all servers but the one that keeps the note.
constexpr std::string_view everybodyElse = "*";

constexpr std::string_view insertNote = "INSERT INTO qor_removal (server, source, ids) VALUES (?, ?, ?) RETURNING id";
/// Not more at once than are seen to before anybody notices: writers wait meanwhile. One at least.
constexpr std::string_view selectNotes =
    "SELECT id, server, source, ids FROM "
    "(SELECT *, sum(octet_length(ids)) OVER (ORDER BY id) - octet_length(ids) AS before FROM "
    "(SELECT id, server, source, ids FROM qor_removal WHERE id <= ? ORDER BY id LIMIT 200) n) n "
    "WHERE before < 65536 ORDER BY id";
/// Of the newest notes alone. There are more only while a server is away, and then all that is stored gets new numbers.
constexpr std::string_view selectFound =
    "WITH operation AS (SELECT value ->> 0 AS id FROM json_array_elements(CAST(? AS json))), "
    "backup AS (SELECT value ->> 0 AS id FROM json_array_elements(CAST(? AS json))), "
    "noted AS (SELECT n.source, e.value ->> 0 AS id, CAST(e.value ->> 1 AS bigint) AS number "
    "FROM (SELECT source, ids FROM qor_removal ORDER BY id DESC LIMIT 100) n, "
    "json_array_elements(CAST(n.ids AS json)) e) "
    "SELECT 0, id, seq, 1 FROM qor_operation WHERE id IN (SELECT id FROM operation) UNION ALL "
    "SELECT 1, id, seq, 1 FROM qor_backup WHERE id IN (SELECT id FROM backup) UNION ALL "
    "SELECT 0, id, number, 0 FROM noted WHERE source = 'qor_operation' AND id IN (SELECT id FROM operation) "
    "UNION ALL "
    "SELECT 1, id, number, 0 FROM noted WHERE source = 'qor_backup' AND id IN (SELECT id FROM backup) UNION ALL "
    "SELECT 2, CAST(remainder AS text), modulus, 1 FROM qor_held";

/// Of identifiers that are named several times the last.
constexpr std::string_view arrivedIds =
    "(SELECT value ->> 0 AS id, max(CAST(value ->> 1 AS bigint)) AS number "
    "FROM json_array_elements(CAST(? AS json)) GROUP BY 1) r";

/// A record that came again keeps its first number, which may be smaller than that of a note from meanwhile. What the
/// server itself has noted of it tells when it came last. That is looked up for records that would be removed, which
/// are few, and once for all of them: where a server is away for long, notes are many.
constexpr std::string_view unlessNotedLater =
    ", noted AS MATERIALIZED (SELECT e.value ->> 0 AS id, max(CAST(e.value ->> 1 AS bigint)) AS number "
    "FROM qor_removal n, json_array_elements(CAST(n.ids AS json)) e WHERE EXISTS (SELECT 1 FROM earlier) "
    "AND n.source = ? AND e.value ->> 0 IN (SELECT id FROM earlier) GROUP BY 1) "
    "SELECT e.id, e.seq FROM earlier e LEFT JOIN noted n ON n.id = e.id WHERE e.number > coalesce(n.number, 0)";

IdentifiedTable tableNamed(std::string_view name) {
    for (const IdentifiedTable table : {IdentifiedTable::Operations, IdentifiedTable::Backups}) {
        if (name == nameOf(table)) return table;
    }
    throw AException("a note of arrivals names the table " + quoteText(name) + ", which has no identifiers");
}

/// The same statement whatever notes say.
std::string deleteEarlier(std::string_view table) {
    const std::string name(table);
    return "DELETE FROM " + name + " t USING (WITH earlier AS MATERIALIZED (SELECT t.id, t.seq, r.number FROM " + name +
           " t JOIN " + std::string(arrivedIds) + " ON t.id = r.id AND t.seq < r.number)" +
           std::string(unlessNotedLater) + ") gone WHERE t.id = gone.id AND t.seq = gone.seq";
}

/// What notes say together, by table.
template <class Wanted>
std::map<IdentifiedTable, std::string> together(const std::vector<ArrivalNote>& notes, Wanted wanted) {
    std::map<IdentifiedTable, std::string> all;
    for (const ArrivalNote& note : notes) {
        if (!wanted(note)) continue;
        std::string& ids = all[tableNamed(note.table)];
        const std::size_t end = note.ids.rfind(']');
        const std::size_t begin = note.ids.find('[');
        if (end == std::string::npos || begin >= end) continue;
        ids += (ids.empty() ? '[' : ',');
        ids.append(note.ids, begin + 1, end - begin - 1);
    }
    for (auto& [table, ids] : all)
        ids += ids.empty() ? "[]" : "]";
    return all;
}

}  // namespace

std::string_view nameOf(IdentifiedTable table) {
    return table == IdentifiedTable::Operations ? "qor_operation" : "qor_backup";
}

void ArrivedIds::add(std::string_view id, std::int64_t number) {
    m_text += m_text.empty() ? "[[" : ",[";
    appendJsonString(id, m_text);
    m_text += ',' + std::to_string(number) + ']';
}

std::int64_t noteArrivals(ASSession& session, IdentifiedTable table, std::string_view ids) {
    ASStatement& insert = session.prepare(insertNote);
    insert.bind(1, everybodyElse).bind(2, nameOf(table)).bind(3, ids).execute();
    const std::int64_t note = insert.fetch() ? insert.integer(1) : 0;
    insert.close();
    return note;
}

void renumber(ASSession& session, IdentifiedTable table, std::string_view ids) {
    session
        .prepare("UPDATE " + std::string(nameOf(table)) + " t SET seq = r.number FROM " + std::string(arrivedIds) +
                 " WHERE t.id = r.id AND t.seq < r.number")
        .bind(1, ids)
        .execute();
}

bool findRecords(ASSession& session, const QORServer& here, std::string_view operations, std::string_view backups,
                 FoundRecords& found) {
    constexpr std::int64_t ofServer = 2;
    bool same = false;
    ASStatement& select = session.prepare(selectFound);
    select.bind(1, operations).bind(2, backups).execute();
    while (select.fetch()) {
        if (select.integer(1) == ofServer) {
            same = select.text(2) == std::to_string(here.remainder) &&
                   select.integer(3) == static_cast<std::int64_t>(here.modulus);
            continue;
        }
        const auto table = select.integer(1) == 0 ? IdentifiedTable::Operations : IdentifiedTable::Backups;
        FoundRecord& record = found[{table, std::string(select.text(2))}];
        record.number = std::max(record.number, select.integer(3));
        record.isThere = record.isThere || select.integer(4) == 1;
    }
    select.close();
    return same;
}

bool holds(ASSession& session, const QORServer& here, QORServerUse use) {
    ASStatement& select =
        session.prepare(use == QORServerUse::Alone ? "SELECT modulus, remainder FROM qor_held FOR UPDATE"
                                                   : "SELECT modulus, remainder FROM qor_held FOR SHARE");
    select.execute();
    const bool same = select.fetch() && select.integer(1) == static_cast<std::int64_t>(here.modulus) &&
                      select.integer(2) == static_cast<std::int64_t>(here.remainder);
    select.close();
    return same;
}

bool ArrivalNote::isFor(const QORServer& other) const {
    return server == everybodyElse || server == other.name;
}

std::vector<ArrivalNote> readNotes(const QORServer& from, std::int64_t last) {
    std::vector<ArrivalNote> notes;
    QORServers::instance().run(from, [&](QORRdbms& database) {
        QORRdbmsTran tran(database, ASAccess::ReadOne);
        ASStatement& select = tran->prepare(selectNotes);
        select.bind(1, last).execute();
        while (select.fetch()) {
            notes.push_back({select.integer(1), std::string(select.text(2)), std::string(select.text(3)),
                             std::string(select.text(4))});
        }
        select.close();
    });
    return notes;
}

std::int64_t lastNote(const QORServer& from) {
    std::int64_t last = 0;
    QORServers::instance().run(from, [&](QORRdbms& database) {
        QORRdbmsTran tran(database, ASAccess::ReadOne);
        ASStatement& select = tran->prepare("SELECT coalesce(max(id), 0) FROM qor_removal");
        select.execute();
        if (select.fetch()) last = select.integer(1);
        select.close();
    });
    return last;
}

bool removeEarlier(const QORServer& at, const std::vector<ArrivalNote>& notes) {
    bool held = true;
    QORServers::instance().run(at, [&](QORRdbms& database) {
        database.write([&](ASSession& session) {
            // Who stores a record at this moment notes it, and that has to be seen.
            held = holds(session, at, QORServerUse::Alone);
            if (!held) return;
            for (const auto& [table, ids] : together(notes, [&](const ArrivalNote& note) { return note.isFor(at); })) {
                session.prepare(deleteEarlier(nameOf(table)))
                    .bind(1, std::string_view(ids))
                    .bind(2, nameOf(table))
                    .execute();
            }
        });
    });
    return held;
}

void takeAway(const QORServer& from, const std::vector<ArrivalNote>& notes) {
    ServerLeftovers::Share done;
    QORServers::instance().run(from, [&](QORRdbms& database) {
        database.write([&](ASSession& session) {
            done.notes.clear();
            for (const ArrivalNote& note : notes)
                done.notes.push_back(note.id);
            for (const auto& [table, ids] : together(notes, [](const ArrivalNote&) { return true; }))
                renumber(session, table, ids);
            ServerLeftovers::remove(session, done);
        });
    });
}

// --- what is left to clear up ----------------------------------------------------------------------------------

ServerLeftovers& ServerLeftovers::instance() {
    static ServerLeftovers leftovers;
    return leftovers;
}

// Names and numbers of another home's servers mean others.
void ServerLeftovers::ofThisHome() {
    const std::uint64_t home = QORRdbms::instance().generation();
    if (home == m_home) return;
    m_home = home;
    m_shares.clear();
    m_keys.clear();
}

void ServerLeftovers::addNote(std::string_view server, std::int64_t id) {
    const std::lock_guard lock(m_mutex);
    ofThisHome();
    m_shares[std::string(server)].notes.push_back(id);
}

std::string ServerLeftovers::takeKey(const std::string& digest) {
    const std::lock_guard lock(m_mutex);
    ofThisHome();
    std::string key = "batch " + digest;
    for (unsigned turn = 2; m_keys.count(key) != 0; ++turn)
        key = "batch " + digest + ' ' + std::to_string(turn);
    m_keys[key] = 0;
    return key;
}

void ServerLeftovers::release(const std::string& key) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_keys.find(key);
    if (found != m_keys.end() && found->second == 0) m_keys.erase(found);
}

void ServerLeftovers::addKey(std::string_view server, const std::string& key) {
    const std::lock_guard lock(m_mutex);
    ofThisHome();
    m_shares[std::string(server)].keys.push_back(key);
    ++m_keys[key];
}

ServerLeftovers::Share ServerLeftovers::of(std::string_view server) {
    const std::lock_guard lock(m_mutex);
    ofThisHome();
    const auto found = m_shares.find(server);
    return found == m_shares.end() ? Share() : found->second;
}

void ServerLeftovers::remove(ASSession& session, const Share& share) {
    std::string notes;
    for (const std::int64_t note : share.notes)
        notes += (notes.empty() ? "[" : ",") + std::to_string(note);
    if (!notes.empty()) {
        notes += ']';
        session
            .prepare(
                "DELETE FROM qor_removal WHERE id IN "
                "(SELECT CAST(value AS bigint) FROM json_array_elements_text(CAST(? AS json)))")
            .bind(1, std::string_view(notes))
            .execute();
    }
    for (const std::string& key : share.keys)
        session.prepare("DELETE FROM qor_request WHERE key = ?").bind(1, std::string_view(key)).execute();
}

void ServerLeftovers::removed(std::string_view server, const Share& share) {
    const std::lock_guard lock(m_mutex);
    ofThisHome();
    Share& left = m_shares[std::string(server)];
    for (const std::int64_t note : share.notes)
        std::erase(left.notes, note);
    for (const std::string& key : share.keys) {
        if (std::erase(left.keys, key) == 0) continue;
        const auto found = m_keys.find(key);
        if (found != m_keys.end() && --found->second == 0) m_keys.erase(found);
    }
}

void ServerLeftovers::flush(const QORServer& server) {
    const Share share = of(server.name);
    if (share.empty()) return;
    QORServers::instance().run(
        server, [&](QORRdbms& database) { database.write([&](ASSession& session) { remove(session, share); }); });
    removed(server.name, share);
}

}  // namespace QOR
