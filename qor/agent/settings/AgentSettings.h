/// \file
/// What the agent can be told, as values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/api/AgentAudit.h"
#include "agent/api/AgentLimits.h"
#include "agent/http/HttpServer.h"
#include "forward/QORForwarder.h"
#include "host/QORMaintenance.h"
#include "host/QORRouter.h"

namespace QOR {

/// Each member is a setting's, or many settings'; which it is says the table (SettingTable.h). What nobody has given is
/// as it is made here. A value; what follows from several settings together is in SettingsMeaning.h.
struct AgentSettings {
    std::string database{};  ///< as people write it; empty: the agent's own
    bool readOnly = false;
    std::string plugIns{};     ///< a folder; empty: those beside the program
    std::string vocabulary{};  ///< a file; empty: none
    std::vector<std::string> listen{};
    std::string socket{};
    HttpCertificateFiles tls{};
    std::vector<std::string> origins{};
    HttpServerOptions server{};  ///< numbers, times and the socket's group; the rest is in the texts above
    QORAnswerLimits answers{};
    AgentMemory memory{};
    AgentFollowSettings following{};
    QORRetentionOptions keep{};
    std::vector<std::string> collect{};
    std::string collectRoot = "/";
    std::vector<std::string> collectLibvirt{};
    std::string forward{};
    QORForwardOptions forwarding{};  ///< the files and the pause; the address is in the text above
    std::uint64_t forwardKeep = std::uint64_t{1} << 30;
    AgentAudit::Options audit{};
    std::string logFile{};
    std::uint64_t logLevel = 2;
};

}  // namespace QOR
