#include "agent/http/HttpCertificates.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <boost/asio/ssl/context.hpp>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "QORCommon/QORSourcePath.h"

namespace QOR {
namespace {

namespace ssl = boost::asio::ssl;

template <auto release>
struct Release {
    template <class Object>
    void operator()(Object* object) const noexcept {
        release(object);
    }
};
using Certificate = std::unique_ptr<X509, Release<::X509_free>>;
using PrivateKey = std::unique_ptr<EVP_PKEY, Release<::EVP_PKEY_free>>;
using Source = std::unique_ptr<BIO, Release<::BIO_free_all>>;

/// With 1.3 all there are; with 1.2 those that keep what was said secret when the key is stolen later.
constexpr const char* olderCiphers = "ECDHE+AESGCM:ECDHE+CHACHA20";
/// Far more than the longest chain.
constexpr std::size_t mostBytes = std::size_t{1} << 20;

[[noreturn]] void fail(const std::string& what) {
    throw QORException(errFailure, what, QOR_SOURCE_PATH);
}

/// What the library says about its last failure.
std::string libraryReason() {
    const char* const reason = ::ERR_reason_error_string(::ERR_peek_last_error());
    ::ERR_clear_error();
    return reason == nullptr ? "it is refused" : reason;
}

std::string contentsOf(const std::string& path) {
    const QORFileDescriptor file = openOwnFile(path, O_RDONLY);
    std::string text(mostBytes, '\0');
    std::size_t size = 0;
    while (size < text.size()) {
        const ssize_t got = ::read(file.get(), text.data() + size, text.size() - size);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail("cannot read " + path + ": " + std::strerror(errno));
        if (got == 0) break;
        size += static_cast<std::size_t>(got);
    }
    text.resize(size);
    return text;
}

Source sourceOf(const std::string& text) {
    return Source(::BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

/// At least one.
std::vector<Certificate> readCertificates(const std::string& path) {
    const std::string text = contentsOf(path);
    const Source source = sourceOf(text);
    std::vector<Certificate> certificates;
    while (Certificate next{::PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr)})
        certificates.push_back(std::move(next));
    const bool ended = ERR_GET_REASON(::ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    if (!ended) fail(path + " holds a certificate that cannot be read: " + libraryReason());
    ::ERR_clear_error();
    if (certificates.empty()) fail(path + " holds no certificate (PEM)");
    return certificates;
}

PrivateKey readKey(const std::string& path) {
    const std::string text = contentsOf(path);
    const Source source = sourceOf(text);
    // Nobody sits there who could be asked for a passphrase.
    const auto noPassphrase = [](char*, int, int, void*) { return 0; };
    PrivateKey key(::PEM_read_bio_PrivateKey(source.get(), nullptr, noPassphrase, nullptr));
    ::ERR_clear_error();
    if (key) return key;
    const bool encrypted = text.find("ENCRYPTED") != std::string::npos;
    fail(path +
         (encrypted ? " holds a key with a passphrase; the agent needs one without" : " holds no private key (PEM)"));
}

std::string textOf(const ASN1_TIME* time) {
    const Source target(::BIO_new(::BIO_s_mem()));
    ::ASN1_TIME_print(target.get(), time);
    char* text = nullptr;
    const long size = BIO_get_mem_data(target.get(), &text);
    return {text, static_cast<std::size_t>(size)};
}

void checkTime(const std::string& path, const X509& certificate) {
    const ASN1_TIME* const begin = ::X509_get0_notBefore(&certificate);
    const ASN1_TIME* const end = ::X509_get0_notAfter(&certificate);
    if (::X509_cmp_current_time(end) <= 0) fail("the certificate in " + path + " expired on " + textOf(end));
    if (::X509_cmp_current_time(begin) > 0)
        fail("the certificate in " + path + " is not valid before " + textOf(begin));
}

void useOwn(SSL_CTX* context, const HttpCertificateFiles& files) {
    const std::vector<Certificate> chain = readCertificates(files.certificate);
    X509* const own = chain.front().get();
    checkTime(files.certificate, *own);
    const PrivateKey key = readKey(files.key);
    if (::X509_check_private_key(own, key.get()) != 1) {
        ::ERR_clear_error();
        fail("the key in " + files.key + " does not belong to the certificate in " + files.certificate);
    }
    if (::SSL_CTX_use_certificate(context, own) != 1)
        fail("the certificate in " + files.certificate + " cannot be used: " + libraryReason());
    if (::SSL_CTX_use_PrivateKey(context, key.get()) != 1)
        fail("the key in " + files.key + " cannot be used: " + libraryReason());
    for (auto next = chain.begin() + 1; next != chain.end(); ++next) {
        if (SSL_CTX_add1_chain_cert(context, next->get()) != 1)
            fail("a certificate in " + files.certificate + " cannot be used: " + libraryReason());
    }
}

/// Clients are told the authorities' names, so that those who have several certificates know which is meant.
void believe(SSL_CTX* context, const std::string& path) {
    for (const Certificate& authority : readCertificates(path)) {
        if (::X509_STORE_add_cert(::SSL_CTX_get_cert_store(context), authority.get()) != 1 ||
            ::SSL_CTX_add_client_CA(context, authority.get()) != 1)
            fail("a certificate in " + path + " cannot be used: " + libraryReason());
    }
    ::SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
}

}  // namespace

HttpCertificates::Context HttpCertificates::read(const HttpCertificateFiles& files) {
    auto context = std::make_shared<ssl::context>(ssl::context::tls_server);
    SSL_CTX* const native = context->native_handle();
    SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
    ::SSL_CTX_set_options(native, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_NO_TICKET |
                                      SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_PRIORITIZE_CHACHA);
    SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_OFF);
    ::SSL_CTX_set_num_tickets(native, 0);
    // Idle connections are many; what they read into can be had again.
    SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);
    if (::SSL_CTX_set_cipher_list(native, olderCiphers) != 1) fail("no cipher can be used: " + libraryReason());
    useOwn(native, files);
    if (!files.clientAuthority.empty()) believe(native, files.clientAuthority);
    return context;
}

HttpCertificates::HttpCertificates(const HttpCertificateFiles& files) : m_current(read(files)) {}

void HttpCertificates::use(Context read) noexcept {
    const std::lock_guard lock(m_mutex);
    m_current.swap(read);
}

HttpCertificates::Context HttpCertificates::current() const {
    const std::lock_guard lock(m_mutex);
    return m_current;
}

}  // namespace QOR
