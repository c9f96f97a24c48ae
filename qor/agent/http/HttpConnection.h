/// \file
/// One connection of the HTTP server. Included by HttpServer.cpp alone: the HTTP library is expensive to compile.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORRequestControl.h"
#include "agent/http/HttpServer.h"

namespace QOR {

namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace net = boost::asio;

class HttpConnection;

/// What a connection needs of its server. Called on the server's own thread, except workers() from any.
class HttpConnectionOwner {
public:
    virtual const HttpServerOptions& options() const = 0;
    virtual HttpApplication& application() = 0;
    virtual net::thread_pool& workers() = 0;
    virtual bool isStopping() const = 0;
    /// A request is being answered, from here to requestEnded().
    virtual void requestBegan() = 0;
    virtual void requestEnded() = 0;
    virtual void connectionClosed(HttpConnection& connection) = 0;

protected:
    ~HttpConnectionOwner() = default;
};

/// Reads a request, has a worker answer it, writes the reply, and begins again. Everything but the answering happens
/// on the server's thread. Lives as long as an operation of it is under way.
class HttpConnection : public std::enable_shared_from_this<HttpConnection> {
public:
    using Socket = net::local::stream_protocol::socket;

    HttpConnection(Socket socket, HttpConnectionOwner& owner)
        : m_owner(owner), m_stream(std::move(socket)), m_peer(credentialsOf(m_stream.socket().native_handle())) {}

    void start() { awaitRequest(); }

    /// True while a worker runs a request of this connection.
    bool isWorking() const noexcept { return m_working; }

    /// Ends the connection, whatever it is doing; a request that a worker runs is told to end.
    void close() {
        if (m_closed) return;
        m_closed = true;
        if (m_control) m_control->cancel(QORRequestControl::End::Gone);
        beast::error_code ignored;
        m_stream.socket().close(ignored);
        m_stream.cancel();
        if (!m_working) dropHandler();
        if (std::exchange(m_counted, false)) m_owner.requestEnded();
        m_owner.connectionClosed(*this);
    }

private:
    using Stream = beast::basic_stream<net::local::stream_protocol>;
    using Parser = http::request_parser<http::string_body>;
    using Response = http::response<http::string_body>;
    static constexpr std::size_t firstRead = std::size_t{8} << 10;
    static constexpr auto lingerTime = std::chrono::seconds(5);

    static std::optional<HttpPeerCredentials> credentialsOf(int fd) {
        ucred peer{};
        socklen_t size = sizeof peer;
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || size != sizeof peer) return std::nullopt;
        return HttpPeerCredentials{peer.pid, peer.uid, peer.gid};
    }

    /// A completion handler that keeps the connection alive.
    template <class Function>
    auto then(Function function) {
        return [self = shared_from_this(), function](beast::error_code error, std::size_t size) {
            if (!self->m_closed) ((*self).*function)(error, size);
        };
    }

    // ---- reading ------------------------------------------------------------------------------------------------
    void awaitRequest() {
        m_parser.emplace();
        m_parser->body_limit(m_owner.options().bodyLimit);
        m_parser->header_limit(static_cast<std::uint32_t>(m_owner.options().headerLimit));
        m_version = 11;
        m_bodyless = false;
        if (m_buffer.size() > 0) {
            readHeader();
            return;
        }
        // The first byte of a request may be long in coming; what follows it may not.
        m_stream.expires_after(m_owner.options().idleTimeout);
        m_stream.async_read_some(m_buffer.prepare(firstRead), then(&HttpConnection::onFirstBytes));
    }

    void onFirstBytes(beast::error_code error, std::size_t size) {
        if (error) {
            close();
            return;
        }
        m_buffer.commit(size);
        readHeader();
    }

    void readHeader() {
        m_stream.expires_after(m_owner.options().headerTimeout);
        http::async_read_header(m_stream, m_buffer, *m_parser, then(&HttpConnection::onHeader));
    }

    void onHeader(beast::error_code error, std::size_t) {
        if (error) {
            onReadError(error);
            return;
        }
        m_version = m_parser->get().version();
        m_bodyless = m_parser->get().method() == http::verb::head;
        const beast::string_view expectation = m_parser->get()[http::field::expect];
        if (expectation.empty() || m_parser->is_done()) {
            readBody();
        } else if (beast::iequals(expectation, "100-continue")) {
            static constexpr std::string_view goOn = "HTTP/1.1 100 Continue\r\n\r\n";
            net::async_write(m_stream, net::buffer(goOn), then(&HttpConnection::onContinueWritten));
        } else {
            refuse(http::status::expectation_failed, "only \"100-continue\" can be expected");
        }
    }

    void onContinueWritten(beast::error_code error, std::size_t) {
        if (error) {
            close();
        } else {
            readBody();
        }
    }

    void readBody() {
        if (m_parser->is_done()) {
            dispatch();
            return;
        }
        m_stream.expires_after(m_owner.options().bodyTimeout);
        http::async_read_some(m_stream, m_buffer, *m_parser, then(&HttpConnection::onBody));
    }

    void onBody(beast::error_code error, std::size_t) {
        if (error) {
            onReadError(error);
        } else {
            readBody();
        }
    }

    void onReadError(beast::error_code error) {
        if (error == http::error::body_limit) {
            refuse(http::status::payload_too_large,
                   "the body is larger than " + std::to_string(m_owner.options().bodyLimit) + " bytes");
        } else if (error == http::error::header_limit) {
            refuse(http::status::request_header_fields_too_large,
                   "the headers are larger than " + std::to_string(m_owner.options().headerLimit) + " bytes");
        } else if (error.category() != make_error_code(http::error::bad_method).category() ||
                   error == http::error::end_of_stream || error == http::error::partial_message) {
            close();
        } else {
            refuse(http::status::bad_request, "this is not HTTP: " + error.message());
        }
    }

    // ---- answering ----------------------------------------------------------------------------------------------
    void count() {
        m_counted = true;
        m_owner.requestBegan();
    }

    void dispatch() {
        m_request = m_parser->release();
        m_keepAlive = m_request.keep_alive();
        if (m_owner.isStopping()) {
            refuse(http::status::service_unavailable, "the agent is stopping");
            return;
        }
        count();
        m_working = true;
        m_control = std::make_shared<QORRequestControl>(m_owner.options().deadline);
        net::post(m_owner.workers(), [self = shared_from_this()] {
            auto reply = std::make_shared<HttpReply>(self->answer());
            net::post(self->m_stream.get_executor(), [self, reply] { self->onAnswered(std::move(*reply)); });
        });
    }

    /// Runs on a worker.
    HttpReply answer() {
        const std::string_view target(m_request.target().data(), m_request.target().size());
        const std::size_t mark = std::min(target.find('?'), target.size());
        HttpRequest request;
        request.method = {m_request.method_string().data(), m_request.method_string().size()};
        request.path = target.substr(0, mark);
        request.query = mark < target.size() ? target.substr(mark + 1) : std::string_view();
        request.body = m_request.body();
        const QORRequestScope scope(m_control);
        try {
            if (!m_handler) m_handler = m_owner.application().connect(m_peer);
            return m_handler->handle(request);
        } catch (const std::exception& exception) {
            logMessage(0, "QORAgent", "qor/agent/http/HttpConnection", "answer", "%s", exception.what());
            return {500, m_owner.application().errorBody(500, exception.what())};
        }
    }

    void onAnswered(HttpReply reply) {
        m_working = false;
        m_control.reset();
        if (m_closed) {
            dropHandler();
            return;
        }
        m_request = {};
        write(std::move(reply));
    }

    /// Answers without asking the application, and ends the connection: its next byte may be anything.
    void refuse(http::status status, const std::string& message) {
        const auto code = static_cast<unsigned>(status);
        m_keepAlive = false;
        count();
        write({code, m_owner.application().errorBody(code, message)});
    }

    // ---- writing ------------------------------------------------------------------------------------------------
    void write(HttpReply reply) {
        m_keepAlive = m_keepAlive && !m_owner.isStopping();
        m_response.emplace(static_cast<http::status>(reply.status), m_version);
        m_response->set(http::field::server, "qor-agent");
        m_response->set(http::field::content_type, reply.contentType);
        if (!reply.allow.empty()) m_response->set(http::field::allow, reply.allow);
        m_response->keep_alive(m_keepAlive);
        m_response->content_length(reply.body.size());
        if (!m_bodyless) m_response->body() = std::move(reply.body);
        m_serializer.emplace(*m_response);
        writeSome();
    }

    void writeSome() {
        m_stream.expires_after(m_owner.options().writeTimeout);
        http::async_write_some(m_stream, *m_serializer, then(&HttpConnection::onWritten));
    }

    void onWritten(beast::error_code error, std::size_t) {
        if (error) {
            close();
        } else if (!m_serializer->is_done()) {
            writeSome();
        } else {
            onReplied();
        }
    }

    void onReplied() {
        m_serializer.reset();
        m_response.reset();
        const bool goOn = m_keepAlive;
        if (goOn) {
            awaitRequest();
        } else {
            beginLinger();
        }
        // Last, because this may end the server and with it the connection.
        if (std::exchange(m_counted, false)) m_owner.requestEnded();
    }

    /// A client that is still sending would lose the reply if the connection were closed at once.
    void beginLinger() {
        beast::error_code ignored;
        m_stream.socket().shutdown(net::socket_base::shutdown_send, ignored);
        m_buffer.clear();
        m_stream.expires_after(lingerTime);
        linger();
    }

    void linger() { m_stream.async_read_some(m_buffer.prepare(firstRead), then(&HttpConnection::onLingered)); }

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
        net::post(m_owner.workers(),
                  [handler = std::shared_ptr<HttpClientHandler>(std::move(m_handler))]() mutable { handler.reset(); });
    }

    HttpConnectionOwner& m_owner;
    Stream m_stream;
    const std::optional<HttpPeerCredentials> m_peer;
    std::unique_ptr<HttpClientHandler> m_handler;  // the worker's while m_working, else the server thread's
    beast::flat_buffer m_buffer;
    std::optional<Parser> m_parser;
    Parser::value_type m_request;
    std::shared_ptr<QORRequestControl> m_control;  // of the request that a worker runs
    std::optional<Response> m_response;
    std::optional<http::response_serializer<http::string_body>> m_serializer;
    unsigned m_version = 11;
    bool m_bodyless = false;
    bool m_keepAlive = false;
    bool m_working = false;
    bool m_counted = false;
    bool m_closed = false;
};

}  // namespace QOR
