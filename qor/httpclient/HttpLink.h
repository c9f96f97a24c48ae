/// \file
/// A connection to somebody who answers HTTP.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "QORCommon/QORAgentAddress.h"

namespace QOR {

struct HttpQuestion {
    std::string_view method{};
    std::string path{};
    std::vector<std::pair<std::string, std::string>> fields{};  ///< beside those of the host and the body
    std::string_view body{};
};

struct HttpAnswer {
    unsigned status = 0;
    std::string body{};
    std::string retryAfter{};  ///< that field, as it came
};

/// Nobody has answered.
class HttpLost : public std::runtime_error {
public:
    explicit HttpLost(const std::string& reason, std::error_code code = {})
        : std::runtime_error(reason), m_code(code) {}
    /// What the system said; none where it was not the system.
    const std::error_code& code() const noexcept { return m_code; }

private:
    std::error_code m_code;
};

/// The answer is larger than it may be.
class HttpTooLarge : public HttpLost {
public:
    using HttpLost::HttpLost;
};

/// HTTP/1.1 over a unix socket, TCP or TLS, one request after the other. What an answer says of other places is not
/// followed. Used by one thread at a time.
class HttpLink {
public:
    struct Bounds {
        std::chrono::milliseconds connect;
        std::chrono::milliseconds send;
        std::chrono::milliseconds answer;  ///< until it is whole
        std::uint64_t body;                ///< bytes of an answer
    };
    /// Asked several times a second while something is waited for; what it ends is lost.
    using IsStopping = std::function<bool()>;

    /// Connects. \param authority file of the certificates that are believed; empty: the system's \throws HttpLost
    HttpLink(const QORAgentAddress& address, const std::string& authority, const Bounds& bounds,
             const IsStopping& isStopping);
    ~HttpLink();
    HttpLink(const HttpLink&) = delete;
    HttpLink& operator=(const HttpLink&) = delete;

    /// \throws HttpLost, HttpTooLarge, after which the connection is of no use
    HttpAnswer ask(const HttpQuestion& question, const IsStopping& isStopping);
    /// False when the other side has said that this was the last request.
    bool isOpen() const noexcept;

private:
    class Work;
    std::unique_ptr<Work> m_work;
};

}  // namespace QOR
