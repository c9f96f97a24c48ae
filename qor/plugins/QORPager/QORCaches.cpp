#include "QORPager/QORCaches.h"

#include <optional>
#include <utility>

#include "QORLibLocal/QORVocabulary.h"
#include "QORPager/QORPagerVocabulary.h"

namespace QOR {
namespace {

/// One entry of the caches' category; none when it lacks an identifier or a name.
std::optional<std::pair<std::string, CacheInfo>> readCache(const QORVocIterator& entry) {
    std::string id;
    CacheInfo cache;
    if (entry.getID(id) != 0 || entry.getValue(cache.name, tag::source) != 0) return std::nullopt;
    static_cast<void>(entry.getString("info_prefix", cache.info_prefix));
    static_cast<void>(entry.getString("info_path", cache.info_path));
    static_cast<void>(entry.getInt("sync_timeout", cache.sync_timeout));
    static_cast<void>(entry.getInt("security_operation", cache.security_operation));
    return std::pair(std::move(id), std::move(cache));
}

}  // namespace

void readCachesFromVoc(CacheInfoMap& caches) {
    const QORPtr<const QORVocMap> vocabulary = vocCacheLocal()->getVocabulary();
    QORVocIterator entry;
    if (vocabulary == nullptr || vocabulary->readCategory(cachesCategory, entry) != 0) return;
    if (entry.firstParameter() != 0) return;
    do {
        if (auto cache = readCache(entry)) caches.insert_or_assign(std::move(cache->first), std::move(cache->second));
    } while (entry.nextParameter() == 0);
}

}  // namespace QOR
