#include "http/LoadClient.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <thread>
#include <utility>

#include "support/Figures.h"
#include "support/HttpClient.h"

namespace QOR::bench {
namespace {

constexpr std::string_view endOfHead = "\r\n\r\n";
constexpr std::string_view lengthField = "content-length:";

/// Whole answers end where their lengths say.
std::size_t bodyLength(std::string_view head) {
    const auto* const found = std::search(head.begin(), head.end(), lengthField.begin(), lengthField.end(),
                                          [](char c, char lower) { return (c | 0x20) == lower || c == lower; });
    check(found != head.end(), "an answer without its length: " + std::string(head));
    const char* digits = found + lengthField.size();
    while (*digits == ' ')
        ++digits;
    std::size_t length = 0;
    std::from_chars(digits, head.data() + head.size(), length);
    return length;
}

}  // namespace

struct LoadClient::Connection {
    int socket = -1;
    Clock::time_point asked{};
    std::string input{};
    std::size_t whole = 0;  ///< bytes of the answer, once its head is there
};

LoadClient::LoadClient(int port, std::size_t connections, std::string request)
    : m_request(std::move(request)), m_epoll(::epoll_create1(EPOLL_CLOEXEC)), m_connections(connections) {
    for (std::size_t number = 0; number < connections; ++number) {
        const int socket = test::connectTcp("127.0.0.1", port);
        const int now = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &now, sizeof now);
        m_connections[number].socket = socket;
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = number;
        ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, socket, &event);
    }
}

LoadClient::~LoadClient() {
    for (const Connection& connection : m_connections)
        ::close(connection.socket);
    ::close(m_epoll);
}

std::size_t LoadClient::connections() const noexcept {
    return m_connections.size();
}

void LoadClient::send(Connection& connection) const {
    connection.asked = Clock::now();
    check(::send(connection.socket, m_request.data(), m_request.size(), MSG_NOSIGNAL) ==
              static_cast<ssize_t>(m_request.size()),
          "a request cannot be sent");
}

bool LoadClient::receive(Connection& connection) const {
    std::array<char, 65536> bytes;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled before it is read
    const ssize_t got = ::recv(connection.socket, bytes.data(), bytes.size(), 0);
    check(got > 0, "the server ends a connection");
    connection.input.append(bytes.data(), static_cast<std::size_t>(got));
    if (connection.whole == 0) {
        const std::size_t end = connection.input.find(endOfHead);
        if (end == std::string::npos) return false;
        const std::string_view head = std::string_view(connection.input).substr(0, end);
        check(head.starts_with("HTTP/1.1 200 "), "not the answer that was asked for: " + connection.input);
        connection.whole = end + endOfHead.size() + bodyLength(head);
    }
    return connection.input.size() >= connection.whole;
}

Load LoadClient::ask(double seconds) {
    std::vector<double> times;
    const auto begin = Clock::now();
    for (Connection& connection : m_connections)
        send(connection);
    std::array<epoll_event, 64> events{};
    bool over = false;
    for (std::size_t open = m_connections.size(); open > 0;) {
        const int ready = ::epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), 60'000);
        check(ready > 0, "the server is silent");
        for (int at = 0; at < ready; ++at) {
            Connection& connection = m_connections[events[static_cast<std::size_t>(at)].data.u64];
            if (!receive(connection)) continue;
            times.push_back(secondsSince(connection.asked));
            connection.input.clear();
            connection.whole = 0;
            over = over || secondsSince(begin) >= seconds;
            if (over)
                --open;
            else
                send(connection);
        }
    }
    Load load;
    load.perSecond = static_cast<double>(times.size()) / secondsSince(begin);
    std::sort(times.begin(), times.end());
    load.median = times[times.size() / 2];
    load.p99 = times[times.size() * 99 / 100];
    return load;
}

std::string LoadClient::answer() {
    Connection& connection = m_connections.front();
    send(connection);
    while (!receive(connection)) {
    }
    connection.whole = 0;
    std::string text = std::exchange(connection.input, {});
    return text.substr(text.find(endOfHead) + endOfHead.size());
}

void runOnProcessor(unsigned number) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(std::min(number, std::max(1U, std::thread::hardware_concurrency()) - 1), &set);
    check(::sched_setaffinity(0, sizeof set, &set) == 0, "cannot be pinned to a processor");
}

}  // namespace QOR::bench
