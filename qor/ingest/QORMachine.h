/// \file
/// This machine as an environment.
#pragma once

#include <filesystem>

#include "ingest/QORRecords.h"

namespace QOR {

/// What the system tells about itself: names, release, kernel, addresses, memory, time of the last boot.
/// The identifier comes from the machine's own (/etc/machine-id), or from its host name where it has none; the same
/// every time. \param root the directory that stands for "/" \throws nothing for what cannot be found: it is left out
QOREnvironmentRecord describeMachine(const std::filesystem::path& root = "/");

}  // namespace QOR
