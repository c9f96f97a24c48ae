/// \file
/// What settings mean together: what fits, and what follows.
#pragma once

#include <string>
#include <vector>

#include "agent/settings/AgentSettings.h"
#include "ingest/QORCollectorSchedule.h"

namespace QOR {

/// The server's options. \param handed sockets that listen already. One whose address the settings name is taken for
/// it, others are listened at besides: TCP by https, on this machine alone by http. With any, nothing is listened at
/// that the settings do not name. \throws QORException errBadRequest for an address that is none, and certificates that
/// are missing or for nothing
HttpServerOptions serverOptions(const AgentSettings& settings, const std::vector<HttpHandedSocket>& handed);

/// Where records are sent on to; only where settings.forward is given. \throws QORException errBadRequest
QORForwardOptions forwardOptions(const AgentSettings& settings);

/// True when clients come over TLS.
bool usesTls(const HttpServerOptions& server) noexcept;

/// What cannot be together. \throws QORException errBadRequest
void checkTogether(const AgentSettings& settings);

/// The connection string of the database that is to be used.
std::string connectionOf(const AgentSettings& settings);

/// The collectors that run by themselves. \throws QORException for one that there is not
std::vector<QORCollectorWish> collectorWishes(const AgentSettings& settings);

}  // namespace QOR
