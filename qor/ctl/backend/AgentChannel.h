/// \file
/// The bytes between qorctl and an agent, over a unix socket, TCP, or TLS.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "QORCommon/QORAgentAddress.h"
#include "QORCommon/QORFiles.h"

namespace QOR {

/// Where an agent is, and how it is known to be the one.
struct AgentPlace {
    QORAgentAddress address{};
    std::string authority{};    ///< file of the certificates that are believed; empty: the system's
    std::string certificate{};  ///< file of the one that is shown to it; empty: none
    std::string key{};          ///< file of its key
    std::string token{};        ///< that is shown to it; empty: none

    /// As it is called in messages: a unix socket by its path alone.
    std::string name() const { return address.isUnix() ? address.path : address.text(); }
};

/// A connection. One thread may send while another receives. Over TCP its end is a reset: the agent cannot mistake a
/// client that has gone for one that only sends no more, and ends what it does for it.
class AgentChannel {
public:
    /// From now on nobody waits longer than this for an agent that neither takes nor says anything: NoConnection. For
    /// the whole process, before any other thread runs. \param patience seconds, as the person has said it
    static void setPatience(std::int64_t patience) noexcept;
    /// The same where nobody has said how long.
    static void usePatience(std::int64_t patience) noexcept;

    /// Connects. \throws CtlError NoConnection that says what is wrong and what helps
    explicit AgentChannel(const AgentPlace& place);
    ~AgentChannel();
    AgentChannel(const AgentChannel&) = delete;
    AgentChannel& operator=(const AgentChannel&) = delete;

    /// Sends all. \throws std::system_error
    void send(std::string_view bytes);
    /// Waits for some bytes. \returns how many there are, 0 at the end \throws std::system_error; CtlError NoConnection
    /// for an agent that does not take the certificate
    std::size_t receive(std::span<char> room);
    /// Wakes whoever sends or receives.
    void abandon() noexcept;

private:
    class Tls;

    QORFileDescriptor m_socket;
    std::unique_ptr<Tls> m_tls;  ///< null: none is spoken
};

}  // namespace QOR
