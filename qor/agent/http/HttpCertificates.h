/// \file
/// What a TLS listener shows its clients, and whose certificates it believes.
#pragma once

#include <memory>
#include <mutex>
#include <string>

namespace boost::asio::ssl {
class context;
}

namespace QOR {

/// Paths of files in PEM.
struct HttpCertificateFiles {
    std::string certificate;        ///< the server's, and behind it those between it and its authority's
    std::string key;                ///< that belongs to it, without a passphrase
    std::string clientAuthority{};  ///< whose certificates clients may show; empty: they are not asked for any
};

/// What has been read of the files, until others are used. TLS 1.2 and up, ciphers with forward secrecy; sessions are
/// not resumed, so that each connection is checked against what holds now. Clients that show a certificate must have it
/// from the authority; showing none is no fault. Thread-safe.
class HttpCertificates {
public:
    using Context = std::shared_ptr<boost::asio::ssl::context>;

    /// \throws QORException errFailure naming the file and what is wrong with it: it cannot be read, holds no
    /// certificate or key, the key belongs to another certificate, the certificate's time is over or has not come
    explicit HttpCertificates(const HttpCertificateFiles& files);

    /// What files hold that fit. \throws QORException as the constructor
    static Context read(const HttpCertificateFiles& files);
    /// Connections that are accepted from now on see these.
    void use(Context read) noexcept;

    /// For a connection that begins. Never null.
    Context current() const;

private:
    mutable std::mutex m_mutex;
    Context m_current;  // guarded by m_mutex; what it points to does not change
};

}  // namespace QOR
