/// \file
/// Who may ask and what each may see, as the host's database keeps it for all agents on it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORLibAgent/QORSecurity.h"

namespace QOR {

/// Numbers are stored.
enum class QORIdentityKind : int { User = 1, Group = 2, Token = 3, Certificate = 4 };

/// "user", "group", "token", "certificate"
QOR_API std::string_view nameOf(QORIdentityKind kind) noexcept;
QOR_API std::optional<QORIdentityKind> findIdentityKind(std::string_view name) noexcept;

/// An environment that somebody stands for.
struct QORIdentityEnvironment {
    QOREID eid;
    bool below = false;   ///< and all that are below it in the tree of parents, as that is when he asks
    bool writes = false;  ///< and he may store records about it, and about those below it if he stands for them
    bool operator==(const QORIdentityEnvironment&) const = default;
};

struct QORIdentity {
    std::string name;
    QORIdentityKind kind = QORIdentityKind::Token;
    std::string subject{};  ///< the system's name of a user or a group, a certificate's common name; else the name
    bool fullAccess = false;
    std::vector<QORIdentityEnvironment> environments{};  ///< the first is his own; of no meaning with full access
    bool operator==(const QORIdentity&) const = default;
};

/// What is known of a token; itself it is known to who holds it alone.
struct QORTokenEntry {
    std::string digest;  ///< SHA-256, 64 hexadecimal digits
    std::string name;    ///< of its identity
    std::int64_t created = 0;
    std::optional<std::int64_t> expires{};  ///< seconds since the epoch, as all times here
    std::optional<std::int64_t> lastUse{};

    /// By which people tell it from others of the same identity.
    std::string id() const { return digest.substr(0, 12); }
};

struct QORIdentityList {
    std::vector<QORIdentity> identities;  ///< in the order of their names
    std::vector<QORTokenEntry> tokens;    ///< in the order of their identities' names, the oldest first
    /// Sessions that were ended before their time, by their ids: until when they would have lasted.
    std::map<std::string, std::int64_t> endedSessions{};
};

/// About which environments somebody without full access may store records. A value.
struct QORWriteScope {
    std::string name;             ///< of his identity
    std::set<QOREID> single{};    ///< about these
    std::set<QOREID> subtrees{};  ///< about these and all that are below them
    bool empty() const noexcept { return single.empty() && subtrees.empty(); }
};
QOR_API QORWriteScope writeScopeOf(const QORIdentity& identity);

/// The number that grows with each change of the list; nothing where the database keeps no identities, as other
/// programs' and old ones that are only read. \throws AException
QOR_API std::optional<std::int64_t> identityNumber();
/// \throws AException
QOR_API QORIdentityList readIdentities();
/// Of a database that keeps none: empty. \throws QORException errBadRequest for a name that is taken, what is missing
/// or contradicts itself; AException
QOR_API void addIdentity(const QORIdentity& identity);
/// With its tokens. \throws QORException 404 for a name that there is not; AException
QOR_API void removeIdentity(const std::string& name);
/// \returns the token, which nobody can tell again
/// \throws QORException 404, or errBadRequest for an identity of another kind; AException
QOR_API std::string createToken(const std::string& name, std::optional<std::int64_t> expires);
/// \param id empty: all of the identity's. \returns how many \throws QORException 404 where there is none; AException
QOR_API std::size_t revokeTokens(const std::string& name, const std::string& id);
/// \param uses times by the tokens' digests; older ones than those that are stored change nothing. \throws AException
QOR_API void noteTokenUses(const std::map<std::string, std::int64_t>& uses);

/// For all who read the list: the session is over. \param expires until when it has to be kept. \throws QORException
/// errFailure for a database whose schema is too old; AException
QOR_API void endSession(const std::string& id, std::int64_t expires);

/// What is kept of a token.
QOR_API std::string digestOfToken(std::string_view token);

/// What an identity may see: the one place where identities become what the rest of the host asks.
/// \param envs the environments, in whose tree is looked for those below others
QOR_API QORClientContextPtr contextOf(const QORIdentity& identity, const QOREnvList& envs);

}  // namespace QOR
