#include "agent/api/AgentAccess.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <stop_token>
#include <utility>
#include <vector>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORDigest.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "host/QORClientSession.h"

namespace QOR {
namespace {

constexpr auto betweenLooksAtIdentities = std::chrono::milliseconds(250);
/// The system's users and groups change without a word, and uses are written as seldom.
constexpr auto betweenTurns = std::chrono::minutes(1);
constexpr auto firstDelay = std::chrono::milliseconds(250);
constexpr unsigned mostDoublings = 4;
constexpr auto forgetting = std::chrono::minutes(1);
constexpr std::size_t mostAddresses = 4096;
constexpr unsigned unauthorized = 401;
constexpr unsigned forbidden = 403;
constexpr unsigned badRequest = 400;

std::optional<uid_t> userNumber(const std::string& name) {
    std::vector<char> buffer(std::size_t{64} << 10);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
        return std::nullopt;
    return found->pw_uid;
}

std::optional<gid_t> groupNumber(const std::string& name) {
    std::vector<char> buffer(std::size_t{64} << 10);
    group entry{};
    group* found = nullptr;
    if (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
        return std::nullopt;
    return found->gr_gid;
}

bool isRootOrOwn(const HttpPeer& peer) {
    return peer.credentials && (peer.credentials->uid == 0 || peer.credentials->uid == ::geteuid());
}

/// What somebody sees who is in several groups.
std::shared_ptr<const QORIdentity> together(const std::vector<std::shared_ptr<const QORIdentity>>& groups) {
    if (groups.size() == 1) return groups.front();
    auto all = std::make_shared<QORIdentity>(*groups.front());
    for (const auto& one : groups) {
        all->fullAccess = all->fullAccess || one->fullAccess;
        if (one != groups.front()) all->name += "+" + one->name;
        for (const QORIdentityEnvironment& environment : one->environments) {
            // A right of one group is not widened by how far another one's reaches.
            const auto same = std::find_if(all->environments.begin(), all->environments.end(), [&](const auto& mine) {
                return mine.eid == environment.eid && mine.writes == environment.writes;
            });
            if (same == all->environments.end()) {
                all->environments.push_back(environment);
            } else {
                same->below = same->below || environment.below;
            }
        }
    }
    return all;
}

}  // namespace

/// The list with what is looked for in it.
struct AgentAccess::Snapshot {
    using Entry = std::shared_ptr<const QORIdentity>;
    struct Token {
        Entry identity;
        std::string digest;
        std::optional<std::int64_t> expires;
    };

    explicit Snapshot(std::optional<std::int64_t> changes) : change(changes) {}

    static SnapshotPtr read() {
        // In this order: what changes in between is read again.
        auto made = std::make_shared<Snapshot>(identityNumber());
        if (!made->change) return made;
        const QORIdentityList list = readIdentities();
        for (const QORIdentity& identity : list.identities)
            made->add(std::make_shared<const QORIdentity>(identity));
        for (const QORTokenEntry& token : list.tokens) {
            if (const auto owner = made->byName.find(token.name); owner != made->byName.end())
                made->tokens[token.digest] = {owner->second, token.digest, token.expires};
        }
        made->endedSessions = list.endedSessions;
        return made;
    }

    void add(const Entry& entry) {
        byName[entry->name] = entry;
        switch (entry->kind) {
            case QORIdentityKind::User:
                if (const auto number = userNumber(entry->subject)) byUser[*number] = entry;
                break;
            case QORIdentityKind::Group:
                if (const auto number = groupNumber(entry->subject)) byGroup[*number] = entry;
                break;
            case QORIdentityKind::Certificate:
                byCertificate[entry->subject] = entry;
                break;
            case QORIdentityKind::Token:
                break;
        }
    }

    Entry ofToken(const std::string& digest) const {
        // Of what is looked for by order, the beginning of a digest that somebody has guessed may be told by the time
        // that it takes; what is compared is a digest of what he sent, which he cannot choose.
        const auto found = tokens.find(digest);
        if (found == tokens.end() || !isSameDigest(found->second.digest, digest)) return nullptr;
        if (found->second.expires && *found->second.expires <= currentTime()) return nullptr;
        return found->second.identity;
    }

    Entry ofUser(const HttpPeerCredentials& peer) const {
        if (const auto user = byUser.find(peer.uid); user != byUser.end()) return user->second;
        std::vector<Entry> groups;
        for (const gid_t number : peer.groups) {
            if (const auto one = byGroup.find(number); one != byGroup.end()) groups.push_back(one->second);
        }
        std::sort(groups.begin(), groups.end(), [](const Entry& a, const Entry& b) { return a->name < b->name; });
        groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
        return groups.empty() ? nullptr : together(groups);
    }

    /// \returns false for somebody whom nobody knows
    bool resolve(AgentRequester& requester) const {
        const HttpPeer& peer = requester.peer;
        if (!requester.digest.empty()) {
            requester.identity = ofToken(requester.digest);
        } else if (isRootOrOwn(peer)) {
            requester.fullAccess = true;
        } else if (peer.credentials) {
            requester.identity = ofUser(*peer.credentials);
        } else if (const auto entry = byCertificate.find(peer.certificate); entry != byCertificate.end()) {
            requester.identity = entry->second;
        }
        if (requester.identity) requester.fullAccess = requester.identity->fullAccess;
        return requester.identity || (requester.digest.empty() && !peer.overTcp);
    }

    std::optional<std::int64_t> change;  ///< its number; nothing: no identities are kept
    std::map<std::string, Entry> byName;
    std::map<std::string, Entry, std::less<>> byCertificate;
    std::map<uid_t, Entry> byUser;
    std::map<gid_t, Entry> byGroup;
    std::map<std::string, Token> tokens;
    std::map<std::string, std::int64_t> endedSessions;
};

AgentAccess::AgentAccess(bool writes) : m_writes(writes), m_sessions(writes), m_snapshot(Snapshot::read()) {
    m_sessions.takeEnded(m_snapshot->endedSessions);
    m_thread = std::jthread([this](const std::stop_token& stop) { follow(stop); });
}

AgentAccess::~AgentAccess() {
    m_thread.request_stop();
    m_thread.join();
    try {
        storeUses();
    } catch (const std::exception& failure) {
        logMessage(1, "QORAgent", QOR_SOURCE_PATH, __func__, "uses of tokens cannot be stored: %s", failure.what());
    }
}

AgentAccess::SnapshotPtr AgentAccess::current() const {
    const std::lock_guard lock(m_mutex);
    return m_snapshot;
}

AgentAccess::Decision AgentAccess::decide(const HttpRequest& head, const HttpPeer& peer) {
    const SnapshotPtr snapshot = current();
    auto requester = std::make_shared<AgentRequester>();
    requester->peer = peer;
    if (std::optional<Decision> refused = readCredentials(head, peer, *requester)) return std::move(*refused);
    if (!snapshot->resolve(*requester)) {
        return refuse(peer, requester->session           ? "the session's token was revoked or has expired"
                            : !requester->digest.empty() ? "the token is unknown, revoked or expired"
                                                         : "over TCP everybody has to say who he is");
    }
    if (requester->identity) requester->name = requester->identity->name;
    if (const auto token = snapshot->tokens.find(requester->digest); token != snapshot->tokens.end())
        requester->expires = token->second.expires;
    if (!requester->digest.empty()) noteUse(requester->digest);
    const std::string_view as = head.field("X-Qor-As");
    if (as.data() == nullptr) return {requester, 0, {}, {}};
    if (!requester->fullAccess) return {nullptr, forbidden, "X-Qor-As is for full access", {}};
    const auto other = snapshot->byName.find(std::string(as));
    if (other == snapshot->byName.end())
        return {nullptr, badRequest, "X-Qor-As: there is no identity " + quoteText(std::string(as)), {}};
    requester->as = other->first;
    requester->identity = other->second;
    requester->fullAccess = other->second->fullAccess;
    return {requester, 0, {}, {}};
}

std::optional<AgentAccess::Decision> AgentAccess::readCredentials(const HttpRequest& head, const HttpPeer& peer,
                                                                  AgentRequester& requester) {
    constexpr std::string_view scheme = "bearer ";
    const std::string_view shown = head.field("Authorization");
    if (shown.data() != nullptr) {
        const auto fields = std::count_if(head.fields.begin(), head.fields.end(), [](const HttpField& field) {
            return toLowerText(field.name) == "authorization";
        });
        if (fields > 1) return Decision{nullptr, badRequest, "there is more than one Authorization", {}};
        if (toLowerText(shown.substr(0, scheme.size())) != scheme)
            return refuse(peer, "Authorization is \"Bearer TOKEN\"");
        requester.digest = digestOfToken(shown.substr(scheme.size()));
        return std::nullopt;
    }
    const std::optional<std::string_view> cookie = sessionCookieOf(head);
    if (!cookie) return Decision{nullptr, badRequest, "there is more than one cookie of a session", {}};
    if (cookie->data() == nullptr) return std::nullopt;
    const std::optional<AgentSession> session = m_sessions.of(*cookie);
    if (!session) return refuse(peer, "the session is over, or is none of this database's");
    const bool asksOnly = head.method == "GET" || head.method == "HEAD" || head.method == "OPTIONS";
    if (!asksOnly && !isSameDigest(head.field("X-Qor-Csrf"), m_sessions.csrfOf(*cookie)))
        return Decision{nullptr, forbidden, "with a session, this needs X-Qor-Csrf, which GET /v1/session tells", {}};
    requester.digest = session->digest;
    requester.session = session;
    return std::nullopt;
}

/// Guessing is slowed down by those who guess; who has a token that holds is never held up.
AgentAccess::Decision AgentAccess::refuse(const HttpPeer& peer, const std::string& message) {
    const auto now = std::chrono::steady_clock::now();
    if (m_failures.size() >= mostAddresses)
        std::erase_if(m_failures, [&](const auto& one) { return now - one.second.last > forgetting; });
    if (m_failures.size() >= mostAddresses) m_failures.clear();
    Failures& failures = m_failures[peer.address];
    if (now - failures.last > forgetting) failures.count = 0;
    failures.last = now;
    const auto delay = firstDelay * (1U << std::min(failures.count++, mostDoublings));
    ++m_failed;
    if (!m_failureTold || now - *m_failureTold > forgetting) {
        m_failureTold = now;
        logMessage(1, "QORAgent", QOR_SOURCE_PATH, "decide", "a client%s%s is not let in: %s (%zu so far)",
                   peer.overTcp ? " at " : "", peer.address.c_str(), message.c_str(), m_failed);
    }
    return {nullptr, unauthorized, message, delay};
}

QORClientContextPtr AgentAccess::contextOf(const AgentRequester& requester) {
    if (requester.fullAccess) return fullAccessContext();
    if (!requester.identity) return noAccessContext();
    QORPtr<const QOREnvList> envs;
    {
        const QORClientContextScope all(fullAccessContext());
        envs = envCache()->getEnvList();
    }
    {
        const std::lock_guard lock(m_mutex);
        const auto made = m_contexts.find(requester.identity->name);
        if (made != m_contexts.end() && made->second.envs == envs && made->second.identity == *requester.identity)
            return made->second.context;
    }
    QORClientContextPtr context = QOR::contextOf(*requester.identity, *envs);
    const std::lock_guard lock(m_mutex);
    m_contexts[requester.identity->name] = {*requester.identity, envs, context};
    return context;
}

void AgentAccess::noteUse(const std::string& digest) {
    const std::lock_guard lock(m_mutex);
    m_uses[digest] = currentTime();
}

void AgentAccess::refresh() {
    const std::scoped_lock refreshing(m_refreshing);
    if (identityNumber() != current()->change) publish(Snapshot::read());
}

void AgentAccess::publish(SnapshotPtr snapshot) {
    m_sessions.takeEnded(snapshot->endedSessions);
    {
        const std::lock_guard lock(m_mutex);
        m_snapshot.swap(snapshot);
        m_contexts.clear();
    }
    endRevoked(*current());
}

/// Also those whose token or session has expired meanwhile.
void AgentAccess::endRevoked(const Snapshot& snapshot) {
    const std::lock_guard lock(m_mutex);
    for (const Running* const running : m_running) {
        const AgentRequester& was = running->m_requester;
        AgentRequester is;
        is.peer = was.peer;
        is.digest = was.digest;
        bool holds = snapshot.resolve(is) && !(was.session && m_sessions.isOver(*was.session));
        if (holds && !was.as.empty()) {
            const auto other = snapshot.byName.find(was.as);
            holds = is.fullAccess && other != snapshot.byName.end();
            if (holds) is.identity = other->second;
            if (holds) is.fullAccess = is.identity->fullAccess;
        }
        const bool same = holds && is.fullAccess == was.fullAccess && !is.identity == !was.identity &&
                          (!is.identity || *is.identity == *was.identity);
        if (!same && running->m_control != nullptr) running->m_control->cancel(QORRequestControl::End::Revoked);
    }
}

void AgentAccess::storeUses() {
    if (!m_writes) return;
    std::map<std::string, std::int64_t> uses;
    {
        const std::lock_guard lock(m_mutex);
        uses.swap(m_uses);
    }
    noteTokenUses(uses);
}

void AgentAccess::follow(const std::stop_token& stop) {
    std::mutex mutex;
    std::condition_variable_any woken;
    std::unique_lock lock(mutex);
    bool failing = false;
    auto turn = std::chrono::steady_clock::now();
    while (!woken.wait_for(lock, stop, betweenLooksAtIdentities, [&] { return stop.stop_requested(); })) {
        try {
            refresh();
            endRevoked(*current());
            if (std::chrono::steady_clock::now() - turn >= betweenTurns) {
                turn = std::chrono::steady_clock::now();
                storeUses();
                const std::scoped_lock refreshing(m_refreshing);
                publish(Snapshot::read());
            }
            failing = false;
        } catch (const std::exception& failure) {
            if (!failing)
                logMessage(1, "QORAgent", QOR_SOURCE_PATH, __func__, "changed identities cannot be taken in: %s",
                           failure.what());
            failing = true;
        }
    }
}

AgentAccess::Running::Running(AgentAccess& access, const AgentRequester& requester)
    : m_access(access), m_requester(requester), m_control(QORRequestControl::current()) {
    const std::lock_guard lock(m_access.m_mutex);
    m_access.m_running.insert(this);
}

AgentAccess::Running::~Running() {
    const std::lock_guard lock(m_access.m_mutex);
    m_access.m_running.erase(this);
}

}  // namespace QOR
