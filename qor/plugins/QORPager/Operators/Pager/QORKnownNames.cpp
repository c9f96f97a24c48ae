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
    QORFieldSet::Demanded names = fields.takeDemanded();
    bool changed = !names.empty();
    if (changed) m_others.insert_or_assign(before, std::move(names));
    if (const auto found = m_others.find(identity); found != m_others.end()) {
        fields.putDemanded(std::move(found->second));
        m_others.erase(found);
        changed = true;
    }
    return changed;
}

bool QORKnownNames::hasRoomFor(std::string_view name, const QORFieldSet& fields) const {
    const bool one = fields.demandedCount() < mostNames && name.size() <= mostBytes - fields.demandedBytes();
    return one && (fields.demandedCount() > 0 || m_others.size() < mostIdentities);
}

void QORKnownNames::clear() {
    m_inUse.reset();
    m_others.clear();
}

}  // namespace QOR
