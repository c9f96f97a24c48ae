/// \file
/// Whom qorctl asks, of all that says so.
#pragma once

#include <string>
#include <vector>

#include "backend/Backend.h"

namespace QOR {

/// The connection with what the command line leaves open filled in. What says where to ask goes before what comes
/// later: options (--socket, --agent, --standalone; --context), QOR_AGENT, the current context, the agent of this user
/// or of the machine. The token is that of --token-file, else of QOR_TOKEN, else of the context, if that is what is
/// asked. Where an option says whom to ask, no file of contexts is read. \throws CtlError BadUsage for options that
/// contradict each other, and for what cannot be read
ConnectionOptions chosenConnection(const ConnectionOptions& given);

/// What is wrong with how the token and the certificate's key are kept, as sentences.
std::vector<std::string> warningsOfSecrets(const ConnectionOptions& chosen);

}  // namespace QOR
