/// \file
/// What has been told of domains, as a position.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "QORCommon/QORGuid.h"
#include "ingest/collectors/LibvirtLife.h"

namespace QOR {

/// A snapshot or checkpoint that is a backup.
struct LibvirtToldBackup {
    std::int64_t time = 0;
    std::string digest;  ///< of its record
};

struct LibvirtToldDomain {
    std::uint64_t number = 0;  ///< of the next change: what tells it from all others of this domain
    LibvirtLife life = LibvirtLife::Unknown;
    LibvirtLife transition = LibvirtLife::Unknown;
    int id = -1;
    bool isPersistent = false;
    std::string digest{};  ///< of its environment's record; empty where it has not been told
    std::string name{};
    /// By whether they are checkpoints, and name.
    std::map<std::pair<bool, std::string>, LibvirtToldBackup> backups{};
};

using LibvirtToldSource = std::map<QOREID, LibvirtToldDomain>;

/// A text of lines, whose words are escaped as paths are. What of it makes no sense is as if it had not been told.
class LibvirtPlace {
public:
    explicit LibvirtPlace(std::string_view position);
    std::string text() const;

    /// Larger than the number of any change so far, also of domains that are no more.
    std::uint64_t next = 1;
    std::map<std::string, LibvirtToldSource, std::less<>> sources;  ///< by URI

private:
    void readLine(std::string_view line);
    LibvirtToldSource* m_source = nullptr;  // while reading
    LibvirtToldDomain* m_domain = nullptr;
};

}  // namespace QOR
