#include "ingest/ServerFollower.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <stop_token>
#include <utility>
#include <vector>

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORSourcePath.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORDBSchema/QORHandover.h"
#include "ingest/EnvironmentCopies.h"
#include "ingest/ServerRemovals.h"

namespace QOR {
namespace {

constexpr auto betweenTurns = std::chrono::seconds(1);
/// For a server: one that hangs does not keep the others waiting for long.
constexpr auto longestVisit = std::chrono::seconds(10);
/// Of a visit, for what has piled up.
constexpr auto longestNotes = std::chrono::seconds(1);

}  // namespace

void ServerUpkeep::turn() {
    QORServers& servers = QORServers::instance();
    settleLast();
    const auto placement = servers.refresh();
    for (const QORServer& server : placement->servers()) {
        if (servers.isAway(server.name)) continue;
        const QORRequestScope bounded(std::make_shared<QORRequestControl>(longestVisit));
        try {
            visit(*placement, server);
            if (m_failing.erase(server.name) != 0)
                logMessage(2, "QORIngest", QOR_SOURCE_PATH, __func__, "server \"%s\" is followed again",
                           server.name.c_str());
        } catch (const std::exception& failure) {
            servers.noteAway(server.name);
            m_current.erase(server.name);
            if (m_failing.insert(server.name).second)
                logMessage(1, "QORIngest", QOR_SOURCE_PATH, __func__, "server \"%s\" cannot be followed: %s",
                           server.name.c_str(), failure.what());
        }
    }
}

// Not more than a look at home where nothing is on its way.
void ServerUpkeep::settleLast() {
    const QORRequestScope bounded(std::make_shared<QORRequestControl>(longestVisit));
    try {
        settleHandover();
        m_settles = true;
    } catch (const std::exception& failure) {
        if (std::exchange(m_settles, false))
            logMessage(1, "QORIngest", QOR_SOURCE_PATH, __func__,
                       "environments are between two servers, and it cannot be settled: %s", failure.what());
    }
}

void ServerUpkeep::visit(const QORPlacement& placement, const QORServer& server) {
    if (m_current.count(server.name) == 0) QORDBSchema::migrateServer(server);
    m_current.insert(server.name);
    copyEnvironments(server);
    ServerLeftovers::instance().flush(server);
    seeToNotes(placement, server);
}

bool ServerUpkeep::isAnyAway(const QORPlacement& placement) {
    const std::vector<QORServer>& servers = placement.servers();
    return std::any_of(servers.begin(), servers.end(),
                       [](const QORServer& server) { return QORServers::instance().isAway(server.name); });
}

// Those that were there at the turn before: the newest are of batches that are still being stored. While somebody is
// away whom they are for, they have to stay, and nobody is bothered with them.
void ServerUpkeep::seeToNotes(const QORPlacement& placement, const QORServer& from) {
    using Clock = std::chrono::steady_clock;
    const auto seen = m_seen.find(from.name);
    const std::int64_t last = seen == m_seen.end() ? 0 : seen->second;
    m_seen[from.name] = lastNote(from);
    const auto end = Clock::now() + longestNotes;
    while (last != 0 && !isAnyAway(placement) && Clock::now() < end) {
        const auto begin = Clock::now();
        const std::vector<ArrivalNote> notes = readNotes(from, last);
        if (notes.empty() || !seeTo(notes, placement, from)) return;
        std::this_thread::sleep_for(Clock::now() - begin);
    }
}

// A note stays until all whom it is for have done what it says, under the placement that holds when it is deleted.
bool ServerUpkeep::seeTo(const std::vector<ArrivalNote>& notes, const QORPlacement& placement, const QORServer& from) {
    for (const QORServer& to : placement.servers()) {
        if (to.number != from.number && !removeEarlier(to, notes)) return false;
    }
    if (QORServers::instance().refresh()->epoch() != placement.epoch()) return false;
    takeAway(from, notes);
    return true;
}

ServerFollower::ServerFollower()
    : m_thread([](const std::stop_token& stop) {
          std::mutex mutex;
          std::condition_variable_any woken;
          std::unique_lock lock(mutex);
          ServerUpkeep upkeep;
          bool failing = false;
          while (!woken.wait_for(lock, stop, betweenTurns, [&] { return stop.stop_requested(); })) {
              if (stop.stop_requested()) return;
              try {
                  upkeep.turn();
                  failing = false;
              } catch (const std::exception& failure) {
                  if (!failing)
                      logMessage(1, "QORIngest", QOR_SOURCE_PATH, "ServerFollower", "servers cannot be followed: %s",
                                 failure.what());
                  failing = true;
              }
          }
      }) {}

}  // namespace QOR
