#include "agent/http/TcpListener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"

namespace QOR {
namespace {

using Addresses = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

/// Nothing when the text is no address in digits.
Addresses resolve(const QORAgentAddress& address) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    const int unknown = ::getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found);
    return {unknown == 0 ? found : nullptr, ::freeaddrinfo};
}

bool isLoopback(const sockaddr& address) {
    if (address.sa_family == AF_INET) {
        constexpr unsigned loopbackNetwork = 127;
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        return ntohl(v4.sin_addr.s_addr) >> 24U == loopbackNetwork;
    }
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr) != 0;
}

std::uint16_t portOf(int socket) {
    sockaddr_storage bound{};
    socklen_t size = sizeof bound;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&bound), &size) != 0) return 0;
    return ntohs(bound.ss_family == AF_INET ? reinterpret_cast<const sockaddr_in&>(bound).sin_port
                                            : reinterpret_cast<const sockaddr_in6&>(bound).sin6_port);
}

[[noreturn]] void refuse(const QORAgentAddress& address, const std::string& reason) {
    throw QORException(errFailure, "cannot listen at " + address.text() + ": " + reason, QOR_SOURCE_PATH);
}

/// \throws QORException for what is no place to listen at
Addresses checked(const QORAgentAddress& address) {
    Addresses found = resolve(address);
    if (!found) refuse(address, "\"" + address.host + "\" is no address in digits, as 127.0.0.1, [::1] or 0.0.0.0");
    if (address.scheme == QORAgentAddress::Scheme::Http && !isLoopback(*found->ai_addr)) {
        refuse(address,
               "plain http is for this machine's own programs, at 127.0.0.1 or [::1]; for others listen at https://" +
                   address.authority() + ", with --tls-certificate and --tls-key");
    }
    return found;
}

}  // namespace

void TcpListener::check(const QORAgentAddress& address) {
    static_cast<void>(checked(address));
}

TcpListener::TcpListener(const QORAgentAddress& address) : m_address(address) {
    const Addresses found = checked(address);
    m_family = found->ai_family;
    m_socket = QORFileDescriptor(::socket(m_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP));
    if (m_socket.get() < 0) fail(std::strerror(errno));
    // An agent that is started again must not wait for its last one's connections to be forgotten.
    set(SOL_SOCKET, SO_REUSEADDR);
    // [::] is not 0.0.0.0 too: who wants both says so.
    if (m_family == AF_INET6) set(IPPROTO_IPV6, IPV6_V6ONLY);
    // The connections that are accepted have these from here.
    set(IPPROTO_TCP, TCP_NODELAY);
    set(SOL_SOCKET, SO_KEEPALIVE);
    if (::bind(m_socket.get(), found->ai_addr, found->ai_addrlen) != 0 || ::listen(m_socket.get(), SOMAXCONN) != 0)
        fail(std::strerror(errno));
    m_address.port = portOf(m_socket.get());
}

void TcpListener::set(int level, int option) const {
    const int on = 1;
    if (::setsockopt(m_socket.get(), level, option, &on, sizeof on) != 0) fail(std::strerror(errno));
}

void TcpListener::fail(const std::string& reason) const {
    refuse(m_address, reason);
}

}  // namespace QOR
