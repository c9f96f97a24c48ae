#include "agent/http/HttpServer.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cmath>
#include <list>
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "agent/http/FairQueue.h"
#include "agent/http/HttpConnection.h"
#include "agent/http/LocalListener.h"
#include "agent/http/LoopCalls.h"
#include "agent/http/TcpListener.h"

namespace QOR {
namespace {

/// How long to wait when a connection cannot be accepted, usually for want of file descriptors.
constexpr auto acceptPause = std::chrono::milliseconds(100);
/// How often it is looked at what waits and what takes long, while something does.
constexpr auto waitingPause = std::chrono::milliseconds(20);
/// Clients that are of no use may come as often as they like: between two lines about them passes at least as much.
constexpr auto failurePause = std::chrono::minutes(1);
/// For requests that have been told to end, to do so.
constexpr auto endingTime = std::chrono::seconds(2);

/// \param perIdentity 0: half of them
FairQueueLimits turnLimits(const HttpServerOptions& options, std::size_t threads, std::size_t perIdentity) {
    const std::size_t workers = std::max<std::size_t>(threads, 1);
    const std::size_t mine = perIdentity == 0 ? workers / 2 : perIdentity;
    return {workers, std::clamp<std::size_t>(mine, 1, workers), options.waiting, options.waitingPerIdentity};
}

/// In the order of HttpLane.
std::array<FairQueueLimits, httpLaneCount> laneLimits(const HttpServerOptions& options) {
    return {turnLimits(options, options.threads, options.requestsPerIdentity),
            turnLimits(options, options.writers, options.requestsPerIdentity),
            turnLimits(options, options.streams, options.streamsPerIdentity),
            turnLimits(options, options.followers, options.followersPerIdentity)};
}

/// One body of the largest size fits in any case.
FairQueueLimits bodyLimits(const HttpServerOptions& options) {
    const std::size_t mine = std::max(options.bodyMemoryPerIdentity, options.bodyLimit);
    return {std::max(options.bodyMemory, mine), mine, options.maxConnections, options.maxConnections};
}

/// Of an IPv6 address the half that names a network: who has one address there can have all.
std::string networkOf(const std::string& address) {
    in6_addr network{};
    char text[INET6_ADDRSTRLEN];
    if (::inet_pton(AF_INET6, address.substr(0, address.find('%')).c_str(), &network) != 1) return address;
    std::fill_n(std::begin(network.s6_addr) + 8, 8, std::uint8_t{0});
    return ::inet_ntop(AF_INET6, &network, text, sizeof text) == nullptr ? address : std::string(text) + "/64";
}

}  // namespace

HttpIdentity HttpApplication::identify(const HttpPeer& peer) {
    if (peer.overTcp) return {"address:" + networkOf(peer.address), false};
    const bool root = peer.credentials && peer.credentials->uid == 0;
    return {peer.credentials ? "uid:" + std::to_string(peer.credentials->uid) : "unknown", root};
}

HttpPlan HttpApplication::plan(const HttpRequest&, const HttpPeer&) {
    return {};
}

void HttpApplication::ended(const HttpEnd&, const HttpPeer&, HttpTrace*) {}

HttpTrace::~HttpTrace() = default;

HttpRequester::~HttpRequester() = default;
HttpClientHandler::~HttpClientHandler() = default;
HttpApplication::~HttpApplication() = default;

class HttpServer::Impl final : public HttpConnectionOwner {
public:
    Impl(const HttpServerOptions& options, HttpApplication& application)
        : m_options(options),
          m_application(application),
          m_bodies(bodyLimits(options)),
          m_lanes{Lane(laneLimits(options)[0]), Lane(laneLimits(options)[1]), Lane(laneLimits(options)[2]),
                  Lane(laneLimits(options)[3])},
          m_graceTimer(m_io),
          m_waitingTimer(m_io),
          m_beatTimer(m_io),
          m_work(m_io.get_executor()) {
        for (const QORAgentAddress& address : m_options.listen)
            listen(address);
    }

    bool run() {
        preferShortWaits();
        if (m_beat) beat();
        for (std::size_t number = 0; number < m_listeners.size(); ++number)
            accept(number);
        for (bool ended = false; !ended;) {
            try {
                m_io.run();
                ended = true;
            } catch (const std::exception& exception) {
                logMessage(0, "QORAgent", QOR_SOURCE_PATH, "run", "%s", exception.what());
            }
        }
        if (!m_abandoned) {
            for (Lane& lane : m_lanes)
                lane.workers.join();
        }
        for (const auto& listener : m_listeners)
            if (listener->names) listener->names->removeNames();
        return !m_abandoned;
    }

    void stop() {
        net::post(m_io, [this] { beginStop(); });
    }

    void setBeat(std::chrono::milliseconds pause, std::function<void()> beat) {
        m_beatPause = pause;
        m_beat = std::move(beat);
    }

    void change(const HttpServerOptions& options) {
        net::post(m_io, [this, options] { beginChange(options); });
    }

    const std::vector<QORAgentAddress>& addresses() const noexcept { return m_addresses; }
    std::size_t connections() const noexcept { return m_count.load(std::memory_order_relaxed); }

    HttpCounts counts() const {
        HttpCounts counts = m_counts;
        for (const auto& listener : m_listeners)
            counts.listeners.push_back({listener->address, listener->open, listener->accepted});
        for (std::size_t lane = 0; lane < httpLaneCount; ++lane) {
            const FairQueue<Waiter>& turns = m_lanes[lane].turns;
            counts.lanes[lane] = {turns.limits().inAll, turns.used(), turns.waiting()};
        }
        counts.idle = m_idle.size();
        counts.bodyMemory = m_bodies.used();
        counts.bodiesWaiting = m_bodies.waiting();
        return counts;
    }

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
        --m_listeners[connection.listener()]->open;
        m_count.store(m_connections.size(), std::memory_order_relaxed);
        leave(connection.identity().key);
    }
    void connectionFailed(const HttpConnection& connection, const std::string& why) override {
        const auto now = std::chrono::steady_clock::now();
        ++m_counts.useless;
        if (m_failureTold && now - *m_failureTold < failurePause) return;
        m_failureTold = now;
        const HttpPeer& peer = connection.peer();
        logMessage(1, "QORAgent", QOR_SOURCE_PATH, "connectionFailed",
                   "a client%s%s is left: %s (%zu such clients so far)", peer.overTcp ? " at " : "",
                   peer.address.c_str(), why.c_str(), static_cast<std::size_t>(m_counts.useless));
    }
    void limitMet(HttpLimit limit) override { ++m_counts.met(limit); }
    void connectionIdle(HttpConnection& connection, bool first) override {
        auto& idle = m_accounts[connection.identity().key].idle;
        m_idle[&connection] = idle.insert(first ? idle.begin() : idle.end(), &connection);
    }
    void connectionBusy(HttpConnection& connection) override {
        const auto place = m_idle.find(&connection);
        if (place == m_idle.end()) return;
        m_accounts[connection.identity().key].idle.erase(place->second);
        m_idle.erase(place);
    }

    bool connectionBelongs(HttpConnection& connection, const std::string& key) override {
        if (connectionsOf(key) >= m_options.connectionsPerIdentity && !closeIdleOf(key)) return false;
        leave(connection.identity().key);
        connection.setAccount(key);
        ++m_accounts[key].connections;
        return true;
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

    std::optional<HttpLimit> awaitTurn(HttpConnection& connection, HttpLane lane) override {
        FairQueue<Waiter>& turns = m_lanes[indexOf(lane)].turns;
        const std::string& key = connection.identity().key;
        const Waiter waiter = connection.shared_from_this();
        if (!turns.enter(key, waiter, 1, std::chrono::steady_clock::now() + m_options.deadline))
            return turns.waiting() >= turns.limits().waitingInAll ? HttpLimit::Waiting : HttpLimit::UserWaiting;
        grantTurns(turns);
        if (lane == HttpLane::Following && turns.remove(key, waiter))
            return turns.used() >= turns.limits().inAll ? HttpLimit::Followers : HttpLimit::UserFollowers;
        watchWaiting();
        return std::nullopt;
    }
    unsigned secondsUntilTurn(HttpLane lane) const override {
        const Lane& asked = m_lanes[indexOf(lane)];
        const auto before = static_cast<double>(asked.turns.waiting() + 1);
        const double seconds = asked.usualTurn.count() * before / static_cast<double>(asked.turns.limits().inAll);
        return static_cast<unsigned>(std::clamp(std::ceil(seconds), 1.0, longestRetry));
    }
    void giveTurn(const HttpConnection& connection, HttpLane lane, std::chrono::steady_clock::duration taken) override {
        // The last dozen or so count.
        constexpr double newest = 0.1;
        std::chrono::duration<double>& usual = m_lanes[indexOf(lane)].usualTurn;
        usual = usual == usual.zero() ? taken : usual * (1 - newest) + std::chrono::duration<double>(taken) * newest;
        FairQueue<Waiter>& turns = m_lanes[indexOf(lane)].turns;
        turns.giveBack(connection.identity().key, 1);
        grantTurns(turns);
        if (m_stopping) finishWhenIdle();
    }
    LoopCalls& calls() override { return m_calls; }
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
        explicit Lane(const FairQueueLimits& limits) : turns(limits), workers(limits.inAll) {}
        FairQueue<Waiter> turns;
        WorkerPool workers;
        std::chrono::duration<double> usualTurn{0};  ///< how long one lasts; 0: none has ended
    };
    static constexpr double longestRetry = 30;  // seconds

    /// One of the sockets that clients connect to.
    struct Listener {
        net::basic_socket_acceptor<HttpTransport::Protocol> acceptor;
        net::steady_timer pause;               ///< after a connection that could not be accepted
        std::unique_ptr<LocalListener> names;  ///< of a unix socket
        bool secure = false;
        std::string address{};
        std::size_t open = 0;
        std::uint64_t accepted = 0;
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

    /// Those that follow wait for nothing, and take long in any case.
    bool isAnythingToWatch() const {
        const auto last = m_lanes.begin() + indexOf(HttpLane::Following);
        return m_bodies.waiting() > 0 || std::any_of(m_lanes.begin(), last, [](const Lane& lane) {
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
    void listen(const QORAgentAddress& address) {
        using Protocol = HttpTransport::Protocol;
        using Acceptor = net::basic_socket_acceptor<Protocol>;
        const bool secure = address.scheme == QORAgentAddress::Scheme::Https;
        if (secure && !m_options.certificates)
            throw QORException(errFailure, "cannot listen at " + address.text() + ": there is no certificate",
                               QOR_SOURCE_PATH);
        if (const int handed = handedSocket(address); handed >= 0) {
            if (!address.isUnix()) TcpListener::check(address);
            m_addresses.push_back(address);
            add({Acceptor(m_io, protocolOf(address), handed), net::steady_timer(m_io), nullptr, secure});
            return;
        }
        std::unique_ptr<LocalListener> names;
        if (address.isUnix()) {
            names = std::make_unique<LocalListener>(address.path, m_options.socketGroup);
            const int socket = names->releaseSocket();
            m_addresses.push_back(address);
            add({Acceptor(m_io, Protocol(AF_UNIX, 0), socket), net::steady_timer(m_io), std::move(names), false});
            return;
        }
        TcpListener listener(address);
        m_addresses.push_back(listener.address());
        add({Acceptor(m_io, Protocol(listener.family(), IPPROTO_TCP), listener.releaseSocket()),
             net::steady_timer(m_io), nullptr, secure});
    }

    /// -1 for none.
    int handedSocket(const QORAgentAddress& address) const {
        const auto found =
            std::find_if(m_options.handed.begin(), m_options.handed.end(),
                         [&](const HttpHandedSocket& socket) { return socket.address.text() == address.text(); });
        return found == m_options.handed.end() ? -1 : found->descriptor;
    }

    static HttpTransport::Protocol protocolOf(const QORAgentAddress& address) {
        if (address.isUnix()) return {AF_UNIX, 0};
        return {address.host.find(':') == std::string::npos ? AF_INET : AF_INET6, IPPROTO_TCP};
    }

    void add(Listener listener) {
        const QORAgentAddress& address = m_addresses.back();
        listener.address = address.isUnix() ? "unix:" + address.path : address.text();
        m_listeners.push_back(std::make_unique<Listener>(std::move(listener)));
    }

    void accept(std::size_t number) {
        Listener& listener = *m_listeners[number];
        listener.acceptor.async_accept([this, number](beast::error_code error, HttpConnection::Socket socket) {
            if (m_stopping) return;
            if (error) {
                acceptLater(number, error);
                return;
            }
            Listener& from = *m_listeners[number];
            ++from.accepted;
            welcome(std::make_shared<HttpConnection>(std::move(socket), number,
                                                     from.secure ? m_options.certificates->current() : nullptr, *this));
            accept(number);
        });
    }

    void welcome(const Waiter& connection) {
        const HttpIdentity& identity = connection->identity();
        const std::size_t mine = connectionsOf(identity.key);
        if (mine >= m_options.connectionsPerIdentity && !closeIdleOf(identity.key)) {
            connection->turnAway(HttpLimit::UserConnections);
            return;
        }
        if (m_connections.size() >= room(identity) && !makeRoom(identity.key)) {
            connection->turnAway(HttpLimit::Connections);
            return;
        }
        ++m_accounts[identity.key].connections;
        m_connections.insert(connection.get());
        ++m_listeners[connection->listener()]->open;
        m_count.store(m_connections.size(), std::memory_order_relaxed);
        connection->start();
    }

    /// A connection of that account less.
    void leave(const std::string& key) {
        const auto account = m_accounts.find(key);
        if (--account->second.connections == 0) m_accounts.erase(account);
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

    void beat() {
        m_beat();
        m_beatTimer.expires_after(m_beatPause);
        m_beatTimer.async_wait([this](beast::error_code cancelled) {
            if (!cancelled && !m_finishing) beat();
        });
    }

    void beginChange(const HttpServerOptions& options) {
        HttpServerOptions next = options;
        next.listen = m_options.listen;
        next.handed = m_options.handed;
        next.socketGroup = m_options.socketGroup;
        next.certificates = m_options.certificates;
        m_options = std::move(next);
        m_bodies.setLimits(bodyLimits(m_options));
        const auto limits = laneLimits(m_options);
        for (std::size_t number = 0; number < httpLaneCount; ++number) {
            m_lanes[number].turns.setLimits(limits[number]);
            m_lanes[number].workers.allow(limits[number].inAll);
        }
        // There may be more than those who wait were waiting for.
        grantBodies();
        for (Lane& lane : m_lanes)
            grantTurns(lane.turns);
    }

    void acceptLater(std::size_t number, beast::error_code error) {
        Listener& listener = *m_listeners[number];
        logMessage(1, "QORAgent", QOR_SOURCE_PATH, "accept", "cannot accept a connection: %s", error.message().c_str());
        makeRoom({});
        listener.pause.expires_after(acceptPause);
        listener.pause.async_wait([this, number](beast::error_code cancelled) {
            if (!cancelled && !m_stopping) accept(number);
        });
    }

    void beginStop() {
        if (m_stopping) {
            abandon();
            return;
        }
        m_stopping = true;
        for (const auto& listener : m_listeners) {
            beast::error_code ignored;
            listener->acceptor.close(ignored);
            listener->pause.cancel();
        }
        m_graceTimer.expires_after(m_options.grace);
        m_graceTimer.async_wait([this](beast::error_code cancelled) {
            if (!cancelled) abandon();
        });
        logMessage(2, "QORAgent", QOR_SOURCE_PATH, "stop", "stopping; %zu requests are in flight", m_inFlight);
        for (HttpConnection* connection : connectionsNow())
            connection->endFollowing();
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
            m_beatTimer.cancel();
            while (!m_connections.empty())
                (*m_connections.begin())->close();
            m_calls.close();
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
        logMessage(1, "QORAgent", QOR_SOURCE_PATH, "stop", "%zu requests are told to end", m_inFlight);
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
        logMessage(0, "QORAgent", QOR_SOURCE_PATH, "stop", "%zu requests are given up", m_inFlight);
        m_abandoned = true;
        m_io.stop();
    }

    HttpServerOptions m_options;
    HttpApplication& m_application;
    // The workers go first: what they still hold of a connection posts to m_calls.
    net::io_context m_io{1};
    LoopCalls m_calls{m_io};
    FairQueue<BodyWaiter> m_bodies;
    std::array<Lane, httpLaneCount> m_lanes;
    std::vector<std::unique_ptr<Listener>> m_listeners;
    std::vector<QORAgentAddress> m_addresses;  // of the listeners, in their order
    net::steady_timer m_graceTimer;
    net::steady_timer m_waitingTimer;
    net::steady_timer m_beatTimer;
    net::executor_work_guard<net::io_context::executor_type> m_work;
    std::unordered_set<HttpConnection*> m_connections;  // each keeps itself alive
    std::map<std::string, Account> m_accounts;          // of identities that have connections
    std::unordered_map<HttpConnection*, std::list<HttpConnection*>::iterator> m_idle;
    std::atomic<std::size_t> m_count{0};
    std::size_t m_inFlight = 0;
    HttpCounts m_counts;  // what is counted up; the rest is looked at when it is asked for
    std::optional<std::chrono::steady_clock::time_point> m_failureTold;
    std::chrono::milliseconds m_beatPause{};
    std::function<void()> m_beat;
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

void HttpServer::setBeat(std::chrono::milliseconds pause, std::function<void()> beat) {
    m_impl->setBeat(pause, std::move(beat));
}

void HttpServer::change(const HttpServerOptions& options) {
    m_impl->change(options);
}

const std::vector<QORAgentAddress>& HttpServer::addresses() const noexcept {
    return m_impl->addresses();
}

std::size_t HttpServer::connections() const noexcept {
    return m_impl->connections();
}

HttpCounts HttpServer::counts() const {
    return m_impl->counts();
}

}  // namespace QOR
