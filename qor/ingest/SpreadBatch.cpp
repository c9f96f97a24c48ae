#include "ingest/SpreadBatch.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <set>
#include <string>
#include <thread>

#include "QORCommon/QORDigest.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORDBSchema/QORHandover.h"
#include "ingest/RecordTables.h"

namespace QOR {
namespace {

/// Whose record it is.
const QOREID& environmentOf(const QORRecord& record) {
    if (const auto* operation = std::get_if<QOROperationRecord>(&record)) return operation->eid;
    if (const auto* event = std::get_if<QOREventRecord>(&record)) return event->eid;
    return std::get<QORBackupRecord>(record).eid;
}

/// The table and the identifier in it; nothing for a record without one.
std::optional<std::pair<IdentifiedTable, std::string_view>> identifierOf(const QORRecord& record) {
    if (const auto* operation = std::get_if<QOROperationRecord>(&record))
        return std::pair(IdentifiedTable::Operations, std::string_view(operation->id));
    if (const auto* backup = std::get_if<QORBackupRecord>(&record))
        return std::pair(IdentifiedTable::Backups, std::string_view(backup->id));
    return std::nullopt;
}

bool isEvent(const ArrivedRecord& arrived) {
    return kindOf(*arrived.record) == QORRecordKind::Event;
}

QORIngestCounts& of(RecordBatchCounts& counts, QORRecordKind kind) {
    return counts[static_cast<std::size_t>(kind)];
}

/// Does the work for all of them at once, each on a thread of its own that works for the same request.
/// \throws the first failure, when all have ended
template <class Items, class Work>
void forAllAtOnce(Items& items, Work work) {
    std::vector<std::exception_ptr> failures(items.size());
    const auto control = QORRequestControl::shareCurrent();
    const auto run = [&](std::size_t at) {
        const QORRequestScope scope(control);
        try {
            work(items[at]);
        } catch (...) {
            failures[at] = std::current_exception();
        }
    };
    {
        std::vector<std::jthread> threads;
        for (std::size_t at = 1; at < items.size(); ++at)
            threads.emplace_back(run, at);
        if (!items.empty()) run(0);
    }
    for (const std::exception_ptr& failure : failures) {
        if (failure) std::rethrow_exception(failure);
    }
}

/// In their order: who writes asks for them one batch at a time, so that a later batch has later ones.
void giveNumbers(ASSession& home, std::vector<ArrivedRecord>& records) {
    if (records.empty()) return;
    ASStatement& select = home.prepare("SELECT nextval('qor_arrival') FROM generate_series(1, CAST(? AS int))");
    select.bind(1, static_cast<std::int64_t>(records.size())).execute();
    for (ArrivedRecord& arrived : records) {
        if (!select.fetch()) throw AException("home gave out too few numbers");
        arrived.number = select.integer(1);
    }
    select.close();
}

}  // namespace

SpreadBatch::~SpreadBatch() {
    if (!m_ownKey.empty()) ServerLeftovers::instance().release(m_ownKey);
}

SpreadBatch::SpreadBatch(std::shared_ptr<const QORPlacement> placement, std::span<const QORRecord> records,
                         std::span<const std::uint64_t> lines, bool keepEqual)
    : m_placement(std::move(placement)), m_keepEqual(keepEqual) {
    std::map<std::pair<IdentifiedTable, std::string_view>, std::size_t> places;
    for (std::size_t at = 0; at < records.size(); ++at) {
        const ArrivedRecord arrived{&records[at], 0, lines[at]};
        if (kindOf(records[at]) == QORRecordKind::Environment) {
            m_environments.push_back(arrived);
            continue;
        }
        const auto identifier = identifierOf(records[at]);
        if (identifier) {
            const auto [place, isNew] = places.try_emplace(*identifier, m_records.size());
            if (!isNew) {
                takeRepeated(m_records[place->second], arrived);
                continue;
            }
        }
        m_records.push_back(arrived);
    }
    if (!lines.empty()) m_lastLine = lines.back();
}

// The last one stays, at the place of the first.
void SpreadBatch::takeRepeated(ArrivedRecord& before, const ArrivedRecord& now) {
    QORIngestCounts& counts = of(m_counts, kindOf(*now.record));
    const auto* const operation = std::get_if<QOROperationRecord>(now.record);
    if (m_keepEqual && operation != nullptr) {
        const auto& other = std::get<QOROperationRecord>(*before.record);
        if (other.status == operation->status &&
            StoredOperation(other).message == StoredOperation(*operation).message) {
            ++counts.unchanged;
            return;
        }
    }
    ++counts.replaced;
    before.record = now.record;
    before.line = now.line;
}

void SpreadBatch::storeAtHome(ASSession& home) {
    RecordBatchCounts counts = storeTogether(home, m_environments, false);
    of(m_counts, QORRecordKind::Environment) = of(counts, QORRecordKind::Environment);
    noteTouched(home);
    giveNumbers(home, m_records);
}

void SpreadBatch::noteTouched(ASSession& home) const {
    std::set<std::pair<std::string, std::string_view>> touched;
    for (const ArrivedRecord& arrived : m_records) {
        const auto* const operation = std::get_if<QOROperationRecord>(arrived.record);
        if (operation == nullptr) continue;
        const QORServer& server = m_placement->of(operation->eid);
        for (const QOREID& eid : operation->eids) {
            if (m_placement->of(eid).number != server.number) touched.emplace(eid.toString(), server.name);
        }
    }
    std::string rows;
    for (const auto& [eid, server] : touched) {
        rows += rows.empty() ? '[' : ',';
        RecordJson row(rows);
        row.column("eid");
        row.text(eid);
        row.column("server");
        row.text(server);
        row.end();
    }
    if (rows.empty()) return;
    rows += ']';
    home.prepare(
            "INSERT INTO qor_touched_server (eid, server) SELECT r.eid, r.server "
            "FROM json_to_recordset(CAST(? AS json)) AS r (eid uuid, server text) ON CONFLICT DO NOTHING")
        .bind(1, std::string_view(rows))
        .execute();
}

std::vector<SpreadBatch::Part> SpreadBatch::split(const std::vector<ArrivedRecord>& records) const {
    std::map<int, Part> parts;
    for (const ArrivedRecord& arrived : records) {
        const QORServer& server = m_placement->of(environmentOf(*arrived.record));
        Part& part = parts[server.number];
        if (part.records.empty()) part.server = server;
        part.records.push_back(arrived);
    }
    std::vector<Part> all;
    all.reserve(parts.size());
    for (auto& [number, part] : parts)
        all.push_back(std::move(part));
    return all;
}

// Records with identifiers may be stored twice, and events that are in one transaction are stored or are not. Events of
// several servers have to be told from others when a part of them is stored and the rest is sent again.
void SpreadBatch::nameBatch(const std::vector<Part>& parts) {
    const auto withEvents = [](const Part& part) {
        return std::any_of(part.records.begin(), part.records.end(), isEvent);
    };
    if (m_ownLedger || std::count_if(parts.begin(), parts.end(), withEvents) < 2) return;
    std::string rows;
    for (const ArrivedRecord& arrived : m_records) {
        if (isEvent(arrived)) eventTable().append(rows, {std::get<QOREventRecord>(*arrived.record), 0});
    }
    const std::string digest = QORDigest().add(rows).hex();
    m_ownKey = ServerLeftovers::instance().takeKey(digest);
    m_ownLedger.emplace(m_ownKey, digest);
}

void SpreadBatch::storeParts(const RequestLedger* ledger, std::uint64_t doneLine) {
    m_doneLine = doneLine;
    const std::vector<Part> stored = storeAll(m_records, ledger, isAnyAway());
    for (const Part& part : stored) {
        for (std::size_t kind = 0; kind < recordKindCount; ++kind)
            addCounts(m_counts[kind], part.counts[kind]);
    }
    removeElsewhere(stored);
    // Not before: what fails up to here has the batch sent again.
    if (!m_ownLedger) return;
    for (const Part& part : stored) {
        if (std::any_of(part.records.begin(), part.records.end(), isEvent))
            ServerLeftovers::instance().addKey(part.server.name, m_ownKey);
    }
}

// Environments may move while this goes on: what their server refuses for that goes to the one that has them now.
std::vector<SpreadBatch::Part> SpreadBatch::storeAll(std::vector<ArrivedRecord> left, const RequestLedger* ledger,
                                                     bool renumbering) {
    std::vector<Part> stored;
    while (!left.empty()) {
        std::vector<Part> parts = split(left);
        left.clear();
        if (ledger == nullptr) nameBatch(parts);
        for (Part& part : parts)
            part.renumbered = renumbering;
        forAllAtOnce(parts, [&](Part& part) { storePart(part, ledger); });
        const QORServer* moved = nullptr;
        for (Part& part : parts) {
            if (part.moved) {
                left.insert(left.end(), part.records.begin(), part.records.end());
                moved = &part.server;
            } else {
                stored.push_back(std::move(part));
            }
        }
        if (moved != nullptr) awaitOtherPlacement(*moved);
    }
    return stored;
}

void SpreadBatch::storePart(Part& part, const RequestLedger* ledger) const {
    ServerLeftovers& leftovers = ServerLeftovers::instance();
    const ServerLeftovers::Share share = leftovers.of(part.server.name);
    const std::vector<ArrivedRecord> all = part.records;
    QORServers::instance().run(part.server, [&](QORRdbms& database) {
        database.write([&](ASSession& session) {
            part.moved = !holds(session, part.server);
            if (part.moved) return;
            part.records = all;  // also when the transaction is run again
            part.notes.clear();
            ServerLeftovers::remove(session, share);
            if (ledger != nullptr || m_ownLedger) {
                storeUnless(session, part, ledger != nullptr ? *ledger : *m_ownLedger);
            } else {
                part.counts = storeTogether(session, part.records, m_keepEqual);
            }
            std::map<IdentifiedTable, ArrivedIds> ids;
            for (const ArrivedRecord& arrived : part.records) {
                if (const auto identifier = identifierOf(*arrived.record))
                    ids[identifier->first].add(identifier->second, arrived.number);
            }
            for (const auto& [table, arrived] : ids) {
                if (part.renumbered) renumber(session, table, arrived.text());
                part.notes.push_back(noteArrivals(session, table, arrived.text()));
            }
        });
    });
    if (!part.moved) leftovers.removed(part.server.name, share);
}

// An attempt at the same request may have stored the part, or a part of it, without the others; so may one that is at
// work now, for which this one waits.
void SpreadBatch::storeUnless(ASSession& session, Part& part, const RequestLedger& ledger) const {
    const bool own = m_ownLedger.has_value();
    ledger.lock(session);
    const std::optional<QORIngestResult> known = ledger.find(session);
    const std::uint64_t storedLine = known ? known->lastLine : 0;
    std::vector<ArrivedRecord> left;
    std::copy_if(part.records.begin(), part.records.end(), std::back_inserter(left), [&](const ArrivedRecord& arrived) {
        return own ? !known || !isEvent(arrived) : arrived.line > storedLine;
    });
    part.counts = storeTogether(session, left, m_keepEqual);
    if (!own && left.size() < part.records.size()) keepEarlierNumbers(session, part, storedLine);
    QORIngestResult result;
    if (own) {
        if (known) {
            of(part.counts, QORRecordKind::Event) = known->of(QORRecordKind::Event);
        } else {
            of(result.counts, QORRecordKind::Event) = of(part.counts, QORRecordKind::Event);
            result.lastLine = m_lastLine;
            ledger.put(session, result, true);
        }
        return;
    }
    // What was stored since the last answer is not in anybody's counts yet.
    if (storedLine > m_doneLine && storedLine <= m_lastLine) {
        for (std::size_t kind = 0; kind < recordKindCount; ++kind)
            addCounts(part.counts[kind], known->counts[kind]);
    }
    if (storedLine >= m_lastLine) return;
    result.counts = part.counts;
    result.lastLine = m_lastLine;
    ledger.put(session, result, !known);
}

// Records that an earlier attempt has stored arrived then: what came to another server since is later. Where such a one
// has taken their place, they are gone.
void SpreadBatch::keepEarlierNumbers(ASSession& session, Part& part, std::uint64_t storedLine) {
    std::map<IdentifiedTable, ArrivedIds> stored;
    for (const ArrivedRecord& arrived : part.records) {
        const auto identifier = identifierOf(*arrived.record);
        if (identifier && arrived.line <= storedLine) stored[identifier->first].add(identifier->second, 0);
    }
    FoundRecords found;
    findRecords(session, part.server, stored[IdentifiedTable::Operations].text(),
                stored[IdentifiedTable::Backups].text(), found);
    std::vector<ArrivedRecord> here;
    for (ArrivedRecord arrived : part.records) {
        const auto identifier = identifierOf(*arrived.record);
        if (identifier && arrived.line <= storedLine) {
            const auto place = found.find({identifier->first, std::string(identifier->second)});
            if (place == found.end() || !place->second.isThere) continue;
            arrived.number = place->second.number;
        }
        here.push_back(arrived);
    }
    part.records = std::move(here);
}

// The server knows a moment before home does.
void SpreadBatch::awaitOtherPlacement(const QORServer& server) {
    constexpr auto betweenLooks = std::chrono::milliseconds(20);
    const auto patience = std::chrono::milliseconds(QORRdbms::instance().options().busyTimeoutMs);
    const auto until = QORRequestControl::Clock::now() + patience;
    const std::int64_t epoch = m_placement->epoch();
    for (;;) {
        settleHandover();
        m_placement = QORServers::instance().refresh();
        if (m_placement->epoch() != epoch && !m_placement->none()) break;
        if (QORRequestControl::Clock::now() >= until) {
            throw AException("server \"" + server.name +
                             "\" keeps other environments than the database says that it does: if it is being split, "
                             "give the same \"qorctl database shard\" again");
        }
        QORRequestControl::checkCurrent();
        std::this_thread::sleep_for(betweenLooks);
    }
    QORRdbms::instance().write([&](ASSession& home) { noteTouched(home); });
}

// --- records that had another environment before ---------------------------------------------------------------

struct SpreadBatch::Look {
    QORServer server;
    ArrivedIds operations;
    ArrivedIds backups;
    FoundRecords found;
    bool answered = false;
};

namespace {

/// A server that does not answer is not waited for: what it should have been told is noted.
constexpr auto patienceWithOthers = std::chrono::seconds(2);

/// \returns whether it answered, and is the one that it is taken for
bool askOther(const QORServer& server, const std::string& operations, const std::string& backups, FoundRecords& found) {
    QORServers& servers = QORServers::instance();
    if (servers.isAway(server.name)) return false;
    QORRequestControl::checkCurrent();
    const QORRequestScope bounded(std::make_shared<QORRequestControl>(patienceWithOthers));
    try {
        bool same = false;
        servers.run(server, [&](QORRdbms& database) {
            QORRdbmsTran tran(database, ASAccess::ReadOne);
            same = findRecords(*tran, server, operations, backups, found);
        });
        return same;
    } catch (const AException& failure) {
        if (failure.failure() != ASFailure::Unreachable) throw;
    } catch (const QORException& failure) {
        if (failure.code() != errDeadline) throw;
    }
    servers.noteAway(server.name);
    return false;
}

}  // namespace

void SpreadBatch::removeElsewhere(const std::vector<Part>& stored) {
    Places places;
    for (const Part& part : stored) {
        for (const ArrivedRecord& arrived : part.records) {
            if (const auto identifier = identifierOf(*arrived.record)) places[*identifier] = {&arrived, &part};
        }
    }
    if (places.empty()) return;
    std::vector<Look> looks;
    for (const QORServer& server : m_placement->servers()) {
        Look look{server, {}, {}, {}, false};
        for (const auto& [identifier, place] : places) {
            if (place.part->server.number == server.number) continue;
            (identifier.first == IdentifiedTable::Operations ? look.operations : look.backups)
                .add(identifier.second, place.record->number);
        }
        if (look.operations.empty() && look.backups.empty()) continue;
        looks.push_back(std::move(look));
    }
    forAllAtOnce(looks, [](Look& look) {
        look.answered = askOther(look.server, look.operations.text(), look.backups.text(), look.found);
    });
    for (Look& look : looks)
        compare(look, places);
    for (const Part& part : stored) {
        const bool allAsked = std::all_of(looks.begin(), looks.end(), [&](const Look& look) {
            return look.answered || look.server.number == part.server.number;
        });
        if (!allAsked) {
            keepFromNotes(part);
            continue;
        }
        for (const std::int64_t note : part.notes)
            ServerLeftovers::instance().addNote(part.server.name, note);
    }
}

// A server that cannot be asked may have noted that earlier records are to be removed here, and these may still have
// the numbers of such ones: that costs them their place among those of their second.
void SpreadBatch::keepFromNotes(const Part& part) {
    if (part.renumbered) return;
    std::vector<ArrivedRecord> identified;
    std::copy_if(part.records.begin(), part.records.end(), std::back_inserter(identified),
                 [](const ArrivedRecord& arrived) { return identifierOf(*arrived.record).has_value(); });
    storeAll(std::move(identified), nullptr, true);
}

bool SpreadBatch::isAnyAway() const {
    const std::vector<QORServer>& servers = m_placement->servers();
    return std::any_of(servers.begin(), servers.end(),
                       [](const QORServer& server) { return QORServers::instance().isAway(server.name); });
}

// Somebody who has not heard of this record yet may be about to remove it for the sake of the one that was found, or
// that is noted: so it is stored once more, with a greater number than all of that, before the other one is removed.
// Where environments move meanwhile, the note stays for who sees to it later.
void SpreadBatch::compare(Look& look, const Places& places) {
    for (const auto& [identifier, found] : look.found) {
        const auto& [table, id] = identifier;
        const Place& place = places.at({table, id});
        const std::int64_t number = place.record->number;
        if (found.number == number) continue;  // it has just been moved there
        const bool earlier = found.number < number;
        if (earlier) {
            const std::vector<Part> again = storeAll({*place.record}, nullptr, true);
            look.answered = look.answered && again.front().server.number == place.part->server.number;
            QORIngestCounts& counts = of(m_counts, kindOf(*place.record->record));
            if (found.isThere && counts.added > 0) {
                --counts.added;
                ++counts.replaced;
            }
            if (!found.isThere) continue;
        }
        const QORServer& loser = earlier ? look.server : place.part->server;
        ArrivedIds ids;
        ids.add(id, std::max(found.number, number));
        const ArrivalNote note{0, loser.name, std::string(nameOf(table)), ids.text()};
        look.answered = look.answered && removeEarlier(loser, {note});
    }
}

void SpreadBatch::clearUp(bool all) {
    const auto placement = QORServers::instance().placement();
    for (const QORServer& server : placement->servers()) {
        if (!all && ServerLeftovers::instance().of(server.name).keys.empty()) continue;
        try {
            ServerLeftovers::instance().flush(server);
        } catch (const std::exception& failure) {
            logMessage(1, "QORIngest", QOR_SOURCE_PATH, __func__, "notes are left behind for now: %s", failure.what());
        }
    }
}

}  // namespace QOR
