// What the HTTP library that the agent is built on takes for an answer that is always the same, with nothing around it:
// no limits, no timeouts, no identities, one thread.
//
//     http_bare_beast
//
// GET /live answers what the agent's /health/live does, anything else 404.
#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <cstdio>
#include <memory>
#include <utility>

namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using Tcp = net::ip::tcp;

class Session : public std::enable_shared_from_this<Session> {
public:
    explicit Session(Tcp::socket socket) : m_socket(std::move(socket)) { m_socket.set_option(Tcp::no_delay(true)); }

    void read() {
        m_request = {};
        http::async_read(m_socket, m_buffer, m_request,
                         [self = shared_from_this()](beast::error_code error, std::size_t) {
                             if (!error) self->write();
                         });
    }

private:
    void write() {
        const bool known = m_request.target() == "/live";
        m_response = {known ? http::status::ok : http::status::not_found, m_request.version()};
        m_response.set(http::field::server, "bare");
        m_response.set(http::field::content_type, "application/json");
        m_response.keep_alive(m_request.keep_alive());
        if (known) m_response.body() = R"({"status":"live"})";
        m_response.prepare_payload();
        http::async_write(m_socket, m_response, [self = shared_from_this()](beast::error_code error, std::size_t) {
            if (!error && self->m_response.keep_alive()) self->read();
        });
    }

    Tcp::socket m_socket;
    beast::flat_buffer m_buffer;
    http::request<http::string_body> m_request;
    http::response<http::string_body> m_response;
};

class Server {
public:
    Server() : m_acceptor(m_io, {net::ip::address_v4::loopback(), 0}) { accept(); }
    void run() {
        std::printf("http_bare_beast listening on %d\n", m_acceptor.local_endpoint().port());
        std::fflush(stdout);
        m_io.run();
    }

private:
    void accept() {
        m_acceptor.async_accept([this](beast::error_code error, Tcp::socket socket) {
            if (!error) std::make_shared<Session>(std::move(socket))->read();
            accept();
        });
    }

    net::io_context m_io{1};
    Tcp::acceptor m_acceptor;
};

}  // namespace

int main() {
    Server().run();
}
