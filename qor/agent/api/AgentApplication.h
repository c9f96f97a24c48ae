/// \file
/// The agent's application over HTTP: what becomes of a request is decided here when its head has been read. Its routes
/// stand in AgentRoutes, what they answer in the files beside it.
///
/// Anything that is no route is 404 or 405, and whoever comes over TCP without having said who he is gets 401. These
/// refusals and the health are given without a worker, whatever the workers do. Whatever is answered with a status of
/// 400 or more is a problem document (AgentProblem), but for what /v1/messages answers, which is notation.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORKeptByText.h"
#include "QORCommon/QORMemory.h"
#include "QORLibAgent/QORChangeWatch.h"
#include "agent/api/AgentAccess.h"
#include "agent/api/AgentFields.h"
#include "agent/api/AgentLimits.h"
#include "agent/api/AgentMetrics.h"
#include "agent/api/AgentSelect.h"
#include "agent/api/AgentViews.h"
#include "agent/http/HttpTypes.h"

namespace QOR {

class QORHost;
class AgentAudit;
class QORCollectorSchedule;
class QORForwarder;
class SettingsState;
struct AgentTrace;

/// Who asks is decided for each request when its head has been read (AgentAccess): by the token that it shows, or by
/// who the system says is at the other end, or by the certificate that was shown. Root and the agent's own user have
/// full access; somebody without an entry stands for no environment. One connection is one client: it has its own
/// operator objects for as long as it lasts. Thread-safe.
class AgentApplication final : public HttpApplication {
public:
    /// \param host, collectors outlive the application
    AgentApplication(QORHost& host, QORCollectorSchedule& collectors, const AgentMemory& memory = {});
    ~AgentApplication() override;

    /// Where the number of open connections comes from, for /v1/health, and the server's other counts, which it is
    /// asked for on the server's thread. Before the first connection.
    void setCounters(std::function<std::size_t()> connections, std::function<HttpCounts()> counts) {
        m_connections = std::move(connections);
        m_counts = std::move(counts);
    }
    /// For requests that begin from now on. \param audit null: nobody wants one
    void setAudit(std::shared_ptr<AgentAudit> audit);
    std::shared_ptr<AgentAudit> audit() const;

    /// For those who follow from now on.
    void setFollowing(const AgentFollowSettings& settings);

    /// For requests that begin from now on. What all of them may hold together stays.
    void setMemory(const AgentMemory& memory) noexcept;

    /// Before the first connection. \param settings outlives the application; null: there is nothing to tell
    void setSettingsState(const SettingsState* settings) noexcept { m_settings = settings; }
    const SettingsState* settingsState() const noexcept { return m_settings; }

    /// What this machine knows of itself is brought in by these, which outlive the application.
    QORCollectorSchedule& collectors() const noexcept { return m_collectors; }

    /// Before the first connection. \param forwarder outlives the application; null: nothing is sent on
    void setForwarder(QORForwarder* forwarder) noexcept { m_forwarder = forwarder; }
    QORForwarder* forwarder() const noexcept { return m_forwarder; }

    HttpIdentity identify(const HttpPeer& peer) override;
    HttpPlan plan(const HttpRequest& head, const HttpPeer& peer) override;
    std::unique_ptr<HttpClientHandler> connect(const HttpPeer& peer) override;
    HttpReply errorReply(unsigned status, std::string_view message) override;
    void ended(const HttpEnd& end, const HttpPeer& peer, HttpTrace* trace) override;

    QORHost& host() const noexcept { return m_host; }
    AgentAccess& access() noexcept { return m_access; }
    AgentViews& views() noexcept { return m_views; }
    /// Questions about views that were read, for requests that ask the same again.
    QORKeptByText<AgentKeptSelect>& selects() noexcept { return m_selects; }
    AgentFields& fields() noexcept { return m_fields; }
    /// Tells those who follow that there is something new.
    QORChangeWatch& changes() noexcept { return m_changes; }
    AgentFollowSettings followSettings() const;
    std::chrono::steady_clock::duration uptime() const { return std::chrono::steady_clock::now() - m_start; }
    /// Open ones.
    std::size_t connections() const { return m_connections(); }
    /// All that is known in numbers. The server's thread alone.
    void writeMetrics(PrometheusText& text) const;
    /// Bytes of a body that came packed, when it is unpacked.
    std::size_t bodyLimit() const noexcept { return m_bodyLimit.load(std::memory_order_relaxed); }
    /// An account for the request that comes next.
    QORMemoryAccountPtr newAccount();

private:
    HttpPlan planned(const HttpRequest& head, const HttpPeer& peer, AgentTrace& trace);

    QORHost& m_host;
    QORCollectorSchedule& m_collectors;
    AgentAccess m_access;
    AgentViews m_views;
    QORKeptByText<AgentKeptSelect> m_selects{mostKeptSelects};
    AgentFields m_fields;
    QORChangeWatch m_changes;
    std::atomic<std::size_t> m_requestMemory;
    std::atomic<std::size_t> m_bodyLimit;
    QORMemoryBudget m_memory;
    mutable std::mutex m_mutex;  // guards the two below, for moments
    AgentFollowSettings m_following{};
    std::shared_ptr<AgentAudit> m_audit;
    std::function<std::size_t()> m_connections = [] { return std::size_t{0}; };
    std::function<HttpCounts()> m_counts = [] { return HttpCounts(); };
    QORForwarder* m_forwarder = nullptr;
    const SettingsState* m_settings = nullptr;
    AgentMetrics m_metrics;  // the server's thread's
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

/// A line of detail in the log.
void logReply(const HttpRequest& request, const HttpReply& reply);

}  // namespace QOR
