/// \file
/// A server at a unix socket that answers as a test tells it to, well or badly.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace QOR::test {

/// Serves one connection after the other on a thread of its own. One whose answer says "Connection: close" ends with
/// it.
class UnixHttpServer {
public:
    /// \returns all bytes of an answer to GET of that path, head included; none: it says nothing until the client goes
    using Answer = std::function<std::string(const std::string& path)>;

    /// \throws std::runtime_error when it cannot listen
    /// \param pace what it waits after each byte of an answer
    UnixHttpServer(std::string path, Answer answer, std::chrono::milliseconds pace = {});
    ~UnixHttpServer();
    UnixHttpServer(const UnixHttpServer&) = delete;
    UnixHttpServer& operator=(const UnixHttpServer&) = delete;

    /// The paths that were asked for since the last time.
    std::vector<std::string> asked();

    /// An answer with that body.
    static std::string ok(const std::string& body);
    static std::string status(const std::string& line);

private:
    void serve();
    void serve(int client);
    bool awaits(int fd) const;

    const std::string m_path;
    const Answer m_answer;
    const std::chrono::milliseconds m_pace;
    int m_listener = -1;
    int m_end[2] = {-1, -1};
    std::mutex m_mutex;
    std::vector<std::string> m_asked;  // guarded by m_mutex
    std::thread m_thread;
};

inline UnixHttpServer::UnixHttpServer(std::string path, Answer answer, std::chrono::milliseconds pace)
    : m_path(std::move(path)), m_answer(std::move(answer)), m_pace(pace) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_path.size() >= sizeof address.sun_path) throw std::runtime_error("the path is too long: " + m_path);
    m_path.copy(address.sun_path, sizeof address.sun_path - 1);
    m_listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listener, 16) != 0 || ::pipe2(m_end, O_CLOEXEC) != 0)
        throw std::runtime_error("cannot listen at " + m_path);
    m_thread = std::thread([this] { serve(); });
}

inline UnixHttpServer::~UnixHttpServer() {
    ::close(m_end[1]);
    m_thread.join();
    ::close(m_end[0]);
    ::close(m_listener);
    ::unlink(m_path.c_str());
}

inline std::vector<std::string> UnixHttpServer::asked() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_asked, {});
}

inline std::string UnixHttpServer::ok(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

inline std::string UnixHttpServer::status(const std::string& line) {
    return "HTTP/1.1 " + line + "\r\nContent-Length: 0\r\n\r\n";
}

/// \returns false at the end
inline bool UnixHttpServer::awaits(int fd) const {
    std::array<pollfd, 2> sockets{{{fd, POLLIN, 0}, {m_end[0], POLLIN, 0}}};
    ::poll(sockets.data(), sockets.size(), -1);
    return sockets[1].revents == 0;
}

inline void UnixHttpServer::serve() {
    while (awaits(m_listener)) {
        const int client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        serve(client);
        ::close(client);
    }
}

inline void UnixHttpServer::serve(int client) {
    std::string input;
    std::array<char, 4096> bytes{};
    while (awaits(client)) {
        const ssize_t size = ::recv(client, bytes.data(), bytes.size(), 0);
        if (size <= 0) return;
        input.append(bytes.data(), static_cast<std::size_t>(size));
        const std::size_t end = input.find("\r\n\r\n");
        if (end == std::string::npos) continue;
        const std::size_t from = input.find(' ') + 1;
        const std::string path = input.substr(from, input.find(' ', from) - from);
        input.erase(0, end + 4);
        {
            const std::lock_guard lock(m_mutex);
            m_asked.push_back(path);
        }
        std::string answer = m_answer(path);
        for (std::string_view rest = answer; !rest.empty();) {
            const std::size_t piece = m_pace.count() > 0 ? 1 : rest.size();
            const ssize_t sent = ::send(client, rest.data(), piece, MSG_NOSIGNAL);
            if (sent <= 0) return;
            rest.remove_prefix(static_cast<std::size_t>(sent));
            if (m_pace.count() > 0) std::this_thread::sleep_for(m_pace);
        }
        if (answer.find("Connection: close") != std::string::npos) return;
    }
}

}  // namespace QOR::test
