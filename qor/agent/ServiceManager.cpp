#include "agent/ServiceManager.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"

namespace QOR {
namespace {

constexpr int keepVariables = 0;

/// What is told is lines, and of a few kilobytes at most: beyond, nothing of it arrives.
std::string oneLine(std::string text) {
    constexpr std::size_t longest = 1000;
    if (text.size() > longest) {
        std::size_t end = longest;
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
            --end;
        text.replace(end, std::string::npos, "...");
    }
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' '; }, ' ');
    return text;
}

/// Who does not listen has not asked.
void notify(const std::string& lines) {
    static_cast<void>(::sd_notify(keepVariables, lines.c_str()));
}

std::string monotonicMicroseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::to_string(static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 +
                          static_cast<std::uint64_t>(now.tv_nsec) / 1000);
}

[[noreturn]] void refuse(int socket, const std::string& why) {
    throw QORException(errFailure, "socket " + std::to_string(socket) + " of the service manager " + why,
                       QOR_SOURCE_PATH);
}

template <class Address>
std::string hostOf(const Address& address, int family) {
    char text[INET6_ADDRSTRLEN] = {};
    return ::inet_ntop(family, &address, text, sizeof text) == nullptr ? std::string() : std::string(text);
}

/// Without a scheme: which it is, the settings say.
QORAgentAddress addressOf(int socket) {
    sockaddr_storage bound{};
    socklen_t size = sizeof bound;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&bound), &size) != 0)
        refuse(socket, std::string("cannot be asked for its address: ") + std::strerror(errno));
    QORAgentAddress address{QORAgentAddress::Scheme::Http};
    if (bound.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(bound);
        address.host = hostOf(v4.sin_addr, AF_INET);
        address.port = ntohs(v4.sin_port);
    } else if (bound.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(bound);
        address.host = hostOf(v6.sin6_addr, AF_INET6);
        address.port = ntohs(v6.sin6_port);
    } else if (bound.ss_family == AF_UNIX) {
        const auto& local = reinterpret_cast<const sockaddr_un&>(bound);
        if (size <= offsetof(sockaddr_un, sun_path) || local.sun_path[0] == '\0') refuse(socket, "has no path");
        return unixAddress(local.sun_path);
    } else {
        refuse(socket, "is of no kind that clients reach");
    }
    return address;
}

HttpHandedSocket take(int socket) {
    if (::sd_is_socket(socket, AF_UNSPEC, SOCK_STREAM, 1) <= 0) refuse(socket, "does not listen");
    HttpHandedSocket handed{addressOf(socket), socket};
    if (handed.address.isUnix()) return handed;
    // As those that the agent makes itself.
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    return handed;
}

}  // namespace

void ServiceManager::ready(const std::string& status) {
    notify("READY=1\nSTATUS=" + oneLine(status));
}

void ServiceManager::reloading() {
    notify("RELOADING=1\nMONOTONIC_USEC=" + monotonicMicroseconds() + "\nSTATUS=reading the settings anew");
}

void ServiceManager::stopping() {
    notify("STOPPING=1\nSTATUS=stopping");
}

void ServiceManager::alive() {
    notify("WATCHDOG=1");
}

std::optional<std::chrono::milliseconds> ServiceManager::watchdogPause() {
    std::uint64_t microseconds = 0;
    if (::sd_watchdog_enabled(keepVariables, &microseconds) <= 0) return std::nullopt;
    // Twice as often as asked for, so that one that comes late is no missing one.
    const auto half = std::chrono::milliseconds(microseconds / 2000);
    return std::max(half, std::chrono::milliseconds(1));
}

std::vector<HttpHandedSocket> ServiceManager::takeSockets() {
    constexpr int forgetVariables = 1;
    const int number = ::sd_listen_fds(forgetVariables);
    std::vector<HttpHandedSocket> sockets;
    for (int socket = SD_LISTEN_FDS_START; socket < SD_LISTEN_FDS_START + number; ++socket)
        sockets.push_back(take(socket));
    return sockets;
}

}  // namespace QOR
