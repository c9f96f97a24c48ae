/// \file
/// A small HTTP/1.1 client over a unix socket, TCP or what else carries bytes, close enough to the wire to send what no
/// proper client would.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace QOR::test {

struct HttpAnswer {
    int status = 0;
    std::map<std::string, std::string> headers{};  ///< names in lower case
    std::string body{};
};

/// What carries bytes over a socket in another form than its own.
class HttpWire {
public:
    virtual ~HttpWire() = default;
    /// Both as send(2) and recv(2).
    virtual ssize_t send(const char* bytes, std::size_t size) = 0;
    virtual ssize_t receive(char* bytes, std::size_t size) = 0;
    virtual void finishSending() = 0;
};

/// An address of this machine that no client of this process has come from: who is refused is slowed down by his
/// address.
inline std::string unusedLoopbackAddress() {
    static std::atomic<int> last{1};
    const int next = ++last;
    return "127.0." + std::to_string(next / 250) + '.' + std::to_string(next % 250 + 1);
}

/// A connected TCP socket. Closing it resets the connection, as a client ends that has gone for good.
/// \param from this machine's IPv4 address that it comes from; empty: as the system chooses
inline int connectTcp(const std::string& host, int port, const std::string& from = {}) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
        throw std::runtime_error(host + " is no address");
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, ::freeaddrinfo);
    const int made = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const linger reset{1, 0};
    ::setsockopt(made, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    sockaddr_in source{};
    source.sin_family = AF_INET;
    if (!from.empty() && (::inet_pton(AF_INET, from.c_str(), &source.sin_addr) != 1 ||
                          ::bind(made, reinterpret_cast<const sockaddr*>(&source), sizeof source) != 0)) {
        ::close(made);
        throw std::runtime_error("cannot come from " + from);
    }
    if (::connect(made, found->ai_addr, found->ai_addrlen) == 0) return made;
    const std::string reason = std::strerror(errno);
    ::close(made);
    throw std::runtime_error("cannot connect to " + host + ":" + std::to_string(port) + ": " + reason);
}

/// One connection. Fails by exception; a silence of five minutes is a failure.
class HttpClient {
public:
    explicit HttpClient(const std::string& socketPath) : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (socketPath.size() >= sizeof address.sun_path) throw std::runtime_error("socket path too long");
        std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size());
        bePatient();
        if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            const std::string reason = std::strerror(errno);
            ::close(m_socket);
            throw std::runtime_error("cannot connect to " + socketPath + ": " + reason);
        }
    }
    /// Takes a connected socket over.
    explicit HttpClient(int socket, std::unique_ptr<HttpWire> wire = nullptr)
        : m_socket(socket), m_wire(std::move(wire)) {
        bePatient();
    }
    ~HttpClient() { close(); }
    HttpClient(HttpClient&& other) noexcept
        : m_socket(std::exchange(other.m_socket, -1)),
          m_wire(std::move(other.m_wire)),
          m_buffer(std::move(other.m_buffer)) {}
    HttpClient& operator=(HttpClient&&) = delete;

    /// One request, one answer.
    HttpAnswer request(const std::string& method, const std::string& target, std::string_view body = {},
                       const std::string& headers = {}) {
        send(compose(method, target, body, headers));
        return receive(method == "HEAD");
    }
    HttpAnswer get(const std::string& target) { return request("GET", target); }
    HttpAnswer post(const std::string& target, std::string_view body) { return request("POST", target, body); }
    /// Message notation in, message notation out.
    std::string message(std::string_view json) { return post("/v1/messages", json).body; }

    static std::string compose(const std::string& method, const std::string& target, std::string_view body = {},
                               const std::string& headers = {}) {
        std::string text = method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n" + headers;
        if (!body.empty() || method == "POST") text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
        return (text += "\r\n").append(body);
    }

    /// Bytes as they are. \returns false when the other side has closed
    bool send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = m_wire ? m_wire->send(bytes.data(), bytes.size())
                                        : ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }
    /// No more will be sent.
    void finishSending() {
        if (m_wire) m_wire->finishSending();
        ::shutdown(m_socket, SHUT_WR);
    }

    /// The next answer, interim ones left out unless asked for.
    HttpAnswer receive(bool bodyless = false, bool interim = false) {
        HttpAnswer answer;
        do {
            answer = receiveHead();
        } while (!interim && answer.status / 100 == 1);
        if (!bodyless && answer.status / 100 != 1) receiveBody(answer);
        return answer;
    }

    /// The head of an answer alone.
    HttpAnswer receiveHead() {
        HttpAnswer answer;
        const std::string status = takeLine();
        if (status.rfind("HTTP/1.", 0) != 0 || status.size() < 12) throw std::runtime_error("no HTTP: " + status);
        answer.status = std::stoi(status.substr(9, 3));
        for (std::string line = takeLine(); !line.empty(); line = takeLine()) {
            const std::size_t colon = line.find(':');
            std::string name = line.substr(0, colon);
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            answer.headers[name] = line.substr(std::min(line.find_first_not_of(' ', colon + 1), line.size()));
        }
        return answer;
    }

    /// What belongs to it.
    void receiveBody(HttpAnswer& answer) {
        if (const auto length = answer.headers.find("content-length"); length != answer.headers.end()) {
            answer.body = take(std::stoull(length->second));
            return;
        }
        if (answer.headers["transfer-encoding"] != "chunked") return;
        for (std::string chunk = receiveChunk(); !chunk.empty(); chunk = receiveChunk())
            answer.body += chunk;
    }

    /// The next chunk of a body in chunks; the last one is empty.
    std::string receiveChunk() {
        const std::size_t size = std::stoull(takeLine(), nullptr, 16);
        std::string chunk = take(size);
        takeLine();
        return chunk;
    }

    /// Waits until something of an answer has arrived. \returns false when the other side has closed
    bool awaitBytes() { return !m_buffer.empty() || readSome(); }

    /// What has arrived and was not looked at.
    std::string takeBytes() { return std::exchange(m_buffer, {}); }

    /// True when the other side closes without sending anything more.
    bool isClosed() { return m_buffer.empty() && !readSome(); }

    void close() {
        if (m_socket >= 0) ::close(std::exchange(m_socket, -1));
    }

private:
    void bePatient() const {
        const timeval patience{300, 0};
        ::setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        ::setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    }

    bool readSome() {
        char bytes[65536];
        ssize_t size = 0;
        do {
            size = m_wire ? m_wire->receive(bytes, sizeof bytes) : ::recv(m_socket, bytes, sizeof bytes, 0);
        } while (size < 0 && errno == EINTR);
        if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) throw std::runtime_error("no answer");
        if (size <= 0) return false;
        m_buffer.append(bytes, static_cast<std::size_t>(size));
        return true;
    }

    void need(std::size_t size) {
        while (m_buffer.size() < size) {
            if (!readSome()) throw std::runtime_error("the connection ended in the middle of an answer");
        }
    }

    std::string take(std::size_t size) {
        need(size);
        std::string text = m_buffer.substr(0, size);
        m_buffer.erase(0, size);
        return text;
    }

    std::string takeLine() {
        std::size_t end = 0;
        while ((end = m_buffer.find("\r\n")) == std::string::npos) {
            if (!readSome()) throw std::runtime_error("the connection ended in the middle of an answer");
        }
        std::string line = take(end);
        take(2);
        return line;
    }

    int m_socket;
    std::unique_ptr<HttpWire> m_wire;  // null: the socket's own bytes
    std::string m_buffer;
};

}  // namespace QOR::test
