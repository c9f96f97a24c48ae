// The only unit of this folder that knows of the HTTP library.
#include "forward/ForwardConnection.h"

#include <openssl/ssl.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/span_body.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <chrono>
#include <fstream>
#include <optional>
#include <utility>

#include "QORCommon/QORNumbers.h"

namespace QOR {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using Tcp = net::ip::tcp;
using Error = beast::error_code;

constexpr auto connectTime = std::chrono::seconds(10);
constexpr auto sendTime = std::chrono::seconds(60);
/// Whoever takes records in may wait for its database for as long as a request may take, and for its turn before.
constexpr auto answerTime = std::chrono::seconds(120);
/// More than any answer about records has.
constexpr std::uint64_t longestAnswer = std::uint64_t{16} << 20;

std::string tokenIn(const std::string& file) {
    std::ifstream stream(file);
    std::string token;
    std::getline(stream, token);
    while (!token.empty() && (token.back() == '\r' || token.back() == ' '))
        token.pop_back();
    if (token.empty()) throw ForwardLost(file + " holds no token in its first line");
    return token;
}

std::string reasonOf(const Error& error) {
    if (error == beast::error::timeout) return "it does not answer in time";
    if (error == http::error::body_limit) return "its answer is too long";
    if (error == http::error::end_of_stream || error == http::error::partial_message || error == net::error::eof ||
        error == net::ssl::error::stream_truncated)
        return "it ended the connection";
    return error.message();
}

}  // namespace

/// A connection that is there. Each operation has the thread for itself until it is done.
class ForwardConnection::Link {
public:
    Link(const QORForwardTarget& target, const std::stop_token& stop) : m_tcp(m_io) {
        Tcp::resolver resolver(m_io);
        Tcp::resolver::results_type found;
        run(stop, [&](auto done) {
            resolver.async_resolve(target.address.host, std::to_string(target.address.port),
                                   [&found, done](Error error, Tcp::resolver::results_type results) {
                                       found = std::move(results);
                                       done(error);
                                   });
        });
        m_tcp.expires_after(connectTime);
        run(stop, [&](auto done) { m_tcp.async_connect(found, [done](Error error, const auto&) { done(error); }); });
        m_tcp.socket().set_option(Tcp::no_delay(true));
        if (target.address.scheme == QORAgentAddress::Scheme::Https) shakeHands(target, stop);
    }

    ForwardReply exchange(const http::request<http::span_body<const char>>& request, const std::stop_token& stop) {
        return m_tls ? exchangeOver(*m_tls, request, stop) : exchangeOver(m_tcp, request, stop);
    }
    /// False when the other side has said that this was the last request.
    bool isOpen() const noexcept { return m_open; }

private:
    using Tls = beast::ssl_stream<beast::tcp_stream&>;

    void shakeHands(const QORForwardTarget& target, const std::stop_token& stop) {
        m_context.emplace(net::ssl::context::tls_client);
        SSL_CTX_set_min_proto_version(m_context->native_handle(), TLS1_2_VERSION);
        Error error;
        if (target.authority.empty()) {
            m_context->set_default_verify_paths(error);
        } else {
            m_context->load_verify_file(target.authority, error);
        }
        if (error) throw ForwardLost("no certificate can be read from " + target.authority + ": " + error.message());
        m_context->set_verify_mode(net::ssl::verify_peer);
        m_tls.emplace(m_tcp, *m_context);
        m_tls->set_verify_callback(net::ssl::host_name_verification(target.address.host));
        SSL_set_tlsext_host_name(m_tls->native_handle(), target.address.host.c_str());
        m_tcp.expires_after(connectTime);
        run(stop, [&](auto done) { m_tls->async_handshake(net::ssl::stream_base::client, done); });
    }

    template <class Stream>
    ForwardReply exchangeOver(Stream& stream, const http::request<http::span_body<const char>>& request,
                              const std::stop_token& stop) {
        m_tcp.expires_after(sendTime);
        run(stop,
            [&](auto done) { http::async_write(stream, request, [done](Error error, std::size_t) { done(error); }); });
        http::response_parser<http::string_body> parser;
        parser.body_limit(longestAnswer);
        m_tcp.expires_after(answerTime);
        // By itself: the library forgets that what follows is too long when it reads on at once.
        run(stop, [&](auto done) {
            http::async_read_header(stream, m_ahead, parser, [done](Error error, std::size_t) { done(error); });
        });
        run(stop, [&](auto done) {
            http::async_read(stream, m_ahead, parser, [done](Error error, std::size_t) { done(error); });
        });
        m_open = parser.get().keep_alive();
        const auto seconds = parser.get()[http::field::retry_after];
        return {parser.get().result_int(), std::move(parser.get().body()),
                static_cast<std::uint64_t>(
                    std::max<std::int64_t>(parseInt64({seconds.data(), seconds.size()}).value_or(0), 0))};
    }

    /// \param begin is given what is to be called at the end \throws ForwardLost
    template <class Begin>
    void run(const std::stop_token& stop, Begin begin) {
        std::optional<Error> result;
        m_io.restart();
        // Whoever asks for a stop from here on ends what follows; before, it is seen here.
        const std::stop_callback ending(stop, [this] { m_io.stop(); });
        if (stop.stop_requested()) throw ForwardLost("the agent is stopping");
        begin([&result](Error error) { result = error; });
        m_io.run();
        if (!result) {
            Error ignored;
            m_tcp.socket().close(ignored);
            m_io.restart();
            m_io.run();  // so that nobody is left who would tell of it later
            throw ForwardLost("the agent is stopping");
        }
        if (*result) throw ForwardLost(reasonOf(*result));
    }

    net::io_context m_io{1};
    beast::tcp_stream m_tcp;
    std::optional<net::ssl::context> m_context;
    std::optional<Tls> m_tls;
    beast::flat_buffer m_ahead;
    bool m_open = true;
};

ForwardConnection::ForwardConnection(QORForwardTarget target) : m_target(std::move(target)) {}

ForwardConnection::~ForwardConnection() = default;

ForwardReply ForwardConnection::post(const std::string& path, std::string_view packed, const std::stop_token& stop) {
    http::request<http::span_body<const char>> request{http::verb::post, path, 11};
    request.set(http::field::host, m_target.address.authority());
    request.set(http::field::content_type, "application/x-ndjson");
    request.set(http::field::content_encoding, "gzip");
    if (!m_target.tokenFile.empty()) request.set(http::field::authorization, "Bearer " + tokenIn(m_target.tokenFile));
    request.body() = {packed.data(), packed.size()};
    request.prepare_payload();
    try {
        if (!m_link) m_link = std::make_unique<Link>(m_target, stop);
        ForwardReply reply = m_link->exchange(request, stop);
        if (!m_link->isOpen()) m_link.reset();
        return reply;
    } catch (...) {
        m_link.reset();
        throw;
    }
}

}  // namespace QOR
