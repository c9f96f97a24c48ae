/// \file
/// One connection of the HTTP server. Included by HttpServer.cpp alone: the HTTP library is expensive to compile.
#pragma once

#include <netdb.h>
#include <openssl/err.h>
#include <openssl/sslerr.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_suffix.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/string.hpp>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORSourcePath.h"
#include "agent/http/HttpHead.h"
#include "agent/http/HttpLimits.h"
#include "agent/http/HttpNegotiation.h"
#include "agent/http/HttpOutgoing.h"
#include "agent/http/HttpRequestReader.h"
#include "agent/http/HttpServer.h"
#include "agent/http/HttpTransport.h"
#include "agent/http/LoopCalls.h"
#include "agent/http/WorkerPool.h"
#include "gzip/HttpGzip.h"

namespace QOR {

class HttpConnection;

/// What a connection needs of its server. Called on the server's own thread.
class HttpConnectionOwner {
public:
    virtual const HttpServerOptions& options() const = 0;
    virtual HttpApplication& application() = 0;
    virtual bool isStopping() const = 0;
    /// A request is being answered, from here to requestEnded().
    virtual void requestBegan() = 0;
    virtual void requestEnded() = 0;
    virtual void connectionClosed(HttpConnection& connection) = 0;
    /// A client that is no use to the server, nor the server to it: a line in the log, now and then.
    virtual void connectionFailed(const HttpConnection& connection, const std::string& why) = 0;
    /// A client has met one of its limits.
    virtual void limitMet(HttpLimit limit) = 0;
    /// After how many seconds a request that was not taken has a turn, by how long those before it take.
    virtual unsigned secondsUntilTurn(HttpLane lane) const = 0;

    /// The connection waits for a request, and may be closed to make room; until it is busy.
    /// \param first before all others: nobody loses anything by it
    virtual void connectionIdle(HttpConnection& connection, bool first) = 0;
    virtual void connectionBusy(HttpConnection& connection) = 0;
    /// The connection counts as another's from now on. \returns false when that one has as many as he may
    virtual bool connectionBelongs(HttpConnection& connection, const std::string& key) = 0;

    /// Memory for a body: bodyGranted() is called as soon as there is enough, bodyExpired() when it takes too long.
    /// \returns false when too many wait already
    virtual bool awaitBodyMemory(HttpConnection& connection, std::size_t bytes) = 0;
    /// More of it at once, or false.
    virtual bool takeBodyMemory(const HttpConnection& connection, std::size_t bytes) = 0;
    virtual void giveBodyMemory(const HttpConnection& connection, std::size_t bytes) = 0;

    /// A worker for a request: turnGranted() or turnExpired() follows, unless there is no room to wait.
    virtual std::optional<HttpLimit> awaitTurn(HttpConnection& connection, HttpLane lane) = 0;
    /// \param taken how long the turn has lasted
    virtual void giveTurn(const HttpConnection& connection, HttpLane lane,
                          std::chrono::steady_clock::duration taken) = 0;
    virtual WorkerPool& workers(HttpLane lane) = 0;
    /// Of workers to the server's thread.
    virtual LoopCalls& calls() = 0;
    /// Neither of the two is waited for any more.
    virtual void stopWaiting(HttpConnection& connection) = 0;

protected:
    ~HttpConnectionOwner() = default;
};

/// Reads a request, has a worker answer it, writes the reply, and begins again. Everything but the answering happens
/// on the server's thread. Lives as long as an operation of it is under way.
class HttpConnection : public std::enable_shared_from_this<HttpConnection> {
public:
    using Socket = HttpTransport::Protocol::socket;

    /// \param listener the owner's number of where the client came \param tls null: none is spoken
    HttpConnection(Socket socket, std::size_t listener, HttpTransport::Context tls, HttpConnectionOwner& owner)
        : m_owner(owner),
          m_listener(listener),
          m_stream(std::move(socket), std::move(tls)),
          m_peer(peerOf(m_stream.socket().native_handle(), m_stream.isSecure())),
          m_identity(owner.application().identify(m_peer)),
          m_peerKey(m_identity.key),
          m_input(firstRead) {}

    const HttpPeer& peer() const noexcept { return m_peer; }
    std::size_t listener() const noexcept { return m_listener; }
    const HttpIdentity& identity() const noexcept { return m_identity; }
    /// The owner's, who counts.
    void setAccount(std::string key) { m_identity.key = std::move(key); }

    /// Answers that there is no room, as far as the client takes it at once, and ends. In place of start(). A client
    /// that speaks TLS is not answered: to be heard by it, a handshake would have to find room.
    void turnAway(HttpLimit limit) {
        m_owner.limitMet(limit);
        const HttpLimitAnswer told = answerTo(limit, m_owner.options());
        if (!m_stream.isSecure())
            sendPlain(std::to_string(told.status) +
                          (told.status == 429 ? " Too Many Requests" : " Service Unavailable") +
                          "\r\nRetry-After: " + std::to_string(m_owner.secondsUntilTurn(HttpLane::Reading)),
                      m_owner.application().errorReply(told.status, told.message));
        m_closed = true;
        beast::error_code ignored;
        m_stream.socket().close(ignored);
    }

    void start() {
        watchPeer();
        if (m_stream.isSecure()) {
            shakeHands();
        } else {
            awaitRequest();
        }
    }

    /// True while a worker's reply is being sent, and the worker is not yet done.
    bool isStreaming() const noexcept { return m_working && m_streaming; }

    /// Ends the connection, whatever it is doing; a request that a worker runs is told to end.
    void close() {
        if (m_closed) return;
        m_closed = true;
        if (m_control) m_control->cancel(QORRequestControl::End::Gone);
        m_outgoing.close();
        beast::error_code ignored;
        m_stream.socket().close(ignored);
        m_stream.cancel();
        m_delay.reset();
        m_owner.stopWaiting(*this);
        if (!m_working) {
            dropRequest();
            dropHandler();
            tellEnd(m_broken ? HttpEnd::How::BrokenOff : HttpEnd::How::Gone);
        }
        if (std::exchange(m_counted, false)) m_owner.requestEnded();
        m_owner.connectionClosed(*this);
    }

    /// Tells a request that waits or is worked on to end: its client is answered so, as far as it listens.
    void endRequest() {
        if (m_closed || !m_control) return;
        m_control->cancel(QORRequestControl::End::Stopping);
        if (m_working) return;
        m_owner.stopWaiting(*this);
        turnDown("the agent is stopping");
    }

    /// The same for a request that would never end by itself.
    void endFollowing() {
        if (m_plan.lane == HttpLane::Following) endRequest();
    }

    // ---- What the owner calls when something that was waited for has come, or has not.
    void bodyGranted(std::size_t bytes) {
        m_bodyMemory += bytes;
        m_reader->reserveBody(m_bodyMemory);
        sendContinue();
    }
    void bodyExpired() { end(limited(HttpLimit::BodyMemory)); }
    void turnGranted() {
        m_working = true;
        m_turnBegan = std::chrono::steady_clock::now();
        m_owner.workers(m_plan.lane).post([self = shared_from_this()] {
            self->m_answer = self->answer();
            self->m_owner.calls().post([self] { self->onAnswered(std::exchange(self->m_answer, std::nullopt)); });
        });
    }
    void turnExpired() { end(limited(m_plan.lane == HttpLane::Streaming ? HttpLimit::Streams : HttpLimit::Deadline)); }

private:
    static constexpr std::size_t firstRead = std::size_t{8} << 10;
    static constexpr std::size_t bodyRead = std::size_t{64} << 10;
    static constexpr auto lingerTime = std::chrono::seconds(5);
    static constexpr unsigned stoppingTime = 5;  // seconds, until another one may have begun

    /// The first byte of a client that speaks TLS, and of no request.
    static constexpr char tlsRecord = 0x16;

    static HttpPeer peerOf(int fd, bool secure) {
        int domain = 0;
        socklen_t size = sizeof domain;
        const bool local = ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX;
        HttpPeer peer;
        peer.overTcp = !local;
        peer.secure = secure;
        if (local) peer.credentials = credentialsOf(fd);
        if (!local) peer.address = addressOf(fd);
        return peer;
    }

    static std::optional<HttpPeerCredentials> credentialsOf(int fd) {
        ucred peer{};
        socklen_t size = sizeof peer;
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || size != sizeof peer) return std::nullopt;
        return HttpPeerCredentials{peer.pid, peer.uid, peer.gid, groupsOf(fd, peer.gid)};
    }

    static std::vector<gid_t> groupsOf(int fd, gid_t own) {
        std::vector<gid_t> groups(64);
        socklen_t size = 0;
        for (bool fits = false; !fits;) {
            size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
            fits = ::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0;
            if (!fits && errno != ERANGE) size = 0;
            if (!fits && errno != ERANGE) break;
            groups.resize(std::max<std::size_t>(groups.size(), size / sizeof(gid_t)));
        }
        groups.resize(size / sizeof(gid_t));
        groups.push_back(own);
        return groups;
    }

    /// Nothing of a client that has gone already.
    static std::string addressOf(int fd) {
        sockaddr_storage peer{};
        socklen_t size = sizeof peer;
        char host[NI_MAXHOST];
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0 ||
            ::getnameinfo(reinterpret_cast<const sockaddr*>(&peer), size, host, sizeof host, nullptr, 0,
                          NI_NUMERICHOST) != 0)
            return {};
        return host;
    }

    // ---- the beginning ------------------------------------------------------------------------------------------
    void shakeHands() {
        m_stream.expires_after(m_owner.options().handshakeTimeout);
        m_stream.async_handshake([self = shared_from_this()](beast::error_code error) {
            if (!self->m_closed) self->onHandsShaken(error);
        });
    }

    void onHandsShaken(beast::error_code error) {
        if (!error) {
            m_peer.certificate = m_stream.clientName();
            awaitRequest();
            return;
        }
        const bool isHttp = error.category() == net::error::get_ssl_category() &&
                            ERR_GET_REASON(static_cast<unsigned long>(error.value())) == SSL_R_HTTP_REQUEST;
        m_owner.connectionFailed(*this, isHttp ? "it speaks http at an address for https" : handshakeFault(error));
        if (!isHttp) {
            close();
            return;
        }
        sendPlain("400 Bad Request", m_owner.application().errorReply(400, "https is spoken here, not http"));
        lingerRaw();
    }

    std::string handshakeFault(beast::error_code error) {
        noteTimeout(error, HttpLimit::HandshakeTime);
        if (error == beast::error::timeout) return "its handshake took too long";
        return "no handshake with it: " + error.message();
    }

    void noteTimeout(beast::error_code error, HttpLimit limit) {
        if (error == beast::error::timeout) m_owner.limitMet(limit);
    }

    /// As far as the client takes it at once, and past TLS.
    void sendPlain(const std::string& status, const HttpReply& reply) {
        const std::string answer = "HTTP/1.1 " + status +
                                   "\r\nServer: qor-agent\r\nConnection: close\r\nContent-Type: " + reply.contentType +
                                   "\r\nContent-Length: " + std::to_string(reply.body.size()) + "\r\n\r\n" + reply.body;
        [[maybe_unused]] const ssize_t sent =
            ::send(m_stream.socket().native_handle(), answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    /// A completion handler that keeps the connection alive.
    template <class Function>
    auto then(Function function) {
        return [self = shared_from_this(), function](beast::error_code error, std::size_t size) {
            if (!self->m_closed) ((*self).*function)(error, size);
        };
    }

    /// A client that is gone for good, not one that only sends no more, ends what runs for it. The reactor may hand an
    /// event of a connection that was closed to one that was accepted in its place, so the system is asked.
    void watchPeer() {
        m_stream.socket().async_wait(net::socket_base::wait_error,
                                     [self = shared_from_this()](beast::error_code error) {
                                         if (error || self->m_closed) return;
                                         if (!self->peerHasGone()) {
                                             self->watchPeer();
                                             return;
                                         }
                                         self->m_peerGone = true;
                                         if (self->m_control) self->close();
                                     });
    }

    bool peerHasGone() {
        pollfd peer{m_stream.socket().native_handle(), 0, 0};
        return ::poll(&peer, 1, 0) > 0 && (peer.revents & (POLLHUP | POLLERR)) != 0;
    }

    // ---- reading ------------------------------------------------------------------------------------------------
    void awaitRequest() {
        m_reader.emplace(m_owner.options().headerLimit, m_owner.options().bodyLimit);
        m_version = 11;
        m_bodyless = false;
        m_originFields.clear();
        if (m_begin < m_end) {
            beginHead();
            return;
        }
        m_input.resize(firstRead);
        m_input.shrink_to_fit();
        // The first byte of a request may be long in coming; what follows it may not.
        m_idle = true;
        m_owner.connectionIdle(*this, false);
        m_stream.expires_after(m_owner.options().idleTimeout);
        read();
    }

    /// Reads on into the input, which has been used up.
    void read() {
        m_begin = m_end = 0;
        m_stream.async_read_some(net::buffer(m_input), then(&HttpConnection::onRead));
    }

    void onRead(beast::error_code error, std::size_t size) {
        if (error) {
            onReadFailed(error);
            return;
        }
        m_end = size;
        if (std::exchange(m_idle, false)) {
            m_owner.connectionBusy(*this);
            beginHead();
        } else {
            readOn();
        }
    }

    /// A client that says goodbye is given one too, as TLS wants it.
    void onReadFailed(beast::error_code error) {
        const bool inBody = m_reader->state() == HttpRequestReader::State::Body;
        noteTimeout(error, m_idle ? HttpLimit::IdleTime : inBody ? HttpLimit::BodyRate : HttpLimit::HeaderTime);
        if (error != net::error::eof || !m_stream.isSecure()) {
            close();
            return;
        }
        if (std::exchange(m_idle, false)) m_owner.connectionBusy(*this);
        dropRequest();
        beginLinger();
    }

    void beginHead() {
        if (m_input[m_begin] == tlsRecord && m_reader->isEmpty()) {
            m_owner.connectionFailed(*this, "it speaks TLS where none is spoken");
            close();
            return;
        }
        m_stream.expires_after(m_owner.options().headerTimeout);
        readOn();
    }

    /// Takes what has been read, and reads more while the request is not complete.
    void readOn() {
        const std::size_t size =
            m_reader->take(std::string_view(m_input.data(), m_input.size()).substr(m_begin, m_end - m_begin));
        m_begin += size;
        switch (m_reader->state()) {
            case HttpRequestReader::State::Failed:
                noteRefused(m_reader->failure().status);
                refuse(m_reader->failure().status, m_reader->failure().message);
                break;
            case HttpRequestReader::State::HeadDone:
                onHead();
                break;
            case HttpRequestReader::State::Done:
                dispatch();
                break;
            case HttpRequestReader::State::Body:
                onBody(size);
                break;
            case HttpRequestReader::State::Head:
                read();
                break;
        }
    }

    void noteRefused(unsigned status) {
        if (status == 431) m_owner.limitMet(HttpLimit::HeaderBytes);
        if (status == 413) m_owner.limitMet(HttpLimit::BodyLimit);
    }

    void onHead() {
        m_version = m_reader->version();
        m_keepAlive = m_reader->keepAlive();
        m_bodyless = m_reader->method() == "HEAD";
        if (m_owner.isStopping()) {
            turnDown("the agent is stopping");
            return;
        }
        m_account.emplace();
        const HttpRequest head = request();
        m_originFields = m_owner.options().origins.fieldsFor(head);
        m_plan = {};
        m_plan.reply = m_owner.options().origins.preflight(head);
        if (!m_plan.reply) m_plan = plan(head);
        m_account->trace = std::move(m_plan.trace);
        const std::string& key = m_plan.account.empty() ? m_peerKey : m_plan.account;
        if (key != m_identity.key && !m_owner.connectionBelongs(*this, key)) {
            end(limited(HttpLimit::UserConnections));
            return;
        }
        const bool hasBody = !m_reader->bodyLength() || *m_reader->bodyLength() > 0;
        if (m_plan.reply) {
            count();
            m_keepAlive = m_keepAlive && !hasBody;  // what follows would be taken for a request
            dropRequest();
            writeLater(std::move(*m_plan.reply), m_plan.delay);
        } else if (hasBody) {
            prepareBody();
        } else {
            m_reader->beginBody();
            dispatch();
        }
    }

    HttpPlan plan(const HttpRequest& head) {
        try {
            return m_owner.application().plan(head, m_peer);
        } catch (const std::exception& exception) {
            logMessage(0, "QORAgent", QOR_SOURCE_PATH, "plan", "%s", exception.what());
            return {HttpLane::Reading, m_owner.application().errorReply(500, exception.what())};
        }
    }

    /// Small bodies need no permission: there are no more of them than connections.
    void prepareBody() {
        const std::string_view expectation = request().field("expect");
        m_expectsContinue = !expectation.empty() && m_version == 11;
        if (m_expectsContinue && !beast::iequals({expectation.data(), expectation.size()}, "100-continue")) {
            refuse(417, "only \"100-continue\" can be expected");
            return;
        }
        const std::uint64_t length = m_reader->bodyLength().value_or(0);
        // The reader has the limit of when it was made.
        if (const std::size_t limit = m_owner.options().bodyLimit; length > limit) {
            noteRefused(413);
            refuse(413, HttpRequestReader::tooLargeBody(limit));
            return;
        }
        if (length <= m_owner.options().freeBody) {
            sendContinue();
        } else if (!m_owner.awaitBodyMemory(*this, static_cast<std::size_t>(length))) {
            end(limited(HttpLimit::BodyMemory));
        }
    }

    void sendContinue() {
        if (m_expectsContinue && m_begin == m_end) {
            static constexpr std::string_view goOn = "HTTP/1.1 100 Continue\r\n\r\n";
            net::async_write(m_stream, net::buffer(goOn), then(&HttpConnection::onContinueWritten));
        } else {
            beginBody();
        }
    }

    void onContinueWritten(beast::error_code error, std::size_t) {
        if (error) {
            close();
        } else {
            beginBody();
        }
    }

    void beginBody() {
        m_reader->beginBody();
        if (m_begin == m_end) m_input.resize(bodyRead);
        beginBodySpan();
        readOn();
    }

    /// Each span of time has to bring its share of the body.
    void beginBodySpan() {
        m_spanBytes = 0;
        m_stream.expires_after(m_owner.options().bodyTimeout);
    }

    void onBody(std::size_t size) {
        if (!chargeChunked()) return;
        m_spanBytes += size;
        const auto span = std::chrono::duration<double>(m_owner.options().bodyTimeout);
        if (static_cast<double>(m_spanBytes) >= span.count() * static_cast<double>(m_owner.options().bodyRate))
            beginBodySpan();
        m_input.resize(bodyRead);
        read();
    }

    /// A body of unknown length takes memory as it grows; one that waited for it would keep what it has meanwhile.
    bool chargeChunked() {
        const std::size_t size = m_reader->body().size();
        if (m_reader->bodyLength() || size <= std::max(m_owner.options().freeBody, m_bodyMemory)) return true;
        // The limit may have become smaller while the body came.
        const std::size_t limit = std::max(m_owner.options().bodyLimit, size);
        const std::size_t more = std::min(std::max(size, m_bodyMemory), limit - m_bodyMemory);
        if (!m_owner.takeBodyMemory(*this, more)) {
            end(limited(HttpLimit::BodyMemory));
            return false;
        }
        m_bodyMemory += more;
        return true;
    }

    // ---- answering ----------------------------------------------------------------------------------------------
    void count() {
        m_counted = true;
        m_owner.requestBegan();
    }

    void dispatch() {
        if (m_owner.isStopping()) {
            refuse(503, "the agent is stopping");
            return;
        }
        // A worker may take long, and its client reads only then.
        m_stream.expires_never();
        count();
        m_control = std::make_shared<QORRequestControl>(m_owner.options().deadline);
        if (m_peerGone) {
            close();
            return;
        }
        m_outgoing.open();
        const std::optional<HttpLimit> full = m_owner.awaitTurn(*this, m_plan.lane);
        if (!full) return;
        dropRequest();
        write(limited(*full));
    }

    /// The request as far as it has been read. Views into the reader.
    HttpRequest request() const {
        const std::string_view target = m_reader->target();
        const std::size_t mark = std::min(target.find('?'), target.size());
        HttpRequest request;
        request.method = m_reader->method();
        request.path = target.substr(0, mark);
        request.query = mark < target.size() ? target.substr(mark + 1) : std::string_view();
        request.body = m_reader->body();
        request.fields = m_reader->fields();
        return request;
    }

    /// Runs on a worker. \returns nothing when a reply that had begun cannot be ended
    std::optional<HttpReply> answer() {
        const QORRequestScope scope(m_control);
        HttpRequest handled = request();
        ReplyStream stream(*this, acceptsGzip(handled));
        try {
            if (!m_handler) m_handler = m_owner.application().connect(m_peer);
            handled.stream = &stream;
            handled.requester = m_plan.requester.get();
            handled.trace = m_account->trace.get();
            HttpReply reply = m_handler->handle(handled);
            if (!stream.hasBegun()) {
                negotiate(handled, reply);
            } else if (reply.status != 200) {
                return std::nullopt;
            } else {
                stream.finish();
            }
            return reply;
        } catch (const std::exception& exception) {
            logMessage(0, "QORAgent", QOR_SOURCE_PATH, "answer", "%s", exception.what());
            if (stream.hasBegun()) return std::nullopt;
            return m_owner.application().errorReply(500, exception.what());
        }
    }

    void onAnswered(std::optional<HttpReply> reply) {
        m_working = false;
        m_owner.giveTurn(*this, m_plan.lane, std::chrono::steady_clock::now() - m_turnBegan);
        dropRequest();
        if (m_closed) {
            dropHandler();
            tellEnd(HttpEnd::How::Gone);
            return;
        }
        if (!reply) {
            m_broken = true;
            close();
        } else if (m_streaming) {
            m_streamEnds = true;
            if (!m_writingPiece) writePiece();
        } else {
            write(std::move(*reply));
        }
    }

    /// The request has been answered or given up: its memory is free.
    void dropRequest() {
        m_control.reset();
        m_reader.reset();
        if (m_bodyMemory > 0) m_owner.giveBodyMemory(*this, std::exchange(m_bodyMemory, 0));
    }

    /// Answers without asking the application, and ends the connection: its next byte may be anything.
    void refuse(unsigned status, const std::string& message) { end(m_owner.application().errorReply(status, message)); }

    /// The same when it may be tried again.
    void turnDown(const char* message) { end(again(m_owner.application().errorReply(503, message), stoppingTime)); }

    /// What has no room, for the time being.
    HttpReply limited(HttpLimit limit) const {
        m_owner.limitMet(limit);
        const HttpLimitAnswer told = answerTo(limit, m_owner.options());
        return again(m_owner.application().errorReply(told.status, told.message),
                     m_owner.secondsUntilTurn(m_plan.lane));
    }

    static HttpReply again(HttpReply reply, unsigned seconds) {
        reply.retryAfter = seconds;
        return reply;
    }

    void end(HttpReply reply) {
        m_keepAlive = false;
        if (!m_account) m_account.emplace();
        dropRequest();
        if (!m_counted) count();
        write(std::move(reply));
    }

    void writeLater(HttpReply reply, std::chrono::milliseconds delay) {
        if (delay == std::chrono::milliseconds::zero()) {
            write(std::move(reply));
            return;
        }
        m_stream.expires_never();
        // Who is kept waiting for a refusal takes nobody's room.
        m_owner.connectionIdle(*this, true);
        m_delay = std::make_unique<net::steady_timer>(m_stream.get_executor(), delay);
        m_delay->async_wait([self = shared_from_this(),
                             kept = std::make_shared<HttpReply>(std::move(reply))](beast::error_code cancelled) {
            if (cancelled || self->m_closed) return;
            self->m_owner.connectionBusy(*self);
            self->write(std::move(*kept));
        });
    }

    // ---- writing ------------------------------------------------------------------------------------------------
    void write(HttpReply reply) {
        m_keepAlive = m_keepAlive && !m_owner.isStopping();
        m_account->status = reply.status;
        if (!m_bodyless) m_account->bytes = reply.body.size();
        HttpHead head(m_frame, reply.status, m_version);
        const bool hasContent = reply.status != 204 && reply.status != 304;
        if (hasContent) head.add("Content-Type", reply.contentType);
        addFields(head, reply.fields);
        addFields(head, m_originFields);
        if (!reply.authenticate.empty()) head.add("WWW-Authenticate", reply.authenticate);
        if (!reply.allow.empty()) head.add("Allow", reply.allow);
        if (reply.retryAfter > 0) head.add("Retry-After", std::to_string(reply.retryAfter));
        head.setKeepAlive(m_keepAlive);
        if (hasContent) head.add("Content-Length", std::to_string(reply.body.size()));
        head.end();
        m_piece = m_bodyless ? std::string() : std::move(reply.body);
        m_replyMemory = std::move(reply.memory);
        m_unwritten.emplace(Frame{net::buffer(m_frame), net::buffer(m_piece)});
        writeAtOnce();
    }

    /// As far as the socket takes it, which is mostly all of it; the rest is waited for. So is a reply behind one that
    /// was written so, lest the requests of a client that sends many at once be answered one within the other.
    void writeAtOnce() {
        if (m_stream.isSecure() || m_within) {
            writeSome();
            return;
        }
        m_unwritten->consume(m_stream.write_now(*m_unwritten));
        if (net::buffer_size(*m_unwritten) > 0) {
            writeSome();
            return;
        }
        const auto self = shared_from_this();
        m_within = true;
        onReplied();
        m_within = false;
    }

    static void addFields(HttpHead& head, const HttpFields& fields) {
        for (const auto& [name, value] : fields)
            head.add(name, value);
    }

    void writeSome() {
        m_stream.expires_after(m_owner.options().writeTimeout);
        m_stream.async_write_some(*m_unwritten, then(&HttpConnection::onWritten));
    }

    /// Counts what has left. False when nothing more can, and the connection is closed then.
    bool countWritten(beast::error_code error, std::size_t size) {
        if (error) {
            noteTimeout(error, HttpLimit::WriteTime);
            close();
            return false;
        }
        m_unwritten->consume(size);
        return true;
    }

    void onWritten(beast::error_code error, std::size_t size) {
        if (!countWritten(error, size)) return;
        if (net::buffer_size(*m_unwritten) > 0) {
            writeSome();
        } else {
            onReplied();
        }
    }

    // ---- a reply that leaves while it is made ---------------------------------------------------------------------
    /// What the head of a reply says that leaves while it is made. The worker's up to the first piece.
    struct StreamHead {
        std::string contentType = HttpReply().contentType;
        HttpFields fields{};
    };

    /// A worker's end of it.
    class ReplyStream final : public HttpReplyStream {
    public:
        ReplyStream(HttpConnection& connection, bool gzip) : m_connection(connection), m_wantsGzip(gzip) {
            m_connection.m_streamHead = {};
        }
        bool hasBegun() const noexcept { return m_begun; }
        void describe(std::string contentType, HttpFields fields) override {
            m_connection.m_streamHead = {std::move(contentType), std::move(fields)};
        }
        bool send(std::string_view piece) override {
            if (piece.empty()) return !m_connection.m_outgoing.isClosed();
            if (!m_begun) begin();
            return push(m_gzip ? m_gzip->add(piece) : std::string(piece));
        }
        /// Behind the last piece.
        void finish() {
            if (m_gzip) push(m_gzip->finish());
        }

    private:
        void begin() {
            m_begun = true;
            StreamHead& head = m_connection.m_streamHead;
            if (!isWorthGzip(head.contentType)) return;
            head.fields.emplace_back("Vary", "Accept-Encoding");
            if (!m_wantsGzip) return;
            head.fields.emplace_back("Content-Encoding", "gzip");
            m_gzip = std::make_unique<HttpGzip>();
        }
        bool push(std::string piece) {
            if (!m_connection.m_outgoing.push(std::move(piece))) return false;
            m_connection.m_owner.calls().post([self = m_connection.shared_from_this()] { self->onPieceReady(); });
            return true;
        }

        HttpConnection& m_connection;
        const bool m_wantsGzip;
        std::unique_ptr<HttpGzip> m_gzip;
        bool m_begun = false;
    };

    void onPieceReady() {
        if (m_closed || m_writingPiece) return;
        if (!std::exchange(m_streaming, true)) beginStream();
        writePiece();
    }

    void beginStream() {
        m_keepAlive = m_keepAlive && !m_owner.isStopping() && m_version >= 11;
        m_account->status = 200;
        HttpHead head(m_frame, 200, m_version);
        head.add("Content-Type", m_streamHead.contentType);
        addFields(head, m_streamHead.fields);
        addFields(head, m_originFields);
        head.setKeepAlive(m_keepAlive);
        if (m_version >= 11) head.add("Transfer-Encoding", "chunked");
        head.end();
    }

    /// The next piece with what comes before it and behind: the head, the size of the chunk. Without chunks, for a
    /// client of the first version, the end of the connection ends the reply.
    void writePiece() {
        const bool chunked = m_version >= 11;
        m_piece.clear();
        if (m_outgoing.pop(m_piece)) {
            if (m_bodyless) m_piece.clear();
            m_account->bytes += m_piece.size();
            if (chunked && !m_piece.empty()) m_frame += chunkSize(m_piece.size());
            m_frameEnd = chunked && !m_piece.empty() ? "\r\n" : "";
        } else if (std::exchange(m_streamEnds, false)) {
            m_streaming = false;
            if (chunked && !m_bodyless) m_frame += "0\r\n\r\n";
            m_frameEnd = "";
        } else {
            return;
        }
        m_writingPiece = true;
        const net::const_buffer frame = net::buffer(m_frame);
        const net::const_buffer piece = net::buffer(m_piece);
        const net::const_buffer end = net::buffer(m_frameEnd);
        // Of buffers that begin with an empty one, TLS would write that alone.
        m_unwritten.emplace(frame.size() > 0 ? Frame{frame, piece, end} : Frame{piece, end, frame});
        writePieceSome();
    }

    static std::string chunkSize(std::size_t size) {
        char text[20];
        char* const end = std::to_chars(text, text + sizeof text, size, 16).ptr;
        return std::string(text, end) + "\r\n";
    }

    /// The answer to HEAD and the end of an answer without chunks are no bytes, which TLS would wait to write.
    void writePieceSome() {
        if (net::buffer_size(*m_unwritten) == 0) {
            net::post(m_stream.get_executor(), [self = shared_from_this()] {
                if (!self->m_closed) self->onPieceWritten({}, 0);
            });
            return;
        }
        m_stream.expires_after(m_owner.options().writeTimeout);
        m_stream.async_write_some(*m_unwritten, then(&HttpConnection::onPieceWritten));
    }

    void onPieceWritten(beast::error_code error, std::size_t size) {
        if (!countWritten(error, size)) return;
        if (net::buffer_size(*m_unwritten) > 0) {
            writePieceSome();
            return;
        }
        m_writingPiece = false;
        m_frame.clear();
        if (m_streaming) {
            writePiece();
        } else {
            onReplied();
        }
    }

    /// Of the request that has been read or refused last, once.
    void tellEnd(HttpEnd::How how) {
        if (!m_account) return;
        const auto time = std::chrono::steady_clock::now() - m_account->began;
        m_owner.application().ended(
            {how, m_account->status, m_account->bytes, std::chrono::duration_cast<std::chrono::microseconds>(time)},
            m_peer, m_account->trace.get());
        m_account.reset();
    }

    void onReplied() {
        tellEnd(HttpEnd::How::Answered);
        m_unwritten.reset();
        m_replyMemory.release();
        m_piece = {};
        // First, because the next request may be here already, and count itself.
        if (std::exchange(m_counted, false)) m_owner.requestEnded();
        if (m_keepAlive) {
            awaitRequest();
        } else {
            beginLinger();
        }
    }

    /// A client that is still sending would lose the reply if the connection were closed at once.
    void beginLinger() {
        if (!m_stream.isSecure()) {
            lingerRaw();
            return;
        }
        m_stream.expires_after(lingerTime);
        m_stream.async_finish([self = shared_from_this()](beast::error_code error) {
            if (self->m_closed) return;
            if (error == beast::error::timeout) {
                self->close();
            } else {
                self->lingerRaw();
            }
        });
    }

    void lingerRaw() {
        beast::error_code ignored;
        m_stream.socket().shutdown(net::socket_base::shutdown_send, ignored);
        m_input.resize(firstRead);
        m_stream.expires_after(lingerTime);
        linger();
    }

    void linger() { m_stream.async_read_raw(net::buffer(m_input), then(&HttpConnection::onLingered)); }

    void onLingered(beast::error_code error, std::size_t) {
        if (error) {
            close();
        } else {
            linger();
        }
    }

    /// The handler's end may take its time too: operators are told that their client has gone.
    void dropHandler() {
        if (!m_handler) return;
        m_owner.workers(HttpLane::Reading)
            .post([handler = std::shared_ptr<HttpClientHandler>(std::move(m_handler))]() mutable { handler.reset(); });
    }

    HttpConnectionOwner& m_owner;
    const std::size_t m_listener;
    HttpTransport m_stream;
    HttpPeer m_peer;                               // does not change behind the handshake
    HttpIdentity m_identity;                       // does not change while it waits for a turn or for memory
    const std::string m_peerKey;                   // whose it is while nobody has said who he is
    std::unique_ptr<HttpClientHandler> m_handler;  // the worker's while m_working, else the server thread's
    std::vector<char> m_input;                     // what has been read: m_begin to m_end is not yet taken
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::optional<HttpRequestReader> m_reader;  // the worker reads it while m_working
    HttpPlan m_plan;
    /// What is told of a request at its end.
    struct Account {
        Account() {}  // within a class, members' values count as a constructor's only when it is complete
        std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
        unsigned status = 0;
        std::size_t bytes = 0;
        std::shared_ptr<HttpTrace> trace{};
    };
    std::optional<Account> m_account;
    HttpFields m_originFields;                     // of the reply to the present request
    StreamHead m_streamHead;                       // the worker's up to the first piece
    std::unique_ptr<net::steady_timer> m_delay;    // of a reply that comes later
    std::size_t m_bodyMemory = 0;                  // what the owner has granted for the body
    std::size_t m_spanBytes = 0;                   // of the body, in the present span of time
    std::shared_ptr<QORRequestControl> m_control;  // of the request that waits for its turn or is worked on
    QORMemoryCharge m_replyMemory;
    using Frame = std::array<net::const_buffer, 3>;
    HttpOutgoing m_outgoing;  // thread-safe
    std::string m_frame;
    std::string m_piece;
    std::string_view m_frameEnd;
    std::optional<beast::buffers_suffix<Frame>> m_unwritten;
    unsigned m_version = 11;
    bool m_bodyless = false;
    bool m_keepAlive = false;
    bool m_expectsContinue = false;
    bool m_idle = false;
    bool m_working = false;
    std::optional<HttpReply> m_answer;  // the worker's while m_working
    std::chrono::steady_clock::time_point m_turnBegan{};
    bool m_counted = false;
    bool m_closed = false;
    bool m_peerGone = false;
    bool m_within = false;  ///< what follows a reply that was written at once is being done
    bool m_broken = false;
    bool m_streaming = false;   ///< the head of a streamed reply is on its way, its end is not
    bool m_streamEnds = false;  ///< no piece will come behind those that wait
    bool m_writingPiece = false;
};

}  // namespace QOR
