#include "shard/ShardMove.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>
#include <utility>

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

/// \throws ShardStopped; what `attempt` throws, but for locks that were waited for in vain
void patiently(const ShardDatabase& database, const std::function<bool()>& stop, const std::function<void()>& attempt) {
    for (int left = attempts; left > 0; --left) {
        if (stop && stop()) throw ShardStopped();
        try {
            return attempt();
        } catch (const AException& error) {
            if (error.failure() != ASFailure::Locked && error.failure() != ASFailure::Undone) throw;
        }
        std::this_thread::sleep_for(peace);
    }
    database.refuse("has been in use without a pause for a minute: end what reads or writes there for so long");
}

/// In pieces that one parameter can hold.
constexpr std::size_t pairsAtOnce = 20'000;

std::string tableList(const std::string& schema) {
    std::string list;
    for (const QORSpreadTable& table : spreadTables())
        list += (list.empty() ? "" : ", ") + schema + table.name;
    return list;
}

/// Everything that readers of records go through at home, where there is any, in the order in which they do: a view,
/// then its tables, each with its partitions.
std::string readTablesOf(ASSession& home) {
    std::string list;
    for (const QORSchemaRow& row : readRows(
             home,
             "SELECT format('%I.%I', n.nspname, c.relname) FROM pg_class c JOIN pg_namespace n ON "
             "n.oid = c.relnamespace WHERE c.relkind IN ('v', 'p') AND (n.nspname IN ('qor_all', 'qor_all_long') OR "
             "n.nspname LIKE 'qor\\_at\\_%') ORDER BY c.relkind DESC, 1",
             1))
        list += (list.empty() ? "" : ", ") + row.front();
    return list;
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
    for (int round = 0; round < mostRounds; ++round) {
        ShardChanges changes;
        {
            QORRdbmsTran snapshot(m_source.rdbms(), ASAccess::Read);
            changes = ShardWatch::read(*snapshot);
            for (ShardRecords& records : m_records)
                records.follow(*snapshot, changes);
            if (const auto found = changes.numbers.find("qor_operation"); found != changes.numbers.end())
                noteTouchedBy(*snapshot, found->second);
        }
        m_source.write([&](ASSession& session) { ShardWatch::forget(session, changes); });
        if (changes.entries.size() <= fewChanges) return;
    }
}

void ShardMove::followAll(ASSession& source) {
    for (ShardChanges changes = ShardWatch::read(source); !changes.empty(); changes = ShardWatch::read(source)) {
        for (ShardRecords& records : m_records)
            records.follow(source, changes);
        if (const auto found = changes.numbers.find("qor_operation"); found != changes.numbers.end())
            noteTouchedBy(source, found->second);
        ShardWatch::forget(source, changes);
    }
}

void ShardMove::settleRest(ASSession& source) {
    followAll(source);
    for (std::size_t i = 0; i < m_ways.size(); ++i) {
        m_records[i].copyDocuments(source);
        const std::uint64_t here = m_records[i].count(source);
        const std::uint64_t there = m_records[i].countThere();
        if (here != there)
            m_ways[i].target->refuse("has " + std::to_string(there) + " of " + std::to_string(here) + " records of " +
                                     m_source.what() + ": somebody else has written to it. Make it anew, empty");
    }
}

void ShardMove::finish(const std::function<void(ASSession&)>& close, const std::function<void(ASSession&)>& leave,
                       const std::function<void(ASSession&)>& place) {
    patiently(m_source, m_hooks.stop, [&] {
        QORRdbmsTran source(m_source.rdbms(), ASAccess::Write);
        close(*source);
        source->execute(shortWait);
        source->execute("LOCK TABLE " + tableList("") + " IN SHARE ROW EXCLUSIVE MODE");
        settleRest(*source);
        for (ShardRecords& records : m_records) {
            records.copyRequests(*source);
            records.remove(*source);
        }
        // What was noted is what has just been removed.
        source->execute("DELETE FROM qor_moved");
        leave(*source);
        bool left = false;
        const auto depart = [&] {
            if (left) return;
            source.commit();
            left = true;
        };
        try {
            alone(m_home, place, depart, m_hooks.stop);
        } catch (const AException&) {
            if (!left) throw;
            // Home went away at this very moment. What is said there is all that is missing.
            alone(m_home, place, [] {}, {});
        }
    });
}

void ShardMove::finishHome(const std::function<void(ASSession&)>& place) {
    patiently(m_home, m_hooks.stop, [&] {
        QORRdbmsTran home(m_home.rdbms(), ASAccess::Write);
        m_atHome = &*home;
        home->execute(shortWait);
        home->execute("LOCK TABLE " + tableList("") + " IN ACCESS EXCLUSIVE MODE");
        settleRest(*home);
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

void alone(ShardDatabase& home, const std::function<void(ASSession&)>& work, const std::function<void()>& before,
           const std::function<bool()>& stop) {
    patiently(home, stop, [&] {
        QORRdbmsTran tran(home.rdbms(), ASAccess::Write);
        tran->execute(shortWait);
        if (const std::string tables = readTablesOf(*tran); !tables.empty())
            tran->execute("LOCK TABLE " + tables + " IN ACCESS EXCLUSIVE MODE");
        work(*tran);
        before();
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
