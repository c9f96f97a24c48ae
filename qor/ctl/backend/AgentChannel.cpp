#include "backend/AgentChannel.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <system_error>

#include "process/CtlError.h"

namespace QOR {
namespace {

[[noreturn]] void noAgent(const AgentPlace& place, const std::string& reason, const std::string& advice) {
    throw CtlError::noConnection("no agent answers at " + place.name() + ": " + reason + "; " + advice);
}

std::int64_t patience = 0;  ///< seconds; 0: without end

/// An agent ends a request in time itself; one that does not has this long to say so.
constexpr std::int64_t grace = 2;

[[noreturn]] void failed() {
    if (errno == EAGAIN)
        throw CtlError::noConnection("no answer has come within " + std::to_string(patience) +
                                     " s (--timeout); the agent is there, but busy with something else, or hangs");
    throw std::system_error(errno, std::generic_category());
}

void limit(int socket) {
    if (patience == 0) return;
    const timeval longest{static_cast<time_t>(patience + grace), 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof longest);
}

void sendAll(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR) failed();
        if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::size_t receiveSome(int socket, std::span<char> room) {
    for (;;) {
        const ssize_t got = ::recv(socket, room.data(), room.size(), 0);
        if (got >= 0) return static_cast<std::size_t>(got);
        if (errno != EINTR) failed();
    }
}

QORFileDescriptor connectLocal(const AgentPlace& place) {
    constexpr const char* advice =
        "start it (qor-agent), name its socket (--socket), or work without one (--standalone "
        "--database CONNECTION-STRING)";
    const std::string& path = place.address.path;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) noAgent(place, std::strerror(ENAMETOOLONG), advice);
    std::memcpy(address.sun_path, path.c_str(), path.size());
    QORFileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    limit(socket.get());
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return socket;
    const int error = errno;
    if (error == EAGAIN) failed();
    noAgent(place, std::strerror(error), error == EACCES ? "ask to be let into the socket's group" : advice);
}

QORFileDescriptor connectTcp(const AgentPlace& place) {
    const std::string advice = "an agent is told to listen there by --listen " + place.address.text();
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int unknown =
        ::getaddrinfo(place.address.host.c_str(), std::to_string(place.address.port).c_str(), &hints, &found);
    if (unknown != 0) noAgent(place, ::gai_strerror(unknown), "is the host's name right?");
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, ::freeaddrinfo);
    int error = 0;
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
        QORFileDescriptor socket(::socket(one->ai_family, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
        limit(socket.get());
        const int on = 1;
        const linger reset{1, 0};
        ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        ::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        if (::connect(socket.get(), one->ai_addr, one->ai_addrlen) == 0) return socket;
        error = errno == EINPROGRESS ? ETIMEDOUT : errno;  // as the limit tells it
    }
    noAgent(place, std::strerror(error), advice);
}

std::string libraryReason() {
    const char* const reason = ::ERR_reason_error_string(::ERR_peek_last_error());
    ::ERR_clear_error();
    return reason == nullptr ? "it ended the connection" : reason;
}

/// The hosts that a certificate is for.
std::string namesOf(const X509* certificate) {
    std::string names;
    auto* const all =
        static_cast<GENERAL_NAMES*>(::X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr));
    for (int index = 0; index < sk_GENERAL_NAME_num(all); ++index) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(all, index);
        std::string text;
        if (name->type == GEN_DNS) {
            text.assign(reinterpret_cast<const char*>(::ASN1_STRING_get0_data(name->d.dNSName)),
                        static_cast<std::size_t>(::ASN1_STRING_length(name->d.dNSName)));
        } else if (name->type == GEN_IPADD) {
            std::array<char, INET6_ADDRSTRLEN> digits{};
            const int family = ::ASN1_STRING_length(name->d.iPAddress) == 4 ? AF_INET : AF_INET6;
            ::inet_ntop(family, ::ASN1_STRING_get0_data(name->d.iPAddress), digits.data(), digits.size());
            text = digits.data();
        }
        if (!text.empty()) names += (names.empty() ? "" : ", ") + text;
    }
    ::GENERAL_NAMES_free(all);
    return names.empty() ? "no host" : names;
}

/// Where what is wrong with a certificate finds the words of the connection that it was shown to.
int complaintIndex() {
    static const int index = ::SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

int noteComplaint(int sound, X509_STORE_CTX* store) {
    if (sound == 1) return sound;
    const auto* const tls =
        static_cast<const SSL*>(::X509_STORE_CTX_get_ex_data(store, ::SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto& complaint = *static_cast<std::string*>(::SSL_get_ex_data(tls, complaintIndex()));
    const int error = ::X509_STORE_CTX_get_error(store);
    const X509* const certificate = ::X509_STORE_CTX_get_current_cert(store);
    const bool otherHost = error == X509_V_ERR_HOSTNAME_MISMATCH || error == X509_V_ERR_IP_ADDRESS_MISMATCH;
    complaint = otherHost ? "its certificate is for " + namesOf(certificate)
                          : "its certificate is not trusted: " + std::string(::X509_verify_cert_error_string(error));
    return sound;
}

}  // namespace

/// The library sees memory alone, so that nobody holds its lock while he waits for the socket.
class AgentChannel::Tls {
public:
    Tls(int socket, const AgentPlace& place)
        : m_socket(socket), m_place(place), m_context(::SSL_CTX_new(::TLS_client_method())) {
        SSL_CTX_set_min_proto_version(m_context.get(), TLS1_2_VERSION);
        believe(place);
        showCertificate(place);
        m_tls.reset(::SSL_new(m_context.get()));
        // Both belong to the connection.
        m_in = ::BIO_new(::BIO_s_mem());
        m_out = ::BIO_new(::BIO_s_mem());
        ::SSL_set_bio(m_tls.get(), m_in, m_out);
        expectHost(place.address.host);
        shakeHands(place);
    }

    void send(std::string_view bytes) {
        while (!bytes.empty()) {
            const std::string_view piece = bytes.substr(0, mostAtOnce);
            std::string records;
            {
                const std::lock_guard lock(m_mutex);
                ::SSL_write(m_tls.get(), piece.data(), static_cast<int>(piece.size()));
                records = takeRecords();
            }
            sendAll(m_socket, records);
            bytes.remove_prefix(piece.size());
        }
    }

    std::size_t receive(std::span<char> room) {
        for (;;) {
            {
                const std::lock_guard lock(m_mutex);
                ::ERR_clear_error();
                std::size_t got = 0;
                if (::SSL_read_ex(m_tls.get(), room.data(), room.size(), &got) == 1) {
                    m_received = true;
                    return got;
                }
                const int error = ::SSL_get_error(m_tls.get(), 0);
                if (error == SSL_ERROR_ZERO_RETURN) return 0;
                if (error != SSL_ERROR_WANT_READ) failTls();
            }
            if (!readRecords()) return 0;
        }
    }

private:
    static constexpr std::size_t mostAtOnce = std::size_t{64} << 10;

    struct Free {
        void operator()(SSL_CTX* context) const noexcept { ::SSL_CTX_free(context); }
        void operator()(SSL* tls) const noexcept { ::SSL_free(tls); }
    };

    void believe(const AgentPlace& place) {
        ::SSL_CTX_set_verify(m_context.get(), SSL_VERIFY_PEER, noteComplaint);
        if (place.authority.empty()) {
            ::SSL_CTX_set_default_verify_paths(m_context.get());
        } else if (::SSL_CTX_load_verify_locations(m_context.get(), place.authority.c_str(), nullptr) != 1) {
            throw CtlError::usage("--ca: no certificate can be read from " + place.authority + ": " + libraryReason());
        }
    }

    void showCertificate(const AgentPlace& place) {
        if (place.certificate.empty()) return;
        SSL_CTX* const context = m_context.get();
        ::ERR_clear_error();
        if (::SSL_CTX_use_certificate_chain_file(context, place.certificate.c_str()) != 1)
            throw CtlError::usage("--certificate: none can be read from " + place.certificate + ": " + libraryReason());
        // A key with a passphrase is not asked for one.
        ::SSL_CTX_set_default_passwd_cb(context, [](char*, int, int, void*) { return -1; });
        ::ERR_clear_error();
        if (::SSL_CTX_use_PrivateKey_file(context, place.key.c_str(), SSL_FILETYPE_PEM) != 1)
            throw CtlError::usage("--key: none for " + place.certificate + " can be read from " + place.key + ": " +
                                  libraryReason());
    }

    /// What an agent thinks of a certificate it says when the handshake is over for its client.
    [[noreturn]] void failTls() const {
        const std::string reason = libraryReason();
        if (!m_received && !m_place.certificate.empty())
            noAgent(m_place, "it refuses " + m_place.certificate + ": " + reason,
                    "is it from the authority that the agent knows by --tls-client-ca?");
        throw std::system_error(EPROTO, std::generic_category(), reason);
    }

    void expectHost(const std::string& host) {
        ::SSL_set_ex_data(m_tls.get(), complaintIndex(), &m_complaint);
        if (::X509_VERIFY_PARAM_set1_ip_asc(::SSL_get0_param(m_tls.get()), host.c_str()) == 1) return;
        ::SSL_set1_host(m_tls.get(), host.c_str());
        SSL_set_tlsext_host_name(m_tls.get(), host.c_str());
    }

    void shakeHands(const AgentPlace& place) {
        constexpr const char* speaksNone = "does it speak https there?";
        for (;;) {
            ::ERR_clear_error();
            const int done = ::SSL_connect(m_tls.get());
            const int error = ::SSL_get_error(m_tls.get(), done);
            const std::string reason = done == 1 ? "" : libraryReason();
            try {
                sendAll(m_socket, takeRecords());
                if (done == 1) return;
                if (!m_complaint.empty()) noAgent(place, m_complaint, advice(place));
                if (error != SSL_ERROR_WANT_READ) noAgent(place, "no TLS with it: " + reason, speaksNone);
                if (!readRecords()) noAgent(place, "it ended the connection", speaksNone);
            } catch (const std::system_error& failure) {
                noAgent(place, failure.code().message(), speaksNone);
            }
        }
    }

    std::string advice(const AgentPlace& place) const {
        if (m_complaint.find("not trusted") == std::string::npos)
            return "name the host as its certificate does, in place of " + place.address.host;
        return place.authority.empty() ? "name its authority's certificate with --ca FILE"
                                       : place.authority + " is all that is believed (--ca)";
    }

    std::string takeRecords() {
        std::string records(BIO_ctrl_pending(m_out), '\0');
        if (!records.empty()) ::BIO_read(m_out, records.data(), static_cast<int>(records.size()));
        return records;
    }

    /// \returns false at the end
    bool readRecords() {
        std::array<char, std::size_t{16} << 10> block;
        const std::size_t got = receiveSome(m_socket, block);
        const std::lock_guard lock(m_mutex);
        if (got > 0) ::BIO_write(m_in, block.data(), static_cast<int>(got));
        return got > 0;
    }

    const int m_socket;
    const AgentPlace m_place;
    bool m_received = false;  // the receiver's
    std::string m_complaint;  ///< what is wrong with the agent's certificate
    std::unique_ptr<SSL_CTX, Free> m_context;
    std::unique_ptr<SSL, Free> m_tls;  // guarded by m_mutex, with both of its ends
    BIO* m_in = nullptr;
    BIO* m_out = nullptr;
    std::mutex m_mutex;
};

AgentChannel::AgentChannel(const AgentPlace& place)
    : m_socket(place.address.isUnix() ? connectLocal(place) : connectTcp(place)) {
    if (place.address.scheme == QORAgentAddress::Scheme::Https) m_tls = std::make_unique<Tls>(m_socket.get(), place);
}

AgentChannel::~AgentChannel() = default;

void AgentChannel::setPatience(std::int64_t seconds) noexcept {
    patience = seconds;
}

void AgentChannel::usePatience(std::int64_t seconds) noexcept {
    if (patience == 0) patience = seconds;
}

void AgentChannel::send(std::string_view bytes) {
    if (m_tls) {
        m_tls->send(bytes);
    } else {
        sendAll(m_socket.get(), bytes);
    }
}

std::size_t AgentChannel::receive(std::span<char> room) {
    return m_tls ? m_tls->receive(room) : receiveSome(m_socket.get(), room);
}

void AgentChannel::abandon() noexcept {
    ::shutdown(m_socket.get(), SHUT_RDWR);
}

}  // namespace QOR
