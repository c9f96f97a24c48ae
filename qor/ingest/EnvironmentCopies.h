/// \file
/// Copies of the environments with each of the servers that keep records, for whoever asks a server itself. What
/// clients are answered never rests on them.
#pragma once

#include "QORServers/QORServers.h"

namespace QOR {

/// Brings a server's copies up to date with home. Costs a short select at each where nothing has changed.
/// \throws AException
void copyEnvironments(const QORServer& to);

}  // namespace QOR
