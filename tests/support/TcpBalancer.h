/// \file
/// What stands in front of several agents: each connection goes to the next one in turn.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <list>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/HttpClient.h"

namespace QOR::test {

/// Hands on bytes between clients and agents on 127.0.0.1. An agent that does not listen is a connection that ends. May
/// be told to lose things. Thread-safe.
class TcpBalancer {
public:
    /// \param ports of the agents
    explicit TcpBalancer(std::vector<int> ports)
        : m_ports(std::move(ports)), m_served(m_ports.size()), m_listener(newListener()) {
        m_accepting = std::thread([this] { accept(); });
    }
    ~TcpBalancer() {
        ::shutdown(m_listener, SHUT_RDWR);
        m_accepting.join();
        cut();
        for (std::thread& thread : m_handing)
            thread.join();
        ::close(m_listener);
    }
    TcpBalancer(const TcpBalancer&) = delete;
    TcpBalancer& operator=(const TcpBalancer&) = delete;

    /// An agent listens elsewhere now.
    void setPort(std::size_t agent, int port) {
        const std::lock_guard lock(m_mutex);
        m_ports.at(agent) = port;
    }
    /// Where clients come.
    int port() const noexcept { return m_port; }
    /// A client's connection to the agent whose turn it is.
    HttpClient connect() const { return HttpClient(connectTcp("127.0.0.1", m_port)); }

    /// How many connections each agent got so far.
    std::vector<std::size_t> served() const {
        const std::lock_guard lock(m_mutex);
        return m_served;
    }
    /// Ends all connections, in the middle of whatever they carry.
    void cut() {
        const std::lock_guard lock(m_mutex);
        for (const auto& [client, agent] : m_open) {
            ::shutdown(client, SHUT_RDWR);
            ::shutdown(agent, SHUT_RDWR);
        }
    }
    /// The next answers are lost: agents get what they are sent, and connections end when they say something.
    void loseAnswers(std::size_t many) {
        const std::lock_guard lock(m_mutex);
        m_losing = many;
    }
    /// Answers that were lost.
    std::size_t lost() const {
        const std::lock_guard lock(m_mutex);
        return m_lost;
    }

private:
    int newListener() {
        const int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (::bind(made, reinterpret_cast<const sockaddr*>(&address), size) != 0 || ::listen(made, 64) != 0 ||
            ::getsockname(made, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            throw std::runtime_error("cannot listen");
        m_port = ntohs(address.sin_port);
        return made;
    }

    void accept() {
        for (std::size_t turn = 0;; ++turn) {
            const int client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) return;
            const std::size_t at = turn % m_served.size();
            m_handing.emplace_back([this, client, at] { handOn(client, at); });
        }
    }

    void handOn(int client, std::size_t at) {
        int agent = -1;
        try {
            agent = connectTcp("127.0.0.1", portOf(at));
        } catch (const std::runtime_error&) {
            ::close(client);
            return;
        }
        std::list<std::pair<int, int>>::iterator place;
        {
            const std::lock_guard lock(m_mutex);
            ++m_served[at];
            place = m_open.insert(m_open.end(), {client, agent});
        }
        pollfd ends[] = {{client, POLLIN, 0}, {agent, POLLIN, 0}};
        bool goesOn = true;
        while (goesOn && ::poll(ends, 2, -1) > 0) {
            if (ends[0].revents != 0) goesOn = pass(client, agent);
            if (goesOn && ends[1].revents != 0) goesOn = answer(agent, client);
        }
        const std::lock_guard lock(m_mutex);
        m_open.erase(place);
        ::close(client);
        ::close(agent);
    }

    int portOf(std::size_t at) const {
        const std::lock_guard lock(m_mutex);
        return m_ports[at];
    }

    static bool pass(int from, int to) {
        char bytes[65536];
        const ssize_t size = ::recv(from, bytes, sizeof bytes, 0);
        return size > 0 && sendAll(to, {bytes, static_cast<std::size_t>(size)});
    }
    /// Unless it is to be lost.
    bool answer(int agent, int client) {
        char bytes[65536];
        const ssize_t size = ::recv(agent, bytes, sizeof bytes, 0);
        if (size <= 0) return false;
        {
            const std::lock_guard lock(m_mutex);
            if (m_losing > 0) {
                --m_losing;
                ++m_lost;
                return false;
            }
        }
        return sendAll(client, {bytes, static_cast<std::size_t>(size)});
    }
    static bool sendAll(int to, std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    mutable std::mutex m_mutex;
    std::vector<int> m_ports;               // guarded by m_mutex
    std::vector<std::size_t> m_served;      // guarded by m_mutex
    std::list<std::pair<int, int>> m_open;  // guarded by m_mutex
    std::size_t m_losing = 0;               // guarded by m_mutex
    std::size_t m_lost = 0;                 // guarded by m_mutex
    int m_port = 0;
    const int m_listener;
    std::thread m_accepting;
    std::vector<std::thread> m_handing;  // the accepting thread's until it has ended
};

}  // namespace QOR::test
