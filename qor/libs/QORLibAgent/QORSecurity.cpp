#include "QORLibAgent/QORSecurity.h"

#include <algorithm>
#include <tuple>
#include <typeinfo>
#include <utility>

namespace QOR {

namespace {

auto keyOf(const QORLocalSID& sid) {
    return std::make_tuple(sid.principalType(), sid.principalId(), sid.getEID());
}

thread_local QORClientContextPtr currentContext;

}  // namespace

QORSID::~QORSID() = default;

bool QORLocalSID::equals(const QORSID& other) const noexcept {
    const auto* local = dynamic_cast<const QORLocalSID*>(&other);
    return local != nullptr && keyOf(*this) == keyOf(*local);
}

bool QORLocalSID::less(const QORSID& other) const noexcept {
    const auto* local = dynamic_cast<const QORLocalSID*>(&other);
    if (local != nullptr) return keyOf(*this) < keyOf(*local);
    return typeid(QORLocalSID).before(typeid(other));
}

bool extractObjIdFromSID(const QORSID& sid, QOREID& eid) {
    const auto* local = dynamic_cast<const QORLocalSID*>(&sid);
    if (local == nullptr || local->principalId() != 0) return false;
    if (local->principalType() != 1 && local->principalType() != 2) return false;
    if (!local->getEID().isValid()) return false;
    eid = local->getEID();
    return true;
}

std::shared_ptr<const QORToken> QORToken::getCurrent() {
    return QORAccessChecker::getClientContext()->token;
}

std::set<QOREID> QORClientContext::objects() const {
    std::set<QOREID> eids;
    QOREID eid;
    if (token->ownSID() && extractObjIdFromSID(*token->ownSID(), eid)) eids.insert(eid);
    for (const auto& sid : token->sids()) {
        if (extractObjIdFromSID(*sid, eid)) eids.insert(eid);
    }
    return eids;
}

QORRowAccess::QORRowAccess(const QORClientContext& client)
    : m_full(client.fullAccess), m_owners(client.fullAccess ? std::set<QOREID>() : client.objects()) {}

QORRowAccess QORRowAccess::current() {
    return QORRowAccess(*QORAccessChecker::getClientContext());
}

QORClientContextScope::QORClientContextScope(QORClientContextPtr context)
    : m_previous(std::exchange(currentContext, std::move(context))) {}

QORClientContextScope::~QORClientContextScope() {
    currentContext = std::move(m_previous);
}

QORClientContextPtr QORAccessChecker::getClientContext() {
    if (currentContext) return currentContext;
    static const QORClientContextPtr nobody = std::make_shared<QORClientContext>();
    return nobody;
}

bool QORAccessChecker::hasFullAccess(const QORClientContextPtr& context) {
    return context->fullAccess;
}

int QORAccessChecker::accessCheck(const QORClientContextPtr& context, const std::set<QOREID>& eids, int, int) {
    const QORRowAccess access(*context);
    if (access.isFull()) return accessGranted;
    if (access.owners().empty()) return accessNoIdentity;
    const bool all = std::all_of(eids.begin(), eids.end(), [&](const QOREID& eid) { return access.sees(eid); });
    return all ? accessGranted : accessRefused;
}

}  // namespace QOR
