#include "shard/ShardMove.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>
#include <utility>

#include "QORDBSchema/QORHandover.h"
#include "QORDBSchema/QORSpreadSchema.h"

namespace QOR {
namespace {

/// Few enough to be followed while everybody waits.
constexpr std::size_t fewChanges = 500;
constexpr int mostRounds = 1000;

/// So long others wait at most for one attempt, and have peace between two. It is shorter than what an engine lets pass
/// before it looks for circles of waiting, so that nobody else is given up for this one's sake.
constexpr const char* shortWait = "SET LOCAL lock_timeout = '200ms'";
constexpr std::chrono::milliseconds peace{300};
constexpr int attempts = 200;

bool isBusy(const AException& error) {
    return error.failure() == ASFailure::Locked || error.failure() == ASFailure::Undone;
}

/// \param attempt returns false when it would have kept others waiting \throws ShardStopped; what `attempt` throws
template <class Attempt>
void again(const ShardDatabase& database, const std::function<bool()>& stop, Attempt attempt) {
    for (int left = attempts; left > 0; --left) {
        if (stop && stop()) throw ShardStopped();
        if (attempt()) return;
        std::this_thread::sleep_for(peace);
    }
    database.refuse("has been in use without a pause for a minute: end what reads or writes there for so long");
}

/// As again(), where what failed for locks that were waited for in vain would have kept others waiting.
void patiently(const ShardDatabase& database, const std::function<bool()>& stop, const std::function<void()>& attempt) {
    again(database, stop, [&] {
        try {
            attempt();
            return true;
        } catch (const AException& error) {
            if (!isBusy(error)) throw;
            return false;
        }
    });
}

/// In pieces that one parameter can hold.
constexpr std::size_t pairsAtOnce = 20'000;

std::string tableList(const std::string& schema) {
    std::string list;
    for (const QORSpreadTable& table : spreadTables())
        list += (list.empty() ? "" : ", ") + schema + table.name;
    return list;
}

/// Keeps everybody from changing records, agents and other programs; nothing of the transaction is lost when that would
/// take too long. \returns false then
bool closeSource(ASSession& source) {
    source.execute(shortWait);
    source.execute("DO $$ BEGIN PERFORM 1 FROM qor_held FOR UPDATE; LOCK TABLE " + tableList("") +
                   " IN SHARE ROW EXCLUSIVE MODE; PERFORM set_config('qor.closed', 'on', true); "
                   "EXCEPTION WHEN lock_not_available OR deadlock_detected THEN NULL; END $$");
    return readCell(source, "SELECT current_setting('qor.closed', true)") == "on";
}

}  // namespace

ShardMove::ShardMove(ShardDatabase& home, ShardDatabase& source, std::vector<ShardWay> ways,
                     std::vector<ShardRest> rest, ShardMoveHooks hooks)
    : m_home(home), m_source(source), m_ways(std::move(ways)), m_rest(std::move(rest)), m_hooks(std::move(hooks)) {
    for (const ShardWay& way : m_ways) {
        m_rest.push_back({way.name, way.share});
        m_records.emplace_back(*way.target, way.share, [this](std::uint64_t records) { took(records); });
    }
}

void ShardMove::took(std::uint64_t records) {
    m_done += records;
    m_of = std::max(m_of, m_done);
    if (m_hooks.progress) m_hooks.progress(m_done, m_of, m_resumed);
    if (m_hooks.stop && m_hooks.stop()) throw ShardStopped();
}

/// What a target has must have come by a move whose changes have been noted ever since.
void ShardMove::requireFit() {
    bool on = false;
    {
        QORRdbmsTran tran(m_source.rdbms(), ASAccess::Read);
        on = ShardWatch::isOn(*tran);
    }
    for (std::size_t i = 0; i < m_ways.size(); ++i) {
        m_resumed += m_records[i].countThere();
        if (m_resumed > 0 && !on)
            m_ways[i].target->refuse("holds records that " + m_source.what() +
                                     " has not noted the changes of: make it anew, empty");
    }
    watch(m_source, true, m_hooks.stop);
}

void ShardMove::copy() {
    requireFit();
    {
        QORRdbmsTran snapshot(m_source.rdbms(), ASAccess::Read);
        for (const ShardRecords& records : m_records)
            m_of += records.count(*snapshot);
        took(m_resumed);
        for (ShardRecords& records : m_records)
            records.copyAll(*snapshot);
        noteTouched(*snapshot, {});
    }
    for (const ShardWay& way : m_ways)
        way.target->write([](ASSession& session) {
            for (const QORSpreadTable& table : spreadTables())
                session.execute("ANALYZE " + std::string(table.name));
        });
    followOpenly(false);
}

/// What has been noted by now. \param leaves the source has begun to remove records \returns how much it was
std::size_t ShardMove::followSome(bool leaves) {
    ShardChanges changes;
    {
        QORRdbmsTran snapshot(m_source.rdbms(), ASAccess::Read);
        changes = ShardWatch::read(*snapshot);
        for (std::size_t i = 0; i < m_records.size(); ++i) {
            const std::int64_t more = m_records[i].follow(*snapshot, changes);
            if (!leaves) continue;
            m_there[i] += more;
            m_records[i].leave(changes);
        }
        if (const auto found = changes.numbers.find("qor_operation"); found != changes.numbers.end())
            noteTouchedBy(*snapshot, found->second);
    }
    m_source.write([&](ASSession& session) { ShardWatch::forget(session, changes); });
    return changes.entries.size();
}

void ShardMove::followOpenly(bool leaves) {
    for (int round = 0; round < mostRounds; ++round) {
        if (followSome(leaves) <= fewChanges) return;
    }
}

/// For a source that everybody is kept from.
void ShardMove::settleAll(ASSession& source) {
    for (ShardChanges changes = ShardWatch::read(source); !changes.empty(); changes = ShardWatch::read(source)) {
        for (ShardRecords& records : m_records)
            records.follow(source, changes);
        if (const auto found = changes.numbers.find("qor_operation"); found != changes.numbers.end())
            noteTouchedBy(source, found->second);
        ShardWatch::forget(source, changes);
    }
    for (std::size_t i = 0; i < m_ways.size(); ++i) {
        m_records[i].copyDocuments(source);
        const std::uint64_t here = m_records[i].count(source);
        const std::uint64_t there = m_records[i].countThere();
        if (here != there) refuseCount(i, static_cast<std::int64_t>(there), here);
    }
}

void ShardMove::refuseCount(std::size_t way, std::int64_t there, std::uint64_t here) const {
    m_ways[way].target->refuse("has " + std::to_string(there) + " of " + std::to_string(here) + " records of " +
                               m_source.what() + ": somebody else has written to it. Make it anew, empty");
}

// What the source removes is still there for everybody else until it commits. So nearly all of it can be removed while
// others are at work, and what they changed meanwhile can be read beside that transaction.
std::uint64_t ShardMove::finish(const std::function<void(ASSession&)>& leave,
                                const std::function<void(ASSession&)>& place) {
    patiently(m_source, m_hooks.stop, [&] {
        QORRdbmsTran source(m_source.rdbms(), ASAccess::Write);
        ShardWatch::leaveOut(*source);
        m_there.clear();
        m_gone.clear();
        for (ShardRecords& records : m_records) {
            m_gone.push_back(records.removeMost(*source));
            m_there.push_back(static_cast<std::int64_t>(records.countThere()));
        }
        {
            QORRdbmsTran snapshot(m_source.rdbms(), ASAccess::Read);
            for (ShardRecords& records : m_records)
                records.copyRequests(*snapshot);
        }
        bool left = false;
        const auto commit = [&] {
            source.commit();
            left = true;
        };
        try {
            again(m_home, m_hooks.stop, [&] {
                followOpenly(true);
                return handOver(*source, leave, place, commit);
            });
        } catch (const AException&) {
            if (!left) throw;
            // Home went away at this very moment. What is said there is all that is missing.
            alone(m_home, place, {});
        }
    });
    return m_waited;
}

/// \returns false when somebody who writes or reads could not be waited for: everybody goes on
bool ShardMove::handOver(ASSession& source, const std::function<void(ASSession&)>& leave,
                         const std::function<void(ASSession&)>& place, const std::function<void()>& commit) {
    QORRdbmsTran home(m_home.rdbms(), ASAccess::Write);
    try {
        lockSpread(*home);
        place(*home);
    } catch (const AException& error) {
        if (!isBusy(error)) throw;
        return false;
    }
    if (!closeSource(source)) return false;
    m_waited = 0;
    while (const std::size_t followed = followSome(true))
        m_waited += followed;
    settleRest(source);
    leave(source);
    commit();
    home.commit();
    return true;
}

void ShardMove::settleRest(ASSession& source) {
    QORRdbmsTran snapshot(m_source.rdbms(), ASAccess::Read);
    for (std::size_t i = 0; i < m_ways.size(); ++i) {
        m_records[i].copyDocuments(*snapshot);
        m_records[i].copyRequests(*snapshot);
        m_records[i].copyNotes(*snapshot);
        const std::uint64_t last = m_records[i].removeLeft(source);
        m_gone[i] += last;
        m_waited += last;
        if (m_there[i] != static_cast<std::int64_t>(m_gone[i])) refuseCount(i, m_there[i], m_gone[i]);
    }
    // What was noted is what has just been removed.
    source.execute("DELETE FROM qor_moved");
}

void ShardMove::finishHome(const std::function<void(ASSession&)>& place) {
    patiently(m_home, m_hooks.stop, [&] {
        QORRdbmsTran home(m_home.rdbms(), ASAccess::Write);
        m_atHome = &*home;
        home->execute(shortWait);
        home->execute("LOCK TABLE " + tableList("") + " IN ACCESS EXCLUSIVE MODE");
        settleAll(*home);
        home->execute("TRUNCATE " + tableList(""));
        place(*home);
        ShardWatch::end(*home);
        home.commit();
    });
    m_atHome = nullptr;
}

void ShardMove::noteTouchedBy(ASSession& source, const std::vector<std::int64_t>& numbers) {
    std::string list;
    for (const std::int64_t number : numbers)
        list += (list.empty() ? "" : ",") + std::to_string(number);
    noteTouched(source, " AND e.operation IN (" + list + ")");
}

/// Tells home which environments are touched by operations that lie with another server than their own records.
void ShardMove::noteTouched(ASSession& source, const std::string& condition) {
    std::string holders;
    for (const ShardRest& one : m_rest)
        holders += (holders.empty() ? "(" : ", (") + ASSession::quoteLiteral(one.name) + ", " +
                   std::to_string(one.share.modulus) + ", " + std::to_string(one.share.remainder) + ")";
    constexpr const char* holds = "satisfies_hash_partition(CAST('qor_spread' AS regclass), h.modulus, h.remainder, ";
    const auto rows = readRows(source,
                               "SELECT DISTINCT CAST(e.eid AS text), CAST(h.name AS text) FROM "
                               "qor_operation_environment e JOIN (VALUES " +
                                   holders + ") AS h (name, modulus, remainder) ON " + holds +
                                   "e.own) WHERE e.eid IS DISTINCT FROM e.own AND NOT " + holds + "e.eid)" + condition,
                               2);
    for (std::size_t from = 0; from < rows.size(); from += pairsAtOnce) {
        std::string json;
        for (std::size_t i = from; i < std::min(from + pairsAtOnce, rows.size()); ++i)
            json +=
                (json.empty() ? "[{\"eid\":\"" : ",{\"eid\":\"") + rows[i][0] + "\",\"server\":\"" + rows[i][1] + "\"}";
        json += ']';
        const auto note = [&](ASSession& home) {
            home.prepare(
                    "INSERT INTO qor_touched_server (eid, server) SELECT r.eid, r.server FROM json_to_recordset("
                    "CAST(? AS json)) AS r (eid uuid, server text) ORDER BY 1, 2 ON CONFLICT DO NOTHING")
                .bind(1, std::string_view(json))
                .execute();
        };
        m_atHome != nullptr ? note(*m_atHome) : m_home.write(note);
    }
}

void alone(ShardDatabase& home, const std::function<void(ASSession&)>& work, const std::function<bool()>& stop) {
    patiently(home, stop, [&] {
        QORRdbmsTran tran(home.rdbms(), ASAccess::Write);
        lockSpread(*tran);
        work(*tran);
        tran.commit();
    });
}

void watch(ShardDatabase& source, bool on, const std::function<bool()>& stop) {
    patiently(source, stop, [&] {
        QORRdbmsTran tran(source.rdbms(), ASAccess::Write);
        if (ShardWatch::isOn(*tran) == on) return;
        tran->execute(shortWait);
        tran->execute("LOCK TABLE " + tableList("") + " IN ACCESS EXCLUSIVE MODE");
        on ? ShardWatch::begin(*tran) : ShardWatch::end(*tran);
        tran.commit();
    });
}

}  // namespace QOR
