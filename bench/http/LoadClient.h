/// \file
/// Clients that ask again as soon as they are answered, all of them in one thread.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace QOR::bench {

/// What a stretch of asking gave.
struct Load {
    double perSecond = 0;  ///< answers
    double median = 0;     ///< seconds from a request's first byte to its answer's last
    double p99 = 0;
};

/// So many kept connections to a server on this machine. Answers must say their Content-Length and be of status 200;
/// others are std::logic_error. Used by one thread.
class LoadClient {
public:
    /// \param request as it stands on the wire
    LoadClient(int port, std::size_t connections, std::string request);
    ~LoadClient();
    LoadClient(const LoadClient&) = delete;
    LoadClient& operator=(const LoadClient&) = delete;

    std::size_t connections() const noexcept;
    Load ask(double seconds);
    /// One answer's body.
    std::string answer();

private:
    struct Connection;
    void send(Connection& connection) const;
    /// \returns whether an answer has come whole
    bool receive(Connection& connection) const;

    const std::string m_request;
    int m_epoll = -1;
    std::vector<Connection> m_connections;
};

/// The processor on which this thread, and what it starts, runs from now on; where there is none of that number, the
/// last one.
void runOnProcessor(unsigned number);

}  // namespace QOR::bench
