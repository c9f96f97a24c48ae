/// \file
/// The names that requests have found under prefixes, kept apart by who asked.
#pragma once

#include <cstddef>
#include <map>
#include <string_view>

#include "QORLibAgent/QORSecurity.h"
#include "QORPager/QORFieldSet.h"

namespace QOR {

/// A name that a request found under a prefix stays known until the client goes, so that it can be sorted by. It stays
/// known to the identity that it was found by: a connection may ask on behalf of several, and none of them is to learn
/// which names another one asks for. What one connection can make the operator keep is bounded by refusing further
/// names. Belongs to one operator object and its field set.
class QORKnownNames {
public:
    /// Names of one identity, and their bytes; identities of a connection that have any.
    static constexpr std::size_t mostNames = 1024;
    static constexpr std::size_t mostBytes = std::size_t{256} << 10;
    static constexpr std::size_t mostIdentities = 32;

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

    QORClientContextPtr m_inUse;
    std::map<QORClientContextPtr, QORFieldSet::Demanded, IdentityLess> m_others;  ///< each of them has names
};

}  // namespace QOR
