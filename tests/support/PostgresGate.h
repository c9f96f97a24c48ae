/// \file
/// A way to a PostgreSQL server on which things get lost.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/TemporaryDirectory.h"

namespace QOR::test {

/// Hands on what clients and a server on a unix socket say, until it is told to lose something: then that connection is
/// gone for both. Thread-safe.
class PostgresGate {
public:
    /// \param server the folder of the server's socket
    explicit PostgresGate(const std::string& server) : m_server(server + socketName), m_listener(newSocket()) {
        const sockaddr_un address = addressOf(folder() + socketName);
        if (::bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(m_listener, 16) != 0) {
            throw std::runtime_error("cannot listen in " + folder());
        }
        m_accepting = std::thread([this] { accept(); });
    }
    ~PostgresGate() {
        close();
        for (std::thread& thread : m_handing)
            thread.join();
    }
    PostgresGate(const PostgresGate&) = delete;
    PostgresGate& operator=(const PostgresGate&) = delete;

    /// Where clients look for the server's socket.
    std::string folder() const { return m_folder.path().string(); }
    /// The next request with this text reaches the server, but the answer does not come back.
    void loseAnswerTo(std::string_view text) { set(text, true); }
    /// The next request with this text does not reach the server.
    void loseRequest(std::string_view text) { set(text, false); }
    /// Runs when something has been lost, before anybody knows.
    void onLoss(std::function<void()> work) {
        const std::lock_guard lock(m_mutex);
        m_onLoss = std::move(work);
    }
    /// What was asked since the last call, in order: the text of each simple request, and "prepared" for what else the
    /// server was made to answer. Each is a way there and back.
    std::vector<std::string> asked() {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_asked, {});
    }
    /// Lets nobody in any more; whoever is in stays.
    void close() {
        if (m_listener < 0) return;
        ::shutdown(m_listener, SHUT_RDWR);
        m_accepting.join();
        ::close(std::exchange(m_listener, -1));
    }

private:
    static constexpr const char* socketName = "/.s.PGSQL.5432";

    static int newSocket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }
    static sockaddr_un addressOf(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        return address;
    }
    void set(std::string_view text, bool answer) {
        const std::lock_guard lock(m_mutex);
        m_lost = text;
        m_answer = answer;
    }
    /// Whether this request is the one. \returns 0 no, 1 it is lost itself, 2 its answer is
    int isLost(std::string_view request) {
        const std::lock_guard lock(m_mutex);
        if (m_lost.empty() || request.find(m_lost) == std::string_view::npos) return 0;
        m_lost.clear();
        return m_answer ? 2 : 1;
    }
    void accept() {
        for (;;) {
            const int client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) return;
            m_handing.emplace_back([this, client] { handOn(client); });
        }
    }
    /// Takes what it can of messages out of what a client says, of which the first has no letter.
    void listen(std::string& said, bool& begun) {
        constexpr std::size_t lengthBytes = 4;
        for (;;) {
            const std::size_t letters = begun ? 1 : 0;
            if (said.size() < letters + lengthBytes) return;
            std::uint32_t length = 0;
            std::memcpy(&length, said.data() + letters, lengthBytes);
            const std::size_t whole = letters + ntohl(length);
            if (said.size() < whole) return;
            const std::lock_guard lock(m_mutex);
            if (begun && said[0] == 'Q') m_asked.emplace_back(said.data() + letters + lengthBytes);
            if (begun && said[0] == 'S') m_asked.emplace_back("prepared");
            begun = true;
            said.erase(0, whole);
        }
    }
    void lose() {
        std::function<void()> work;
        {
            const std::lock_guard lock(m_mutex);
            work = std::exchange(m_onLoss, {});
        }
        if (work) work();
    }
    void handOn(int client) {
        const int server = newSocket();
        const sockaddr_un address = addressOf(m_server);
        bool losing = false;
        bool begun = false;
        std::string said;
        if (::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            pollfd ends[] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
            char bytes[65536];
            while (::poll(ends, 2, -1) > 0) {
                const bool asked = ends[0].revents != 0;
                const ssize_t size = ::read(asked ? client : server, bytes, sizeof bytes);
                if (losing && !asked) lose();
                if (size <= 0 || (losing && !asked)) break;
                if (asked) listen(said.append(bytes, static_cast<std::size_t>(size)), begun);
                const int lost = asked ? isLost({bytes, static_cast<std::size_t>(size)}) : 0;
                if (lost == 1) lose();
                if (lost == 1) break;
                if (lost == 2) losing = true;
                if (::send(asked ? server : client, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL) != size) break;
            }
        }
        ::close(server);
        ::close(client);
    }

    const TemporaryDirectory m_folder;
    const std::string m_server;
    int m_listener;
    std::thread m_accepting;
    std::vector<std::thread> m_handing;  // the accepting thread's until it has ended
    std::mutex m_mutex;
    std::string m_lost;                // guarded by m_mutex
    bool m_answer = false;             // guarded by m_mutex
    std::vector<std::string> m_asked;  // guarded by m_mutex
    std::function<void()> m_onLoss;    // guarded by m_mutex
};

}  // namespace QOR::test
