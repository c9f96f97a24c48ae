/// \file
/// A listening TCP socket.
#pragma once

#include "QORCommon/QORAgentAddress.h"
#include "QORCommon/QORFiles.h"

namespace QOR {

/// Listens at an address in digits, 127.0.0.1 or [::1] for the machine's own programs, 0.0.0.0 or [::] for everybody.
/// What is said over plain HTTP can be read and changed on its way, so that is for the machine's own programs only.
/// Not thread-safe.
class TcpListener {
public:
    /// \throws QORException errFailure naming the address and the reason
    explicit TcpListener(const QORAgentAddress& address);

    /// As if it was to listen there, for sockets that listen already. \throws QORException as the constructor
    static void check(const QORAgentAddress& address);

    /// With the port that was taken, where any was asked for.
    const QORAgentAddress& address() const noexcept { return m_address; }
    /// AF_INET or AF_INET6
    int family() const noexcept { return m_family; }
    /// Hands the socket over.
    int releaseSocket() noexcept { return m_socket.release(); }

private:
    void set(int level, int option) const;
    [[noreturn]] void fail(const std::string& reason) const;

    QORAgentAddress m_address;
    int m_family = 0;
    QORFileDescriptor m_socket;
};

}  // namespace QOR
