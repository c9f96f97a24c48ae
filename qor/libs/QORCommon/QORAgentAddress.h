/// \file
/// Where an agent listens, as people write it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// `unix:/run/qor/agent.sock`, `http://127.0.0.1:7481`, `https://[::1]:7480`
struct QOR_API QORAgentAddress {
    enum class Scheme : std::uint8_t { Unix, Http, Https };

    Scheme scheme = Scheme::Unix;
    std::string path{};      ///< of a unix socket
    std::string host{};      ///< otherwise: a name or an address; an IPv6 address without its brackets
    std::uint16_t port = 0;  ///< 0, for who listens: one that is free

    bool isUnix() const noexcept { return scheme == Scheme::Unix; }
    /// `host:port`, with brackets where they are needed.
    std::string authority() const;
    /// As it is written.
    std::string text() const;
};

QOR_API QORAgentAddress unixAddress(const std::string& path);

/// \throws QORException errBadRequest that says what is wrong with the text
QOR_API QORAgentAddress readAgentAddress(std::string_view text);

}  // namespace QOR
