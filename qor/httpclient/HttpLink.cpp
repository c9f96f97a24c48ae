// The only unit of this folder that knows of the HTTP library.
#include "httpclient/HttpLink.h"

#include <openssl/ssl.h>

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/span_body.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <optional>

namespace QOR {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using Tcp = net::ip::tcp;
using Error = beast::error_code;

/// How soon a stop is seen.
constexpr auto glance = std::chrono::milliseconds(50);
constexpr std::size_t readAtOnce = std::size_t{64} << 10;

HttpLost lost(const Error& error) {
    if (error == beast::error::timeout) return HttpLost("it does not answer in time");
    if (error == http::error::end_of_stream || error == http::error::partial_message || error == net::error::eof ||
        error == net::ssl::error::stream_truncated)
        return HttpLost("it ended the connection");
    return HttpLost(error.message(), error);
}

}  // namespace

/// Each operation has the thread for itself until it is done.
class HttpLink::Work {
public:
    Work(const QORAgentAddress& address, const std::string& authority, const Bounds& bounds,
         const IsStopping& isStopping)
        : m_host(address.isUnix() ? "localhost" : address.authority()), m_bounds(bounds), m_stream(m_io) {
        if (address.isUnix()) {
            connect(localEndpoint(address.path), isStopping);
            return;
        }
        connectTcp(address, isStopping);
        m_stream.socket().set_option(Tcp::no_delay(true));
        if (address.scheme == QORAgentAddress::Scheme::Https) shakeHands(address.host, authority, isStopping);
    }

    HttpAnswer ask(const HttpQuestion& question, const IsStopping& isStopping) {
        http::request<http::span_body<const char>> request{
            http::string_to_verb({question.method.data(), question.method.size()}), question.path, 11};
        request.set(http::field::host, m_host);
        for (const auto& [name, value] : question.fields)
            request.set(name, value);
        request.body() = {question.body.data(), question.body.size()};
        request.prepare_payload();
        return m_tls ? exchange(*m_tls, request, isStopping) : exchange(m_stream, request, isStopping);
    }
    bool isOpen() const noexcept { return m_open; }

private:
    using Stream = beast::basic_stream<net::generic::stream_protocol>;
    using Tls = beast::ssl_stream<Stream&>;

    static Stream::endpoint_type localEndpoint(const std::string& path) {
        try {
            return net::local::stream_protocol::endpoint(path);
        } catch (const boost::system::system_error& error) {  // it is too long
            throw HttpLost(error.code().message(), error.code());
        }
    }

    void connect(const Stream::endpoint_type& endpoint, const IsStopping& isStopping) {
        m_stream.expires_after(m_bounds.connect);
        run(isStopping, [&](auto done) { m_stream.async_connect(endpoint, done); });
    }

    void connectTcp(const QORAgentAddress& address, const IsStopping& isStopping) {
        Tcp::resolver resolver(m_io);
        Tcp::resolver::results_type found;
        run(isStopping, [&](auto done) {
            resolver.async_resolve(address.host, std::to_string(address.port),
                                   [&found, done](Error error, Tcp::resolver::results_type results) {
                                       found = std::move(results);
                                       done(error);
                                   });
        });
        for (auto one = found.begin();;) {
            try {
                return connect(Stream::endpoint_type(one->endpoint()), isStopping);
            } catch (const HttpLost&) {
                if (isStopping() || ++one == found.end()) throw;
                m_stream.close();
            }
        }
    }

    void shakeHands(const std::string& host, const std::string& authority, const IsStopping& isStopping) {
        m_context.emplace(net::ssl::context::tls_client);
        SSL_CTX_set_min_proto_version(m_context->native_handle(), TLS1_2_VERSION);
        Error error;
        if (authority.empty()) {
            m_context->set_default_verify_paths(error);
        } else {
            m_context->load_verify_file(authority, error);
        }
        if (error) throw HttpLost("no certificate can be read from " + authority + ": " + error.message());
        m_context->set_verify_mode(net::ssl::verify_peer);
        m_tls.emplace(m_stream, *m_context);
        m_tls->set_verify_callback(net::ssl::host_name_verification(host));
        SSL_set_tlsext_host_name(m_tls->native_handle(), host.c_str());
        m_stream.expires_after(m_bounds.connect);
        run(isStopping, [&](auto done) { m_tls->async_handshake(net::ssl::stream_base::client, done); });
    }

    template <class Layer>
    HttpAnswer exchange(Layer& layer, const http::request<http::span_body<const char>>& request,
                        const IsStopping& isStopping) {
        m_stream.expires_after(m_bounds.send);
        run(isStopping,
            [&](auto done) { http::async_write(layer, request, [done](Error error, std::size_t) { done(error); }); });
        m_ahead.reserve(readAtOnce);
        http::response_parser<http::string_body> parser;
        parser.body_limit(m_bounds.body);
        m_stream.expires_after(m_bounds.answer);
        // By itself: the library forgets that what follows is too long when it reads on at once.
        run(isStopping, [&](auto done) {
            http::async_read_header(layer, m_ahead, parser, [done](Error error, std::size_t) { done(error); });
        });
        run(isStopping, [&](auto done) {
            http::async_read(layer, m_ahead, parser, [done](Error error, std::size_t) { done(error); });
        });
        m_open = parser.get().keep_alive();
        const auto pause = parser.get()[http::field::retry_after];
        return {parser.get().result_int(), std::move(parser.get().body()), {pause.data(), pause.size()}};
    }

    /// \param begin is given what is to be called at the end \throws HttpLost
    template <class Begin>
    void run(const IsStopping& isStopping, Begin begin) {
        std::optional<Error> result;
        if (isStopping()) throw HttpLost("the agent is stopping");
        begin([&result](Error error) { result = error; });
        while (!result && !isStopping()) {
            m_io.restart();
            m_io.run_for(glance);
        }
        if (!result) {
            m_stream.close();
            m_io.restart();
            m_io.run();  // so that nobody is left who would tell of it later
            throw HttpLost("the agent is stopping");
        }
        if (*result == http::error::body_limit || *result == http::error::header_limit)
            throw HttpTooLarge("its answer is too long");
        if (*result) throw lost(*result);
    }

    const std::string m_host;
    const Bounds m_bounds;
    net::io_context m_io{1};
    Stream m_stream;
    std::optional<net::ssl::context> m_context;
    std::optional<Tls> m_tls;
    beast::flat_buffer m_ahead;
    bool m_open = true;
};

HttpLink::HttpLink(const QORAgentAddress& address, const std::string& authority, const Bounds& bounds,
                   const IsStopping& isStopping)
    : m_work(std::make_unique<Work>(address, authority, bounds, isStopping)) {}

HttpLink::~HttpLink() = default;

HttpAnswer HttpLink::ask(const HttpQuestion& question, const IsStopping& isStopping) {
    return m_work->ask(question, isStopping);
}

bool HttpLink::isOpen() const noexcept {
    return m_work->isOpen();
}

}  // namespace QOR
