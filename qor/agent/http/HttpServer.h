/// \file
/// HTTP/1.1 over a unix stream socket.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>

#include "agent/http/HttpTypes.h"

namespace QOR {

struct HttpServerOptions {
    std::filesystem::path socketPath;
    std::size_t threads = 16;                                            ///< requests that are answered at once
    std::size_t bodyLimit = std::size_t{64} << 20;                       ///< bytes of a request's body
    std::size_t headerLimit = std::size_t{16} << 10;                     ///< bytes of a request's line and headers
    std::size_t maxConnections = 1024;                                   ///< more wait in the system's queue
    std::chrono::milliseconds idleTimeout = std::chrono::hours(1);       ///< between requests
    std::chrono::milliseconds headerTimeout = std::chrono::seconds(30);  ///< from a request's first byte to its body
    std::chrono::milliseconds bodyTimeout = std::chrono::seconds(30);    ///< without a byte of the body arriving
    std::chrono::milliseconds writeTimeout = std::chrono::seconds(60);   ///< without a byte of the reply taken
    std::chrono::milliseconds deadline = std::chrono::seconds(30);       ///< for an answer, from the whole request on
    std::chrono::milliseconds grace = std::chrono::seconds(30);  ///< for requests in flight when the server stops
};

/// A server. One thread does all reading and writing, so a slow client holds up nobody; requests run on worker
/// threads, so a slow request holds up neither other clients nor the acceptance of new ones. The requests of one
/// connection are answered one after the other, in order, whether the client waits for the answers or not.
class HttpServer {
public:
    /// Takes the socket; clients may connect from now on and are served by run().
    /// \param application must outlive the server
    /// \throws QORException errFailure when the socket cannot be had
    HttpServer(const HttpServerOptions& options, HttpApplication& application);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Serves until stop() has been called and what was in flight is answered; then every handler is gone, and so is
    /// the socket's name. Replies that are not taken within the grace are dropped. \returns false when a request still
    /// ran at the end of the grace: a worker thread may then still be in it, and the process should end without
    /// waiting for it
    bool run();

    /// No new connections; requests that run are finished and answered, later ones on open connections get 503. From
    /// the second call on nothing is waited for. Any thread may call it.
    void stop();

    /// Open connections. Any thread.
    std::size_t connections() const noexcept;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
