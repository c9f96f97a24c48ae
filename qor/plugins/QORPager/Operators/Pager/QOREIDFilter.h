/// \file
/// Which environments a request may go on with.
#pragma once

#include <boost/container/flat_set.hpp>

#include "QORCommon/QORGuid.h"

namespace QOR {

class QOREnv;

/// Identifiers of environments in their order. Most come in that order, and there may be very many.
using QOREIDList = boost::container::flat_set<QOREID>;

/// Lets every environment through until a set of them is given. A request fills one when its filter says something
/// about environments, so that what the filter cannot be evaluated on is told; a source that narrows its rows by
/// environments would ask it. Logs and backups name one environment each by a constant of their own, and do not.
class QOREIDFilter {
public:
    /// \param securityOperation that the client must be allowed on all environments of the set; 0: none
    explicit QOREIDFilter(int securityOperation) noexcept : m_securityOperation(securityOperation) {}

    enum SetResult : int {
        setDone = 0,
        setEmpty = -2,
        setRefused = -3,
        setFailed = -7,
    };
    /// From now on lets only these through, whatever it returns.
    /// \returns setDone; setEmpty for an empty set; setRefused or setFailed when the client's access does not suffice
    SetResult set(QOREIDList eids);

    bool check(const QOREID& eid) const { return !m_active || m_eids.count(eid) != 0; }
    /// \param env null is never let through
    bool check(const QOREnv* env) const;

    bool isActive() const noexcept { return m_active; }
    const QOREIDList& eids() const noexcept { return m_eids; }

private:
    bool m_active = false;
    QOREIDList m_eids;
    int m_securityOperation;
};

}  // namespace QOR
