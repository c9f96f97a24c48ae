/// \file
/// Requests and replies as the agent's application sees them, free of the HTTP library.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace QOR {

/// The process at the other end of a local connection, as the system vouches for it.
struct HttpPeerCredentials {
    pid_t pid;
    uid_t uid;
    gid_t gid;
};

/// A request that has been read whole. Views are valid during the call that is handed the request.
struct HttpRequest {
    std::string_view method;
    std::string_view path;   ///< before '?'
    std::string_view query;  ///< behind it
    std::string_view body;
};

struct HttpReply {
    unsigned status = 200;
    std::string body;
    std::string contentType = "application/json";
    std::string allow{};  ///< value of the header Allow; empty: none
};

/// The application's side of one connection. Made when the connection is accepted and destroyed when it has closed;
/// both, and every call, happen on worker threads, one at a time.
class HttpClientHandler {
public:
    virtual ~HttpClientHandler();
    /// Answers a request; may take its time. What it throws becomes a reply 500.
    virtual HttpReply handle(const HttpRequest& request) = 0;

protected:
    HttpClientHandler() = default;
};

/// What a server serves. Thread-safe.
class HttpApplication {
public:
    virtual ~HttpApplication();
    /// \param peer empty when the system does not tell who it is
    virtual std::unique_ptr<HttpClientHandler> connect(const std::optional<HttpPeerCredentials>& peer) = 0;
    /// The body of a reply that the server itself gives (an error of the protocol, a refusal).
    virtual std::string errorBody(unsigned status, std::string_view message) = 0;

protected:
    HttpApplication() = default;
};

}  // namespace QOR
