/// \file
/// The names that requests have found under prefixes, kept apart by who asked.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "QORLibAgent/QORSecurity.h"
#include "QORPager/QORFieldSet.h"

namespace QOR {

/// A name that a request found under a prefix stays known until the client goes, so that it can be sorted by. It stays
/// known to the identity that it was found by: a connection may ask on behalf of several, and none of them is to learn
/// which names another one asks for. What one connection can make the operator keep is bounded by refusing further
/// names. Belongs to one operator object and its field set.
class QORKnownNames {
public:
    /// Names of one identity, and their bytes; bytes that all of them take together with those that they belong to.
    static constexpr std::size_t mostNames = 1024;
    static constexpr std::size_t mostBytes = std::size_t{256} << 10;
    static constexpr std::size_t mostBytesInAll = std::size_t{16} << 20;

    /// From now on the set holds the names of this identity, and no other's. \returns whether that changed the set
    bool use(const QORClientContextPtr& identity, QORFieldSet& fields);
    /// Whether the identity in use may make the set hold one more name.
    bool hasRoomFor(std::string_view name, const QORFieldSet& fields) const;
    /// Forgets all of them, when the set has been filled anew.
    void clear();

private:
    struct IdentityLess {
        bool operator()(const QORClientContextPtr& a, const QORClientContextPtr& b) const;
    };

    static std::size_t memoryOf(const QORClientContextPtr& identity, std::size_t names, std::size_t bytes);

    QORClientContextPtr m_inUse;
    /// The names of those that are not in use, and that have any.
    std::map<QORClientContextPtr, std::vector<std::string>, IdentityLess> m_others;
    std::size_t m_memoryOfOthers = 0;
};

}  // namespace QOR
