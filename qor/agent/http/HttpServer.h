/// \file
/// HTTP/1.1 over unix sockets, TCP and TLS.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "QORCommon/QORAgentAddress.h"
#include "agent/http/HttpCertificates.h"
#include "agent/http/HttpLimits.h"
#include "agent/http/HttpOrigins.h"
#include "agent/http/HttpTypes.h"

namespace QOR {

/// A socket that somebody else has opened, and that listens. A value; whoever is given it closes it.
struct HttpHandedSocket {
    QORAgentAddress address{};
    int descriptor = -1;
};

struct HttpServerOptions {
    std::vector<QORAgentAddress> listen{};   ///< all of these at once
    std::vector<HttpHandedSocket> handed{};  ///< those of them that somebody else has opened
    std::string socketGroup{};  ///< whose members may connect to unix sockets; empty: these keep the process's group
    std::shared_ptr<HttpCertificates> certificates{};  ///< shared with who has them read anew; needed for https
    HttpOrigins origins{};                             ///< of web pages that may ask

    std::size_t threads = 16;              ///< requests that are answered at once
    std::size_t writers = 4;               ///< requests of the writing lane, beside those
    std::size_t streams = 8;               ///< answers of any size that are made at once, beside those
    std::size_t followers = 64;            ///< requests that go on until their clients leave, beside those
    std::size_t requestsPerIdentity = 0;   ///< of one identity that are answered at once; 0: half of them
    std::size_t streamsPerIdentity = 0;    ///< likewise
    std::size_t followersPerIdentity = 0;  ///< likewise
    std::size_t waitingPerIdentity = 256;  ///< of one identity that wait for their turn; more are turned down
    std::size_t waiting = 1024;            ///< in all that wait for their turn

    std::size_t maxConnections = 1024;         ///< for a further one an idle one is closed, or it is turned away
    std::size_t connectionsPerIdentity = 512;  ///< of one identity
    std::size_t reservedConnections = 32;      ///< of maxConnections, kept for identities that may use them

    std::size_t headerLimit = std::size_t{16} << 10;                ///< bytes of a request's line and headers
    std::size_t bodyLimit = std::size_t{64} << 20;                  ///< bytes of a request's body
    std::size_t freeBody = std::size_t{64} << 10;                   ///< up to here a body needs no permission
    std::size_t bodyMemory = std::size_t{256} << 20;                ///< bytes of larger bodies in all, until answered
    std::size_t bodyMemoryPerIdentity = std::size_t{128} << 20;     ///< of one identity
    std::chrono::milliseconds bodyWait = std::chrono::seconds(30);  ///< for that memory

    std::chrono::milliseconds handshakeTimeout = std::chrono::seconds(10);  ///< of TLS
    std::chrono::milliseconds idleTimeout = std::chrono::hours(1);          ///< between requests
    std::chrono::milliseconds headerTimeout = std::chrono::seconds(30);     ///< from a request's first byte to its body
    std::chrono::milliseconds bodyTimeout = std::chrono::seconds(10);       ///< spans in which a body is measured
    std::size_t bodyRate = std::size_t{16} << 10;  ///< bytes a second that each span brings, or the body's end
    std::chrono::milliseconds writeTimeout = std::chrono::seconds(60);  ///< without a byte of the reply taken
    std::chrono::milliseconds deadline = std::chrono::seconds(30);  ///< for an answer, from the whole request on; one
                                                                    ///< that waits so long for its turn is not run
    std::chrono::milliseconds grace = std::chrono::seconds(30);     ///< for requests in flight when the server stops
};

/// A server. One thread does all reading and writing, so a slow client holds up nobody; requests run on worker
/// threads, so a slow request holds up neither other clients nor the acceptance of new ones. The requests of one
/// connection are answered one after the other, in order, whether the client waits for the answers or not.
///
/// Clients share by identity, not by connection: identities take turns for workers and for the memory of large bodies,
/// none may have all of either, and when there are too many connections the longest idle one of whoever has the most
/// is closed. What finds no room is answered 503, or 429 where it is the identity's own doing, with Retry-After.
class HttpServer {
public:
    /// Takes the sockets; clients may connect from now on and are served by run().
    /// \param application must outlive the server
    /// \throws QORException errFailure when one of the sockets cannot be had; none is taken then
    HttpServer(const HttpServerOptions& options, HttpApplication& application);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Serves until stop() has been called and what was in flight is answered; then every handler is gone, and so are
    /// the sockets' names. At the end of the grace requests that still run are told to end, and replies that are not
    /// taken are dropped. \returns false when a request does not listen: a worker thread may then still be in it, and
    /// the process should end without waiting for it
    bool run();

    /// No new connections; requests that run are finished and answered, those that follow are told to end, later ones
    /// on open connections get 503. The second call ends the grace, the third waits for nothing. Any thread may call
    /// it.
    void stop();

    /// Has the thread that serves clients say so, again and again. Before run().
    void setBeat(std::chrono::milliseconds pause, std::function<void()> beat);

    /// Takes other limits, times and origins: what is accepted, read, run and sent from now on goes by them; a
    /// connection that waits for a request reads the headers of that one by the limit that it waits with. Where it
    /// listens, whose group the sockets have and what certificates it shows stay. Any thread.
    void change(const HttpServerOptions& options);

    /// Where it listens, in the order of the options, with the ports that were taken. Any thread.
    const std::vector<QORAgentAddress>& addresses() const noexcept;

    /// Open connections. Any thread.
    std::size_t connections() const noexcept;
    /// The server's own thread: while it asks the application.
    HttpCounts counts() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
