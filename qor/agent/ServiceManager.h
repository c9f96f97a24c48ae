/// \file
/// What the agent tells the service manager that started it, and what it gets from it.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "agent/http/HttpServer.h"

namespace QOR {

/// The service manager's side of the process, by the protocols of systemd. Where none has started it, nothing is told
/// and nothing is got. Thread-safe, but for takeSockets().
class ServiceManager {
public:
    /// Clients may come. \param status a line that says how it is; of a long one the beginning is told
    static void ready(const std::string& status);
    /// Settings are being read anew; ready() ends it.
    static void reloading();
    static void stopping();
    /// The thread that serves clients is alive.
    static void alive();
    /// How often alive() is to be said at least; nothing where nobody listens for it.
    static std::optional<std::chrono::milliseconds> watchdogPause();

    /// Sockets that were opened for it and listen already, with where they do. At most once, before the first thread;
    /// they are the caller's then. \throws QORException errFailure for one that does not listen to clients' streams
    static std::vector<HttpHandedSocket> takeSockets();
};

}  // namespace QOR
