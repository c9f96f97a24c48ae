/// \file
/// The connection to the agent that records are sent on to.
#pragma once

#include <cstdint>
#include <memory>
#include <stop_token>
#include <string>
#include <string_view>

#include "QORCommon/QORAgentAddress.h"
#include "httpclient/HttpLink.h"

namespace QOR {

/// Where records are sent on to.
struct QORForwardTarget {
    QORAgentAddress address{};
    std::string authority{};  ///< file of the certificates that are believed; empty: the system's
    std::string tokenFile{};  ///< whose first line is the token that is shown; empty: none is
};

struct ForwardReply {
    unsigned status = 0;
    std::string body{};
    std::uint64_t retryAfter = 0;  ///< seconds that were asked for, 0 for none
};

/// HTTP/1.1 over TCP or TLS, one request after the other on one connection for as long as both sides keep it. Used by
/// one thread at a time.
class ForwardConnection {
public:
    explicit ForwardConnection(QORForwardTarget target);
    ~ForwardConnection();
    ForwardConnection(const ForwardConnection&) = delete;
    ForwardConnection& operator=(const ForwardConnection&) = delete;

    /// Sends a body that gzip has packed, and waits for what is answered, for minutes at most. The token is read anew
    /// for each request, so that it may be replaced.
    /// \param stop ends the waiting at once
    /// \throws HttpLost that says why there is no answer; the next request begins with a new connection
    ForwardReply post(const std::string& path, std::string_view packed, const std::stop_token& stop);

private:
    const QORForwardTarget m_target;
    std::unique_ptr<HttpLink> m_link;  ///< null: there is no connection
};

}  // namespace QOR
