/// \file
/// What apt wrote down of what it was asked for: its history with its rotations, as transactions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "ingest/LogFile.h"

namespace QOR {

/// A package that a transaction was about.
struct QORAptPackage {
    std::string action;  ///< "install", "upgrade", "downgrade", "reinstall", "remove", "purge"
    std::string name;
    std::string architecture;
    std::string version;     ///< afterwards, or what was removed
    std::string oldVersion;  ///< before an upgrade or a downgrade
    bool automatic = false;  ///< because another one needs it
};

/// One run of apt that changed something. Texts are UTF-8, whatever bytes the history has.
struct QORAptTransaction {
    std::int64_t time = 0;  ///< of its beginning, in seconds since the epoch
    std::optional<std::int64_t> end{};
    std::string start;           ///< its beginning, as it stands there
    std::string command;         ///< as it was typed; may be empty
    std::string requester;       ///< who asked for it, "NAME (UID)"; empty for root himself
    std::string comment;         ///< the requester's own words
    std::string error;           ///< why it failed; empty where it did not
    std::uint32_t repeated = 0;  ///< how many with the same beginning and command stand before it
    std::vector<QORAptPackage> packages{};
};

struct QORAptHistory : LogReading {
    std::vector<QORAptTransaction> transactions{};  ///< as they stand there, oldest file first
};

/// Reads var/log/apt/history.log below `root` and what logrotate made of it. A transaction without an end may be still
/// at work, or was broken off. Times are this machine's local time there.
/// \param since rotations that were written last before this second are not read
QORAptHistory readAptHistory(const std::filesystem::path& root, std::int64_t since);

}  // namespace QOR
