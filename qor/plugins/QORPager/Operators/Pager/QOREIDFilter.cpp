#include "QORPager/Operators/Pager/QOREIDFilter.h"

#include <utility>

#include "QORLibAgent/QOREnv.h"
#include "QORLibAgent/QORSecurity.h"

namespace QOR {

QOREIDFilter::SetResult QOREIDFilter::set(QOREIDList eids) {
    m_active = true;
    m_eids = std::move(eids);
    if (m_securityOperation != 0) {
        const int result = QORAccessChecker::accessCheck(QORAccessChecker::getClientContext(),
                                                         {m_eids.begin(), m_eids.end()}, m_securityOperation, 1);
        if (result == QORAccessChecker::accessRefused) return setRefused;
        if (result != QORAccessChecker::accessGranted) return setFailed;
    }
    return m_eids.empty() ? setEmpty : setDone;
}

bool QOREIDFilter::check(const QOREnv* env) const {
    return env != nullptr && check(env->getEID());
}

}  // namespace QOR
