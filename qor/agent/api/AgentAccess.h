/// \file
/// Who asks the agent, and what each may see.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "QORLibAgent/QORIdentities.h"
#include "agent/api/AgentSessions.h"
#include "agent/http/HttpTypes.h"

namespace QOR {

class QORRequestControl;

/// Who asks, as it was when his request's head had been read. Immutable.
struct AgentRequester final : HttpRequester {
    std::shared_ptr<const QORIdentity> identity;  ///< what he is as an entry says it; null: there is none
    bool fullAccess = false;
    HttpPeer peer{};
    std::string digest{};                   ///< of the token that he showed, or that his session began with
    std::optional<AgentSession> session{};  ///< whose cookie he showed
    std::optional<std::int64_t> expires{};  ///< that token
    std::string name{};                     ///< of his own identity; empty: he has none
    std::string as{};                       ///< whom he asks as
};

/// Identities as the database keeps them, followed four times a second. What is decided holds for one request; what a
/// request may see no longer ends it. Thread-safe, but for decide(), which is the server's thread's.
class AgentAccess {
public:
    /// \param writes whether uses of tokens may be stored
    explicit AgentAccess(bool writes);
    ~AgentAccess();
    AgentAccess(const AgentAccess&) = delete;
    AgentAccess& operator=(const AgentAccess&) = delete;

    struct Decision {
        std::shared_ptr<const AgentRequester> requester{};  ///< null: he is refused
        unsigned status = 0;
        std::string message{};
        std::chrono::milliseconds delay{0};  ///< before he is told
    };
    /// Asks nobody: neither the database nor the system. A request that shows a session's cookie and may change
    /// something must show that it comes from the session's own page (X-Qor-Csrf) too.
    Decision decide(const HttpRequest& head, const HttpPeer& peer);

    AgentSessions& sessions() noexcept { return m_sessions; }

    /// How many were not let in. Where decide() may be called.
    std::size_t refusals() const noexcept { return m_failed; }

    /// What he may see. May look at all environments.
    QORClientContextPtr contextOf(const AgentRequester& requester);

    /// Takes in what has changed now: for who has changed it. \throws AException
    void refresh();

    /// A request that is ended when its requester may no longer see what he saw, from its making to its end.
    class Running {
    public:
        Running(AgentAccess& access, const AgentRequester& requester);
        ~Running();
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

    private:
        friend class AgentAccess;
        AgentAccess& m_access;
        const AgentRequester& m_requester;
        QORRequestControl* const m_control;
    };

private:
    struct Snapshot;
    using SnapshotPtr = std::shared_ptr<const Snapshot>;
    struct Failures {
        unsigned count = 0;
        std::chrono::steady_clock::time_point last{};
    };
    struct Context {
        QORIdentity identity;
        QORPtr<const QOREnvList> envs;
        QORClientContextPtr context;
    };

    SnapshotPtr current() const;
    /// Whose token or session a request shows, if any. \returns a refusal, or nothing
    std::optional<Decision> readCredentials(const HttpRequest& head, const HttpPeer& peer, AgentRequester& requester);
    Decision refuse(const HttpPeer& peer, const std::string& message);
    void noteUse(const std::string& digest);
    void publish(SnapshotPtr snapshot);
    void endRevoked(const Snapshot& snapshot);
    void follow(const std::stop_token& stop);
    void storeUses();

    const bool m_writes;
    AgentSessions m_sessions;
    std::mutex m_refreshing;
    mutable std::mutex m_mutex;
    SnapshotPtr m_snapshot;                                              // guarded by m_mutex
    std::set<const Running*> m_running;                                  // guarded by m_mutex
    std::map<std::string, std::int64_t> m_uses;                          // guarded by m_mutex; not yet stored
    std::map<std::string, Context> m_contexts;                           // guarded by m_mutex; of this snapshot
    std::map<std::string, Failures> m_failures;                          // decide()'s: of addresses
    std::size_t m_failed = 0;                                            // decide()'s
    std::optional<std::chrono::steady_clock::time_point> m_failureTold;  // decide()'s
    std::jthread m_thread;
};

}  // namespace QOR
