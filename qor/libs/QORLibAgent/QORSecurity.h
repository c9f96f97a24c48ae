/// \file
/// Who asks, and what that one may see: security identifiers, tokens, the client context of the serving thread.
#pragma once

#include <memory>
#include <set>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORGuid.h"

namespace QOR {

/// A security identifier. Immutable and shared.
class QOR_API QORSID {
public:
    virtual ~QORSID();
    virtual bool equals(const QORSID& other) const noexcept = 0;
    /// A strict order over identifiers of every class.
    virtual bool less(const QORSID& other) const noexcept = 0;

protected:
    QORSID() = default;
    QORSID(const QORSID&) = default;
    QORSID& operator=(const QORSID&) = default;
};

using QORSIDPtr = std::shared_ptr<const QORSID>;

/// An identifier that this host issued: a principal, and the environment that it stands for.
class QOR_API QORLocalSID final : public QORSID {
public:
    QORLocalSID(int principalId, int principalType, const QOREID& eid)
        : m_principalId(principalId), m_principalType(principalType), m_eid(eid) {}
    int principalId() const noexcept { return m_principalId; }
    int principalType() const noexcept { return m_principalType; }
    const QOREID& getEID() const noexcept { return m_eid; }
    bool equals(const QORSID& other) const noexcept override;
    bool less(const QORSID& other) const noexcept override;

private:
    int m_principalId;
    int m_principalType;
    QOREID m_eid;
};

/// Which environment a SID stands for. \returns false, with eid unchanged, for a SID that stands for none: only local
/// SIDs with principal 0 of type 1 or 2 and a valid environment do.
QOR_API bool extractObjIdFromSID(const QORSID& sid, QOREID& eid);

/// The identities of one client: its own SID and an ordered set of further ones. Immutable and shared.
class QOR_API QORToken {
public:
    struct Less {
        bool operator()(const QORSIDPtr& a, const QORSIDPtr& b) const noexcept { return a->less(*b); }
    };
    using SidSet = std::set<QORSIDPtr, Less>;

    QORToken() = default;
    QORToken(QORSIDPtr own, SidSet others) : m_own(std::move(own)), m_others(std::move(others)) {}

    /// Null when the client has none of its own.
    const QORSIDPtr& ownSID() const noexcept { return m_own; }
    const SidSet& sids() const noexcept { return m_others; }

    /// The token of the client that the calling thread serves; an empty one when it serves none.
    static std::shared_ptr<const QORToken> getCurrent();

private:
    QORSIDPtr m_own;
    SidSet m_others;
};

/// The client that a thread serves. Immutable and shared.
struct QOR_API QORClientContext {
    bool fullAccess = false;
    std::shared_ptr<const QORToken> token = std::make_shared<QORToken>();

    /// The environments that the client's identities stand for.
    std::set<QOREID> objects() const;
};

using QORClientContextPtr = std::shared_ptr<const QORClientContext>;

/// Makes a context that of the calling thread for as long as the object lives. Scopes nest.
class QOR_API QORClientContextScope {
public:
    explicit QORClientContextScope(QORClientContextPtr context);
    ~QORClientContextScope();
    QORClientContextScope(const QORClientContextScope&) = delete;
    QORClientContextScope& operator=(const QORClientContextScope&) = delete;

private:
    QORClientContextPtr m_previous;
};

/// Which records a client may see, the one definition for operators, logs, counters and the cache of environments:
/// those of every environment with full access, else those that belong to one of the environments that its identities
/// stand for. An environment belongs to itself. A record that only mentions or touches such an environment belongs to
/// another, and one that belongs to none is for full access only. Whoever reads records for a client asks this, and
/// nothing else.
class QOR_API QORRowAccess {
public:
    explicit QORRowAccess(const QORClientContext& client);
    /// Of the client that the calling thread serves.
    static QORRowAccess current();

    bool isFull() const noexcept { return m_full; }
    /// Whose records are seen, in the order of the identifiers; of no meaning with full access.
    const std::set<QOREID>& owners() const noexcept { return m_owners; }
    /// \param owner the environment that a record belongs to, invalid for none
    bool sees(const QOREID& owner) const { return m_full || m_owners.contains(owner); }

private:
    bool m_full;
    std::set<QOREID> m_owners;
};

class QOR_API QORAccessChecker {
public:
    /// The context of the calling thread; without a scope one that may see nothing. Never null.
    static QORClientContextPtr getClientContext();
    static bool hasFullAccess(const QORClientContextPtr& context);

    enum Result : int {
        accessGranted = 0,
        accessRefused = 5,     ///< an identifier is not among the client's
        accessNoIdentity = 7,  ///< the client has no identity that stands for an environment
    };
    /// Whether the client may do `operation` on every one of the environments. Every operation is allowed on the
    /// environments that one's identities stand for. \param all must be non-zero: one refusal refuses all
    static int accessCheck(const QORClientContextPtr& context, const std::set<QOREID>& eids, int operation, int all);
};

}  // namespace QOR
