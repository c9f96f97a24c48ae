#include "QORLibAgent/QORIdentities.h"

#include <algorithm>
#include <utility>

#include "QORCommon/QORDigest.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORBinder.h"
#include "QORLibAgent/QORHostTables.h"

namespace QOR {
namespace {

constexpr int notFound = 404;
constexpr std::size_t tokenBytes = 32;
constexpr std::string_view tokenPrefix = "qor_";
constexpr std::size_t mostName = 255;

constexpr std::pair<QORIdentityKind, std::string_view> kinds[] = {{QORIdentityKind::User, "user"},
                                                                  {QORIdentityKind::Group, "group"},
                                                                  {QORIdentityKind::Token, "token"},
                                                                  {QORIdentityKind::Certificate, "certificate"}};

[[noreturn]] void refuse(int code, const std::string& message) {
    throw QORException(code, message, QOR_SOURCE_PATH);
}

bool keepsIdentities(ASSession& session) {
    return hasColumns(session, "qor_identity_change", "'n'", 1);
}

void needTables(ASSession& session) {
    if (!keepsIdentities(session)) refuse(errFailure, "this database keeps no identities: its schema is too old");
}

std::optional<QORIdentityKind> kindOf(ASSession& session, const std::string& name) {
    ASStatement& select = session.prepare("SELECT kind FROM qor_identity WHERE name = ?");
    select.bind(1, std::string_view(name)).execute();
    std::optional<QORIdentityKind> kind;
    if (select.fetch()) kind = static_cast<QORIdentityKind>(select.integer(1));
    select.close();
    return kind;
}

void needName(std::string_view what, const std::string& name) {
    const bool printable = std::none_of(name.begin(), name.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; });
    if (name.empty() || name.size() > mostName || !printable)
        refuse(errBadRequest, std::string(what) + " has 1 to 255 characters, none of them for control");
}

void check(const QORIdentity& identity) {
    needName("the name of an identity", identity.name);
    needName("the subject of an identity", identity.subject);
    if (identity.fullAccess && !identity.environments.empty())
        refuse(errBadRequest, "who has full access is given no environments");
    std::set<QOREID> seen;
    for (const QORIdentityEnvironment& environment : identity.environments) {
        if (!environment.eid.isValid()) refuse(errBadRequest, "an environment has no valid identifier");
        if (!seen.insert(environment.eid).second)
            refuse(errBadRequest, "the environment " + environment.eid.toString() + " is given twice");
    }
}

void checkFree(ASSession& session, const QORIdentity& identity) {
    if (kindOf(session, identity.name)) refuse(errBadRequest, "there is an identity " + quoteText(identity.name));
    ASStatement& select = session.prepare("SELECT name FROM qor_identity WHERE kind = ? AND subject = ?");
    select.bind(1, static_cast<std::int64_t>(identity.kind)).bind(2, std::string_view(identity.subject)).execute();
    const std::string other = select.fetch() ? std::string(select.text(1)) : std::string();
    select.close();
    if (!other.empty())
        refuse(errBadRequest, "the " + std::string(nameOf(identity.kind)) + " " + quoteText(identity.subject) +
                                  " is the identity " + quoteText(other));
}

void removeRows(ASSession& session, const char* sql, const std::string& which) {
    ASStatement& remove = session.prepare(sql);
    remove.bind(1, std::string_view(which)).execute();
}

std::vector<QORTokenEntry> readTokens(ASSession& session) {
    std::vector<QORTokenEntry> tokens;
    ASStatement& select = session.prepare(
        "SELECT digest, name, created, expires, last_use FROM qor_token ORDER BY name, created, digest");
    select.execute();
    const auto optional = [&](unsigned column) {
        return select.isNull(column) ? std::nullopt : std::optional(select.integer(column));
    };
    while (select.fetch())
        tokens.push_back(
            {std::string(select.text(1)), std::string(select.text(2)), select.integer(3), optional(4), optional(5)});
    select.close();
    return tokens;
}

void readEnvironmentsOf(ASSession& session, std::vector<QORIdentity>& identities) {
    // A database that is only read may be of a version without writers.
    const bool knowsWriters = hasColumns(session, "qor_identity_environment", "'writes'", 1);
    ASStatement& select = session.prepare(
        knowsWriters ? "SELECT name, eid, below, writes FROM qor_identity_environment ORDER BY name, position"
                     : "SELECT name, eid, below, 0 FROM qor_identity_environment ORDER BY name, position");
    select.execute();
    while (select.fetch()) {
        const auto place = std::lower_bound(identities.begin(), identities.end(), select.text(1),
                                            [](const QORIdentity& a, std::string_view name) { return a.name < name; });
        QOREID eid;
        if (place == identities.end() || place->name != select.text(1) || !eid.fromString(select.text(2))) continue;
        place->environments.push_back({eid, select.integer(3) != 0, select.integer(4) != 0});
    }
    select.close();
}

bool keepsSessions(ASSession& session) {
    return hasColumns(session, "qor_ended_session", "'id', 'expires'", 2);
}

std::map<std::string, std::int64_t> readEndedSessions(ASSession& session) {
    std::map<std::string, std::int64_t> ended;
    if (!keepsSessions(session)) return ended;
    ASStatement& select = session.prepare("SELECT id, expires FROM qor_ended_session WHERE expires > ?");
    select.bind(1, currentTime()).execute();
    while (select.fetch())
        ended.emplace(select.text(1), select.integer(2));
    select.close();
    return ended;
}

/// Those below one, each once, whatever cycles the tree of parents has.
class Below {
public:
    /// \param asked false: nobody is going to ask
    Below(const QOREnvList& envs, bool asked) {
        if (!asked) return;
        for (const QOREnvList::Env& env : envs) {
            if (env->getParentEID().isValid()) m_children[env->getParentEID()].push_back(env->getEID());
        }
    }
    void add(const QOREID& root, std::set<QOREID>& found) const {
        std::vector<QOREID> left{root};
        while (!left.empty()) {
            const auto children = m_children.find(left.back());
            left.pop_back();
            if (children == m_children.end()) continue;
            for (const QOREID& child : children->second) {
                if (found.insert(child).second) left.push_back(child);
            }
        }
    }

private:
    std::map<QOREID, std::vector<QOREID>> m_children;
};

}  // namespace

std::string_view nameOf(QORIdentityKind kind) noexcept {
    for (const auto& [one, name] : kinds) {
        if (one == kind) return name;
    }
    return "unknown";
}

std::optional<QORIdentityKind> findIdentityKind(std::string_view name) noexcept {
    for (const auto& [kind, text] : kinds) {
        if (text == name) return kind;
    }
    return std::nullopt;
}

QORWriteScope writeScopeOf(const QORIdentity& identity) {
    QORWriteScope scope{identity.name};
    for (const QORIdentityEnvironment& environment : identity.environments) {
        if (environment.writes) (environment.below ? scope.subtrees : scope.single).insert(environment.eid);
    }
    return scope;
}

std::optional<std::int64_t> identityNumber() {
    QORRdbmsTran tran(ASAccess::Read);
    std::optional<std::int64_t> number;
    if (keepsIdentities(*tran)) {
        ASStatement& select = tran->prepare("SELECT n FROM qor_identity_change");
        select.execute();
        if (select.fetch()) number = select.integer(1);
        select.close();
    }
    tran.commit();
    return number;
}

QORIdentityList readIdentities() {
    QORIdentityList list;
    QORRdbmsTran tran(ASAccess::Read);
    if (keepsIdentities(*tran)) {
        ASStatement& select = tran->prepare("SELECT name, kind, subject, full_access FROM qor_identity ORDER BY name");
        select.execute();
        while (select.fetch())
            list.identities.push_back({std::string(select.text(1)),
                                       static_cast<QORIdentityKind>(select.integer(2)),
                                       std::string(select.text(3)),
                                       select.integer(4) != 0,
                                       {}});
        select.close();
        readEnvironmentsOf(*tran, list.identities);
        list.tokens = readTokens(*tran);
        list.endedSessions = readEndedSessions(*tran);
    }
    tran.commit();
    return list;
}

void addIdentity(const QORIdentity& identity) {
    check(identity);
    QORRdbmsTran tran(ASAccess::Write);
    needTables(*tran);
    checkFree(*tran, identity);
    ASStatement& insert =
        tran->prepare("INSERT INTO qor_identity (name, kind, subject, full_access) VALUES (?, ?, ?, ?)");
    QORBinder(insert)
        .text(identity.name)
        .integer(static_cast<std::int64_t>(identity.kind))
        .text(identity.subject)
        .integer(std::int64_t{identity.fullAccess});
    insert.execute();
    std::int64_t position = 0;
    for (const QORIdentityEnvironment& environment : identity.environments) {
        ASStatement& add = tran->prepare(
            "INSERT INTO qor_identity_environment (name, position, eid, below, writes) VALUES (?, ?, ?, ?, ?)");
        QORBinder(add)
            .text(identity.name)
            .integer(position++)
            .eid(environment.eid)
            .integer(std::int64_t{environment.below})
            .integer(std::int64_t{environment.writes});
        add.execute();
    }
    tran.commit();
}

void removeIdentity(const std::string& name) {
    QORRdbmsTran tran(ASAccess::Write);
    needTables(*tran);
    if (!kindOf(*tran, name)) refuse(notFound, "there is no identity " + quoteText(name));
    for (const char* sql :
         {"DELETE FROM qor_token WHERE name = ?", "DELETE FROM qor_identity_environment WHERE name = ?",
          "DELETE FROM qor_identity WHERE name = ?"})
        removeRows(*tran, sql, name);
    tran.commit();
}

std::string createToken(const std::string& name, std::optional<std::int64_t> expires) {
    std::string token = std::string(tokenPrefix) + hexOf(randomBytes(tokenBytes));
    QORRdbmsTran tran(ASAccess::Write);
    needTables(*tran);
    const std::optional<QORIdentityKind> kind = kindOf(*tran, name);
    if (!kind) refuse(notFound, "there is no identity " + quoteText(name));
    if (*kind != QORIdentityKind::Token)
        refuse(errBadRequest, quoteText(name) + " is a " + std::string(nameOf(*kind)) + ", which has no tokens");
    ASStatement& insert = tran->prepare("INSERT INTO qor_token (digest, name, created, expires) VALUES (?, ?, ?, ?)");
    QORBinder(insert).text(digestOfToken(token)).text(name).integer(currentTime()).integer(expires);
    insert.execute();
    tran.commit();
    return token;
}

std::size_t revokeTokens(const std::string& name, const std::string& id) {
    QORRdbmsTran tran(ASAccess::Write);
    needTables(*tran);
    if (!kindOf(*tran, name)) refuse(notFound, "there is no identity " + quoteText(name));
    std::size_t revoked = 0;
    for (const QORTokenEntry& token : readTokens(*tran)) {
        if (token.name != name || (!id.empty() && token.id() != id)) continue;
        removeRows(*tran, "DELETE FROM qor_token WHERE digest = ?", token.digest);
        ++revoked;
    }
    if (revoked == 0)
        refuse(notFound, quoteText(name) + " has no token" + (id.empty() ? std::string() : " " + quoteText(id)));
    tran.commit();
    return revoked;
}

void noteTokenUses(const std::map<std::string, std::int64_t>& uses) {
    if (uses.empty()) return;
    QORRdbmsTran tran(ASAccess::Write);
    for (const auto& [digest, time] : uses) {
        ASStatement& update =
            tran->prepare("UPDATE qor_token SET last_use = ? WHERE digest = ? AND (last_use IS NULL OR last_use < ?)");
        QORBinder(update).integer(time).text(digest).integer(time);
        update.execute();
    }
    tran.commit();
}

void endSession(const std::string& id, std::int64_t expires) {
    QORRdbmsTran tran(ASAccess::Write);
    if (!keepsSessions(*tran)) refuse(errFailure, "this database keeps no ended sessions: its schema is too old");
    ASStatement& remove = tran->prepare("DELETE FROM qor_ended_session WHERE id = ? OR expires <= ?");
    QORBinder(remove).text(id).integer(currentTime());
    remove.execute();
    ASStatement& insert = tran->prepare("INSERT INTO qor_ended_session (id, expires) VALUES (?, ?)");
    QORBinder(insert).text(id).integer(expires);
    insert.execute();
    tran.commit();
}

std::string digestOfToken(std::string_view token) {
    return QORDigest().add(token).hex();
}

QORClientContextPtr contextOf(const QORIdentity& identity, const QOREnvList& envs) {
    std::set<QOREID> all;
    const bool looksBelow = std::any_of(identity.environments.begin(), identity.environments.end(),
                                        [](const QORIdentityEnvironment& environment) { return environment.below; });
    const Below below(envs, looksBelow);
    for (const QORIdentityEnvironment& environment : identity.environments) {
        all.insert(environment.eid);
        if (environment.below) below.add(environment.eid, all);
    }
    QORSIDPtr own;
    QORToken::SidSet others;
    for (const QOREID& eid : all) {
        const auto sid = std::make_shared<const QORLocalSID>(0, 1, eid);
        if (eid == identity.environments.front().eid) {
            own = sid;
        } else {
            others.insert(sid);
        }
    }
    auto context = std::make_shared<QORClientContext>();
    context->fullAccess = identity.fullAccess;
    context->token = std::make_shared<const QORToken>(std::move(own), std::move(others));
    return context;
}

}  // namespace QOR
