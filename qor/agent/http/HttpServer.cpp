#include "agent/http/HttpServer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <list>
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "QORCommon/QORLogger.h"
#include "agent/http/FairQueue.h"
#include "agent/http/HttpConnection.h"
#include "agent/http/LocalListener.h"

namespace QOR {
namespace {

constexpr const char* module = "QORAgent";
constexpr const char* sourcePath = "qor/agent/http/HttpServer";
/// How long to wait when a connection cannot be accepted, usually for want of file descriptors.
constexpr auto acceptPause = std::chrono::milliseconds(100);
/// How often it is looked at what waits and what takes long, while something does.
constexpr auto waitingPause = std::chrono::milliseconds(20);
/// For requests that have been told to end, to do so.
constexpr auto endingTime = std::chrono::seconds(2);

std::size_t atLeastOne(std::size_t number) {
    return std::max<std::size_t>(number, 1);
}

FairQueueLimits turnLimits(const HttpServerOptions& options, std::size_t workers) {
    const std::size_t mine = options.requestsPerIdentity == 0 ? workers / 2 : options.requestsPerIdentity;
    return {workers, std::clamp<std::size_t>(mine, 1, workers), options.waiting, options.waitingPerIdentity};
}

/// One body of the largest size fits in any case.
FairQueueLimits bodyLimits(const HttpServerOptions& options) {
    const std::size_t mine = std::max(options.bodyMemoryPerIdentity, options.bodyLimit);
    return {std::max(options.bodyMemory, mine), mine, options.maxConnections, options.maxConnections};
}

}  // namespace

HttpIdentity HttpApplication::identify(const std::optional<HttpPeerCredentials>& peer) {
    return {peer ? "uid:" + std::to_string(peer->uid) : "unknown", peer && peer->uid == 0};
}

HttpPlan HttpApplication::plan(const HttpRequest&, const std::optional<HttpPeerCredentials>&) {
    return {};
}

HttpClientHandler::~HttpClientHandler() = default;
HttpApplication::~HttpApplication() = default;

class HttpServer::Impl final : public HttpConnectionOwner {
public:
    Impl(const HttpServerOptions& options, HttpApplication& application)
        : m_options(options),
          m_application(application),
          m_listener(options.socketPath, options.socketGroup),
          m_bodies(bodyLimits(options)),
          m_lanes{Lane(options, atLeastOne(options.threads)), Lane(options, atLeastOne(options.writers))},
          m_acceptor(m_io, net::local::stream_protocol(), m_listener.releaseSocket()),
          m_graceTimer(m_io),
          m_acceptTimer(m_io),
          m_waitingTimer(m_io),
          m_work(m_io.get_executor()) {}

    bool run() {
        preferShortWaits();
        accept();
        for (bool ended = false; !ended;) {
            try {
                m_io.run();
                ended = true;
            } catch (const std::exception& exception) {
                logMessage(0, module, sourcePath, "run", "%s", exception.what());
            }
        }
        if (!m_abandoned) {
            for (Lane& lane : m_lanes)
                lane.workers.join();
        }
        m_listener.removeNames();
        return !m_abandoned;
    }

    void stop() {
        net::post(m_io, [this] { beginStop(); });
    }

    std::size_t connections() const noexcept { return m_count.load(std::memory_order_relaxed); }

    // ---- HttpConnectionOwner
    const HttpServerOptions& options() const override { return m_options; }
    HttpApplication& application() override { return m_application; }
    bool isStopping() const override { return m_stopping; }
    void requestBegan() override { ++m_inFlight; }
    void requestEnded() override {
        --m_inFlight;
        if (m_stopping) finishWhenIdle();
    }
    void connectionClosed(HttpConnection& connection) override {
        connectionBusy(connection);
        m_connections.erase(&connection);
        m_count.store(m_connections.size(), std::memory_order_relaxed);
        const auto account = m_accounts.find(connection.identity().key);
        if (--account->second.connections == 0) m_accounts.erase(account);
    }
    void connectionIdle(HttpConnection& connection) override {
        auto& idle = m_accounts[connection.identity().key].idle;
        m_idle[&connection] = idle.insert(idle.end(), &connection);
    }
    void connectionBusy(HttpConnection& connection) override {
        const auto place = m_idle.find(&connection);
        if (place == m_idle.end()) return;
        m_accounts[connection.identity().key].idle.erase(place->second);
        m_idle.erase(place);
    }

    bool awaitBodyMemory(HttpConnection& connection, std::size_t bytes) override {
        const auto until = std::chrono::steady_clock::now() + m_options.bodyWait;
        if (!m_bodies.enter(connection.identity().key, {connection.shared_from_this(), bytes}, bytes, until))
            return false;
        grantBodies();
        watchWaiting();
        return true;
    }
    bool takeBodyMemory(const HttpConnection& connection, std::size_t bytes) override {
        return m_bodies.takeNow(connection.identity().key, bytes);
    }
    void giveBodyMemory(const HttpConnection& connection, std::size_t bytes) override {
        m_bodies.giveBack(connection.identity().key, bytes);
        grantBodies();
    }

    bool awaitTurn(HttpConnection& connection, HttpLane lane) override {
        FairQueue<Waiter>& turns = m_lanes[indexOf(lane)].turns;
        const auto until = std::chrono::steady_clock::now() + m_options.deadline;
        if (!turns.enter(connection.identity().key, connection.shared_from_this(), 1, until)) return false;
        grantTurns(turns);
        watchWaiting();
        return true;
    }
    void giveTurn(const HttpConnection& connection, HttpLane lane) override {
        FairQueue<Waiter>& turns = m_lanes[indexOf(lane)].turns;
        turns.giveBack(connection.identity().key, 1);
        grantTurns(turns);
        if (m_stopping) finishWhenIdle();
    }
    WorkerPool& workers(HttpLane lane) override { return m_lanes[indexOf(lane)].workers; }
    void stopWaiting(HttpConnection& connection) override {
        const std::string& key = connection.identity().key;
        const Waiter waiter = connection.shared_from_this();
        if (m_bodies.remove(key, {waiter, 0})) grantBodies();
        for (Lane& lane : m_lanes)
            lane.turns.remove(key, waiter);
    }

private:
    using Waiter = std::shared_ptr<HttpConnection>;

    /// A connection that waits for so much memory.
    struct BodyWaiter {
        Waiter connection;
        std::size_t bytes;
        bool operator==(const BodyWaiter& other) const { return connection == other.connection; }
    };

    struct Lane {
        Lane(const HttpServerOptions& options, std::size_t threads)
            : turns(turnLimits(options, threads)), workers(threads) {}
        FairQueue<Waiter> turns;
        WorkerPool workers;
    };

    /// The connections of an identity.
    struct Account {
        std::size_t connections = 0;
        std::list<HttpConnection*> idle{};  ///< the longest idle first
    };

    class GrantingScope {
    public:
        explicit GrantingScope(bool& granting) : m_granting(granting) { m_granting = true; }
        ~GrantingScope() { m_granting = false; }
        GrantingScope(const GrantingScope&) = delete;
        GrantingScope& operator=(const GrantingScope&) = delete;

    private:
        bool& m_granting;
    };

    static constexpr std::size_t indexOf(HttpLane lane) { return static_cast<std::size_t>(lane); }

    // ---- turns --------------------------------------------------------------------------------------------------
    // Whoever is granted something may at once give something back, and come here again: the loop that runs sees it.
    void grantBodies() {
        if (m_granting) return;
        const GrantingScope scope(m_granting);
        while (const std::optional<BodyWaiter> waiter = m_bodies.next())
            waiter->connection->bodyGranted(waiter->bytes);
    }

    void grantTurns(FairQueue<Waiter>& turns) {
        while (const std::optional<Waiter> waiter = turns.next())
            (*waiter)->turnGranted();
    }

    /// Looks now and then at what waits and at what takes long, until there is nothing of either.
    void watchWaiting() {
        if (m_watching || !isAnythingToWatch()) return;
        m_watching = true;
        m_waitingTimer.expires_after(waitingPause);
        m_waitingTimer.async_wait([this](beast::error_code cancelled) {
            m_watching = false;
            if (cancelled) return;
            turnDownLate();
            m_lanes[indexOf(HttpLane::Reading)].workers.attendToLongTasks();
            watchWaiting();
        });
    }

    bool isAnythingToWatch() const {
        return m_bodies.waiting() > 0 || std::any_of(m_lanes.begin(), m_lanes.end(), [](const Lane& lane) {
                   return lane.turns.waiting() > 0 || lane.turns.used() > 0;
               });
    }

    void turnDownLate() {
        const auto now = std::chrono::steady_clock::now();
        for (const BodyWaiter& waiter : m_bodies.expire(now))
            waiter.connection->bodyExpired();
        grantBodies();
        for (Lane& lane : m_lanes) {
            for (const Waiter& waiter : lane.turns.expire(now))
                waiter->turnExpired();
        }
    }

    // ---- connections --------------------------------------------------------------------------------------------
    void accept() {
        m_acceptor.async_accept([this](beast::error_code error, HttpConnection::Socket socket) {
            if (m_stopping) return;
            if (error) {
                acceptLater(error);
                return;
            }
            welcome(std::make_shared<HttpConnection>(std::move(socket), *this));
            accept();
        });
    }

    void welcome(const Waiter& connection) {
        const HttpIdentity& identity = connection->identity();
        const std::size_t mine = connectionsOf(identity.key);
        if (mine >= m_options.connectionsPerIdentity && !closeIdleOf(identity.key)) {
            connection->turnAway("this user has " + std::to_string(mine) + " connections, and all of them are busy");
            return;
        }
        if (m_connections.size() >= room(identity) && !makeRoom(identity.key)) {
            connection->turnAway("all " + std::to_string(m_options.maxConnections) + " connections are in use");
            return;
        }
        ++m_accounts[identity.key].connections;
        m_connections.insert(connection.get());
        m_count.store(m_connections.size(), std::memory_order_relaxed);
        connection->start();
    }

    std::size_t connectionsOf(const std::string& key) const {
        const auto account = m_accounts.find(key);
        return account == m_accounts.end() ? 0 : account->second.connections;
    }

    std::size_t room(const HttpIdentity& identity) const {
        const std::size_t kept = identity.reserved ? 0 : m_options.reservedConnections;
        return m_options.maxConnections > kept ? m_options.maxConnections - kept : 1;
    }

    /// Closes an idle connection of whoever has the most, unless the newcomer has more than those who have idle ones.
    bool makeRoom(const std::string& newcomer) {
        const auto most = std::max_element(m_accounts.begin(), m_accounts.end(), [](const auto& a, const auto& b) {
            return std::pair(!a.second.idle.empty(), a.second.connections) <
                   std::pair(!b.second.idle.empty(), b.second.connections);
        });
        if (most == m_accounts.end() || most->second.connections < connectionsOf(newcomer)) return false;
        return closeIdleOf(std::string(most->first));
    }

    /// Closes the one that has been idle the longest. \returns false when none is
    bool closeIdleOf(const std::string& key) {
        const auto account = m_accounts.find(key);
        if (account == m_accounts.end() || account->second.idle.empty()) return false;
        const Waiter connection = account->second.idle.front()->shared_from_this();
        connection->close();
        return true;
    }

    void acceptLater(beast::error_code error) {
        logMessage(1, module, sourcePath, "accept", "cannot accept a connection: %s", error.message().c_str());
        makeRoom({});
        m_acceptTimer.expires_after(acceptPause);
        m_acceptTimer.async_wait([this](beast::error_code cancelled) {
            if (!cancelled && !m_stopping) accept();
        });
    }

    void beginStop() {
        if (m_stopping) {
            abandon();
            return;
        }
        m_stopping = true;
        beast::error_code ignored;
        m_acceptor.close(ignored);
        m_acceptTimer.cancel();
        m_graceTimer.expires_after(m_options.grace);
        m_graceTimer.async_wait([this](beast::error_code cancelled) {
            if (!cancelled) abandon();
        });
        logMessage(2, module, sourcePath, "stop", "stopping; %zu requests are in flight", m_inFlight);
        finishWhenIdle();
    }

    void finishWhenIdle() {
        if (m_inFlight == 0 && !isAnyoneWorking()) finish();
    }

    /// A worker may still be in a request whose connection is closed.
    bool isAnyoneWorking() const {
        return std::any_of(m_lanes.begin(), m_lanes.end(), [](const Lane& lane) { return lane.turns.used() > 0; });
    }

    void finish() {
        if (m_finishing) return;
        m_finishing = true;
        // Not from within the connection that has just ended its request.
        net::post(m_io, [this] {
            m_graceTimer.cancel();
            m_waitingTimer.cancel();
            while (!m_connections.empty())
                (*m_connections.begin())->close();
            m_work.reset();
        });
    }

    /// A worker that sends while it works ends when it cannot send.
    void closeStreams() {
        for (HttpConnection* connection : connectionsNow()) {
            if (connection->isStreaming()) connection->close();
        }
    }

    /// What is done to a connection may end it.
    std::vector<HttpConnection*> connectionsNow() const { return {m_connections.begin(), m_connections.end()}; }

    /// Waits no longer: replies that their clients do not take are dropped, requests are told to end. Those that listen
    /// do so in moments; the others are given up then.
    void abandon() {
        if (m_finishing) return;
        if (std::exchange(m_ending, true)) return giveUp();
        logMessage(1, module, sourcePath, "stop", "%zu requests are told to end", m_inFlight);
        for (HttpConnection* connection : connectionsNow())
            connection->endRequest();
        closeStreams();
        if (!isAnyoneWorking()) return finish();
        m_graceTimer.expires_after(endingTime);
        m_graceTimer.async_wait([this](beast::error_code cancelled) {
            if (!cancelled) giveUp();
        });
    }

    void giveUp() {
        if (m_finishing) return;
        if (!isAnyoneWorking()) return finish();
        logMessage(0, module, sourcePath, "stop", "%zu requests are given up", m_inFlight);
        m_abandoned = true;
        m_io.stop();
    }

    const HttpServerOptions m_options;
    HttpApplication& m_application;
    LocalListener m_listener;
    // The workers go first: what they still hold of a connection posts to m_io.
    net::io_context m_io{1};
    FairQueue<BodyWaiter> m_bodies;
    std::array<Lane, httpLaneCount> m_lanes;
    net::local::stream_protocol::acceptor m_acceptor;
    net::steady_timer m_graceTimer;
    net::steady_timer m_acceptTimer;
    net::steady_timer m_waitingTimer;
    net::executor_work_guard<net::io_context::executor_type> m_work;
    std::unordered_set<HttpConnection*> m_connections;  // each keeps itself alive
    std::map<std::string, Account> m_accounts;          // of identities that have connections
    std::unordered_map<HttpConnection*, std::list<HttpConnection*>::iterator> m_idle;
    std::atomic<std::size_t> m_count{0};
    std::size_t m_inFlight = 0;
    bool m_granting = false;
    bool m_watching = false;
    bool m_stopping = false;
    bool m_ending = false;  ///< requests have been told to end
    bool m_finishing = false;
    bool m_abandoned = false;
};

HttpServer::HttpServer(const HttpServerOptions& options, HttpApplication& application)
    : m_impl(std::make_unique<Impl>(options, application)) {}

HttpServer::~HttpServer() = default;

bool HttpServer::run() {
    return m_impl->run();
}

void HttpServer::stop() {
    m_impl->stop();
}

std::size_t HttpServer::connections() const noexcept {
    return m_impl->connections();
}

}  // namespace QOR
