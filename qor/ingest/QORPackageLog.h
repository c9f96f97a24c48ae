/// \file
/// What the package manager wrote down: dpkg's log with its rotations, as actions and their outcomes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ingest/LogFile.h"

namespace QOR {

/// One action on one package.
struct QORPackageAction {
    std::int64_t time = 0;       ///< seconds since the epoch
    std::string line;            ///< as it stands in the log
    std::uint32_t repeated = 0;  ///< how many equal lines stand before it
    std::string action;          ///< "install", "upgrade", "configure", "trigproc", "remove", "purge", "disappear"
    std::string package;
    std::string architecture;  ///< empty where the log does not tell
    std::string version;       ///< what is installed, configured or removed; may be empty
    std::string oldVersion;    ///< what was there before; may be empty
    /// How it ended, from the status lines that follow: 0 done, 1 left half-installed, 2 left half-configured,
    /// 3 left in another state than the action leads to.
    int status = 0;
    std::string state;  ///< the state in which the package was left, where status is not 0
};

struct QORPackageLog : LogReading {
    std::vector<QORPackageAction> actions{};  ///< oldest first
};

/// Reads var/log/dpkg.log below `root` and what logrotate made of it: dpkg.log.1, dpkg.log.2.gz, dpkg.log-20240101.gz.
/// Times are this machine's local time in the log and are taken by the rules of the process's time zone.
QORPackageLog readPackageLog(const std::filesystem::path& root = "/");

/// The rotations of a log, oldest first, the log itself last. A compressed one beside its original is left out.
std::vector<std::filesystem::path> logRotations(const std::filesystem::path& log);

/// Seconds since the epoch of a local time "YYYY-MM-DD HH:MM:SS", nothing when it is none. An hour that the clocks pass
/// through twice is taken as the first, or as the second where that one would lie before `notBefore`.
std::optional<std::int64_t> localTime(std::string_view text, std::int64_t notBefore);

}  // namespace QOR
