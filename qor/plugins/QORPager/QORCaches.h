/// \file
/// The caches of the configuration: prefixes under which names are fields of a source.
#pragma once

#include <map>
#include <string>

namespace QOR {

/// One cache that the configuration names. Requests use its prefix only; the rest is read so that what a vocabulary may
/// say of a cache is known in one place, and checked.
struct CacheInfo {
    std::string name;
    std::string info_prefix;
    std::string info_path;
    int sync_timeout = -1;  ///< -1: not configured
    int security_operation = 0;
};

/// Caches by the identifier of their entry in the configuration.
using CacheInfoMap = std::map<std::string, CacheInfo>;

/// Adds the caches that the host's vocabulary names; an entry without an identifier or a name is passed over.
void readCachesFromVoc(CacheInfoMap& caches);

}  // namespace QOR
