/// \file
/// Requests and replies as the agent's application sees them, free of the HTTP library.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORMemory.h"

namespace QOR {

/// The process at the other end of a local connection, as the system vouches for it.
struct HttpPeerCredentials {
    pid_t pid;
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups{};  ///< all that it is in, gid among them
};

/// Who is at the other end of a connection, before he has said anything.
struct HttpPeer {
    std::optional<HttpPeerCredentials> credentials{};  ///< of a local connection, when the system tells
    bool overTcp = false;                              ///< the system vouches for nobody
    std::string address{};                             ///< over TCP, in digits, without its port
    bool secure = false;                               ///< over TLS
    std::string certificate{};                         ///< then, the common name of the verified one that he has shown
};

/// On whose account a connection is: limits are counted and turns are taken by it.
struct HttpIdentity {
    std::string key;        ///< equal for connections that share their limits: "uid:1000", "address:192.0.2.7"
    bool reserved = false;  ///< may also use the connections that are kept free for those who look after the agent
};

/// One field of a request's head.
struct HttpField {
    std::string_view name;  ///< as it was spelled
    std::string_view value;
};

/// Fields of a reply's head, in their order: names and values.
using HttpFields = std::vector<std::pair<std::string, std::string>>;

/// A reply that leaves while it is made. Used by the thread that handles the request, during the call.
class HttpReplyStream {
public:
    /// What the head says; before the first piece. Unless told, the stream is JSON.
    virtual void describe(std::string contentType, HttpFields fields = {}) = 0;
    /// Sends a piece of the body; the first piece sends the head, status 200, before it. Waits while the client takes
    /// nothing, within the server's limits. \returns false when the client has gone: nothing is sent any more
    virtual bool send(std::string_view piece) = 0;

protected:
    ~HttpReplyStream() = default;
};

/// What the application has found out of who asks, from plan() to handle().
struct HttpRequester {
    HttpRequester() = default;
    HttpRequester(const HttpRequester&) = default;
    HttpRequester& operator=(const HttpRequester&) = default;
    virtual ~HttpRequester();
};

/// What the application keeps of one request: made in plan(), written while it is handled, read in ended(). By one
/// thread at a time.
struct HttpTrace {
    HttpTrace() = default;
    HttpTrace(const HttpTrace&) = delete;
    HttpTrace& operator=(const HttpTrace&) = delete;
    virtual ~HttpTrace();
};

/// What became of a request.
struct HttpEnd {
    enum class How : std::uint8_t {
        Answered,   ///< the whole reply has left
        BrokenOff,  ///< the application could not end a reply that had begun
        Gone,       ///< the client left, or took nothing any more, before the end
    };
    How how = How::Answered;
    unsigned status = 0;                ///< of the reply; 0: there was none
    std::size_t bytes = 0;              ///< of the reply's body, as they went over the wire
    std::chrono::microseconds time{0};  ///< since its head had been read
};

/// A request. Views are valid during the call that is handed the request.
struct HttpRequest {
    std::string_view method;
    std::string_view path;   ///< before '?'
    std::string_view query;  ///< behind it
    std::string_view body{};
    std::span<const HttpField> fields{};
    const HttpRequester* requester = nullptr;  ///< from the request's plan
    HttpTrace* trace = nullptr;                ///< likewise; while it is handled
    HttpReplyStream* stream = nullptr;  ///< for a reply that is not to be in memory as a whole; while it is handled

    /// The first field of that name, which is matched without regard to case; empty when there is none.
    std::string_view field(std::string_view name) const noexcept;
};

struct HttpReply {
    unsigned status = 200;
    std::string body;
    std::string contentType = "application/json";
    std::string allow{};         ///< value of the header Allow; empty: none
    unsigned retryAfter = 0;     ///< seconds, value of the header Retry-After; 0: none
    std::string authenticate{};  ///< value of the header WWW-Authenticate; empty: none
    QORMemoryCharge memory{};    ///< what the body counts for, until it is sent
    HttpFields fields{};         ///< further ones of the head
    bool revalidated = false;    ///< what a client may keep and ask again for: it gets a tag, and 304 if it has it
};

/// Workers that a request waits for. What waits for one lane does not hold up another.
enum class HttpLane : std::uint8_t {
    Reading,    ///< asks only
    Writing,    ///< stores something, and may wait for others that do
    Streaming,  ///< asks for an answer of any size, which its client may take slowly
    Following,  ///< goes on until its client leaves; never waits for its turn, but is turned down at once
};
constexpr std::size_t httpLaneCount = 4;

/// What becomes of a request, decided from its head.
struct HttpPlan {
    HttpLane lane = HttpLane::Reading;
    std::optional<HttpReply> reply{};    ///< given in place of asking a handler; the body is not looked at
    std::chrono::milliseconds delay{0};  ///< before that reply, which holds up nobody else
    std::shared_ptr<const HttpRequester> requester{};  ///< for the handler
    std::shared_ptr<HttpTrace> trace{};                ///< likewise, and for ended()
    std::string account{};  ///< whose the connection is from here on, see HttpIdentity::key; empty: its peer's
};

/// The application's side of one connection. Made when the connection is accepted and destroyed when it has closed;
/// both, and every call, happen on worker threads, one at a time.
class HttpClientHandler {
public:
    virtual ~HttpClientHandler();
    /// Answers a request; may take its time. What it throws becomes a reply 500. Once a piece was sent through the
    /// request's stream, the reply that is returned only ends it; an exception or another status than 200 then breaks
    /// the connection, so that what was sent cannot be taken for all of it.
    virtual HttpReply handle(const HttpRequest& request) = 0;

protected:
    HttpClientHandler() = default;
};

/// What a server serves. Thread-safe.
class HttpApplication {
public:
    virtual ~HttpApplication();
    virtual std::unique_ptr<HttpClientHandler> connect(const HttpPeer& peer) = 0;
    /// Whose a connection is; as often as it is asked the same for the same peer. Called on the server's thread. Unless
    /// it is told otherwise: its user's, or over TCP its address's, for IPv6 its network's, whose addresses one client
    /// may have all of.
    virtual HttpIdentity identify(const HttpPeer& peer);
    /// Where a request goes, or its reply when that takes no time: a refusal, what is known without asking anybody.
    /// Called on the server's thread, which serves everybody: must not wait for anything.
    /// \param head the request without its body
    virtual HttpPlan plan(const HttpRequest& head, const HttpPeer& peer);
    /// A reply that the server itself gives: an error of the protocol, a refusal.
    virtual HttpReply errorReply(unsigned status, std::string_view message) = 0;

    /// A request is over: called on the server's thread, which must not wait. Also for what is refused because it is no
    /// HTTP, or because the server is stopping.
    /// \param trace null where plan() was not asked, or made none
    virtual void ended(const HttpEnd& end, const HttpPeer& peer, HttpTrace* trace);

protected:
    HttpApplication() = default;
};

}  // namespace QOR
