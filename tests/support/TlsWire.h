/// \file
/// TLS under the tests' HTTP client. Whoever includes it links OpenSSL::SSL.
#pragma once

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>

#include "support/HttpClient.h"

namespace QOR::test {

/// The files of a client: whom it believes, and what it shows.
struct TlsFiles {
    std::string authority;
    std::string certificate{};
    std::string key{};
    int version = 0;  ///< TLS1_2_VERSION and so on: no other; 0: any
};

class TlsWire final : public HttpWire {
public:
    /// Shakes hands over a connected socket, which stays the caller's. \throws std::runtime_error
    TlsWire(int socket, const TlsFiles& files) : m_context(::SSL_CTX_new(::TLS_client_method())) {
        ::signal(SIGPIPE, SIG_IGN);  // the library writes as to a file
        SSL_CTX* const context = m_context.get();
        ::SSL_CTX_load_verify_locations(context, files.authority.c_str(), nullptr);
        ::SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
        if (!files.certificate.empty()) {
            ::SSL_CTX_use_certificate_file(context, files.certificate.c_str(), SSL_FILETYPE_PEM);
            ::SSL_CTX_use_PrivateKey_file(context, files.key.c_str(), SSL_FILETYPE_PEM);
        }
        if (files.version != 0) {
            allowOldVersions(context, files.version);
            SSL_CTX_set_min_proto_version(context, files.version);
            SSL_CTX_set_max_proto_version(context, files.version);
        }
        m_tls.reset(::SSL_new(context));
        ::SSL_set_fd(m_tls.get(), socket);
        if (::SSL_connect(m_tls.get()) != 1) throw std::runtime_error("no handshake: " + reason());
    }

    ssize_t send(const char* bytes, std::size_t size) override {
        return ::SSL_write(m_tls.get(), bytes, static_cast<int>(size));
    }
    ssize_t receive(char* bytes, std::size_t size) override {
        errno = 0;  // a failure of the library's own leaves it as it was
        const int got = ::SSL_read(m_tls.get(), bytes, static_cast<int>(size));
        m_saidGoodbye = ::SSL_get_error(m_tls.get(), got) == SSL_ERROR_ZERO_RETURN;
        ::ERR_clear_error();
        return got;
    }
    void finishSending() override { ::SSL_shutdown(m_tls.get()); }
    /// After the end: that it was one, and nothing was cut off.
    bool saidGoodbye() const noexcept { return m_saidGoodbye; }
    std::string version() const { return ::SSL_get_version(m_tls.get()); }

private:
    struct Free {
        void operator()(SSL_CTX* context) const noexcept { ::SSL_CTX_free(context); }
        void operator()(SSL* tls) const noexcept { ::SSL_free(tls); }
    };

    /// Versions that the library refuses by itself are to be refused by the other side.
    static void allowOldVersions(SSL_CTX* context, int version) {
        if (version < TLS1_2_VERSION) ::SSL_CTX_set_security_level(context, 0);
    }
    static std::string reason() {
        const char* const text = ::ERR_reason_error_string(::ERR_get_error());
        return text == nullptr ? "the connection ended" : text;
    }

    std::unique_ptr<SSL_CTX, Free> m_context;
    std::unique_ptr<SSL, Free> m_tls;
    bool m_saidGoodbye = false;
};

}  // namespace QOR::test
