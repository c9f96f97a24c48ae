/// \file
/// The bytes of a connection, over a unix socket, TCP, or TLS. Included by HttpConnection.h alone.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

namespace QOR {

namespace beast = boost::beast;
namespace net = boost::asio;

/// One kind of stream for all kinds of sockets, so that what is built upon it is compiled once. Without TLS each
/// operation is the socket's own. Handlers are called back, never awaited; one operation at a time. A stream that the
/// HTTP library can write to.
class HttpTransport {
public:
    using Protocol = net::generic::stream_protocol;
    using Stream = beast::basic_stream<Protocol>;
    using executor_type = Stream::executor_type;
    using Context = std::shared_ptr<net::ssl::context>;

    /// \param tls null: none is spoken
    HttpTransport(Protocol::socket socket, Context tls) : m_stream(std::move(socket)), m_context(std::move(tls)) {
        if (m_context) m_tls = std::make_unique<Tls>(m_stream, *m_context);
    }

    executor_type get_executor() noexcept { return m_stream.get_executor(); }
    Stream::socket_type& socket() noexcept { return m_stream.socket(); }
    bool isSecure() const noexcept { return m_tls != nullptr; }

    /// What follows must be done by then: one operation, of however many reads and writes of the socket it consists.
    void expires_after(net::steady_timer::duration time) { m_stream.expires_after(time); }
    void expires_never() { m_stream.expires_never(); }
    void cancel() { m_stream.cancel(); }

    /// Before anything else, when TLS is spoken. \param handler (error)
    template <class Handler>
    void async_handshake(Handler&& handler) {
        m_tls->async_handshake(net::ssl::stream_base::server, std::forward<Handler>(handler));
    }

    /// The common name of the certificate that the client has shown, once the handshake has verified it; or empty.
    std::string clientName() const {
        const std::unique_ptr<X509, void (*)(X509*)> shown(::SSL_get1_peer_certificate(m_tls->native_handle()),
                                                           &::X509_free);
        if (!shown || ::SSL_get_verify_result(m_tls->native_handle()) != X509_V_OK) return {};
        const X509_NAME* const subject = ::X509_get_subject_name(shown.get());
        const int place = ::X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
        if (place < 0) return {};
        unsigned char* text = nullptr;
        const int size =
            ::ASN1_STRING_to_UTF8(&text, ::X509_NAME_ENTRY_get_data(::X509_NAME_get_entry(subject, place)));
        if (size < 0) return {};
        std::string name(reinterpret_cast<const char*>(text), static_cast<std::size_t>(size));
        ::OPENSSL_free(text);
        return name;
    }

    template <class Buffers, class Handler>
    void async_read_some(const Buffers& buffers, Handler&& handler) {
        if (m_tls) {
            m_tls->async_read_some(buffers, std::forward<Handler>(handler));
        } else {
            m_stream.async_read_some(buffers, std::forward<Handler>(handler));
        }
    }
    template <class Buffers, class Handler>
    void async_write_some(const Buffers& buffers, Handler&& handler) {
        if (m_tls) {
            m_tls->async_write_some(buffers, std::forward<Handler>(handler));
        } else {
            m_stream.async_write_some(buffers, std::forward<Handler>(handler));
        }
    }

    /// Writes as many bytes as the socket takes at once. Without TLS, and while no operation writes.
    /// \returns how many; what is wrong where it takes none, the next operation tells
    template <class Buffers>
    std::size_t write_now(const Buffers& buffers) {
        std::array<iovec, 4> pieces{};
        std::size_t count = 0;
        const auto end = net::buffer_sequence_end(buffers);
        for (auto at = net::buffer_sequence_begin(buffers); at != end && count < pieces.size(); ++at) {
            const net::const_buffer piece(*at);
            pieces[count++] = {const_cast<void*>(piece.data()), piece.size()};
        }
        msghdr message{};
        message.msg_iov = pieces.data();
        message.msg_iovlen = count;
        const ssize_t size = ::sendmsg(m_stream.socket().native_handle(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        return size < 0 ? 0 : static_cast<std::size_t>(size);
    }

    /// Tells the client that nothing more comes, and that this was all. When TLS is spoken. Afterwards the socket's own
    /// bytes are all that can be read. \param handler (error), also of a client that goes on sending
    template <class Handler>
    void async_finish(Handler&& handler) {
        m_tls->async_shutdown(std::forward<Handler>(handler));
    }
    /// The socket's own bytes.
    template <class Buffers, class Handler>
    void async_read_raw(const Buffers& buffers, Handler&& handler) {
        m_stream.async_read_some(buffers, std::forward<Handler>(handler));
    }

private:
    using Tls = beast::ssl_stream<Stream&>;

    Stream m_stream;
    Context m_context;  // outlives m_tls
    std::unique_ptr<Tls> m_tls;
};

}  // namespace QOR
