/// \file
/// Collectors: this machine and its package operations, brought into the host's database.
#pragma once

#include <cstdint>
#include <filesystem>
#include <stop_token>
#include <string>
#include <vector>

#include "ingest/QORIngest.h"

namespace QOR {

struct QORCollectOptions {
    std::filesystem::path root = "/";  ///< the directory that stands for "/"
    QORIngestOptions ingest;
};

struct QORCollectResult {
    /// The environment counts as replaced when it was known, operations as unchanged; an operation is replaced when
    /// it has come to an end since.
    QORIngestResult stored;
    std::uint64_t malformed = 0;          ///< lines of the logs that could not be understood
    std::vector<std::string> unreadable;  ///< log files that could not be read, with the reason
};

/// Stores this machine as an environment and the actions in its package manager's log as its operations. Collecting
/// again adds only what is new. QORRdbms must be open for writing. Failures of the database are in the result.
QORCollectResult collect(const QORCollectOptions& options = {}, const std::stop_token& stop = {});

}  // namespace QOR
