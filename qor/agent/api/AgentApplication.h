/// \file
/// What the agent answers over HTTP.
///
/// | request                | who           | answer                                                              |
/// |------------------------|---------------|---------------------------------------------------------------------|
/// | POST /v1/messages      | anybody       | the answer to one request in message notation; an operator's errors |
/// |                        |               | are part of it (200), a body that is no request is 400              |
/// | POST /v1/records       | full access   | NDJSON records taken in: counts and the refused lines               |
/// | POST /v1/collect       | full access   | the collectors run now: counts                                      |
/// | GET /v1/views          | anybody       | the database's views and their columns                              |
/// | GET /v1/status         | full access   | what the database is, and which stored documents cannot be read     |
/// | GET /v1/identities     | full access   | who may ask, what each may see, and which tokens there are          |
/// | POST /v1/identities/add, /remove        | full access   |                                                    |
/// | POST /v1/tokens/create, /revoke         | full access   | the former tells the token, once                   |
/// | GET /v1/health         | anybody       | what the agent is made of and how it does                           |
/// | GET /health/ready      | anybody       | 200 when it answers everything, 503 while something fails           |
/// | GET /health/live       | anybody, also | 200                                                                 |
/// |                        | over TCP      |                                                                     |
///
/// Anything else is 404 or 405, and whoever comes over TCP without having said who he is gets 401. These refusals and
/// the health are given without a worker, whatever the workers do. Every error body is an answer in message notation
/// without elements, whose code is the HTTP status where the error is HTTP's.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORMemory.h"
#include "agent/api/AgentAccess.h"
#include "agent/http/HttpTypes.h"

namespace QOR {

class QORHost;

/// How much memory requests may hold, in bytes. What has no room is refused with an error that names the setting.
struct AgentMemory {
    std::size_t oneRequest = std::size_t{256} << 20;
    std::size_t allRequests = std::size_t{1} << 30;
};

/// Who asks is decided for each request when its head has been read (AgentAccess): by the token that it shows, or by
/// who the system says is at the other end, or by the certificate that was shown. Root and the agent's own user have
/// full access; somebody without an entry stands for no environment. One connection is one client: it has its own
/// operator objects for as long as it lasts. Thread-safe.
class AgentApplication final : public HttpApplication {
public:
    /// \param host must outlive the application
    explicit AgentApplication(QORHost& host, const AgentMemory& memory = {});
    ~AgentApplication() override;

    /// Where the number of open connections comes from, for /v1/health. Before the first connection.
    void setConnectionCounter(std::function<std::size_t()> counter) { m_connections = std::move(counter); }

    HttpIdentity identify(const HttpPeer& peer) override;
    HttpPlan plan(const HttpRequest& head, const HttpPeer& peer) override;
    std::unique_ptr<HttpClientHandler> connect(const HttpPeer& peer) override;
    std::string errorBody(unsigned status, std::string_view message) override;

    HttpReply live(bool fullAccess) const;
    HttpReply ready(bool fullAccess) const;
    /// \param fullAccess of who asks
    HttpReply health(bool fullAccess) const;
    AgentAccess& access() noexcept { return m_access; }
    /// An account for the request that comes next.
    QORMemoryAccountPtr newAccount();

private:
    const char* condition() const;

    QORHost& m_host;
    AgentAccess m_access;
    const std::size_t m_requestMemory;
    QORMemoryBudget m_memory;
    std::function<std::size_t()> m_connections = [] { return std::size_t{0}; };
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

}  // namespace QOR
