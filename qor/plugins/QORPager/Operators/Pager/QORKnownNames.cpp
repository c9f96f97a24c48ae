#include "QORPager/Operators/Pager/QORKnownNames.h"

#include <algorithm>
#include <utility>

namespace QOR {

bool QORKnownNames::IdentityLess::operator()(const QORClientContextPtr& a, const QORClientContextPtr& b) const {
    if (a->fullAccess != b->fullAccess) return b->fullAccess;
    const QORSIDPtr& own = a->token->ownSID();
    const QORSIDPtr& otherOwn = b->token->ownSID();
    if (own == nullptr || otherOwn == nullptr) {
        if ((own == nullptr) != (otherOwn == nullptr)) return own == nullptr;
    } else {
        if (own->less(*otherOwn)) return true;
        if (otherOwn->less(*own)) return false;
    }
    const QORToken::SidSet& sids = a->token->sids();
    const QORToken::SidSet& otherSids = b->token->sids();
    return std::lexicographical_compare(sids.begin(), sids.end(), otherSids.begin(), otherSids.end(), QORToken::Less());
}

bool QORKnownNames::use(const QORClientContextPtr& identity, QORFieldSet& fields) {
    if (m_inUse == identity) return false;
    const IdentityLess less;
    const bool same = m_inUse != nullptr && !less(m_inUse, identity) && !less(identity, m_inUse);
    const QORClientContextPtr before = std::exchange(m_inUse, identity);
    if (same) return false;
    const std::size_t memory = memoryOf(before, fields.demandedCount(), fields.demandedBytes());
    std::vector<std::string> names = fields.takeDemanded();
    bool changed = !names.empty();
    if (changed) {
        m_others.emplace(before, std::move(names));
        m_memoryOfOthers += memory;
    }
    if (const auto found = m_others.find(identity); found != m_others.end()) {
        for (const std::string& name : found->second)
            fields.checkPrefix(name);
        m_memoryOfOthers -= memoryOf(found->first, fields.demandedCount(), fields.demandedBytes());
        m_others.erase(found);
        changed = true;
    }
    return changed;
}

bool QORKnownNames::hasRoomFor(std::string_view name, const QORFieldSet& fields) const {
    if (fields.demandedCount() >= mostNames || name.size() > mostBytes - fields.demandedBytes()) return false;
    const std::size_t memory = memoryOf(m_inUse, fields.demandedCount() + 1, fields.demandedBytes() + name.size());
    return memory <= mostBytesInAll - m_memoryOfOthers;
}

/// What an identity with names takes, roughly: a text and its place for each name, an object for each of its parts.
std::size_t QORKnownNames::memoryOf(const QORClientContextPtr& identity, std::size_t names, std::size_t bytes) {
    constexpr std::size_t ofName = 64;
    constexpr std::size_t ofIdentifier = 128;
    constexpr std::size_t ofIdentity = 512;
    const std::size_t identifiers = identity == nullptr ? 0 : identity->token->sids().size();
    return names == 0 ? 0 : ofIdentity + ofIdentifier * identifiers + ofName * names + bytes;
}

void QORKnownNames::clear() {
    m_inUse.reset();
    m_others.clear();
    m_memoryOfOthers = 0;
}

}  // namespace QOR
